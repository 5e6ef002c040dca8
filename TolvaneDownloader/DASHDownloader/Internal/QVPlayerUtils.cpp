#include "TolvaneDownloader/DASHDownloader/Internal/QVPlayerUtils.h"

#include "platform/foundation/Locale.h"

#include <string_view>

namespace {

struct Mapping {
  std::string_view bibliographic;
  std::string_view terminology;
};

constexpr Mapping mappings[] = {
    {"alb", "sqi"}, {"arm", "hye"}, {"baq", "eus"}, {"bur", "mya"}, {"chi", "zho"},
    {"cze", "ces"}, {"dut", "nld"}, {"fre", "fra"}, {"geo", "kat"}, {"ger", "deu"},
    {"gre", "ell"}, {"ice", "isl"}, {"mac", "mkd"}, {"may", "msa"}, {"mao", "mri"},
    {"slo", "slk"}, {"rum", "ron"}, {"per", "fas"}, {"tib", "bod"}, {"wel", "cym"},
};

} // namespace

std::optional<std::string> QVPlayerUtils::localizedLanguage(const std::optional<std::string>& code) {
  if (!code)
    return std::nullopt;
  const auto name = platform::Locale::current().displayNameForLanguageCode(mapISO6932BtoISO6932T(*code));
  return name ? name : code;
}

std::string QVPlayerUtils::mapISO6932BtoISO6932T(const std::string& code) {
  for (const Mapping& mapping : mappings)
    if (mapping.bibliographic == code)
      return std::string(mapping.terminology);
  return code;
}
