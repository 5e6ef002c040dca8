#pragma once

#include "platform/transfer/URLRequest.h"

#include <memory>
#include <string>

class QVPlaylist;
class QVQuality;

namespace tolvane {

/// A manifest that was read, and where its relative addresses start.
struct Manifest {
  std::string url; ///< as given; the file's URL for a file without a base
  std::string baseURL;
  std::shared_ptr<QVPlaylist> playlist;
};

/// Reads a manifest from a URL, or from a file that came from `base` (empty: from where it is). Throws
/// Failure.
Manifest readManifest(const std::string& source, const std::string& base,
                      const platform::HTTPHeaders& headers);

/// The URL without its query and without the last component of its path, with a "/" at its end: what a
/// download resolves its resources against. Throws Failure when the text is no URL.
std::string resourceBase(const std::string& manifestURL);

} // namespace tolvane
