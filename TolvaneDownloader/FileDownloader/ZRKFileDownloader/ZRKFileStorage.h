#pragma once

#include "platform/foundation/URL.h"

#include <cstdint>
#include <optional>
#include <string>

// Where the file queue puts files, and what it does to put them there. All operations block on the disk.

/// The place for the body of a plain connection: the URL's last path component in the folder "file-download"
/// of `temporaryDirectory`, which is made when missing. The name never leads out of the folder; a file that
/// stands there already belongs to another download. Nothing, with a log line, when the folder cannot be
/// made.
std::optional<platform::URL> ZRKTempLocalFileURLForDownloadFromURL(const platform::URL& remoteURL,
                                                                   const std::string& temporaryDirectory);

/// `directory`/file-download, made when missing and marked as not worth a backup; nothing, with a log line,
/// when that fails.
std::optional<std::string> ZRKFileDownloadFolder(const std::string& directory);

/// Moves a received file to `destination` unless that is where it is, replacing one that stands there, and
/// reads its size. The entry is not synced. Answers the line that was logged when something failed; `size` is
/// valid on success.
std::optional<std::string> ZRKPlaceFile(const std::string& location, const std::string& destination,
                                        std::int64_t& size);
