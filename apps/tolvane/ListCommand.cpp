#include "apps/tolvane/Commands.h"
#include "apps/tolvane/Host.h"
#include "apps/tolvane/Text.h"

#include "halvix/DownloadStore.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

namespace tolvane {
namespace {

using nlohmann::json;

json known(std::int64_t value) {
  return value < 0 ? json() : json(value);
}

json describe(const halvix::DownloadSummary& download) {
  return {{"id", download.id},
          {"url", download.url},
          {"title", download.title.empty() ? json() : json(download.title)},
          {"contentType", download.contentType ? json(halvix::rawValue(*download.contentType)) : json()},
          {"state", halvix::rawValue(download.state)},
          {"progress", download.progress < 0 ? json() : json(download.progress)},
          {"downloadedBytes", download.downloadedBytes},
          {"expectedBytes", known(download.expectedBytes)},
          {"localPath", download.localPath ? json(*download.localPath) : json()},
          {"error", download.error.empty() ? json() : json(download.error)}};
}

/// How many characters of each identifier tell it from all others: enough to type. Downloads from one host
/// begin alike.
std::size_t tellingLength(const std::vector<halvix::DownloadSummary>& downloads) {
  std::vector<std::string_view> identifiers;
  identifiers.reserve(downloads.size());
  for (const auto& download : downloads)
    identifiers.emplace_back(download.id);
  std::sort(identifiers.begin(), identifiers.end());
  std::size_t length = 8;
  for (std::size_t i = 1; i < identifiers.size(); ++i) {
    std::string_view a = identifiers[i - 1], b = identifiers[i];
    std::size_t common =
        static_cast<std::size_t>(std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin());
    length = std::max(length, common + 1);
  }
  return length;
}

void printLine(const halvix::DownloadSummary& download, std::size_t identifierLength) {
  std::string state = download.interrupted ? "interrupted" : halvix::rawValue(download.state);
  char percent[8] = "  ?";
  if (download.state == halvix::DownloadState::success)
    std::snprintf(percent, sizeof percent, "100");
  else if (download.progress >= 0)
    std::snprintf(percent, sizeof percent, "%3d", int(std::min(download.progress, 0.99) * 100));
  const std::string& name = download.title.empty() ? download.url : download.title;
  std::printf("%s  %-11s %s%%  %9s  %s\n", download.id.substr(0, identifierLength).c_str(), state.c_str(),
              percent, bytesText(download.downloadedBytes).c_str(), oneLine(name).c_str());
  if (!download.error.empty())
    std::printf("%*s  %s\n", int(identifierLength), "", oneLine(download.error).c_str());
}

} // namespace

int listCommand(const std::string& library, bool asJSON) {
  halvix::QVErrorRef error;
  auto downloads = halvix::DownloadStore::summaries(library, &error);
  require(error);
  if (asJSON) {
    json array = json::array();
    for (const auto& download : downloads)
      array.push_back(describe(download));
    std::printf("%s\n", array.dump(1, ' ', false, json::error_handler_t::replace).c_str());
    return statusDone;
  }
  if (downloads.empty())
    std::printf("no downloads in %s\n", library.c_str());
  const std::size_t identifierLength = tellingLength(downloads);
  for (const auto& download : downloads)
    printLine(download, identifierLength);
  return statusDone;
}

} // namespace tolvane
