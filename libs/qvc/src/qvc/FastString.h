#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace qvc {

class ByteArray;

/// Space, tab, line feed, vertical tab, form feed, carriage return: what trimming removes.
inline constexpr std::string_view WHITESPACE{" \t\n\v\f\r"};

/// The library's text: an owned byte string, UTF-8 by convention. A value like std::string, which it wraps;
/// not synchronised.
///
/// Sizes and positions count bytes; operations that end in `U8` count code points, where every byte that is
/// not a continuation byte (10xxxxxx) begins a code point, so that they are defined on broken UTF-8 too.
/// Positions and counts beyond the end are cut to the end. Null pointers stand for an empty text.
///
/// `compare`, `equals`, `==` and `!=` read the other operand as zero-terminated: a zero byte inside it ends
/// it.
/// `<`, `>` and the hash take all bytes. Ignoring case folds ASCII letters only.
class FastString {
public:
  /// "Not found", and "to the end" as a count or an end position.
  static constexpr size_t npos = static_cast<size_t>(-1);

  FastString() noexcept = default;
  FastString(std::nullptr_t) noexcept {}
  FastString(const char* text) {
    if (text)
      m_text = text;
  }
  FastString(const std::string& text) : m_text(text) {}
  FastString(std::string&& text) noexcept : m_text(std::move(text)) {}
  explicit FastString(std::string_view text) : m_text(text) {}
  /// Copies `size` bytes, then removes every trailing zero byte. The flag has no effect.
  FastString(const char* data, size_t size, bool flag = false);
  /// From bytes as they are or, with `utf16`, from UTF-16 units in the machine's byte order (an odd last byte
  /// is dropped); then every trailing zero byte is removed. The flag has no effect. Throws
  /// utf8::invalid_utf16.
  FastString(const ByteArray& bytes, bool utf16, bool flag = false);
  /// From code points. Throw utf8::invalid_code_point.
  FastString(const wchar_t* text);
  FastString(const wchar_t* data, size_t size);
  FastString(const std::wstring& text);
  FastString(const char32_t* text);
  FastString(wchar_t character, size_t count);
  /// From UTF-16. Throws utf8::invalid_utf16.
  FastString(const char16_t* data, size_t size);

  size_t size() const noexcept { return m_text.size(); }
  size_t length() const noexcept { return m_text.size(); }
  size_t sizeU8() const noexcept;
  bool isEmpty() const noexcept { return m_text.empty(); }
  /// The same as isEmpty(): a text has no null apart from the empty one.
  bool isNull() const noexcept { return m_text.empty(); }
  const char* c_str() const noexcept { return m_text.c_str(); }
  const char* data() const noexcept { return m_text.data(); }
  char* data() noexcept { return m_text.data(); }
  const std::string& toStdString() const& noexcept { return m_text; }
  std::string toStdString() && noexcept { return std::move(m_text); }
  /// Throws utf8::invalid_utf8 (or a sibling of it) on broken UTF-8.
  std::wstring toStdWString() const;
  /// Valid until the text changes.
  std::string_view view() const noexcept { return m_text; }
  char operator[](size_t index) const { return m_text[index]; }
  char& operator[](size_t index) { return m_text[index]; }
  std::string::const_iterator begin() const noexcept { return m_text.begin(); }
  std::string::const_iterator end() const noexcept { return m_text.end(); }
  /// The first or last byte, 0 for an empty text.
  char first() const noexcept { return m_text.empty() ? '\0' : m_text.front(); }
  char last() const noexcept { return m_text.empty() ? '\0' : m_text.back(); }

