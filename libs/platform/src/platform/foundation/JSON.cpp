#include "platform/foundation/JSON.h"

#include <nlohmann/json.hpp>

namespace platform {

namespace {

constexpr int deepestLevel = 512;
// The code of a text that cannot be read as what it should be (NSCocoaErrorDomain).
constexpr std::int64_t propertyListReadCorrupt = 3840;

// The parser itself does not recurse, but writers and walkers of the value do: a hostile text must not choose
// how deep they go.
bool nestsTooDeep(std::string_view text) {
  int level = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    switch (text[i]) {
    case '"':
      inString = !inString;
      break;
    case '\\':
      if (inString)
        ++i;
      break;
    case '[':
    case '{':
      if (!inString && ++level > deepestLevel)
        return true;
      break;
    case ']':
    case '}':
      if (!inString)
        --level;
      break;
    default:
      break;
    }
  }
  return false;
}

} // namespace

std::unique_ptr<JSON> parseJSON(std::string_view text, ErrorRef* error) {
  std::string reason;
  if (nestsTooDeep(text)) {
    reason = "The JSON text nests deeper than " + std::to_string(deepestLevel) + " levels.";
  } else {
    try {
      return std::make_unique<JSON>(JSON::parse(text));
    } catch (const JSON::exception& e) {
      reason = std::string("The text is no JSON: ") + e.what();
    }
  }
  if (error)
    *error = makeError(NSCocoaErrorDomain, propertyListReadCorrupt, reason);
  return nullptr;
}

std::string serializeJSON(const JSON& value) {
  return value.dump(-1, ' ', false, JSON::error_handler_t::replace);
}

} // namespace platform
