#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace platform {
class URL;
class URLRequest;
} // namespace platform

/// One resource to fetch: a URL with an optional byte range.
///
/// A set holds tens of thousands of these, so the base URL is one shared text and nothing derived is kept.
/// A listed resource is shared between its quality's list and the downloads; whoever sets a field of a shared
/// one does so before others read it. Not synchronised.
class QVRangedURL {
public:
  /// `length` 0: up to the end of the resource. `baseURL` null: `referenceURL` stands for itself.
  static std::shared_ptr<QVRangedURL> rangedURLWithOffset(std::uint64_t offset, std::uint64_t length,
                                                          std::string referenceURL,
                                                          std::shared_ptr<const std::string> baseURL);

  /// The whole resource.
  static std::shared_ptr<QVRangedURL> rangedURLWithReferenceURL(std::string referenceURL,
                                                                std::shared_ptr<const std::string> baseURL);

  /// The base of what a manifest lists: the manifest's URL without its query and without the last component
  /// of its path, with a "/" at the end. "/" for a text that is no URL.
  static std::string baseURLForManifest(const std::string& manifestURL);

  std::uint64_t offset() const { return _offset; } ///< first byte
  void setOffset(std::uint64_t offset) { _offset = offset; }

  std::uint64_t length() const { return _length; } ///< bytes; 0: up to the end of the resource
  void setLength(std::uint64_t length) { _length = length; }

  /// The URL as listed: absolute, or relative to the base.
  const std::string& referenceURL() const { return _referenceURL; }
  void setReferenceURL(std::string referenceURL) { _referenceURL = std::move(referenceURL); }

  /// Null when there is none.
  const std::shared_ptr<const std::string>& baseURL() const { return _baseURL; }
  void setBaseURL(std::shared_ptr<const std::string> baseURL) { _baseURL = std::move(baseURL); }

  bool hasRange() const { return _offset != 0 || _length != 0; }

  /// The reference resolved against the base (RFC 3986). A base that is no URL counts as none. Nothing when
  /// the reference cannot be made a URL.
  std::optional<platform::URL> resolveURL() const;

  /// A GET for the resource, with a "Range" header when it has a range. The header's second number is the
  /// length field itself: a range that starts at 0 asks for one byte more than it needs, and servers answer
  /// with what there is. Nothing when the resource has no absolute URL; the caller fails the resource.
  std::optional<platform::URLRequest> prepareRequest() const;

  /// A HEAD for the whole resource that asks for the stored bytes, uncompressed, so that the length in the
  /// answer is the one on the server's disk. Nothing when the resource has no absolute URL.
  std::optional<platform::URLRequest> prepareHeadRequest() const;

private:
  struct Passkey {
    explicit Passkey() = default;
  };

public:
  /// For the factories above.
  QVRangedURL(Passkey, std::uint64_t offset, std::uint64_t length, std::string referenceURL,
              std::shared_ptr<const std::string> baseURL)
      : _offset(offset), _length(length), _referenceURL(std::move(referenceURL)),
        _baseURL(std::move(baseURL)) {}

private:
  std::uint64_t _offset;
  std::uint64_t _length;
  std::string _referenceURL;
  std::shared_ptr<const std::string> _baseURL;
};
