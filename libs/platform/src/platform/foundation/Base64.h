#pragma once

#include "platform/foundation/Data.h"

#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// Bytes as text of the standard alphabet, padded, without line breaks.
std::string base64Encoded(const Data& bytes);

/// The bytes of such a text; nothing when it is any other text (padding is required).
std::optional<Data> base64Decoded(std::string_view text);

} // namespace platform
