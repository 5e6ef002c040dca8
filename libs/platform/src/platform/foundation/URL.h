#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// A URL reference: absolute, or relative when made without a base. Immutable value.
///
/// Parsing and resolution follow RFC 3986 (dot segments are removed on resolution against a base). Characters
/// that may not stand in a URL (spaces, non-ASCII, braces, …) are percent-encoded first, so ordinary sloppy
/// manifests work; so is a "%" that begins no escape, while escapes that are there stay. White space around
/// the text is dropped. An http or https URL without a host is no URL.
class URL {
public:
  /// Nothing when the text is empty or cannot be made a URL reference.
  static std::optional<URL> URLWithString(std::string_view text);

  /// `text` resolved against `base`; the text alone when it is absolute or `base` is null. An empty text
  /// gives the base without its fragment. Nothing when both are relative.
  static std::optional<URL> URLWithString(std::string_view text, const URL* base);

  /// The file URL of an absolute path.
  static URL fileURLWithPath(std::string_view path);

  /// The text: absolute after resolution, percent-encoded where needed.
  const std::string& absoluteString() const { return _text; }

  std::optional<std::string> scheme() const;
  /// User and password percent-decoded.
  std::optional<std::string> user() const;
  std::optional<std::string> password() const;
  /// As written (brackets of an IPv6 literal removed), not lower-cased; nothing when there is no authority.
  std::optional<std::string> host() const;
  std::optional<std::uint16_t> port() const;
  /// Percent-decoded; empty when there is none.
  std::string path() const;
  /// As written, percent-encoded.
  std::string rawPath() const;
  /// As written, without the "?"; nothing when there is no "?".
  std::optional<std::string> query() const;
  std::optional<std::string> fragment() const;

  bool isFileURL() const;
  bool isHTTP() const; ///< http or https, in any letter case
  /// Percent-decoded last component of the path, empty when the path is empty or "/"; a "/" at the end does
  /// not count. It may hold a decoded "/" or be "..": check it before it names a file.
  std::string lastPathComponent() const;
  /// What follows the last "." of the last path component, without it; empty when none.
  std::string pathExtension() const;

  /// Without query and fragment.
  URL withoutQuery() const;
  /// Without the last component of the path ("/a/b" and "/a/b/" give "/a/"); the path then ends in "/". Query
  /// and fragment are kept.
  URL deletingLastPathComponent() const;

  friend bool operator==(const URL& a, const URL& b) { return a._text == b._text; }

private:
  explicit URL(std::string text) : _text(std::move(text)) {}
  std::string _text;
};

} // namespace platform
