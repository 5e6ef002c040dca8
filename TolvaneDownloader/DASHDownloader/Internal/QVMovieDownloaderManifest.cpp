// How the downloader gets from a manifest's URL to a set: its id, the stored manifest, the fetched one.

#include "TolvaneDownloader/DASHDownloader/Internal/QVLog.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadPropertyKeys.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSet.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloader.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMutableMovieDownloadProperties.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylistFactory.h"

#include "platform/foundation/ASCII.h"
#include "platform/foundation/Exception.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/StringHash.h"
#include "platform/foundation/URL.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <fstream>

using Lock = std::lock_guard<platform::OrderedRecursiveMutex>;

namespace {

constexpr const char* exceptionName = "QVMovieDownloaderException";
constexpr const char* noMovie = "The manifest holds nothing that can be downloaded";
constexpr std::size_t sniffedBytes = 1024;

std::string hexDigits(std::uint64_t value) {
  char digits[17];
  std::snprintf(digits, sizeof digits, "%016" PRIx64, value);
  return digits;
}

/// Whether the text is UTF-8, but for a character that its end cuts.
bool isUTF8Head(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const auto lead = static_cast<unsigned char>(text[at++]);
    int following = 0;
    if (lead >= 0xC2 && lead <= 0xDF)
      following = 1;
    else if ((lead & 0xF0U) == 0xE0)
      following = 2;
    else if (lead >= 0xF0 && lead <= 0xF4)
      following = 3;
    else if (lead >= 0x80)
      return false;
    for (; following > 0 && at < text.size(); --following, ++at)
      if ((static_cast<unsigned char>(text[at]) & 0xC0U) != 0x80U)
        return false;
  }
  return true;
}

/// Media files may hold the three letters by chance; they are hardly UTF-8 as well.
bool looksLikeManifest(const std::string& path) {
  const auto attributes = platform::FileManager::attributesOfItemAtPath(path);
  if (!attributes || attributes->type != platform::FileAttributes::Type::Regular)
    return false;
  std::ifstream file(path, std::ios::binary);
  std::string head(sniffedBytes, '\0');
  file.read(head.data(), static_cast<std::streamsize>(head.size()));
  head.resize(static_cast<std::size_t>(std::max<std::streamsize>(file.gcount(), 0)));
  return head.find("MPD") != std::string::npos && isUTF8Head(head);
}

std::string_view extensionOf(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  return dot == std::string_view::npos || dot == 0 ? std::string_view() : name.substr(dot + 1);
}

/// Its user info is empty by contract; a user still wants to hear of the full disk.
class ManifestNotWritten : public platform::Exception {
public:
  explicit ManifestNotWritten(platform::ErrorRef fileError)
      : Exception(exceptionName, "Failed to write manifest to file"), cause(std::move(fileError)) {}
  const platform::ErrorRef cause;
};

/// The factory's error for an exception, with the file error that led to it.
platform::ErrorRef errorWithException(const platform::Exception& exception) {
  auto error = QVPlaylistFactory::errorWithException(exception);
  platform::ErrorRef cause;
  if (const auto* notWritten = dynamic_cast<const ManifestNotWritten*>(&exception))
    cause = notWritten->cause;
  else if (const auto found = exception.userInfo().find("NSError"); found != exception.userInfo().end())
    if (const auto* file = std::any_cast<platform::ErrorRef>(&found->second))
      cause = *file;
  return cause ? platform::makeError(error->domain(), error->code(), error->userInfo(), cause) : error;
}

platform::ErrorRef errorWithReason(const std::string& reason) {
  return QVPlaylistFactory::errorWithException(platform::Exception("QVPlaylistFactoryException", reason));
}

/// Runs what makes a set; what it raises becomes `error`.
template <class Make>
std::shared_ptr<QVMovieDownloadSet> makeSet(platform::ErrorRef& error, const Make& make) {
  try {
    return make();
  } catch (const platform::Exception& exception) {
    error = errorWithException(exception);
  } catch (const std::exception& exception) {
    error = errorWithReason(exception.what());
  }
  return nullptr;
}

} // namespace

