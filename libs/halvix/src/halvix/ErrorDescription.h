#pragma once

#include "halvix/QVError.h"

#include <string>

namespace halvix {

/// Renders an error and its reasons as one line for a user: "what: why: why that". No line breaks or control
/// characters, no secrets of a URL (credentials and query are left out); a reason that repeats what was
/// already said is skipped. Aggregated download errors name their first inner cause and count the others:
/// `quality "v1": resource 7: HTTP status 404 "not found" (and 2 more resources)`. Empty for null.
std::string describeError(const QVErrorRef& error);
std::string describeError(const platform::ErrorRef& error);

/// The URL with its credentials and its query left out, for texts that are shown or stored.
std::string urlForDisplay(const std::string& url);

} // namespace halvix
