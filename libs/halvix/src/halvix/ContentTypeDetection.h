#pragma once

#include "halvix/ContentType.h"
#include "halvix/QVError.h"

#include "platform/transfer/URLRequest.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace platform {
class TransferService;
}

namespace halvix {

/// Called exactly once: a type, or nothing and the error.
using ContentTypeCompletion = std::function<void(std::optional<ContentType> type, QVErrorRef error)>;

/// Finds out what a URL holds: by its suffix, else by the Content-Type that the server tells without the
/// content (see `requestResourceHead`), else by the suffix of the URL that redirects led to or of the file
/// name that the server gives, else by the first bytes, when they show a manifest. `completion` runs on the
/// main queue. Fails with `content_type_unknown`, naming what is supported, or the reason why the server was
/// of no help. `service` null: the process's default.
void detectContentType(const std::string& url, const platform::HTTPHeaders& headers,
                       const std::shared_ptr<platform::TransferService>& service,
                       ContentTypeCompletion completion);

} // namespace halvix
