#pragma once

#include <filesystem>
#include <functional>
#include <string>

namespace support {

/// The directory of a presentation below the build directory, made when it is not there.
///
/// `make` fills an empty directory and answers the one that is to be kept: it, or one in it. What is kept
/// serves later runs and is shared: do not change it. Several processes may ask at once; one makes it and the
/// others wait. What `make` raises is passed on, and nothing is kept.
std::string
cachedMedia(const std::string& name,
            const std::function<std::filesystem::path(const std::filesystem::path& directory)>& make);

} // namespace support
