#pragma once

#include "platform/foundation/Error.h"

#include <exception>
#include <string>

namespace platform {

/// A named exception: raised for misuse and for failures that a caller cannot be expected to plan for. `name`
/// tells the kind, `reason` is the text for a reader (also `what()`), `userInfo` the details.
class Exception : public std::exception {
public:
  Exception(std::string name, std::string reason, UserInfo userInfo = {})
      : _name(std::move(name)), _reason(std::move(reason)), _userInfo(std::move(userInfo)) {}

  const std::string& name() const { return _name; }
  const std::string& reason() const { return _reason; }
  const UserInfo& userInfo() const { return _userInfo; }
  const char* what() const noexcept override { return _reason.c_str(); }

private:
  std::string _name;
  std::string _reason;
  UserInfo _userInfo;
};

} // namespace platform
