#pragma once

#include "platform/foundation/Data.h"
#include "platform/transfer/URLRequest.h"

#include <cstdint>
#include <optional>
#include <string>

namespace platform::transfer {

/// The content of resume data: the request, and the partial file with what it was when the data was made.
/// The file's own description decides whether the bytes still fit; a copy of it that fell behind does no
/// harm.
struct ResumeData {
  URLRequest request;
  std::string partial; ///< name of the partial file; empty: start from zero
  std::int64_t length = 0;
  std::int64_t total = -1;
};

DataRef serializeResumeData(const ResumeData& data);

/// Nothing when not even the request can be told. A newer format still tells its request.
std::optional<ResumeData> parseResumeData(const Data& bytes);

/// A request as JSON text, as the journal keeps it.
std::string serializeRequest(const URLRequest& request);
std::optional<URLRequest> parseRequest(std::string_view text);

/// A response head as JSON text.
std::string serializeResponse(const HTTPURLResponse& response);
std::shared_ptr<const HTTPURLResponse> parseResponse(std::string_view text);

} // namespace platform::transfer
