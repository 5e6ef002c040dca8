#pragma once

#include <optional>
#include <string>

/// Names of languages. Thread-safe.
class QVPlayerUtils {
public:
  /// The language's name in the user's current locale; `code` itself when the locale has no name for it,
  /// nothing for no code.
  static std::optional<std::string> localizedLanguage(const std::optional<std::string>& code);

  /// The terminology form of an ISO 639-2 bibliographic code ("deu" for "ger"); anything else unchanged.
  /// Exact, so upper case is not recognised.
  static std::string mapISO6932BtoISO6932T(const std::string& code);
};
