#pragma once

#include "platform/foundation/Data.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/URL.h"

#include <cstdint>
#include <string>

namespace platform::transfer {

/// NSURLErrorCancelled for a URL.
ErrorRef cancelledError(const URL& url);

/// An error of NSURLErrorDomain about `url`: "<what> (<url>)."
ErrorRef urlError(std::int64_t code, const URL& url, const std::string& what, ErrorRef cause = nullptr);

/// For a CURLcode; `detail` is libcurl's own text, may be empty.
ErrorRef errorForCurlCode(int code, const URL& url, const std::string& detail);

/// Failures that another try may mend: a connection that was lost or refused in mid-stream.
bool isTransientCurlCode(int code);

/// NSURLErrorCannotWriteToFile over the POSIX error; tells the space that is missing when the disk is full.
/// `needed`: bytes still to come, -1 when unknown.
ErrorRef writeError(int errnoValue, const std::string& path, std::int64_t needed);

/// The same error with resume data in its user info.
ErrorRef withResumeData(const ErrorRef& error, const DataRef& data);

} // namespace platform::transfer
