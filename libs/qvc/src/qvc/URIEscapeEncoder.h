#pragma once

#include "qvc/URI.h"

#include <bitset>
#include <string_view>

namespace qvc {

/// Percent-encoding with a set of characters that may stand as they are. Immutable, so safe from any thread.
class URI::EscapeEncoder {
public:
  /// Letters and digits are always allowed; `allowed` adds to them.
  explicit EscapeEncoder(std::string_view allowed);

  /// Writes every byte outside the set as "%" and two upper-case hexadecimal digits. `out` may be `in`.
  void encode(const FastString& in, FastString& out) const;
  FastString encode(const FastString& in) const;
  /// Encodes unless the text is encoded already.
  FastString condEncode(const FastString& in) const;

  /// Replaces each "%" and the two characters after it with the byte they write. The digits are not checked:
  /// any other character counts as 0. A "%" with fewer than two characters after it stays, and "+" is no
  /// space. `out` may be `in`.
  static void decode(const FastString& in, FastString& out);
  static FastString decode(const FastString& in);

  /// Whether every character is in the set or is a "%" with two hexadecimal digits.
  bool isEncoded(const FastString& text) const noexcept;

  /// The sets let through what clients commonly send as it is, beyond what the RFC allows: encoding more
  /// would change signed addresses, and encode a "%20" in the same component a second time. For schemes and
  /// paths.
  static const EscapeEncoder& defaultEncoder();
  /// For user info and host names.
  static const EscapeEncoder& authorityEncoder();
  static const EscapeEncoder& queryEncoder();
  static const EscapeEncoder& fragmentEncoder();

private:
  std::bitset<256> m_allowed;
};

} // namespace qvc
