#include "qvc/ParserHelpers.h"

#include <istream>
#include <locale>
#include <streambuf>

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

} // namespace

template <typename T> T _parse(std::string_view text, size_t* consumed) {
  if (consumed)
    *consumed = 0;
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
