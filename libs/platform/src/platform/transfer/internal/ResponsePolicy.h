#pragma once

#include "platform/transfer/internal/HTTPRules.h"
#include "platform/transfer/internal/ResponseHead.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace platform::transfer {

/// What an exchange asked for, as far as the meaning of its answer depends on it.
struct Asked {
  std::string method = "GET";
  /// The caller's own Range header, as written; empty when there is none.
  std::string ownRange;
  /// Body bytes already held before those asked for; above zero, a Range of ours asks for what follows them.
  std::int64_t held = 0;
  /// Where the bytes asked for end in the body: a Range of ours asks for a piece. -1: they are all that
  /// follow.
  std::int64_t end = -1;
  /// Offset in the resource of the first body byte: not 0 with an own range. Meaningful with a Range of ours.
  std::int64_t base = 0;
  /// Length of the whole resource as told earlier, -1 when unknown. Meaningful with a Range of ours.
  std::int64_t total = -1;
  /// Of the response that the held bytes came from.
  Validators validators;
  /// If-Range carried the modification date although a strong tag is known.
  bool byDate = false;

  /// A Range of ours goes on with an earlier response.
  bool continues() const { return held > 0 || end >= 0; }
};

/// What to do with a response, decided before its first body byte is used.
enum class Verdict {
  Append,     ///< the body follows the bytes held
  FromZero,   ///< the body is the resource (or the caller's range of it) from its start
  StatusBody, ///< a body beside the resource: an error page, an answer to another method
  HoldsAll,   ///< nothing to fetch: what is held is the whole
  Restart,    ///< does not fit what was asked: give the held bytes up and ask again without them
  AskByDate,  ///< nothing changed, but the server does not honour the tag: ask again with the date
  Redirect,
  Challenge,
  Later, ///< try again after `delay`
};

struct Decision {
  Verdict verdict = Verdict::StatusBody;
  std::int64_t bodyLength = -1;    ///< bytes that this exchange must bring, -1 when not told
  std::int64_t expectedTotal = -1; ///< bytes that the file holds in the end, -1 when not told
  std::int64_t base = 0;           ///< offset in the resource of the file's first byte
  std::int64_t entityTotal = -1;   ///< length of the whole resource, -1 when not told
  /// A later exchange may go on where this body breaks off.
  bool resumable = false;
  std::chrono::seconds delay{0};
  ChallengeOffer challenge;
  std::string reason; ///< of Restart, for a reader
};

/// Pure. `now` serves Retry-After dates; a longer wait than `retryAfterLimit` is reported as the status.
Decision decide(const Asked& asked, const ResponseHead& head, std::chrono::seconds retryAfterLimit,
                std::time_t now);

/// The Range header for going on after `asked.held` bytes, up to `asked.end` when it is told.
std::string continuingRange(const Asked& asked);

/// Bytes that the file holds in the end as far as known from `total` and the caller's range; -1 otherwise.
std::int64_t expectedLength(const Asked& asked);

/// Whether a 206 to a Range of ours proves that the server serves parts of the very version that is held: it
/// repeats the strong validator and the length that are known.
bool provesParts(const Asked& asked, const HTTPHeaders& headers);

/// The same for a 206 that came without a body yet: true when `head` says that the tag differs.
bool tagDiffers(const Validators& held, const HTTPHeaders& headers);

} // namespace platform::transfer