  /// -1, 0 or +1. `maxLen` does not shorten the comparison; it makes two texts whose common part is exactly
  /// `maxLen` bytes and equal count as equal, whatever follows in the longer one.
  int compare(const char* other, bool caseSensitive = true, size_t maxLen = npos) const noexcept;
  int compare(const FastString& other, bool caseSensitive = true, size_t maxLen = npos) const noexcept {
    return compare(other.c_str(), caseSensitive, maxLen);
  }
  bool equals(const char* other, bool caseSensitive = true) const noexcept {
    return compare(other, caseSensitive, npos) == 0;
  }
  bool equals(const FastString& other, bool caseSensitive = true) const noexcept {
    return compare(other.c_str(), caseSensitive, npos) == 0;
  }
  bool startsWith(const FastString& prefix, bool caseSensitive = true) const noexcept {
    return hasPrefix(prefix.view(), caseSensitive);
  }
  bool startsWith(const char* prefix, bool caseSensitive = true) const noexcept {
    return hasPrefix(prefix ? std::string_view(prefix) : std::string_view(), caseSensitive);
  }
  bool endsWith(const FastString& suffix, bool caseSensitive = true) const noexcept {
    return hasSuffix(suffix.view(), caseSensitive);
  }
  bool endsWith(const char* suffix, bool caseSensitive = true) const noexcept {
    return hasSuffix(suffix ? std::string_view(suffix) : std::string_view(), caseSensitive);
  }

  /// The first position at or after `from`, or npos.
  size_t indexOf(const FastString& text, size_t from = 0) const noexcept {
    return m_text.find(text.m_text, from);
  }
  size_t indexOf(const char* text, size_t from = 0) const noexcept {
    return m_text.find(text ? text : "", from);
  }
  size_t indexOf(char character, size_t from = 0) const noexcept { return m_text.find(character, from); }
  size_t lastIndexOf(char character) const noexcept { return m_text.rfind(character); }
  bool contains(const FastString& text) const noexcept { return indexOf(text, 0) != npos; }
  bool contains(const char* text) const noexcept { return indexOf(text, 0) != npos; }
  bool contains(char character) const noexcept { return indexOf(character, 0) != npos; }

  /// A leading number; 0 (and 0 consumed) when there are no digits. White space before it is skipped; in base
  /// 16 and 0 "0x" is accepted. `*consumed` (if not null) is the number of bytes used. `toUInt` takes a text
  /// whose first byte is "-" for 0. Throw std::out_of_range when the number does not fit, `*consumed` is then
  /// 0.
  uint64_t toUInt(unsigned base = 10, size_t* consumed = nullptr) const;
  int64_t toInt(unsigned base = 10, size_t* consumed = nullptr) const;
  /// A leading decimal number, with "," taken for "." if `commaIsPoint`; 0.0 and 0 consumed when there is
  /// none or it is out of range. The base has no effect.
  double toDouble(unsigned base = 10, bool commaIsPoint = false, size_t* consumed = nullptr) const;
  /// Decimal text, whatever the base and the flag.
  static FastString fromUInt(uint64_t value, unsigned base = 10, bool flag = false);
  static FastString fromInt(int64_t value, unsigned base = 10, bool flag = false);
  FastString& appendNumber(long long value);

  /// printf formatting; text arguments and the result are UTF-8. An output that printf itself refuses (a wide
  /// argument that is no text, more than 2 GiB) gives an empty text.
  static FastString format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
  static FastString format(const wchar_t* fmt, ...);
  static FastString format(const char32_t* fmt, ...);

  FastString subString(size_t pos, size_t count = npos) const;
  /// The bytes of [begin, end).
  FastString subStringRange(size_t begin, size_t end = npos) const;
  FastString subStringU8(size_t pos, size_t count = npos) const;
  FastString subStringRangeU8(size_t begin, size_t end = npos) const;
  FastString left(size_t count) const { return subString(0, count); }
  FastString right(size_t count) const { return count < size() ? subString(size() - count) : *this; }

  /// In place; they return this text.
  FastString& replace(size_t pos, size_t count, const FastString& text);
  /// An empty `from` changes nothing; what a replacement brings in is not looked at again.
  FastString& replaceAllRef(const FastString& from, const FastString& to);
  FastString& insert(size_t pos, const FastString& text) { return replace(pos, 0, text); }
  FastString& erase(size_t pos, size_t count = npos);
  void resize(size_t size, char fill = '\0') { m_text.resize(size, fill); }
  void reserve(size_t size) { m_text.reserve(size); }
  size_t capacity() const noexcept { return m_text.capacity(); }
  void shrinkToFit() { m_text.shrink_to_fit(); }
  void clear() noexcept { m_text.clear(); }
  FastString& pushFront(char character, size_t count = 1);
  FastString& pushBack(char character, size_t count = 1);
  FastString& popFront(size_t count = 1) { return erase(0, count); }
  FastString& popBack(size_t count = 1);

