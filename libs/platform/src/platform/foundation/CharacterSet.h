#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace platform {

/// The pieces of a UTF-8 text between its characters that are no letters, marks or digits of any script. Two
/// such characters in a row leave an empty piece; a byte that is no UTF-8 counts as one of them. Never empty.
std::vector<std::string> componentsSeparatedByNonAlphanumericCharacters(std::string_view text);

} // namespace platform
