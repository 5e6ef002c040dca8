#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloaderState.h"

#include <iterator>

void ZRKFileDownloader::State::wait(Waiting entry) {
  waitingDownloadsArray.push_back(std::move(entry));
  waitingTokens[waitingDownloadsArray.back().downloadToken].push_back(std::prev(waitingDownloadsArray.end()));
}

std::optional<ZRKFileDownloader::State::Waiting> ZRKFileDownloader::State::takeOldestWaiting() {
  if (waitingDownloadsArray.empty())
    return std::nullopt;
  return removeWaitingDownloadObject(waitingDownloadsArray.front().downloadToken);
}

std::optional<ZRKFileDownloader::State::Waiting>
ZRKFileDownloader::State::removeWaitingDownloadObject(const std::string& token) {
  auto found = waitingTokens.find(token);
  if (found == waitingTokens.end())
    return std::nullopt;
  auto place = found->second.front();
  found->second.pop_front();
  if (found->second.empty())
    waitingTokens.erase(found);
  auto entry = std::move(*place);
  waitingDownloadsArray.erase(place);
  return entry;
}

ZRKFileDownloader::State::StartingPlace ZRKFileDownloader::State::beginStart(const std::string& token) {
  return starting.insert(starting.end(), Starting{token, {}});
}

std::optional<ZRKFileDownloader::DownloadID>
ZRKFileDownloader::State::downloadIDForActiveDownloadToken(const std::string& token) const {
  auto behind = activeTokens.upper_bound({token, ~DownloadID{0}});
  if (behind == activeTokens.begin())
    return std::nullopt;
  auto newest = std::prev(behind);
  if (newest->first != token)
    return std::nullopt;
  return newest->second;
}

ZRKFileDownloader::State::ItemRef ZRKFileDownloader::State::item(DownloadID downloadID) const {
  auto found = activeDownloadsDictionary.find(downloadID);
  return found == activeDownloadsDictionary.end() ? nullptr : found->second.item;
}

ZRKFileDownloader::DownloadID ZRKFileDownloader::State::baseOf(const platform::URLSession& told) const {
  if (closingSessions.empty())
    return sessionBase;
  auto found = closingSessions.find(told.configuration().identifier);
  return found == closingSessions.end() ? sessionBase : found->second.base;
}
