#pragma once

#include "platform/foundation/URL.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// Orders header names without regard to ASCII letter case.
struct HeaderNameLess {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const;
};
using HTTPHeaders = std::map<std::string, std::string, HeaderNameLess>;

/// A request for one URL. Value type.
class URLRequest {
public:
  explicit URLRequest(URL url) : _url(std::move(url)) {}

  const platform::URL& url() const { return _url; }
  const std::string& HTTPMethod() const { return _method; }
  void setHTTPMethod(std::string method) { _method = std::move(method); }

  /// Header names are case-insensitive; setting one replaces it.
  void setValueForHTTPHeaderField(std::string value, const std::string& field) {
    _headers[field] = std::move(value);
  }
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
  const HTTPHeaders& allHTTPHeaderFields() const { return _headers; }

private:
  platform::URL _url;
  std::string _method = "GET";
  HTTPHeaders _headers;
};

/// The head of an HTTP response. Immutable value.
class HTTPURLResponse {
public:
  HTTPURLResponse(platform::URL url, int statusCode, HTTPHeaders headers)
      : _url(std::move(url)), _statusCode(statusCode), _headers(std::move(headers)) {}

  const platform::URL& url() const { return _url; } ///< after redirects
  int statusCode() const { return _statusCode; }
  const HTTPHeaders& allHeaderFields() const { return _headers; }
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
  /// The date of Last-Modified, in seconds since 1970; nothing without a date that can be read.
  std::optional<std::int64_t> lastModifiedSeconds() const;

  /// The platform's text for a status code ("not found"); nothing when it has none.
  static std::optional<std::string> localizedStringForStatusCode(int statusCode);

private:
  platform::URL _url;
  int _statusCode;
  HTTPHeaders _headers;
};

} // namespace platform