  FastString replaceAllCopy(const FastString& from, const FastString& to) const {
    return FastString(*this).replaceAllRef(from, to);
  }

  FastString& append(const FastString& text) { return append(text.view()); }
  FastString& append(std::string_view text) {
    m_text.append(text);
    return *this;
  }
  FastString& append(const std::string& text) { return append(std::string_view(text)); }
  FastString& append(const char* text) {
    if (text)
      m_text.append(text);
    return *this;
  }
  FastString& append(const char* text, size_t size) {
    if (text)
      m_text.append(text, size);
    return *this;
  }
  FastString& append(char character) {
    m_text.push_back(character);
    return *this;
  }
  FastString& append(const char32_t* text);
  FastString& append(const wchar_t* text);
  template <typename T> FastString& operator+=(const T& text) { return append(text); }

  /// Removes a byte-order mark, then white space at both ends. On a changeable text in place, on a const one
  /// as a copy.
  FastString& trim();
  FastString trim() const;
  /// Removes one byte-order mark. The UTF-16 marks are tried before the UTF-32 ones, so a little-endian
  /// UTF-32 mark loses its first two bytes only.
  FastString& stripBOM();

  /// The pieces between the separators. A separator in the first or last byte makes no empty piece, two in a
  /// row do; a text of fewer than two bytes has no pieces.
  std::vector<FastString> explode(char separator) const;
  /// A copy with `quotation` at both ends, added only where it is missing.
  FastString quote(char quotation) const;
  /// A copy without one leading and one trailing `quotation`, where present.
  FastString dequote(char quotation) const;

  /// The bytes up to the first zero byte; the first flag has no effect.
  ByteArray toByteArray(bool flag = false, bool withTerminator = false) const;
  static FastString arrayToHex(const ByteArray& bytes, bool upperCase = false);
  /// Two digits per byte; a lone last digit makes a byte of its own. Throws as hexToChar does.
  static ByteArray hexToArray(const FastString& text);
  static FastString charToHex(uint8_t byte, bool upperCase = false);
  /// Throws std::runtime_error ("stream decode failure") when the text does not begin with a hexadecimal
  /// number.
  static uint8_t hexToChar(const FastString& text);
  /// Whether the bytes look like text: at least one text byte, no binary control byte.
  static bool isText(const void* data, size_t size) noexcept;

  friend bool operator==(const FastString& a, const FastString& b) noexcept {
    const size_t n = a.size();
    return b.size() >= n && b.c_str()[n] == '\0' &&
           std::char_traits<char>::compare(a.data(), b.data(), n) == 0 && a.m_text.find('\0') == npos;
  }
  friend bool operator==(const FastString& a, const char* b) noexcept {
    return a.m_text == (b ? std::string_view(b) : std::string_view());
  }
  friend bool operator<(const FastString& a, const FastString& b) noexcept { return a.m_text < b.m_text; }
  friend bool operator>(const FastString& a, const FastString& b) noexcept { return b.m_text < a.m_text; }

private:
  bool hasPrefix(std::string_view prefix, bool caseSensitive) const noexcept;
  bool hasSuffix(std::string_view suffix, bool caseSensitive) const noexcept;
  void removeTrailingZeros();

  std::string m_text;
};

template <typename T> FastString operator+(const FastString& a, const T& b) {
  return FastString(a) += b;
}
template <typename T> FastString operator+(FastString&& a, const T& b) {
  return std::move(a += b);
}
inline FastString operator+(const char* a, const FastString& b) {
  return FastString(a) += b;
}
inline FastString operator+(const std::string& a, const FastString& b) {
  return FastString(a) += b;
}
inline FastString operator+(char a, const FastString& b) {
  return FastString(std::string(1, a)) += b;
}
inline FastString operator+(const char32_t* a, const FastString& b) {
  return FastString(a) += b;
}

std::ostream& operator<<(std::ostream& out, const FastString& text);

/// Remove WHITESPACE at the start or the end, in place; they return `text`.
std::string& ltrim(std::string& text);
std::string& rtrim(std::string& text);

} // namespace qvc

template <> struct std::hash<qvc::FastString> {
  size_t operator()(const qvc::FastString& text) const noexcept {
    return std::hash<std::string_view>()(text.view());
  }
};
