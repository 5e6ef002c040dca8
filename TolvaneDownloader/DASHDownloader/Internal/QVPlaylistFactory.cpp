#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylistFactory.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVManifestDocument.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"
#include "platform/concurrency/Queue.h"
#include "platform/foundation/Exception.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/StringTable.h"
#include "platform/foundation/URL.h"
#include "platform/transfer/URLSession.h"

namespace {

constexpr const char* exceptionName = "QVPlaylistFactoryException";
constexpr const char* dashGeneratorErrorKey = "DASHGeneratorError";
constexpr const char* smoothStreamingGeneratorErrorKey = "SmoothStreamingGeneratorError";

const platform::ErrorDomain factoryErrorDomain{"NSErrorQVDownloader"};
const platform::ErrorDomain httpErrorDomain{"QVDownloadHTTPErrorDomain"};

/// One manifest format: its generator, the key under which its exception is kept when another is tried, and
/// how that exception's reason begins when the document is of another format.
struct Format {
  const char* name;
  const char* errorKey;
  const char* otherDocument;
  std::shared_ptr<QVPlaylist> (*generate)(const QVManifestDocument&);
};

/// In the order of trying.
constexpr Format formats[] = {
    {"DASH", dashGeneratorErrorKey, "Not a valid MPD", &QVPlaylistFactory::dashGenerateWithDocument},
    {"Smooth Streaming", smoothStreamingGeneratorErrorKey,
     "Passed invalid XML element. Expected tag SmoothStreamingMedia but got ",
     &QVPlaylistFactory::smoothGenerateWithDocument},
};

platform::ErrorRef makeFactoryError(const std::string& reason, platform::ErrorRef cause) {
  const std::string text = platform::StringTable::localizedString(reason);
  return platform::makeError(factoryErrorDomain, -101,
                             {{platform::NSLocalizedDescriptionKey, text},
                              {platform::NSLocalizedFailureReasonErrorKey, text},
                              {platform::NSLocalizedRecoverySuggestionErrorKey, text}},
                             std::move(cause));
}

/// Why no format fits, for a reader; null when the exception does not hold the formats' own. Of a document
/// that has the root of one format, the other formats' complaints say nothing.
platform::ErrorRef causeOf(const platform::Exception& exception) {
  std::string all, own;
  for (const Format& format : formats) {
    const auto found = exception.userInfo().find(format.errorKey);
    if (found == exception.userInfo().end())
      continue;
    const auto* inner = std::any_cast<platform::Exception>(&found->second);
    if (!inner)
      continue;
    const std::string text = std::string("as ") + format.name + ": " + inner->reason();
    if (!inner->reason().starts_with(format.otherDocument))
      own += (own.empty() ? "" : "; ") + text;
    all += (all.empty() ? "" : "; ") + text;
  }
  if (all.empty())
    return nullptr;
  return makeFactoryError(own.empty() ? all : own, nullptr);
}

platform::ErrorRef makeHTTPError(const platform::HTTPURLResponse& response) {
  const int status = response.statusCode();
  const auto text = platform::HTTPURLResponse::localizedStringForStatusCode(status).value_or("Unknown Error");
  return platform::makeError(
      httpErrorDomain, status,
      {{"QVStatusMessage", text},
       {platform::NSLocalizedDescriptionKey, "The server answered " + std::to_string(status) + " " + text +
                                                 " for " + response.url().absoluteString()}});
}

/// Parses what came and never lets an exception out: it runs on a session's queue.
std::shared_ptr<QVPlaylist> parseFetched(const platform::Data& data,
                                         const platform::HTTPURLResponse* response,
                                         platform::ErrorRef& error) {
  // A body that came with a refusal says nothing about a manifest; the status is the reason then.
  const bool refused = response && (response->statusCode() < 200 || response->statusCode() > 299);
  try {
    return QVPlaylistFactory::generateWithData(data);
  } catch (const platform::Exception& exception) {
    error = makeFactoryError(exception.reason(), refused ? makeHTTPError(*response) : causeOf(exception));
  } catch (const std::exception& exception) {
    error = makeFactoryError(exception.what(), refused ? makeHTTPError(*response) : nullptr);
  } catch (...) {
    error =
        makeFactoryError("Unexpected C++ exception received", refused ? makeHTTPError(*response) : nullptr);
  }
  return nullptr;
}

void failLater(QVPlaylistFactory::Completion completion, platform::ErrorRef error) {
  platform::SerialQueue::background().async([completion = std::move(completion), error = std::move(error)] {
    completion(nullptr, nullptr, error);
  });
}

platform::ErrorRef makeURLError(platform::URLErrorCode code, const std::string& description,
                                const std::string& url) {
  return platform::makeError(platform::NSURLErrorDomain, code,
                             {{platform::NSLocalizedDescriptionKey, description},
                              {platform::NSURLErrorFailingURLStringErrorKey, url}});
}

} // namespace

