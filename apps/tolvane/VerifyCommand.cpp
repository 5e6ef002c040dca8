#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMutableMovieDownloadProperties.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylistFactory.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourcePath.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"
#include "apps/tolvane/Commands.h"
#include "apps/tolvane/FileCommands.h"
#include "apps/tolvane/HLSCommands.h"
#include "apps/tolvane/Host.h"
#include "apps/tolvane/Manifest.h"
#include "apps/tolvane/MediaFileCheck.h"
#include "apps/tolvane/Text.h"

#include "halvix/DownloadStore.h"
#include "halvix/ErrorDescription.h"
#include "platform/foundation/FileManager.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace tolvane {
namespace {

using platform::FileManager;

halvix::DownloadSummary find(const std::string& library, const std::string& prefix) {
  halvix::QVErrorRef error;
  auto downloads = halvix::DownloadStore::summaries(library, &error);
  require(error);
  const halvix::DownloadSummary* found = nullptr;
  for (const auto& download : downloads) {
    if (download.id == prefix)
      return download;
    if (!prefix.empty() && download.id.rfind(prefix, 0) == 0) {
      if (found)
        throw Failure("'" + prefix + "' begins more than one identifier; give more of it");
      found = &download;
    }
  }
  if (!found)
    throw Failure("there is no download '" + prefix + "'; see tolvane list");
  return *found;
}

/// Every downloader of the library has a directory with one directory for each of its downloads.
std::string directoryOf(const std::string& library, const std::string& identifier) {
  for (const std::string& name : FileManager::contentsOfDirectoryAtPath(library)) {
    std::string path = library + "/" + name + "/" + identifier;
    if (FileManager::directoryExistsAtPath(path))
      return path;
  }
  throw Failure("nothing is on disk yet for " + identifier);
}

struct Tally {
  std::size_t whole = 0;
  std::vector<std::string> missing;
  std::vector<std::string> damaged;
};

struct QualityTally {
  std::shared_ptr<QVQuality> quality;
  Tally tally;
};

/// A ranged resource tells its length; of others the file itself must tell whether its end is there.
void check(const std::string& folder, const QVResourceDirectory& places, const QVRangedURL& resource,
           Tally& tally) {
  auto relative = places.relativePath(resource.referenceURL());
  if (!relative) {
    tally.missing.push_back(resource.referenceURL() + " (has no place in the directory)");
    return;
  }
  std::string path = folder + "/" + *relative;
  auto attributes = FileManager::attributesOfItemAtPath(path);
  if (!attributes || attributes->type != platform::FileAttributes::Type::Regular) {
    tally.missing.push_back(*relative);
    return;
  }
  if (resource.length() > 0 && attributes->size < static_cast<std::int64_t>(resource.length())) {
    tally.damaged.push_back(*relative + " (" + std::to_string(attributes->size) + " of " +
                            std::to_string(resource.length()) + " bytes)");
    return;
  }
  if (std::string fault = mediaFileFault(path); !fault.empty())
    tally.damaged.push_back(*relative + " (" + fault + ")");
  else
    ++tally.whole;
}

void printSome(const char* what, const std::vector<std::string>& names) {
  constexpr std::size_t most = 20;
  for (std::size_t i = 0; i < std::min(most, names.size()); ++i)
    std::printf("    %s %s\n", what, oneLine(names[i]).c_str());
  if (names.size() > most)
    std::printf("    and %zu more\n", names.size() - most);
}

} // namespace

int verifyCommand(const std::string& library, const std::string& identifier, bool withOrigin,
                  const platform::HTTPHeaders& headers) {
  halvix::DownloadSummary download = find(library, identifier);
  if (download.contentType == halvix::ContentType::mp4 || download.contentType == halvix::ContentType::mp3)
    return verifyFile(download, withOrigin, headers);
  if (withOrigin)
    throw Failure("--origin compares files only; a presentation is compared with its stored manifest",
                  statusUsage);
  if (download.contentType == halvix::ContentType::hls)
    return verifyPackage(download);
  const std::string folder = directoryOf(library, download.id);
  auto properties =
      QVMovieDownloadProperties::propertiesWithLocalPath(folder, QVMovieDownloadProperties::defaultJSONName);
  if (!properties)
    throw Failure(folder + ": the file " + QVMovieDownloadProperties::defaultJSONName +
                  " is missing or damaged; 'tolvane resume' of the download makes it new");
  const std::string manifestName = properties->manifestName();
  platform::ErrorRef error;
  auto playlist = QVPlaylistFactory::generateWithFile(folder + "/" + manifestName, &error);
  if (!playlist || playlist->movies().empty())
    throw Failure(
        folder + "/" + manifestName + ": " +
        (error ? halvix::describeError(error) : "the stored manifest is missing or holds no movie"));

  const auto listed = properties->downloadedQualityIdentifiers().value_or(std::vector<std::string>());
  const std::set<std::string> claimed(listed.begin(), listed.end());
  const QVResourceDirectory places(folder, {manifestName, QVMovieDownloadProperties::defaultJSONName});
  const std::string base = resourceBase(properties->sourceURL());
  bool good = download.state == halvix::DownloadState::success;
  std::vector<QualityTally> tallies;
  std::set<std::string> found;
  for (const auto& track : playlist->movies()[0]->tracks())
    for (const auto& quality : track->qualities()) {
      auto resources = quality->resourceBuilder()->fillResourcesWithBaseURL(base);
      if (!resources)
        continue;
      Tally tally;
      for (const auto& resource : *resources)
        check(folder, places, *resource, tally);
      if (tally.whole + tally.damaged.size() > 0)
        found.insert(quality->identifier());
      tallies.push_back({quality, std::move(tally)});
    }
  std::size_t qualities = 0;
  for (const auto& [quality, tally] : tallies) {
    // What has no file and is claimed by nobody was never chosen. An identifier is a quality's own in its
    // track only: a claim of it is for the one that has files.
    if (tally.whole + tally.damaged.size() == 0 &&
        (claimed.count(quality->identifier()) == 0 || found.count(quality->identifier()) != 0))
      continue;
    ++qualities;
    bool whole = tally.missing.empty() && tally.damaged.empty();
    good = good && whole;
    std::printf("%s  id:%s  %s: %zu of %zu files whole", whole ? "whole     " : "incomplete",
                oneLine(quality->identifier()).c_str(), oneLine(quality->parameters()).c_str(), tally.whole,
                tally.whole + tally.missing.size() + tally.damaged.size());
    if (!tally.missing.empty())
      std::printf(", %zu missing", tally.missing.size());
    if (!tally.damaged.empty())
      std::printf(", %zu short or damaged", tally.damaged.size());
    std::printf("\n");
    printSome("missing", tally.missing);
    printSome("damaged", tally.damaged);
  }
  if (qualities == 0)
    std::printf("no resource of any quality is on disk\n");
  if (download.state != halvix::DownloadState::success)
    std::printf("the download is not complete; its state is %s\n", halvix::rawValue(download.state).c_str());
  std::printf("%s\n", good && qualities > 0 ? "verified: everything is whole" : "verified: NOT whole");
  return good && qualities > 0 ? statusDone : statusFailed;
}

} // namespace tolvane
