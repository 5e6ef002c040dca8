#pragma once

#include "platform/transfer/URLRequest.h"

#include <string_view>

namespace platform::transfer {

struct ResponseHead {
  int status = 0;
  HTTPHeaders headers;
};

/// Reads the head of a response from the lines that libcurl hands over.
class HeadReader {
public:
  HeadReader() = default;
  /// `firstRefusalIsOurs`: libcurl answers the first 401 by itself, so it counts only when its body or the
  /// end of the exchange follows.
  explicit HeadReader(bool firstRefusalIsOurs) : _firstRefusalIsOurs(firstRefusalIsOurs) {}

  /// True when the line ends a head that counts: `settle` then. Heads of interim responses and trailers do
  /// not.
  bool line(std::string_view line);

  /// Called as well when a body or a good end follows. True once, when `head` has become the final one.
  bool settle();
  bool isSettled() const { return _settled; }

  ResponseHead& head() { return _head; }

private:
  ResponseHead _head;
  bool _firstRefusalIsOurs = false;
  bool _complete = false; ///< and not settled
  bool _settled = false;
};

} // namespace platform::transfer
