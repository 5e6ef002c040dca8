#include "qvc/ParserHelpers.h"

#include <algorithm>
#include <charconv>
#include <istream>
#include <locale>
#include <streambuf>
#include <system_error>
#include <type_traits>

namespace qvc::parserhelpers {
namespace {

// Reads the caller's bytes in place; a string stream would copy the whole rest of a text for one number.
class TextBuffer : public std::streambuf {
public:
  explicit TextBuffer(std::string_view text) {
    char* begin = const_cast<char*>(text.data()); // Only ever read through: nothing is put back or written.
    setg(begin, begin, begin + text.size());
  }
  size_t consumed() const { return static_cast<size_t>(gptr() - eback()); }
};

/// The usual form of a number, "12" or "9.009", without the set-up of a stream. Answers the bytes used; 0
/// leaves the text to the stream, which decides about everything else and gives the same value for these.
size_t parsePlainDecimal(std::string_view text, double& value) {
  constexpr std::string_view digits = "0123456789";
  constexpr size_t enough = 17; // longer ones are rare, and may be out of range
  const std::string_view head = text.substr(0, enough + 2);
  size_t end = std::min(head.find_first_not_of(digits), head.size());
  if (end == 0)
    return 0;
  if (end < head.size() && head[end] == '.')
    end = std::min(head.find_first_not_of(digits, end + 1), head.size());
  if (end > enough || (end < text.size() && (text[end] == 'e' || text[end] == 'E')))
    return 0;
  const auto result = std::from_chars(text.data(), text.data() + end, value);
  return result.ec == std::errc() && result.ptr == text.data() + end ? end : 0;
}

} // namespace

template <typename T> T _parse(std::string_view text, size_t* consumed) {
  if (consumed)
    *consumed = 0;
  if constexpr (std::is_same_v<T, double>) {
    double value;
    if (const size_t used = parsePlainDecimal(text, value)) {
      if (consumed)
        *consumed = used;
      return value;
    }
  }
  TextBuffer buffer(text);
  std::istream stream(&buffer);
  stream.imbue(std::locale::classic());
  T value{};
  if (!(stream >> value))
    return T{};
  if (consumed)
    *consumed = buffer.consumed();
  return value;
}

template float _parse<float>(std::string_view, size_t*);
template double _parse<double>(std::string_view, size_t*);
template int32_t _parse<int32_t>(std::string_view, size_t*);
template uint32_t _parse<uint32_t>(std::string_view, size_t*);
template int64_t _parse<int64_t>(std::string_view, size_t*);
template uint64_t _parse<uint64_t>(std::string_view, size_t*);

} // namespace qvc::parserhelpers
