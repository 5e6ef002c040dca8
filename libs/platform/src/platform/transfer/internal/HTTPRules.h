#pragma once

#include "platform/transfer/URLRequest.h"

#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace platform::transfer {

/// One byte range of a "Range: bytes=…" header.
struct ByteRange {
  std::int64_t first = -1;  ///< -1 in the suffix form ("-500")
  std::int64_t last = -1;   ///< inclusive; -1 when open ("500-"). May lie beyond the end of the resource.
  std::int64_t suffix = -1; ///< length of the suffix form, else -1
};

/// Nothing for other units, for several ranges, and for text that is no range.
std::optional<ByteRange> parseRange(std::string_view text);

/// "Content-Range: bytes first-last/total"; `first` and `last` are -1 in the unsatisfied form ("*/total"),
/// `total` is -1 when the server does not know it.
struct ContentRange {
  std::int64_t first = -1;
  std::int64_t last = -1;
  std::int64_t total = -1;
};
std::optional<ContentRange> parseContentRange(std::string_view text);

/// A header value of decimal digits only.
std::optional<std::int64_t> parseLength(std::string_view text);

/// A date of a header, in seconds since 1970; nothing for another text and for earlier ones.
std::optional<std::int64_t> parseDate(const std::string& text);

/// The time to wait that a Retry-After header (seconds or a date) asks for; never negative.
std::optional<std::chrono::seconds> parseRetryAfter(std::string_view text, std::time_t now);

/// What tells one version of a resource from another.
struct Validators {
  std::string etag;
  std::string lastModified;
  /// The resource had rested for a minute when it was sent, so a second change within the clock's
  /// resolution is ruled out and the date is as good as a strong tag.
  bool lastModifiedStrong = false;

  bool hasStrongETag() const { return !etag.empty() && !etag.starts_with("W/"); }

  /// The value for If-Range; nothing when the bytes held can not be continued safely.
  std::optional<std::string> ifRange() const;

  friend bool operator==(const Validators&, const Validators&) = default;
};
Validators validatorsOf(const HTTPHeaders& headers);

/// What a 401 asks for, the stronger scheme when there are several; nothing when neither basic nor digest.
struct ChallengeOffer {
  std::string scheme; ///< "basic" or "digest"
  std::string realm;
};
std::optional<ChallengeOffer> parseChallenge(std::string_view wwwAuthenticate);

/// Scheme, host and port, lower-cased, with the default port filled in.
std::string originOf(const URL& url);

/// A header of this map, or empty.
std::string headerValue(const HTTPHeaders& headers, std::string_view name);

} // namespace platform::transfer
