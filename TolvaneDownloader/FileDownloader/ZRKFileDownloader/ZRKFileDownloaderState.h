#pragma once

#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloader.h"

#include <deque>
#include <list>
#include <mutex>
#include <set>
#include <unordered_map>
#include <utility>

/// What a downloader keeps. The lock guards everything below it and is never held over a call to anybody
/// else.
struct ZRKFileDownloader::State {
  using ItemRef = std::shared_ptr<ZRKFileDownloadItem>;

  /// A start that has to wait: from one or the other.
  struct Waiting {
    std::string downloadToken;
    std::optional<platform::Data> resumeData;
    std::optional<platform::URL> remoteURL;
  };
  /// A start that is under way: it counts as active and has no item yet. Commands for its token wait for the
  /// item, or for null when it comes to nothing.
  struct Starting {
    std::string downloadToken;
    std::vector<std::function<void(DownloadID, const ItemRef&)>> commands;
  };
  struct Active {
    ItemRef item;
    std::shared_ptr<ZRKConnectionDownload> connectionDownload;
    std::optional<bool> statusIsValid; ///< once it was asked for
  };
  using StartingPlace = std::list<Starting>::iterator;

  std::weak_ptr<ZRKFileDownloadDelegate> fileDownloadDelegate;
  ZRKFileDownloaderEnvironment environment;
  std::shared_ptr<platform::Queue> queue;
  std::shared_ptr<platform::TransferService> service;
  bool hasSessions = true;
  std::uint64_t maxConcurrentFileDownloadsCount = UnlimitedDownloads;
  /// Older transport: files are written here.
  std::shared_ptr<platform::Queue> downloadFileSerialWriterDispatchQueue;
  platform::URLSessionConfiguration connectionConfiguration;

  mutable std::mutex mutex;

  // Sessions. The tasks of each count from one, so a session that follows another has a base of its own.
  std::string backgroundSessionIdentifier;
  std::shared_ptr<platform::URLSession> backgroundSession;
  platform::ErrorRef sessionError;
  DownloadID sessionBase = 0;
  struct Closing {
    std::shared_ptr<platform::URLSession> session;
    DownloadID base;
  };
  std::unordered_map<std::string, Closing> closingSessions; ///< until they have said that they are invalid
  std::function<void()> bgSessionCompletionHandlerBlock;
  bool eventsFinished = false; ///< before anybody had asked to be told

  std::unordered_map<DownloadID, Active> activeDownloadsDictionary;
  /// Those of them that nobody has stopped yet: a token stands for its newest one.
  std::set<std::pair<std::string, DownloadID>> activeTokens;
  std::list<Starting> starting;
  std::list<Waiting> waitingDownloadsArray; ///< oldest first
  /// Places of a token in the list, oldest first.
  std::unordered_map<std::string, std::deque<std::list<Waiting>::iterator>> waitingTokens;
  DownloadID highestDownloadID = 0;

  // All of these need the lock.
  bool isFull() const {
    return maxConcurrentFileDownloadsCount != UnlimitedDownloads &&
           activeDownloadsDictionary.size() + starting.size() >= maxConcurrentFileDownloadsCount;
  }
  void wait(Waiting entry);
  std::optional<Waiting> takeOldestWaiting();
  std::optional<Waiting> removeWaitingDownloadObject(const std::string& token); ///< the oldest of that token
  StartingPlace beginStart(const std::string& token);
  std::optional<DownloadID> downloadIDForActiveDownloadToken(const std::string& token) const;
  ItemRef item(DownloadID downloadID) const;
  DownloadID baseOf(const platform::URLSession& session) const;
};
