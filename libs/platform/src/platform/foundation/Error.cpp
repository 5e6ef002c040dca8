#include "platform/foundation/Error.h"

#include <system_error>
#include <utility>

namespace platform {

Error::Error(ErrorDomain domain, std::int64_t code, UserInfo userInfo, ErrorRef cause)
    : _domain(std::move(domain)), _code(code), _userInfo(std::move(userInfo)), _cause(std::move(cause)) {}

ErrorRef Error::underlyingError() const {
  if (_cause)
    return _cause;
  const ErrorRef* fromInfo = value<ErrorRef>(NSUnderlyingErrorKey);
  return fromInfo ? *fromInfo : nullptr;
}

std::string Error::localizedDescription() const {
  const std::string* text = value<std::string>(NSLocalizedDescriptionKey);
  if (text && !text->empty())
    return *text;
  return "The operation could not be completed (" + _domain.text() + " error " + std::to_string(_code) + ").";
}

ErrorRef makeError(const ErrorDomain& domain, std::int64_t code, UserInfo userInfo, ErrorRef cause) {
  return std::make_shared<const Error>(domain, code, std::move(userInfo), std::move(cause));
}

ErrorRef makeError(const ErrorDomain& domain, std::int64_t code, const std::string& description,
                   ErrorRef cause) {
  return makeError(domain, code, UserInfo{{NSLocalizedDescriptionKey, description}}, std::move(cause));
}

ErrorRef makePOSIXError(int errnoValue, const std::string& what) {
  // The generic category answers from a thread-safe strerror.
  return makeError(NSPOSIXErrorDomain, errnoValue, what + ": " + std::generic_category().message(errnoValue));
}

} // namespace platform
