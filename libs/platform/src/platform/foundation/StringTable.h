#pragma once

#include <string>

namespace platform {

/// The application's main string table, over gettext catalogues.
///
/// Until an application binds a catalogue, and for every key that the catalogue does not hold, the key is the
/// answer.
class StringTable {
public:
  /// Looks catalogues up under `directory`/<language>/LC_MESSAGES/`domain`.mo from now on. Thread-safe, once
  /// at start.
  static void bind(const std::string& domain, const std::string& directory);

  /// The text for `key` in the process's language, else `key`. Thread-safe. The language is the one of the
  /// process's message locale: an application that wants translations calls `setlocale` at its start.
  static std::string localizedString(const std::string& key);
};

} // namespace platform
