#include "platform/foundation/StringTable.h"

#include <libintl.h>
#include <mutex>

namespace platform {

namespace {

struct Table {
  std::mutex mutex;
  std::string domain; // empty: nothing bound yet
};
Table& table() {
  static Table table;
  return table;
}

} // namespace

void StringTable::bind(const std::string& domain, const std::string& directory) {
  const std::lock_guard lock(table().mutex);
  bindtextdomain(domain.c_str(), directory.c_str());
  bind_textdomain_codeset(domain.c_str(), "UTF-8");
  table().domain = domain;
}

std::string StringTable::localizedString(const std::string& key) {
  std::string domain;
  {
    const std::lock_guard lock(table().mutex);
    domain = table().domain;
  }
  // The empty key would answer the catalogue's header.
  if (domain.empty() || key.empty())
    return key;
  return dgettext(domain.c_str(), key.c_str());
}

} // namespace platform
