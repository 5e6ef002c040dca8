#pragma once

#include "platform/transfer/URLRequest.h"

#include <string>
#include <string_view>
#include <vector>

namespace halvix {

// The structured columns of a row. No content is an empty text; a text that cannot be read is no content.

std::string headersToText(const platform::HTTPHeaders& headers);
platform::HTTPHeaders headersFromText(std::string_view text);

std::string listToText(const std::vector<std::string>& list);
std::vector<std::string> listFromText(std::string_view text);

} // namespace halvix
