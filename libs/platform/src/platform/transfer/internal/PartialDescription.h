#pragma once

#include "platform/transfer/internal/HTTPRules.h"
#include "platform/transfer/internal/HeldRanges.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace platform::transfer {

/// What a partial file holds: enough to go on with it knowing nothing else. Kept beside it as
/// `<name>.json`.
struct PartialDescription {
  std::string method = "GET";
  std::string url;
  std::string range; ///< the caller's own Range header, or empty
  Validators validators;
  std::int64_t base = 0;            ///< offset in the resource of the first byte
  std::int64_t total = -1;          ///< length of the whole resource, -1 when unknown
  HeldRanges synced;                ///< bytes of the file that were on stable storage
  bool mapped = false;              ///< a map, not the file's length, tells what else is held
  std::string boot;                 ///< the run of the system in which it was written
  std::string owner;                ///< lock name of the session that goes on with it; empty: anybody may
  std::uint64_t taskIdentifier = 0; ///< of that session
};

/// Text form; parsing answers false for garbled text and for a newer format, which `newer` tells apart.
std::string serializePartialDescription(const PartialDescription& description);
bool parsePartialDescription(std::string_view text, PartialDescription& description, bool& newer);

/// The text of a map that says that `held` has been written.
std::string partialMapText(const HeldRanges& held);

/// The bytes that count of a file of `fileSize` bytes: what is on stable storage, and within one run of the
/// system also what its process had written before it was killed.
HeldRanges trustedRanges(const PartialDescription& description, std::int64_t fileSize,
                         const std::string& mapPath);

/// The system's boot identifier: page-cache content of a killed process is trusted only within one boot.
const std::string& bootIdentifier();

} // namespace platform::transfer
