#include "platform/foundation/CharacterSet.h"

#include <unicode/uchar.h>
#include <unicode/unistr.h>

namespace platform {

std::vector<std::string> componentsSeparatedByNonAlphanumericCharacters(std::string_view text) {
  const auto characters = icu::UnicodeString::fromUTF8({text.data(), static_cast<int32_t>(text.size())});
  std::vector<std::string> pieces(1);
  for (int32_t at = 0; at < characters.length(); at = characters.moveIndex32(at, 1)) {
    const UChar32 character = characters.char32At(at);
    if ((U_GET_GC_MASK(character) & (U_GC_L_MASK | U_GC_M_MASK | U_GC_N_MASK)) != 0)
      icu::UnicodeString(character).toUTF8String(pieces.back());
    else
      pieces.emplace_back();
  }
  return pieces;
}

} // namespace platform
