#include "qvc/ByteArray.h"
#include "qvc/FastString.h"

#include <array>
#include <ios>
#include <sstream>
#include <stdexcept>

namespace qvc {
namespace {

constexpr char LowerDigits[] = "0123456789abcdef";
constexpr char UpperDigits[] = "0123456789ABCDEF";
constexpr uint8_t NoDigit = 0xFF;

constexpr std::array<uint8_t, 256> DigitValues = [] {
  std::array<uint8_t, 256> values{};
  values.fill(NoDigit);
  for (uint8_t i = 0; i < 16; ++i) {
    values[static_cast<uint8_t>(LowerDigits[i])] = i;
    values[static_cast<uint8_t>(UpperDigits[i])] = i;
  }
  return values;
}();

void appendHex(FastString& out, uint8_t byte, const char* digits) {
  out.append(digits[byte >> 4]).append(digits[byte & 15]);
}

} // namespace

FastString FastString::arrayToHex(const ByteArray& bytes, bool upperCase) {
  FastString result;
  result.reserve(bytes.size() * 2);
  for (const uint8_t byte : bytes)
    appendHex(result, byte, upperCase ? UpperDigits : LowerDigits);
  return result;
}

ByteArray FastString::hexToArray(const FastString& text) {
  ByteArray result;
  result.reserve((text.size() + 1) / 2);
  for (size_t i = 0; i < text.size(); i += 2) {
    if (i + 1 < text.size()) {
      const uint8_t high = DigitValues[static_cast<uint8_t>(text[i])];
      const uint8_t low = DigitValues[static_cast<uint8_t>(text[i + 1])];
      if (high != NoDigit && low != NoDigit) {
        result.pushBack(static_cast<uint8_t>(high << 4 | low));
        continue;
      }
    }
    // Anything unusual follows the rules of a single byte.
    result.pushBack(hexToChar(text.subString(i, 2)));
  }
  return result;
}

FastString FastString::charToHex(uint8_t byte, bool upperCase) {
  FastString result;
  appendHex(result, byte, upperCase ? UpperDigits : LowerDigits);
  return result;
}

uint8_t FastString::hexToChar(const FastString& text) {
  std::istringstream stream(text.toStdString());
  stream.imbue(std::locale::classic());
  unsigned value = 0;
  if (!(stream >> std::hex >> value))
    throw std::runtime_error("stream decode failure");
  return static_cast<uint8_t>(value);
}

} // namespace qvc
