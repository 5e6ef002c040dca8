#include "qvc/URIEscapeEncoder.h"

#include <array>

namespace qvc {
namespace {

constexpr char HexDigits[] = "0123456789ABCDEF";
constexpr uint8_t NoDigit = 0xFF;

constexpr std::array<uint8_t, 256> DigitValues = [] {
  std::array<uint8_t, 256> values{};
  values.fill(NoDigit);
  for (uint8_t i = 0; i < 10; ++i)
    values['0' + i] = i;
  for (uint8_t i = 0; i < 6; ++i)
    values['a' + i] = values['A' + i] = static_cast<uint8_t>(10 + i);
  return values;
}();

uint8_t digitValue(char digit) {
  return DigitValues[static_cast<uint8_t>(digit)];
}

} // namespace

URI::EscapeEncoder::EscapeEncoder(std::string_view allowed) {
  for (const std::string_view set :
       {std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"), allowed})
    for (const char character : set)
      m_allowed.set(static_cast<uint8_t>(character));
}

FastString URI::EscapeEncoder::encode(const FastString& in) const {
  FastString out;
  out.reserve(in.size() + in.size() / 2);
  for (const char character : in) {
    const auto byte = static_cast<uint8_t>(character);
    if (m_allowed[byte])
      out.append(character);
    else
      out.append('%').append(HexDigits[byte >> 4]).append(HexDigits[byte & 15]);
  }
  return out;
}

void URI::EscapeEncoder::encode(const FastString& in, FastString& out) const {
  out = encode(in);
}

FastString URI::EscapeEncoder::condEncode(const FastString& in) const {
  return isEncoded(in) ? in : encode(in);
}

FastString URI::EscapeEncoder::decode(const FastString& in) {
  size_t percent = in.indexOf('%');
  if (percent == FastString::npos)
    return in;
  FastString out;
  out.reserve(in.size());
  size_t begin = 0;
  for (; percent != FastString::npos && in.size() - percent > 2; percent = in.indexOf('%', begin)) {
    out.append(in.view().substr(begin, percent - begin));
    const uint8_t high = digitValue(in[percent + 1]);
    const uint8_t low = digitValue(in[percent + 2]);
    out.append(static_cast<char>((high == NoDigit ? 0 : high) << 4 | (low == NoDigit ? 0 : low)));
    begin = percent + 3;
  }
  return out.append(in.view().substr(begin));
}

void URI::EscapeEncoder::decode(const FastString& in, FastString& out) {
  out = decode(in);
}

bool URI::EscapeEncoder::isEncoded(const FastString& text) const noexcept {
  for (size_t i = 0; i < text.size(); ++i) {
    if (m_allowed[static_cast<uint8_t>(text[i])])
      continue;
    if (text[i] != '%' || text.size() - i < 3 || digitValue(text[i + 1]) == NoDigit ||
        digitValue(text[i + 2]) == NoDigit)
      return false;
    i += 2;
  }
  return true;
}

const URI::EscapeEncoder& URI::EscapeEncoder::defaultEncoder() {
  static const EscapeEncoder encoder("-._~!$&'()*+,;=:@/[]|");
  return encoder;
}

const URI::EscapeEncoder& URI::EscapeEncoder::authorityEncoder() {
  static const EscapeEncoder encoder("-._~!$&'()*+,;=:[]");
  return encoder;
}

const URI::EscapeEncoder& URI::EscapeEncoder::queryEncoder() {
  static const EscapeEncoder encoder("-._~!$&'()*+,;=:@/?[]|{}^`\\");
  return encoder;
}

const URI::EscapeEncoder& URI::EscapeEncoder::fragmentEncoder() {
  static const EscapeEncoder encoder("-._~!$&'()*+,;=:@/?[]|{}^#");
  return encoder;
}

} // namespace qvc
