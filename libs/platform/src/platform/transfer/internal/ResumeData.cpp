#include "platform/transfer/internal/ResumeData.h"

#include "platform/foundation/JSON.h"

#include <nlohmann/json.hpp>

namespace platform::transfer {

namespace {

constexpr int ResumeDataVersion = 1;
constexpr const char* ResumeDataKind = "download resume data";

JSON requestJSON(const URLRequest& request) {
  JSON headers = JSON::object();
  for (const auto& [name, value] : request.allHTTPHeaderFields())
    headers[name] = value;
  return {{"url", request.url().absoluteString()}, {"method", request.HTTPMethod()}, {"headers", headers}};
}

std::optional<URLRequest> requestFrom(const JSON& json) {
  auto url = URL::URLWithString(json.at("url").get<std::string>());
  if (!url)
    return std::nullopt;
  URLRequest request(*url);
  request.setHTTPMethod(json.at("method").get<std::string>());
  for (const auto& [name, value] : json.at("headers").items())
    request.setValueForHTTPHeaderField(value.get<std::string>(), name);
  return request;
}

} // namespace

DataRef serializeResumeData(const ResumeData& data) {
  auto text = serializeJSON({{"kind", ResumeDataKind},
                             {"version", ResumeDataVersion},
                             {"request", requestJSON(data.request)},
                             {"partial", data.partial},
                             {"length", data.length},
                             {"total", data.total}});
  return std::make_shared<const Data>(text.begin(), text.end());
}

std::optional<ResumeData> parseResumeData(const Data& bytes) {
  auto json = parseJSON({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  if (!json || !json->is_object())
    return std::nullopt;
  std::optional<ResumeData> data;
  try {
    if (json->at("kind") != ResumeDataKind)
      return std::nullopt;
    auto request = requestFrom(json->at("request"));
    if (!request)
      return std::nullopt;
    data = ResumeData{*request, {}};
    if (json->at("version") == ResumeDataVersion) {
      data->length = json->at("length").get<std::int64_t>();
      data->total = json->at("total").get<std::int64_t>();
      data->partial = json->at("partial").get<std::string>();
    }
  } catch (const JSON::exception&) {
    // What was read before the fault still counts: at least the request.
  }
  return data;
}

std::string serializeRequest(const URLRequest& request) {
  return serializeJSON(requestJSON(request));
}

std::optional<URLRequest> parseRequest(std::string_view text) {
  auto json = parseJSON(text);
  try {
    return json ? requestFrom(*json) : std::nullopt;
  } catch (const JSON::exception&) {
    return std::nullopt;
  }
}

std::string serializeResponse(const HTTPURLResponse& response) {
  JSON headers = JSON::object();
  for (const auto& [name, value] : response.allHeaderFields())
    headers[name] = value;
  return serializeJSON(
      {{"url", response.url().absoluteString()}, {"status", response.statusCode()}, {"headers", headers}});
}

std::shared_ptr<const HTTPURLResponse> parseResponse(std::string_view text) {
  auto json = parseJSON(text);
  try {
    auto url = json ? URL::URLWithString(json->at("url").get<std::string>()) : std::nullopt;
    if (!url)
      return nullptr;
    HTTPHeaders headers;
    for (const auto& [name, value] : json->at("headers").items())
      headers[name] = value.get<std::string>();
    return std::make_shared<const HTTPURLResponse>(*url, json->at("status").get<int>(), std::move(headers));
  } catch (const JSON::exception&) {
    return nullptr;
  }
}

} // namespace platform::transfer
