#include "mpl/dash/TemplateURI.h"

#include "mpl/Exception.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string>
#include <string_view>
#include <utility>

namespace mpl::dash {

namespace {

[[noreturn]] void fail(std::string_view message, std::string_view detail = {}) {
  throw ArgumentException(std::string(message).append(detail));
}

/// The width of "%0<width>d".
std::size_t readWidth(std::string_view format) {
  const std::string_view digits =
      format.size() >= 4 ? format.substr(2, format.size() - 3) : std::string_view();
  const bool wellFormed =
      !digits.empty() && format.substr(0, 2) == "%0" && format.back() == 'd' &&
      std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
  if (!wellFormed)
    fail("Invalid template format: ", format);
  std::size_t width = 0;
  if (std::from_chars(digits.data(), digits.data() + digits.size(), width).ec != std::errc() ||
      width > TemplateURI::maxLength)
    fail("Invalid template format: ", format);
  return width;
}

/// As printf does with a "0" flag: the sign counts towards the width and stands before the zeros.
void appendNumber(std::string& out, std::int64_t value, std::size_t width) {
  std::array<char, 20> buffer;
  char* const end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value).ptr;
  std::string_view digits(buffer.data(), static_cast<std::size_t>(end - buffer.data()));
  const std::size_t padding = width > digits.size() ? width - digits.size() : 0;
  if (value < 0) {
    out.push_back('-');
    digits.remove_prefix(1);
  }
  out.append(padding, '0').append(digits);
}

} // namespace

qvc::FastString TemplateURI::build(const qvc::FastString& templateText,
                                   const qvc::FastString& representationId, std::int32_t number,
                                   std::int32_t bandwidth, std::int64_t time) {
  std::string out;
  std::string_view rest = templateText.view();
  for (;;) {
    const std::size_t open = rest.find('$');
    out.append(rest.substr(0, open));
    if (open == std::string_view::npos)
      break;
    const std::size_t close = rest.find('$', open + 1);
    if (close == std::string_view::npos)
      fail("Mismatching $-tokens in template URI");

    const std::string_view token = rest.substr(open, close - open + 1);
    std::string_view identifier = token.substr(1, token.size() - 2);
    rest.remove_prefix(close + 1);

    const std::size_t percent = identifier.find('%');
    const bool haveWidth = percent != std::string_view::npos;
    std::size_t width = 1;
    if (haveWidth) {
      width = readWidth(identifier.substr(percent));
      identifier = identifier.substr(0, percent);
    }

    if (token == "$$")
      out.push_back('$');
    else if (identifier == "RepresentationID" && !haveWidth)
      out.append(representationId.view());
    else if (identifier == "Number")
      appendNumber(out, number, width);
    else if (identifier == "Bandwidth")
      appendNumber(out, bandwidth, width);
    else if (identifier == "Time")
      appendNumber(out, time, width);
    else
      fail("Invalid template: ", token);

    if (out.size() > maxLength)
      fail("Expanded template URI is too long");
  }
  if (out.size() > maxLength)
    fail("Expanded template URI is too long");
  return qvc::FastString(std::move(out));
}

} // namespace mpl::dash
