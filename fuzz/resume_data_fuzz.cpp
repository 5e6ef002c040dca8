// Resume data, and the requests and responses that the journal keeps.
#include "fuzz/FuzzInput.h"

#include "platform/foundation/URL.h"
#include "platform/transfer/internal/ResumeData.h"

using namespace platform::transfer;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto text = fuzzing::textOf(data, size);
  if (const auto resume = parseResumeData(platform::Data(data, data + size))) {
    const auto again = parseResumeData(*serializeResumeData(*resume));
    fuzzing::require(again.has_value(), "what is written is read back", std::string(text));
    fuzzing::require(again->partial == resume->partial && again->length == resume->length &&
                         again->total == resume->total &&
                         again->request.url().absoluteString() == resume->request.url().absoluteString(),
                     "resume data survives its bytes", std::string(text));
  }
  if (const auto request = parseRequest(text)) {
    const auto again = parseRequest(serializeRequest(*request));
    fuzzing::require(again && again->allHTTPHeaderFields() == request->allHTTPHeaderFields(),
                     "a request survives its text", std::string(text));
  }
  if (const auto response = parseResponse(text))
    fuzzing::require(parseResponse(serializeResponse(*response)) != nullptr, "a response survives its text",
                     std::string(text));
  return 0;
}
