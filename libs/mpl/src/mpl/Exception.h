#pragma once

#include <cstdint>
#include <stdexcept>

namespace mpl {

/// Four characters as one number, the first the most significant.
constexpr std::uint32_t tag(const char (&text)[5]) {
  return (static_cast<std::uint32_t>(static_cast<unsigned char>(text[0])) << 24) |
         (static_cast<std::uint32_t>(static_cast<unsigned char>(text[1])) << 16) |
         (static_cast<std::uint32_t>(static_cast<unsigned char>(text[2])) << 8) |
         static_cast<std::uint32_t>(static_cast<unsigned char>(text[3]));
}

/// Every failure of the manifest models. `what()` is the message; the tag tells the kinds apart that share a
/// standard base class, so a caller can catch as widely or as narrowly as it likes.
template <class Base, std::uint32_t Tag> class Exception : public Base {
public:
  static constexpr std::uint32_t tag = Tag;

  using Base::Base;
};

/// The document's structure is wrong.
using ParseException = Exception<std::runtime_error, tag("prse")>;
/// The document contradicts itself, or states values that cannot be computed with.
using StateException = Exception<std::runtime_error, tag("ista")>;
/// A value is of the wrong kind or form.
using ArgumentException = Exception<std::invalid_argument, tag("iarg")>;

} // namespace mpl
