#include "platform/transfer/URLRequest.h"

#include "platform/foundation/ASCII.h"
#include "platform/transfer/internal/HTTPRules.h"

#include <algorithm>
#include <array>

namespace platform {

namespace {

std::optional<std::string> valueIn(const HTTPHeaders& headers, std::string_view field) {
  const auto it = headers.find(field);
  return it == headers.end() ? std::nullopt : std::optional(it->second);
}

struct StatusText {
  int code;
  const char* text;
};

// Sorted by code.
constexpr std::array statusTexts = std::to_array<StatusText>({
    {100, "continue"},
    {101, "switching protocols"},
    {102, "processing"},
    {103, "early hints"},
    {200, "no error"},
    {201, "created"},
    {202, "accepted"},
    {203, "non-authoritative information"},
    {204, "no content"},
    {205, "reset content"},
    {206, "partial content"},
    {207, "multi-status"},
    {208, "already reported"},
    {226, "im used"},
    {300, "multiple choices"},
    {301, "moved permanently"},
    {302, "found"},
    {303, "see other"},
    {304, "not modified"},
    {305, "needs proxy"},
    {307, "temporarily redirected"},
    {308, "permanently redirected"},
    {400, "bad request"},
    {401, "unauthorized"},
    {402, "payment required"},
    {403, "forbidden"},
    {404, "not found"},
    {405, "method not allowed"},
    {406, "unacceptable"},
    {407, "proxy authentication required"},
    {408, "request timed out"},
    {409, "conflict"},
    {410, "no longer exists"},
    {411, "length required"},
    {412, "precondition failed"},
    {413, "request too large"},
    {414, "requested URL too long"},
    {415, "unsupported media type"},
    {416, "requested range not satisfiable"},
    {417, "expectation failed"},
    {421, "misdirected request"},
    {422, "unprocessable content"},
    {423, "locked"},
    {424, "failed dependency"},
    {425, "too early"},
    {426, "upgrade required"},
    {428, "precondition required"},
    {429, "too many requests"},
    {431, "request header fields too large"},
    {451, "unavailable for legal reasons"},
    {500, "internal server error"},
    {501, "unimplemented"},
    {502, "bad gateway"},
    {503, "service unavailable"},
    {504, "gateway timed out"},
    {505, "unsupported version"},
    {506, "variant also negotiates"},
    {507, "insufficient storage"},
    {508, "loop detected"},
    {510, "not extended"},
    {511, "network authentication required"},
});

constexpr std::array classTexts = {"informational", "success", "redirected", "client error", "server error"};

} // namespace

bool HeaderNameLess::operator()(std::string_view a, std::string_view b) const {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                      [](char x, char y) { return asciiLowered(x) < asciiLowered(y); });
}

std::optional<std::string> URLRequest::valueForHTTPHeaderField(std::string_view field) const {
  return valueIn(_headers, field);
}

std::optional<std::string> HTTPURLResponse::valueForHTTPHeaderField(std::string_view field) const {
  return valueIn(_headers, field);
}

std::optional<std::int64_t> HTTPURLResponse::lastModifiedSeconds() const {
  const auto text = valueForHTTPHeaderField("Last-Modified");
  return text ? transfer::parseDate(*text) : std::nullopt;
}

std::optional<std::string> HTTPURLResponse::localizedStringForStatusCode(int statusCode) {
  const auto it = std::lower_bound(statusTexts.begin(), statusTexts.end(), statusCode,
                                   [](const StatusText& entry, int code) { return entry.code < code; });
  if (it != statusTexts.end() && it->code == statusCode)
    return it->text;
  if (statusCode < 100 || statusCode > 599)
    return std::nullopt;
  return classTexts[static_cast<std::size_t>(statusCode / 100 - 1)];
}

} // namespace platform
