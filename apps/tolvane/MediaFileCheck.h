#pragma once

#include <string>

namespace tolvane {

/// Looks whether a media file is cut off: an ISO base media file (MP4, CMAF and DASH segments) is a row of
/// boxes that each tell their size, so a missing tail shows without knowing the right length. Answers what is
/// wrong, empty when nothing is, or when the format does not tell.
std::string mediaFileFault(const std::string& path);

} // namespace tolvane
