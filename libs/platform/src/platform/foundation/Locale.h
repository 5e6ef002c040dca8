#pragma once

#include <memory>
#include <optional>
#include <string>

namespace platform {

/// A user's language and region. Immutable; thread-safe.
class Locale {
public:
  /// From a BCP 47 tag or a POSIX name ("en", "de_AT.UTF-8"); "C", "POSIX" and the empty name are English.
  explicit Locale(const std::string& identifier);

  /// The process's locale: English until the application sets one.
  static Locale current();
  static void setCurrent(const Locale& locale);

  const std::string& identifier() const { return _identifier; } ///< BCP 47, "de-AT"
  std::string languageCode() const;                             ///< "de"

  /// The name of a language in this locale ("German" for "deu" or "de"); nothing when the locale has no name
  /// for it.
  std::optional<std::string> displayNameForLanguageCode(const std::string& code) const;

  /// The shortest ISO 639 form of a language code or tag ("de" for "deu", "ger" and "de-AT"); the lower-cased
  /// code itself when it is unknown. Two codes name one language exactly when these are equal.
  static std::string canonicalLanguage(const std::string& code);

private:
  std::string _identifier;
};

} // namespace platform
