#pragma once

#include "halvix/DownloadManager.h"

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace halvix {

/// The listeners of a manager. Thread-safe; it calls them outside its lock.
class ListenerList {
public:
  void add(const std::weak_ptr<DownloadDelegate>& listener);
  void remove(const std::shared_ptr<DownloadDelegate>& listener);

  enum class News { End, Other };
  /// Those alive that want to hear of it, and the download's own delegate once.
  std::vector<std::shared_ptr<DownloadDelegate>> audienceOf(const Download& download, News news);
  bool hasAudience(const Download& download, News news);

private:
  struct Held {
    std::weak_ptr<DownloadDelegate> listener;
    bool wantsOnlyEnds;
  };
  std::mutex _mutex;
  std::vector<Held> _listeners;
};

/// Everything of a manager that work under way may still need when the manager itself is gone.
struct ManagerState {
  static std::shared_ptr<ManagerState> create(std::shared_ptr<HostEnvironment> environment);

  /// The downloader of the first fitting factory, created when first asked for.
  std::shared_ptr<BaseDownloader> downloader(ContentType contentType);
  /// Those that may have downloads: the ones with rows on the list, which are created, and those created so
  /// far.
  std::vector<std::shared_ptr<BaseDownloader>> downloadersWithDownloads();
  /// One of each that some content type leads to.
  std::vector<std::shared_ptr<BaseDownloader>> allDownloaders();
  /// Those created so far.
  std::vector<std::shared_ptr<BaseDownloader>> knownDownloaders();
  std::vector<std::shared_ptr<BaseDownloader>> knownDownloadersLocked() const;
  std::shared_ptr<BaseDownloader> ownerOf(const Download& download);

  /// Adds a completion to the download's preparation; true when the caller has to start one.
  bool joinPreparation(const std::shared_ptr<Download>& download, DownloadManager::Completion completion);
  std::vector<DownloadManager::Completion> endPreparation(const std::shared_ptr<Download>& download);

  std::vector<QVErrorRef> start(const std::vector<std::shared_ptr<Download>>& downloads,
                                const std::weak_ptr<DownloadDelegate>& delegate);
  QVErrorRef remove(BaseDownloader& owner, const std::shared_ptr<Download>& download);
  /// Takes a provisional download off the list, with what preparing it wrote.
  void drop(BaseDownloader& owner, const std::shared_ptr<Download>& download);

  std::shared_ptr<HostEnvironment> environment;
  std::shared_ptr<Session> session;
  std::shared_ptr<ComponentRegistry> components;
  std::shared_ptr<QVPluginContext> context;
  ListenerList listeners;

  std::mutex mutex; // guards what follows
  std::vector<std::shared_ptr<QVPluginProtocol>> plugins;
  std::unordered_map<const DownloaderFactoryProtocol*, std::shared_ptr<BaseDownloader>> byFactory;
  std::map<std::string, std::shared_ptr<BaseDownloader>> byName;
  std::vector<std::shared_ptr<BaseDownloader>> foundByAll; // of so many factories
  std::size_t numFactoriesAsked = 0;
  std::size_t numOwnersKnown = 0; // so many owners of rows are among those created
  std::map<std::shared_ptr<Download>, std::vector<DownloadManager::Completion>> preparations;
};

} // namespace halvix
