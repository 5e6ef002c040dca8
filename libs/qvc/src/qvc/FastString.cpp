#include "qvc/FastString.h"

#include "qvc/ByteArray.h"
#include "qvc/ParserHelpers.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <stdexcept>

namespace qvc {
namespace {

constexpr char foldByte(char c) noexcept {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

int signOf(int value) noexcept {
  return (value > 0) - (value < 0);
}

int compareBytes(const char* a, const char* b, size_t count, bool caseSensitive) noexcept {
  if (caseSensitive)
    return signOf(std::memcmp(a, b, count));
  for (size_t i = 0; i < count; ++i) {
    const auto x = static_cast<unsigned char>(foldByte(a[i]));
    const auto y = static_cast<unsigned char>(foldByte(b[i]));
    if (x != y)
      return x < y ? -1 : 1;
  }
  return 0;
}

bool isLeadByte(char c) noexcept {
  return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
}

/// The byte position at which `count` more code points after `from` have passed, at most the size.
size_t advanceU8(std::string_view text, size_t from, size_t count) noexcept {
  size_t pos = from;
  while (pos < text.size() && count > 0) {
    ++pos;
    while (pos < text.size() && !isLeadByte(text[pos]))
      ++pos;
    --count;
  }
  return pos;
}

// The C functions are used for their rules; the locale changes none of them for integers.
template <typename T>
T parseInteger(const std::string& text, unsigned base, size_t* consumed,
               T (*convert)(const char*, char**, int), const char* name) {
  const char* const begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const T value = convert(begin, &end, static_cast<int>(base));
  if (errno == ERANGE)
    throw std::out_of_range(name);
  // A bad base leaves `end` alone.
  const size_t used = end ? static_cast<size_t>(end - begin) : 0;
  if (consumed)
    *consumed = used;
  return used > 0 ? value : 0;
}

enum class ByteClass : uint8_t { Binary, Neutral, Text };

constexpr std::array<ByteClass, 256> ByteClasses = [] {
  std::array<ByteClass, 256> classes{};
  for (size_t i = 0; i < classes.size(); ++i)
    classes[i] = i >= 32 ? ByteClass::Text : ByteClass::Binary;
  for (const size_t i : {9, 10, 13})
    classes[i] = ByteClass::Text;
  for (const size_t i : {7, 8, 11, 12, 26, 27})
    classes[i] = ByteClass::Neutral;
  return classes;
}();

} // namespace

FastString::FastString(const char* data, size_t size, bool) {
  if (data)
    m_text.assign(data, size);
  removeTrailingZeros();
}

void FastString::removeTrailingZeros() {
  const size_t last = m_text.find_last_not_of('\0');
  m_text.resize(last == npos ? 0 : last + 1);
}

int FastString::compare(const char* other, bool caseSensitive, size_t maxLen) const noexcept {
  const size_t otherSize = other ? std::strlen(other) : 0;
  if (isEmpty() || otherSize == 0)
    return static_cast<int>(otherSize == 0) - static_cast<int>(isEmpty());
  const size_t common = std::min(size(), otherSize);
  if (const int difference = compareBytes(data(), other, common, caseSensitive))
    return difference;
  if (common == maxLen || size() == otherSize)
    return 0;
  return size() < otherSize ? -1 : 1;
}

bool FastString::hasPrefix(std::string_view prefix, bool caseSensitive) const noexcept {
  return prefix.size() <= size() && compareBytes(data(), prefix.data(), prefix.size(), caseSensitive) == 0;
}

bool FastString::hasSuffix(std::string_view suffix, bool caseSensitive) const noexcept {
  return suffix.size() <= size() &&
         compareBytes(data() + size() - suffix.size(), suffix.data(), suffix.size(), caseSensitive) == 0;
}

uint64_t FastString::toUInt(unsigned base, size_t* consumed) const {
  if (consumed)
    *consumed = 0;
  if (isEmpty() || first() == '-')
    return 0;
  return parseInteger<unsigned long long>(m_text, base, consumed, std::strtoull, "FastString::toUInt");
}

int64_t FastString::toInt(unsigned base, size_t* consumed) const {
  if (consumed)
    *consumed = 0;
  if (isEmpty())
    return 0;
  return parseInteger<long long>(m_text, base, consumed, std::strtoll, "FastString::toInt");
}

double FastString::toDouble(unsigned, bool commaIsPoint, size_t* consumed) const {
  if (consumed)
    *consumed = 0;
  if (isEmpty())
    return 0.0;
  if (!commaIsPoint || m_text.find(',') == npos)
    return parserhelpers::_parse<double>(m_text, consumed);
  std::string copy = m_text;
  std::replace(copy.begin(), copy.end(), ',', '.');
  return parserhelpers::_parse<double>(copy, consumed);
}

FastString FastString::fromUInt(uint64_t value, unsigned, bool) {
  return std::to_string(value);
}

FastString FastString::fromInt(int64_t value, unsigned, bool) {
  return std::to_string(value);
}

FastString& FastString::appendNumber(long long value) {
  return append(std::to_string(value));
}

size_t FastString::sizeU8() const noexcept {
  return static_cast<size_t>(std::count_if(m_text.begin(), m_text.end(), isLeadByte));
}

FastString FastString::subString(size_t pos, size_t count) const {
  return pos < size() ? FastString(m_text.substr(pos, count)) : FastString();
}

FastString FastString::subStringRange(size_t begin, size_t end) const {
  return begin < end ? subString(begin, end - begin) : FastString();
}

FastString FastString::subStringU8(size_t pos, size_t count) const {
  const size_t begin = advanceU8(m_text, 0, pos);
  return subStringRange(begin, advanceU8(m_text, begin, count));
}

FastString FastString::subStringRangeU8(size_t begin, size_t end) const {
  return begin < end ? subStringU8(begin, end - begin) : FastString();
}

FastString& FastString::replace(size_t pos, size_t count, const FastString& text) {
  m_text.replace(std::min(pos, size()), count, text.m_text);
  return *this;
}

FastString& FastString::replaceAllRef(const FastString& from, const FastString& to) {
  size_t found = from.isEmpty() ? npos : m_text.find(from.m_text);
  if (found == npos)
    return *this;
  // Built anew: replacing in place would move the rest of the text once per hit.
  std::string result;
  size_t begin = 0;
  for (; found != npos; found = m_text.find(from.m_text, begin)) {
    result.append(m_text, begin, found - begin).append(to.m_text);
    begin = found + from.size();
  }
  result.append(m_text, begin);
  m_text = std::move(result);
  return *this;
}

FastString& FastString::erase(size_t pos, size_t count) {
  m_text.erase(std::min(pos, size()), count);
  return *this;
}

FastString& FastString::pushFront(char character, size_t count) {
  m_text.insert(0, count, character);
  return *this;
}

FastString& FastString::pushBack(char character, size_t count) {
  m_text.append(count, character);
  return *this;
}

FastString& FastString::popBack(size_t count) {
  m_text.resize(count < size() ? size() - count : 0);
  return *this;
}

FastString& FastString::trim() {
  stripBOM();
  ltrim(rtrim(m_text));
  return *this;
}

FastString FastString::trim() const {
  FastString copy(*this);
  copy.trim();
  return copy;
}

FastString& FastString::stripBOM() {
  using namespace std::string_view_literals;
  constexpr std::string_view Marks[] = {"\xEF\xBB\xBF"sv, "\xFE\xFF"sv, "\xFF\xFE"sv, "\0\0\xFE\xFF"sv,
                                        "\xFF\xFE\0\0"sv};
  for (const std::string_view mark : Marks)
    if (view().starts_with(mark))
      return erase(0, mark.size());
  return *this;
}

std::vector<FastString> FastString::explode(char separator) const {
  std::vector<FastString> pieces;
  if (size() < 2)
    return pieces;
  size_t begin = first() == separator ? 1 : 0;
  for (size_t end; (end = m_text.find(separator, begin)) != npos; begin = end + 1)
    pieces.push_back(subStringRange(begin, end));
  if (begin < size())
    pieces.push_back(subString(begin));
  return pieces;
}

FastString FastString::quote(char quotation) const {
  if (isEmpty())
    return std::string(2, quotation);
  std::string result;
  result.reserve(size() + 2);
  if (first() != quotation)
    result += quotation;
  result += m_text;
  if (last() != quotation)
    result += quotation;
  return result;
}

FastString FastString::dequote(char quotation) const {
  size_t begin = 0;
  size_t end = size();
  if (begin < end && m_text[begin] == quotation)
    ++begin;
  if (begin < end && m_text[end - 1] == quotation)
    --end;
  return subStringRange(begin, end);
}

ByteArray FastString::toByteArray(bool, bool withTerminator) const {
  return ByteArray(c_str(), std::strlen(c_str()) + (withTerminator ? 1 : 0));
}

bool FastString::isText(const void* data, size_t size) noexcept {
  if (!data)
    return false;
  bool anyText = false;
  const auto* bytes = static_cast<const uint8_t*>(data);
  for (size_t i = 0; i < size; ++i) {
    const ByteClass kind = ByteClasses[bytes[i]];
    if (kind == ByteClass::Binary)
      return false;
    anyText = anyText || kind == ByteClass::Text;
  }
  return anyText;
}

std::ostream& operator<<(std::ostream& out, const FastString& text) {
  return out << text.view();
}

std::string& ltrim(std::string& text) {
  return text.erase(0, text.find_first_not_of(WHITESPACE));
}

std::string& rtrim(std::string& text) {
  const size_t last = text.find_last_not_of(WHITESPACE);
  text.resize(last == std::string::npos ? 0 : last + 1);
  return text;
}

} // namespace qvc
