#pragma once

#include "platform/foundation/Error.h"

#include <nlohmann/json_fwd.hpp>

#include <memory>
#include <string>
#include <string_view>

namespace platform {

/// The JSON reader and writer of everything that is persisted. Include <nlohmann/json.hpp> in the .cpp that
/// uses it.
using JSON = nlohmann::json;

/// Parses UTF-8 text. Null with `error` set when the text is no JSON or nests deeper than 512 levels.
std::unique_ptr<JSON> parseJSON(std::string_view text, ErrorRef* error = nullptr);

/// Compact UTF-8 text; bytes that are no UTF-8 are replaced by U+FFFD, so it never fails.
std::string serializeJSON(const JSON& value);

} // namespace platform
