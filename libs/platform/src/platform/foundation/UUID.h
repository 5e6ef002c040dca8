#pragma once

#include <string>

namespace platform {

/// A new random UUID (version 4), in upper case: "8F6DB0A1-4C0E-4B7B-9A0C-0123456789AB". Thread-safe.
std::string newUUIDString();

} // namespace platform