std::shared_ptr<QVPlaylist> QVPlaylistFactory::dashGenerateWithData(const platform::Data& data) {
  return dashGenerateWithDocument(QVManifestDocument(data));
}

std::shared_ptr<QVPlaylist> QVPlaylistFactory::smoothGenerateWithData(const platform::Data& data) {
  return smoothGenerateWithDocument(QVManifestDocument(data));
}

std::shared_ptr<QVPlaylist> QVPlaylistFactory::generateWithData(const platform::Data& data) {
  platform::UserInfo userInfo;
  const QVManifestDocument document(data);
  for (const Format& format : formats) {
    try {
      return format.generate(document);
    } catch (const platform::Exception& exception) {
      userInfo.emplace(format.errorKey, exception);
    }
  }
  throw platform::Exception(exceptionName, "Can't find proper implementation for parsing manifest",
                            std::move(userInfo));
}

std::shared_ptr<QVPlaylist> QVPlaylistFactory::generateWithFile(const std::string& path,
                                                                platform::ErrorRef* error) {
  const auto data = platform::FileManager::contentsAtPath(path);
  if (!data)
    return nullptr;
  try {
    return generateWithData(*data);
  } catch (const platform::Exception& exception) {
    if (error)
      *error = errorWithException(exception);
    return nullptr;
  }
}

void QVPlaylistFactory::generateWithURL(const std::string& url, Completion completion,
                                        const platform::HTTPHeaders& headers,
                                        std::shared_ptr<platform::URLSession> session) {
  const auto parsed = platform::URL::URLWithString(url);
  if (!parsed)
    return failLater(std::move(completion),
                     makeURLError(platform::NSURLErrorBadURL, "This is no URL: " + url, url));
  if (!parsed->scheme())
    return failLater(std::move(completion), makeURLError(platform::NSURLErrorUnsupportedURL,
                                                         "This is no absolute URL: " + url, url));
  if (!session)
    session = platform::URLSession::sharedSession();
  if (!session)
    return failLater(std::move(completion),
                     makeURLError(platform::NSURLErrorResourceUnavailable,
                                  "There is no transfer service to fetch " + url, url));

  platform::URLRequest request(*parsed);
  for (const auto& [field, value] : headers)
    request.setValueForHTTPHeaderField(value, field);
  const auto task = session->dataTaskWithRequest(
      request, [completion = std::move(completion),
                url](platform::DataRef data, std::shared_ptr<const platform::HTTPURLResponse> response,
                     platform::ErrorRef error) {
        if (!data && !error)
          error =
              makeURLError(platform::NSURLErrorUnknown, "The transfer gave neither data nor an error", url);
        if (error)
          return completion(nullptr, nullptr, error);
        auto playlist = parseFetched(*data, response.get(), error);
        completion(std::move(playlist), std::move(data), std::move(error));
      });
  task->resume();
}

platform::ErrorRef QVPlaylistFactory::errorWithException(const platform::Exception& exception) {
  return makeFactoryError(exception.reason(), causeOf(exception));
}
