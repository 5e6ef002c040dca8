#pragma once

#include "qvc/FastString.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace qvc {

struct URIImpl;

/// An absolute or relative URI reference, split into components kept in their percent-encoded ("raw") form.
/// A value; not synchronised. Nothing here fails: every text splits into something.
///
/// The splitting is the library's own where it differs from RFC 3986:
/// - A scheme is the text before the first ":", unless there is a "/" or a "." in it. So "a.b:8080/x" has
/// none and
///   "urn:x" has "urn".
/// - With an authority the path is stored without its leading "/": "http://h/p/q" has the path "p/q".
/// - A "file" URI has no authority: "file:///a/b" has the path "/a/b", "file://host/a" the path "host/a".
/// - Bracketed IPv6 hosts are not understood.
class URI {
public:
  class EscapeEncoder; // qvc/URIEscapeEncoder.h
  class Query;         // qvc/URIQuery.h

  URI() noexcept;
  /// Splits an encoded text; a component that holds characters it may not hold is then encoded.
  URI(const FastString& text);
  URI(const char* text) : URI(FastString(text)) {}
  /// From plain components, which are encoded ("%" among the rest); the authority and the scheme-specific
  /// part are split first.
  URI(const FastString& scheme, const FastString& userInfo, const FastString& host, uint32_t port,
      const FastString& path, const FastString& query, const FastString& fragment);
  URI(const FastString& scheme, const FastString& authority, const FastString& path, const FastString& query,
      const FastString& fragment);
  URI(const FastString& scheme, const FastString& schemeSpecificPart, const FastString& fragment);
  URI(const URI& other);
  URI(URI&& other) noexcept;
  URI& operator=(const URI& other);
  URI& operator=(URI&& other) noexcept;
  ~URI();

  /// Splits `text` and encodes nothing.
  static URI fromEncodedString(const FastString& text);
  /// Takes the components as they are; the authority is split.
  static URI fromEncodedComponents(const FastString& scheme, const FastString& authority,
                                   const FastString& path, const FastString& query,
                                   const FastString& fragment);

  /// The stored, encoded components; empty (port 0) when absent. The references hold until the URI changes.
  const FastString& rawScheme() const noexcept;
  const FastString& rawUserInfo() const noexcept;
  const FastString& rawHostName() const noexcept;
  const FastString& rawPath() const noexcept;
  const FastString& rawQuery() const noexcept;
  const FastString& rawFragment() const noexcept;
  const FastString& rawSchemeSpecificPart() const noexcept;
  uint32_t port() const noexcept;
  /// "user@host:port", without what is absent.
  FastString rawAuthority() const;

  /// The same components percent-decoded.
  FastString scheme() const;
  FastString userInfo() const;
  FastString hostName() const;
  FastString path() const;
  FastString query() const;
  FastString fragment() const;
  FastString schemeSpecificPart() const;
  FastString authority() const;

  /// Store raw text and rebuild the scheme-specific part. Setting the scheme-specific part splits it into
  /// authority, path and query by the rules of the current scheme.
  void setRawScheme(const FastString& scheme);
  void setRawUserInfo(const FastString& userInfo);
  void setRawHostName(const FastString& hostName);
  void setRawPath(const FastString& path);
  void setRawQuery(const FastString& query);
  void setRawFragment(const FastString& fragment);
  void setRawSchemeSpecificPart(const FastString& text);
  void setPort(uint32_t port);

  /// The text to transmit.
  FastString toRawString() const;
  /// The decoded text, for people: "http://h/a%20b" gives "http://h/a b". Not to be sent anywhere.
  FastString toString() const;

  bool isEmpty() const noexcept;
  /// Whether there is a scheme.
  bool isAbsolute() const noexcept;
  /// Whether it is absolute and its scheme-specific part does not begin with "/".
  bool isOpaque() const noexcept;

  /// Removes the "." segments of the path and each ".." with the segment before it. A ".." that has nothing
  /// left to cancel stays in a relative path; at the root of an authority or of an absolute path it is
  /// dropped, as there is nothing above.
  URI normalize() const;
  /// The URI that `reference` means in a document at this URI. Dot segments stay; normalize() removes them.
  /// A reference without scheme and path resolves to this URI as it is, so "?x=1" and "#f" are dropped; only
  /// a base that is nothing but a path takes the fragment. The scheme is the base's also for "//host/path".
  URI resolve(const URI& reference) const;
  /// The reference that leads from this URI (as a document) to `other`, so that resolving it and normalizing
  /// gives `other`; `other` itself when the two do not share scheme and authority or no such reference can be
  /// written.
  URI relativize(const URI& other) const;
  /// The directory of this URI, without a trailing "/", query and fragment: "http://h/a" for
  /// "http://h/a/b.mpd".
  URI base() const;

  /// Compare raw texts.
  friend bool operator==(const URI& a, const URI& b) noexcept { return a.equals(b); }

private:
  URIImpl& ensureImpl();
  const URIImpl& impl() const noexcept;
  bool equals(const URI& other) const noexcept;

  std::unique_ptr<URIImpl> m_impl;
};

} // namespace qvc

template <> struct std::hash<qvc::URI> {
  size_t operator()(const qvc::URI& uri) const noexcept {
    return std::hash<qvc::FastString>()(uri.rawSchemeSpecificPart());
  }
};
