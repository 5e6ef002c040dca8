#include "platform/transfer/internal/ResponseHead.h"

#include <charconv>
#include <utility>

namespace platform::transfer {

bool HeadReader::line(std::string_view line) {
  if (_settled)
    return false; // a trailer after the body
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n'))
    line.remove_suffix(1);
  if (line.starts_with("HTTP/")) {
    _head = {};
    _complete = false;
    auto space = line.find(' ');
    if (space != std::string_view::npos && line.size() >= space + 4)
      std::from_chars(line.data() + space + 1, line.data() + space + 4, _head.status);
    return false;
  }
  if (line.empty()) {
    if (_head.status < 200)
      return false;
    _complete = true;
    return _head.status != 401 || !std::exchange(_firstRefusalIsOurs, false);
  }
  auto colon = line.find(':');
  if (colon == std::string_view::npos)
    return false;
  std::string name(line.substr(0, colon));
  auto value = line.substr(colon + 1);
  while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
    value.remove_prefix(1);
  while (!value.empty() && (value.back() == ' ' || value.back() == '\t'))
    value.remove_suffix(1);
  auto& field = _head.headers[std::move(name)];
  if (field.empty())
    field = value;
  else
    (field += ", ") += value;
  return false;
}

bool HeadReader::settle() {
  if (!std::exchange(_complete, false))
    return false;
  return _settled = true;
}

} // namespace platform::transfer
