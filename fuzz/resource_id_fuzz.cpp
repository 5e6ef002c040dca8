// Task descriptions as a relaunched process finds them.
#include "fuzz/FuzzInput.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceId.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(fuzzing::textOf(data, size));
  const auto identity = QVResourceId::resourceIdWithJSONString(text);
  const std::string written = identity.serializeToJSON();
  const auto again = QVResourceId::resourceIdWithJSONString(written);
  fuzzing::require(
      again.manifestURL() == identity.manifestURL() && again.qualityId() == identity.qualityId() &&
          again.resourceIndex() == identity.resourceIndex() && again.status() == identity.status(),
      "an identity survives its text", written);
  return 0;
}
