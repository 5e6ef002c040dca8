#include "mpl/hls/LineText.h"

#include "mpl/hls/TextBuffer.h"

#include <istream>
#include <string>

namespace mpl::hls {

using qvc::FastString;

FastString getLine(std::istream& stream) {
  std::string line;
  std::getline(stream, line);
  if (!line.empty() && line.back() == '\r')
    line.pop_back();
  return FastString(std::move(line));
}

FastString splitString(std::istream& stream, char delimiter) {
  std::string text;
  std::getline(stream, text, delimiter);
  return FastString(std::move(text));
}

FastString getTagName(const FastString& line) {
  return FastString(tagNameOf(line));
}

std::string_view tagNameOf(const FastString& line) noexcept {
  const std::string_view name = line.view().substr(0, line.indexOf(':'));
  return name.empty() ? name : name.substr(1);
}

FastString getTagValue(const FastString& line) {
  return subStringAfter(line, ':');
}

FastString subStringBefore(const FastString& text, char delimiter) {
  return text.left(text.indexOf(delimiter));
}

FastString subStringAfter(const FastString& text, char delimiter) {
  const size_t at = text.indexOf(delimiter);
  return at == FastString::npos ? text : text.subString(at + 1);
}

Attributes parseAttributes(const FastString& value) {
  Attributes attributes;
  TextBuffer buffer(value.view());
  std::istream stream(&buffer);
  while (stream.peek() != std::char_traits<char>::eof()) {
    FastString name = splitString(stream, '=');
    FastString text;
    if (stream.peek() == '"') {
      stream.get();
      text = splitString(stream, '"');
      if (stream.peek() == ',')
        stream.get();
    } else {
      text = splitString(stream, ',');
    }
    if (!name.isEmpty() && !text.isEmpty())
      attributes.emplace(std::move(name), std::move(text));
  }
  return attributes;
}

} // namespace mpl::hls
