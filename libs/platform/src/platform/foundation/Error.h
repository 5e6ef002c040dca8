#pragma once

#include <any>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace platform {

/// The name space of an error code.
///
/// Domains compare by text. A domain also has an identity: copies of one `ErrorDomain` object are the same
/// domain, while an equal text made elsewhere is only an equal one. Some callers trust nothing but the
/// constant itself.
class ErrorDomain {
public:
  explicit ErrorDomain(std::string text) : _text(std::make_shared<const std::string>(std::move(text))) {}

  const std::string& text() const { return *_text; }

  /// True when both are copies of one domain object, not merely equal in text.
  bool isIdenticalTo(const ErrorDomain& other) const { return _text == other._text; }

  friend bool operator==(const ErrorDomain& a, const ErrorDomain& b) { return *a._text == *b._text; }

private:
  std::shared_ptr<const std::string> _text;
};

/// Details of an error or an exception. Values that readers look for: `std::string` for texts, `ErrorRef` for
/// an underlying error, `DataRef` for resume data, and whatever a domain documents for its own keys.
using UserInfo = std::map<std::string, std::any>;

class Error;
/// An error on its way to a caller; null means success.
using ErrorRef = std::shared_ptr<const Error>;

/// A network, file or application failure: a domain, a code in it, and details. Immutable, so it may be read
/// from any thread.
class Error {
public:
  Error(ErrorDomain domain, std::int64_t code, UserInfo userInfo = {}, ErrorRef cause = nullptr);

  const ErrorDomain& domain() const { return _domain; }
  std::int64_t code() const { return _code; }
  const UserInfo& userInfo() const { return _userInfo; }

  /// The error that led to this one: the cause given at construction, else "NSUnderlyingError" of the user
  /// info, else null.
  ErrorRef underlyingError() const;

  /// "NSLocalizedDescription" of the user info, else a text made of the domain and the code. Never empty.
  std::string localizedDescription() const;

  /// The value under `key` when it is there and is a T, else null.
  template <class T> const T* value(const std::string& key) const {
    auto it = _userInfo.find(key);
    return it == _userInfo.end() ? nullptr : std::any_cast<T>(&it->second);
  }

private:
  ErrorDomain _domain;
  std::int64_t _code;
  UserInfo _userInfo;
  ErrorRef _cause;
};

/// Shorthand for `std::make_shared<const Error>(…)`.
ErrorRef makeError(const ErrorDomain& domain, std::int64_t code, UserInfo userInfo = {},
                   ErrorRef cause = nullptr);

/// An error whose "NSLocalizedDescription" is `description`.
ErrorRef makeError(const ErrorDomain& domain, std::int64_t code, const std::string& description,
                   ErrorRef cause = nullptr);

/// An error of NSPOSIXErrorDomain for an errno value: "<what>: <strerror text>".
ErrorRef makePOSIXError(int errnoValue, const std::string& what);

// Failures of a URL load. The constant is compared by identity where a cancel of our own must be recognised.
inline const ErrorDomain NSURLErrorDomain{"NSURLErrorDomain"};
// Failures of the operating system; the code is an errno value.
inline const ErrorDomain NSPOSIXErrorDomain{"NSPOSIXErrorDomain"};
// Failures of the platform's own stores and formats.
inline const ErrorDomain NSCocoaErrorDomain{"NSCocoaErrorDomain"};

inline constexpr const char* NSLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr const char* NSLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason";
inline constexpr const char* NSLocalizedRecoverySuggestionErrorKey = "NSLocalizedRecoverySuggestion";
inline constexpr const char* NSUnderlyingErrorKey = "NSUnderlyingError";
/// A `URL`; the text of it stands under the next one.
inline constexpr const char* NSURLErrorFailingURLErrorKey = "NSErrorFailingURLKey";
inline constexpr const char* NSURLErrorFailingURLStringErrorKey = "NSErrorFailingURLStringKey";
/// User info key of the resume data (a `DataRef`) of a failed or cancelled download task.
inline constexpr const char* NSURLSessionDownloadTaskResumeData = "NSURLSessionDownloadTaskResumeData";

/// Codes of NSURLErrorDomain.
enum URLErrorCode : std::int64_t {
  NSURLErrorUnknown = -1,
  NSURLErrorCancelled = -999,
  NSURLErrorBadURL = -1000,
  NSURLErrorTimedOut = -1001,
  NSURLErrorUnsupportedURL = -1002,
  NSURLErrorCannotFindHost = -1003,
  NSURLErrorCannotConnectToHost = -1004,
  NSURLErrorNetworkConnectionLost = -1005,
  NSURLErrorHTTPTooManyRedirects = -1007,
  NSURLErrorResourceUnavailable = -1008,
  NSURLErrorNotConnectedToInternet = -1009,
  NSURLErrorRedirectToNonExistentLocation = -1010,
  NSURLErrorBadServerResponse = -1011,
  NSURLErrorUserAuthenticationRequired = -1013,
  NSURLErrorZeroByteResource = -1014,
  NSURLErrorFileDoesNotExist = -1100,
  NSURLErrorDataLengthExceedsMaximum = -1103,
  NSURLErrorSecureConnectionFailed = -1200,
  NSURLErrorServerCertificateUntrusted = -1202,
  NSURLErrorCannotCreateFile = -3000,
  NSURLErrorCannotOpenFile = -3001,
  NSURLErrorCannotWriteToFile = -3003,
  NSURLErrorCannotMoveFile = -3005,
  NSURLErrorBackgroundSessionInUseByAnotherProcess = -996,
};

} // namespace platform
