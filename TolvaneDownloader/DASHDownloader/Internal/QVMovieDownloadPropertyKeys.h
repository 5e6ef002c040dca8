#pragma once

#include <string_view>

// Members of the properties file. Private to the two classes that read and write it.

inline constexpr const char* QVDownloadSetSourceURLKey = "QVDownloadSetSourceURL";
inline constexpr const char* QVDownloadSetManifestNameKey = "QVDownloadSetManifestName";
inline constexpr const char* QVDownloadSetTitleKey = "QVDownloadSetTitle";
inline constexpr const char* QVNumberOfDownloadedQualitiesKey = "QVNumberOfDownloadedQualities";
inline constexpr const char* QVNumberOfDownloadedVideoQualitiesKey = "QVNumberOfDownloadedVideoQualities";
inline constexpr const char* QVNumberOfDownloadedAudioQualitiesKey = "QVNumberOfDownloadedAudioQualities";
inline constexpr const char* QVNumberOfDownloadedTextQualitiesKey = "QVNumberOfDownloadedTextQualities";
inline constexpr const char* QVDownloadedQualityIdentifiersKey = "QVDownloadedQualityIdentifiers";

/// Whether `name` joined to a directory names something directly in it: the file may have been edited or
/// copied from elsewhere, and what it names is opened and handed to a player.
inline bool QVIsPlainFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}
