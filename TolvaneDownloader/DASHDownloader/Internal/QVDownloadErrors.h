#pragma once

#include "platform/foundation/Error.h"

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>

class QVMovie;
class QVQuality;

namespace platform {
class HTTPURLResponse;
}

/// Failures of the orchestration itself.
inline const platform::ErrorDomain QVDownloadErrorDomain{"QVDownloadErrorDomain"};
/// A server's refusal; the code is the HTTP status, "QVStatusMessage" (a std::string) its text.
inline const platform::ErrorDomain QVDownloadHTTPErrorDomain{"QVDownloadHTTPErrorDomain"};

enum QVDownloadErrorCode : std::int64_t {
  /// A quality failed: "QVQuality" is its `std::shared_ptr<QVQuality>`, "QVResourceErrors" a
  /// `QVResourceErrors`. The cause is the first resource's error.
  QVDownloadErrorQualityFailed = -1001,
  /// A set failed: "QVMovie" is its `std::shared_ptr<QVMovie>`, "QVQualityErrors" a `QVQualityErrors`. The
  /// cause is the first quality's error.
  QVDownloadErrorSetFailed = -1002,
  /// The place of a resource's file is not one that it may have; it is never fetched.
  QVDownloadErrorResourcePath = -1003,
  /// A resource has no URL that could be asked.
  QVDownloadErrorResourceURL = -1004,
  /// A server answered with other bytes than those that were asked for.
  QVDownloadErrorResourceRange = -1005,
};

/// Index of the resource to its error.
using QVResourceErrors = std::map<std::size_t, platform::ErrorRef>;
/// Identifier of the quality to its error.
using QVQualityErrors = std::map<std::string, platform::ErrorRef>;

platform::ErrorRef QVMakeQualityError(const std::shared_ptr<QVQuality>& quality, QVResourceErrors errors);
platform::ErrorRef QVMakeSetError(const std::shared_ptr<QVMovie>& movie, QVQualityErrors errors);

/// Null for the two statuses that bring a resource's bytes, 200 and 206.
platform::ErrorRef QVMakeHTTPError(const platform::HTTPURLResponse& response);

/// `code` is one of those about a single resource; the text is "<reference>: <reason>".
platform::ErrorRef QVMakeResourceError(QVDownloadErrorCode code, std::string_view reference,
                                       std::string_view reason, platform::ErrorRef cause = nullptr);
