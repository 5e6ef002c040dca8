#pragma once

#include "platform/foundation/Data.h"
#include "platform/foundation/Error.h"
#include "platform/transfer/URLRequest.h"

#include <functional>
#include <memory>
#include <string>

class QVManifestDocument;
class QVPlaylist;

namespace platform {
class Exception;
class URLSession;
} // namespace platform

/// Turns a manifest's bytes into a playlist. A manifest does not say what it is: the formats are tried in a
/// fixed order. Thread-safe.
class QVPlaylistFactory {
public:
  /// Gets (playlist, data, null), or (null, data or null, error). The playlist and the error are both null
  /// for a manifest in which nothing can be downloaded.
  using Completion = std::function<void(std::shared_ptr<QVPlaylist> playlist, platform::DataRef data,
                                        platform::ErrorRef error)>;

  /// Null when the manifest is sound but holds nothing that can be downloaded. Raises a `platform::Exception`
  /// "QVPlaylistFactoryException" when no format fits; its user info holds each format's own exception (a
  /// `platform::Exception`) under "DASHGeneratorError" and
  /// "SmoothStreamingGeneratorError".
  static std::shared_ptr<QVPlaylist> generateWithData(const platform::Data& data);

  /// Reads a stored manifest. Null with `error` (may be null) untouched when the file cannot be read or holds
  /// nothing that can be downloaded; null with `error` set, as `errorWithException` makes it, when it cannot
  /// be parsed.
  static std::shared_ptr<QVPlaylist> generateWithFile(const std::string& path, platform::ErrorRef* error);

  /// Fetches a manifest and parses it. Returns at once; `completion` is called exactly once, on the session's
  /// delegate queue (on a background queue when no transfer could be started), never on the caller's thread.
  ///
  /// `headers` are added to the request. `session` null: the shared one; one that is given must live until
  /// the completion. A failed transfer hands on its error unchanged. Bytes that cannot be parsed give the
  /// error of `errorWithException`; when the server's status was not 2xx, that error's `underlyingError` is
  /// one of "QVDownloadHTTPErrorDomain" with the status as its code and its text under "QVStatusMessage".
  static void generateWithURL(const std::string& url, Completion completion,
                              const platform::HTTPHeaders& headers = {},
                              std::shared_ptr<platform::URLSession> session = nullptr);

  /// An error of domain "NSErrorQVDownloader", code -101, whose description, failure reason and recovery
  /// suggestion are the exception's reason in the user's language. Its `underlyingError` is made the same way
  /// of the formats' exceptions that the user info holds, so that a reader learns why: of the format whose
  /// root element the document has, else of all.
  static platform::ErrorRef errorWithException(const platform::Exception& exception);

  /// The DASH format. Raises "QVPlaylistFactoryException" with the parser's message as its reason.
  static std::shared_ptr<QVPlaylist> dashGenerateWithData(const platform::Data& data);

  /// The Smooth Streaming format. Never null; without a movie when the manifest holds no stream. Raises
  /// "QVPlaylistFactoryException": "Can't parse SmoothStreaming XML" for what is no XML, else the fault that
  /// was found.
  static std::shared_ptr<QVPlaylist> smoothGenerateWithData(const platform::Data& data);

  // The same of a document that several formats look at.
  static std::shared_ptr<QVPlaylist> dashGenerateWithDocument(const QVManifestDocument& document);
  static std::shared_ptr<QVPlaylist> smoothGenerateWithDocument(const QVManifestDocument& document);

  QVPlaylistFactory() = delete;
};
