#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace platform {

/// Raw bytes: a manifest as fetched, resume data, an archived record.
using Data = std::vector<std::uint8_t>;

/// Bytes that are handed on without a copy; null stands for "no data", which is not the same as empty data.
using DataRef = std::shared_ptr<const Data>;

} // namespace platform
