#pragma once

#include "platform/concurrency/OrderedRecursiveMutex.h"
#include "platform/foundation/JSON.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

class QVMutableMovieDownloadProperties;

/// What a download set tells about itself in the JSON file of its directory: where it came from, the name of
/// its stored manifest, its title and what is complete on disk. The file names the download; a listing reads
/// nothing else.
///
/// Reads the file once, at creation. Thread-safe: every operation holds the object's own lock, the innermost
/// of the orchestration.
class QVMovieDownloadProperties : public std::enable_shared_from_this<QVMovieDownloadProperties> {
public:
  /// Name of the file in a set's directory.
  static constexpr const char* defaultJSONName = "QVMovieDownloadSetProperties.json";

  /// Reads `localPath`/`jsonName`. Null, with a log line that says why, when the file cannot be read, is no
  /// JSON object, or lacks the source URL or a manifest name that stays in the directory.
  static std::shared_ptr<QVMutableMovieDownloadProperties>
  propertiesWithLocalPath(const std::string& localPath, const std::string& jsonName);

  virtual ~QVMovieDownloadProperties();
  QVMovieDownloadProperties(const QVMovieDownloadProperties&) = delete;
  QVMovieDownloadProperties& operator=(const QVMovieDownloadProperties&) = delete;

  const std::string& localPath() const { return _localPath; } ///< the set's directory

  std::string sourceURL() const; ///< the manifest's URL, the download's identity
  std::optional<std::string> title() const;
  std::string manifestName() const; ///< file name of the stored manifest
  std::string localURL() const;     ///< absolute file URL of the stored manifest

  // Qualities that are complete on disk. 0, or no list, before the first run has ended; members of a wrong
  // type count as absent.
  unsigned numberOfDownloadedQualities() const;
  unsigned numberOfDownloadedVideoQualities() const;
  unsigned numberOfDownloadedAudioQualities() const;
  unsigned numberOfDownloadedTextQualities() const;
  std::optional<std::vector<std::string>> downloadedQualityIdentifiers() const;

  /// Any member of the file's object. Include <nlohmann/json.hpp> to call it.
  std::optional<platform::JSON> objectForKey(const std::string& key) const;

protected:
  QVMovieDownloadProperties(std::string localPath, const std::string& jsonName);

  /// Reads the file into `_properties`. On failure logs, answers false and leaves `_properties` as it was.
  bool _readJSON();

  mutable platform::OrderedRecursiveMutex _lock{3, "properties"};
  const std::string _localPath;
  const std::string _jsonPath;
  std::unique_ptr<platform::JSON> _properties; ///< always an object

private:
  unsigned _numberForKey(const char* key) const;
  std::optional<std::string> _stringForKey(const char* key) const;
};
