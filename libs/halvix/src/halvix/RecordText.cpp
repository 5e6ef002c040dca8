#include "halvix/RecordText.h"

#include "platform/foundation/JSON.h"

#include <nlohmann/json.hpp>

namespace halvix {

using platform::JSON;

std::string headersToText(const platform::HTTPHeaders& headers) {
  if (headers.empty())
    return {};
  JSON json = JSON::object();
  for (const auto& [name, value] : headers)
    json[name] = value;
  return platform::serializeJSON(json);
}

platform::HTTPHeaders headersFromText(std::string_view text) {
  platform::HTTPHeaders headers;
  const auto json = text.empty() ? nullptr : platform::parseJSON(text);
  if (json && json->is_object())
    for (const auto& [name, value] : json->items())
      if (value.is_string())
        headers[name] = value.get<std::string>();
  return headers;
}

std::string listToText(const std::vector<std::string>& list) {
  return list.empty() ? std::string() : platform::serializeJSON(JSON(list));
}

std::vector<std::string> listFromText(std::string_view text) {
  std::vector<std::string> list;
  const auto json = text.empty() ? nullptr : platform::parseJSON(text);
  if (json && json->is_array())
    for (const JSON& element : *json)
      if (element.is_string())
        list.push_back(element.get<std::string>());
  return list;
}

} // namespace halvix