std::string QVMovieDownloader::downloadIdWithURL(const std::string& url) const {
  Lock lock(_lock);
  std::uint64_t host = 0, path = 0, query = 0;
  if (const auto parsed = platform::URL::URLWithString(url)) {
    if (const auto name = parsed->host())
      host = platform::stringHash(platform::asciiLowered(*name));
    path = platform::stringHash(parsed->path());
    query = platform::stringHash(parsed->query());
  }
  // A download from the time before the query counted keeps its id.
  std::string downloadId = hexDigits(host) + "-" + hexDigits(path);
  if (platform::FileManager::attributesOfItemAtPath(_directoryOf(downloadId)))
    return downloadId;
  return downloadId + "-" + hexDigits(query);
}

std::string QVMovieDownloader::findManifestLocalNameForDownloadId(const std::string& downloadId) const {
  Lock lock(_lock);
  const std::string directory = _directoryOf(downloadId);
  std::string defaultName = getDefaultManifestLocalName();
  if (platform::FileManager::fileExistsAtPath(directory + "/" + defaultName))
    return defaultName;

  const char* const jsonName = QVMovieDownloadProperties::defaultJSONName;
  if (platform::FileManager::fileExistsAtPath(directory + "/" + jsonName)) {
    if (const auto properties = QVMovieDownloadProperties::propertiesWithLocalPath(directory, jsonName)) {
      const auto name = properties->objectForKey(QVDownloadSetManifestNameKey);
      if (name && name->is_string() && QVIsPlainFileName(name->get<std::string>()) &&
          platform::FileManager::fileExistsAtPath(directory + "/" + name->get<std::string>()))
        return name->get<std::string>();
    }
  }

  for (const auto& name : platform::FileManager::contentsOfDirectoryAtPath(directory)) {
    // A manifest that a killed process had not finished writing is none.
    if (name.starts_with(".tmp-"))
      continue;
    const std::string_view extension = extensionOf(name);
    if (extension == "xml" || extension == "mp4" || extension == "json")
      continue;
    if (extension == "mpd" || looksLikeManifest(directory + "/" + name))
      return name;
  }
  return defaultName;
}

std::shared_ptr<QVMovieDownloadSet> QVMovieDownloader::activateDownloadSetForURL(const std::string& url) {
  Lock lock(_lock);
  const std::string downloadId = downloadIdWithURL(url);
  platform::ErrorRef error;
  auto set = _registeredSet(downloadId);
  if (!set)
    set = _storedSet(url, downloadId, findManifestLocalNameForDownloadId(downloadId), error);
  if (error)
    QVLogError("The stored manifest of " + url + " cannot be used: " + error->localizedDescription());
  return set;
}

std::shared_ptr<QVMovieDownloadSet>
QVMovieDownloader::activateDownloadSet(const QVMovieDownloadProperties& properties) {
  return activateDownloadSetForURL(properties.sourceURL());
}

void QVMovieDownloader::fetchDownloadSetForURL(const std::string& url, FetchCompletion completion,
                                               platform::HTTPHeaders headers, PlaylistCheck check) {
  std::shared_ptr<QVMovieDownloadSet> set;
  platform::ErrorRef error;
  std::string downloadId, manifestName;
  {
    Lock lock(_lock);
    downloadId = downloadIdWithURL(url);
    set = _registeredSet(downloadId);
    if (!set) {
      manifestName = findManifestLocalNameForDownloadId(downloadId);
      set = _storedSet(url, downloadId, manifestName, error);
    }
    if (!set && !error)
      error = _sessionError; // what would be fetched could not be downloaded
    if (_additionalHeaders)
      headers.insert(_additionalHeaders->begin(), _additionalHeaders->end());
  }
  if (set || error)
    return completion(std::move(set), std::move(error));

  QVPlaylistFactory::generateWithURL(
      url,
      [weak = weak_from_this(), url, downloadId, manifestName, completion = std::move(completion),
       check = std::move(check)](const std::shared_ptr<QVPlaylist>& playlist, const platform::DataRef& data,
                                 platform::ErrorRef failure) {
        std::shared_ptr<QVMovieDownloadSet> fetched;
        if (!failure && playlist && check)
          failure = check(*playlist);
        if (!failure) {
          if (const auto self = weak.lock())
            fetched = self->_fetchedSet(playlist, data, url, downloadId, manifestName, failure);
          else
            failure = platform::makeError(platform::NSURLErrorDomain, platform::NSURLErrorCancelled,
                                          std::string("The downloader is gone"));
        }
        completion(std::move(fetched), std::move(failure));
      },
      headers, _manifestSession);
}

