#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadProperties.h"

/// The properties file with its setters. Each setter writes the whole file before it returns, holding the
/// object's lock so that the file never goes back in time; what is visible on disk is always a whole file. A
/// failed write is logged, the values in memory stay changed, and the next write brings the file up to date.
class QVMutableMovieDownloadProperties : public QVMovieDownloadProperties {
public:
  /// Reads the file if there is one (the given URL and manifest name are then ignored), else starts a fresh
  /// one with these two and writes it at once. Null, with a log line, when a file that is there cannot be
  /// used, or when `manifestName` is no plain file name.
  static std::shared_ptr<QVMutableMovieDownloadProperties>
  propertiesWithSourceURL(const std::string& sourceURL, const std::string& localPath,
                          const std::string& manifestName, const std::string& jsonName);

  ~QVMutableMovieDownloadProperties() override;

  void setTitle(const std::optional<std::string>& title); ///< none removes it
  void setNumberOfDownloadedQualities(unsigned number);
  void setNumberOfDownloadedVideoQualities(unsigned number);
  void setNumberOfDownloadedAudioQualities(unsigned number);
  void setNumberOfDownloadedTextQualities(unsigned number);
  void setDownloadedQualityIdentifiers(const std::vector<std::string>& identifiers);

  /// The five values of an ended run with one write instead of five, so that they never disagree on disk.
  void setDownloadedQualities(unsigned total, unsigned video, unsigned audio, unsigned text,
                              const std::vector<std::string>& identifiers);

  void setObject(const platform::JSON& object, const std::string& key);
  void removeObjectForKey(const std::string& key);

  /// Queues one write in the background, unless one is queued already: for a caller that wants a failed write
  /// tried again. The job holds the object weakly.
  void scheduleWriteJSON();
  bool writeQueued() const;

private:
  friend class QVMovieDownloadProperties;
  QVMutableMovieDownloadProperties(std::string localPath, const std::string& jsonName);

  void _writeJSON();

  bool _writeQueued = false;
};
