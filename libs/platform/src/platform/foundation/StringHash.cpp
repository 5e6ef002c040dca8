#include "platform/foundation/StringHash.h"

#include <xxhash.h>

namespace platform {

std::uint64_t stringHash(std::string_view text) {
  return XXH64(text.data(), text.size(), 0);
}

std::uint64_t stringHash(const std::optional<std::string>& text) {
  return text ? stringHash(std::string_view(*text)) : 0;
}

} // namespace platform