std::shared_ptr<QVMovieDownloadSet> QVMovieDownloader::_storedSet(const std::string& url,
                                                                  const std::string& downloadId,
                                                                  const std::string& manifestName,
                                                                  platform::ErrorRef& error) {
  const std::string directory = _directoryOf(downloadId);
  std::shared_ptr<QVPlaylist> playlist;
  auto set = makeSet(error, [&]() -> std::shared_ptr<QVMovieDownloadSet> {
    playlist = QVPlaylistFactory::generateWithFile(directory + "/" + manifestName, &error);
    if (!playlist)
      return nullptr;
    playlist->setUrl(url);
    return _downloadSetWithPlaylist(playlist, directory, manifestName, url, downloadId);
  });
  if (playlist && !set && !error)
    error = errorWithReason(noMovie);
  return set;
}

std::shared_ptr<QVMovieDownloadSet>
QVMovieDownloader::_fetchedSet(const std::shared_ptr<QVPlaylist>& playlist, const platform::DataRef& data,
                               const std::string& url, const std::string& downloadId,
                               const std::string& manifestName, platform::ErrorRef& error) {
  Lock lock(_lock);
  // Somebody else may have fetched the same in the meantime; one manifest has one set.
  if (auto registered = _registeredSet(downloadId))
    return registered;
  if (!playlist || playlist->movies().empty()) {
    error = errorWithReason(noMovie);
    return nullptr;
  }
  const std::string directory = _directoryOf(downloadId);
  const bool isNew = !platform::FileManager::fileExistsAtPath(directory);
  auto set = makeSet(error, [&] {
    if (data)
      _saveManifest(*data, directory);
    playlist->setUrl(url);
    return _downloadSetWithPlaylist(playlist, directory, manifestName, url, downloadId);
  });
  if (!set && isNew && platform::FileManager::fileExistsAtPath(directory))
    if (const auto left = platform::FileManager::removeItemAtPath(directory))
      QVLogError("What is left of " + url + " cannot be removed: " + left->localizedDescription());
  return set;
}

void QVMovieDownloader::_saveManifest(const platform::Data& data, const std::string& directory) {
  if (const auto error = platform::FileManager::createDirectoryAtPath(directory, true))
    throw platform::Exception(exceptionName, "Failed to create download directory", {{"NSError", error}});
  const std::string_view bytes(reinterpret_cast<const char*>(data.data()), data.size());
  if (const auto error = platform::FileManager::writeDataAtomically(
          bytes, directory + "/" + getDefaultManifestLocalName())) {
    QVLogError(error->localizedDescription());
    throw ManifestNotWritten(error);
  }
}

std::shared_ptr<QVMovieDownloadSet>
QVMovieDownloader::_downloadSetWithPlaylist(const std::shared_ptr<QVPlaylist>& playlist,
                                            const std::string& downloadPath, const std::string& manifestName,
                                            const std::string& sourceURL, const std::string& downloadId) {
  auto set = QVMovieDownloadSet::downloadSetWithPlaylist(playlist, downloadPath, manifestName, sourceURL,
                                                         downloadId, weak_from_this());
  if (set)
    _downloadIdSetMap[downloadId] = set;
  else
    _downloadIdSetMap.erase(downloadId);
  return set;
}
