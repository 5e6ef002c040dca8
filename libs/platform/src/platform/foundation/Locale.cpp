#include "platform/foundation/Locale.h"

#include "platform/foundation/ASCII.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <string_view>
#include <unicode/locid.h>
#include <unicode/uloc.h>
#include <unicode/unistr.h>

namespace platform {

namespace {

struct Alias {
  std::string_view code, canonical;
};

// Codes that ICU takes as languages of their own: the bibliographic ones of ISO 639-2 and the withdrawn ones.
constexpr std::array aliases = std::to_array<Alias>({
    {"alb", "sq"}, {"arm", "hy"}, {"baq", "eu"}, {"bur", "my"}, {"chi", "zh"}, {"cze", "cs"}, {"dut", "nl"},
    {"fre", "fr"}, {"geo", "ka"}, {"ger", "de"}, {"gre", "el"}, {"ice", "is"}, {"mac", "mk"}, {"mao", "mi"},
    {"may", "ms"}, {"per", "fa"}, {"rum", "ro"}, {"slo", "sk"}, {"tib", "bo"}, {"wel", "cy"}, {"in", "id"},
    {"iw", "he"},  {"ji", "yi"},  {"jw", "jv"},  {"mo", "ro"},  {"mol", "ro"}, {"scc", "sr"}, {"scr", "hr"},
});

// "de_AT.UTF-8@euro" → "de-AT"; a BCP 47 tag stays as it is.
std::string languageTag(std::string_view identifier) {
  std::string tag(identifier.substr(0, identifier.find_first_of(".@")));
  std::replace(tag.begin(), tag.end(), '_', '-');
  return tag == "C" || tag == "POSIX" ? std::string() : tag;
}

std::string canonicalTag(const std::string& identifier) {
  UErrorCode status = U_ZERO_ERROR;
  const std::string tag = languageTag(identifier);
  const auto locale = icu::Locale::forLanguageTag({tag.data(), static_cast<int32_t>(tag.size())}, status);
  if (U_FAILURE(status) || *locale.getLanguage() == '\0')
    return "en";
  const auto canonical = locale.toLanguageTag<std::string>(status);
  return U_FAILURE(status) ? "en" : canonical;
}

struct Current {
  std::mutex mutex;
  Locale locale{"en"};
};
Current& currentLocale() {
  static Current current;
  return current;
}

} // namespace

Locale::Locale(const std::string& identifier) : _identifier(canonicalTag(identifier)) {}

Locale Locale::current() {
  Current& current = currentLocale();
  const std::lock_guard lock(current.mutex);
  return current.locale;
}

void Locale::setCurrent(const Locale& locale) {
  Current& current = currentLocale();
  const std::lock_guard lock(current.mutex);
  current.locale = locale;
}

std::string Locale::languageCode() const {
  return _identifier.substr(0, _identifier.find('-'));
}

std::optional<std::string> Locale::displayNameForLanguageCode(const std::string& code) const {
  const std::string canonical = canonicalLanguage(code);
  if (canonical.empty() || canonical == "root") // ICU's root locale, whose name is "unknown language"
    return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  UChar name[256];
  const int32_t length = uloc_getDisplayLanguage(canonical.c_str(), _identifier.c_str(), name,
                                                 static_cast<int32_t>(std::size(name)), &status);
  // Without a name of its own ICU answers the code, and says so by a warning.
  if (U_FAILURE(status) || status == U_USING_DEFAULT_WARNING || length <= 0)
    return std::nullopt;
  std::string text;
  icu::UnicodeString(name, length).toUTF8String(text);
  return text;
}

std::string Locale::canonicalLanguage(const std::string& code) {
  const std::string lower = asciiLowered(code);
  const std::string language = lower.substr(0, lower.find_first_of("-_"));
  const auto alias = std::find_if(aliases.begin(), aliases.end(),
                                  [&](const Alias& entry) { return entry.code == language; });
  if (alias != aliases.end())
    return std::string(alias->canonical);

  char shortest[ULOC_LANG_CAPACITY] = {};
  UErrorCode status = U_ZERO_ERROR;
  uloc_getLanguage(language.c_str(), shortest, ULOC_LANG_CAPACITY, &status);
  const bool isKnown = U_SUCCESS(status) && status != U_STRING_NOT_TERMINATED_WARNING &&
                       *uloc_getISO3Language(shortest) != '\0';
  return isKnown ? shortest : lower;
}

} // namespace platform
