#pragma once

#include <string>

namespace halvix {

/// One use of the host by an application: downloaders are created for a session and report to its dispatcher.
/// Immutable; shared between threads.
class Session {
public:
  explicit Session(std::string identifier) : _identifier(std::move(identifier)) {}
  const std::string& identifier() const { return _identifier; }

private:
  const std::string _identifier;
};

} // namespace halvix
