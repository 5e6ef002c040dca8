#pragma once

#include <cstdint>

namespace qvc {

/// The library's result codes. Operations that can fail return one; the texts are those of
/// `debug::Log::getErrorCodeString`. The numbers appear in log lines and are fixed.
enum _qvc_Result : uint32_t {
  qvc_Success = 0,
  qvc_AlreadyInitialized = 1,
  qvc_AlreadyDestroyed = 2,
  qvc_InvalidHandle = 3,
  qvc_InvalidArguments = 4,
  qvc_InvalidFormat = 5,
  qvc_InvalidObject = 6,
  qvc_InvalidCredentials = 7,
  qvc_NotAvailable = 8,
  qvc_PermissionDenied = 9,
  qvc_OutOfRange = 10,
  qvc_OutOfMemory = 11,
  qvc_IOError = 12,
  qvc_EndOfFile = 13,
  qvc_InvalidResponse = 14,
  qvc_CouldNotConnect = 15,
  qvc_NotInitialized = 16,
  qvc_UnsupportedFeature = 17,
  qvc_GeneralFailure = 65535,
};

constexpr bool succeeded(_qvc_Result result) noexcept {
  return result == qvc_Success;
}
constexpr bool failed(_qvc_Result result) noexcept {
  return result != qvc_Success;
}

} // namespace qvc
