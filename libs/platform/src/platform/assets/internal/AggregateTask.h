#pragma once

#include "platform/assets/AssetDownloadURLSession.h"
#include "platform/assets/internal/AssetModel.h"
#include "platform/assets/internal/HLSAsset.h"
#include "platform/assets/internal/Package.h"
#include "platform/assets/internal/PlaylistWriter.h"
#include "platform/assets/internal/StreamPlan.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace platform::assets {

class DownloadSession;

/// What leads from an asset to its streams: the chosen variant and renditions with their media playlists.
struct Streams {
  struct Stream {
    StreamKind kind = StreamKind::Video;
    std::vector<const Rendition*> renditions; ///< that share one playlist; null: the variant
    std::string reference;                    ///< in the master playlist
    std::optional<URL> url;
    PlaylistRef playlist; ///< once it was fetched
    std::unique_ptr<StreamPlan> plan;
  };
  std::shared_ptr<const AssetModel> model;
  Wish wish;
  const Variant* variant = nullptr;              ///< null for an asset that is a media playlist
  std::vector<const Rendition*> withoutPlaylist; ///< carried in the variant's media
  std::vector<Stream> streams;

  /// Chooses; `error` names what is missing.
  static ErrorRef choose(std::shared_ptr<const AssetModel> model, Wish wish, Streams& to);
  /// Plans each stream whose playlist was fetched.
  ErrorRef plan();
};

/// What the options of a task say; nothing for what they do not.
struct TaskOptions {
  std::optional<std::int64_t> minimumBitrate;
  std::optional<int> maximumTransfers;
};

/// A task. Its engine is level-triggered: commands change what is wanted, and `pump`, on the session's work
/// queue, acts on the difference. What is not marked otherwise belongs to that queue.
class AggregateTask final : public AggregateAssetDownloadTask,
                            public std::enable_shared_from_this<AggregateTask> {
public:
  AggregateTask(std::shared_ptr<DownloadSession> session, std::uint64_t identifier,
                std::shared_ptr<HLSAsset> asset, std::vector<MediaSelection> selections, std::string title,
                DataRef artwork, TaskOptions options);

  // From any thread.
  std::uint64_t taskIdentifier() const override { return _identifier; }
  const std::shared_ptr<platform::URLAsset>& URLAsset() const override { return _assetFace; }
  const std::string& assetTitle() const override { return _title; }
  URLSessionTaskState state() const override;
  ErrorRef error() const override;
  std::string location() const override;
  std::int64_t countOfBytesReceived() const override { return _received; }
  void resume() override;
  void suspend() override;
  void cancel() override;
  /// Goes on with what a task of an earlier process wanted, in its package. Before anybody else knows the
  /// task.
  void restore(Wish wish, std::string package) {
    _restoredWish = std::move(wish);
    _restoredPackage = std::move(package);
  }

  // From the session, on its work queue.
  void pump();
  /// Moves the body of a transfer that ended before it was asked for; false when it is of no use.
  bool keepBody(const std::string& file, const std::string& to);
  void didWrite(std::uint64_t transfer, std::int64_t total);
  void didFinish(std::uint64_t transfer, const std::string& file);
  void didComplete(std::uint64_t transfer, const ErrorRef& error);

private:
  enum class Wanted { Suspended, Running, Cancelled };
  enum class Phase { New, LoadingAsset, LoadingPlaylists, Loaded, Fetching, Ended };
  struct Flight {
    std::size_t stream = 0, resource = 0;
    DownloadTaskRef task;
    std::int64_t received = 0;
    bool suspended = false;
    ErrorRef problem; ///< with what came
  };

  void command(Wanted wanted);
  void load();
  void assetLoaded();
  void fetchPlaylists();
  void prepare();
  ErrorRef openPackage();
  void fill();
  void start(std::size_t stream, std::size_t resource);
  void placeLeft(Flight flight, const std::string& body);
  void checkHead(Flight& flight);
  ErrorRef checkBody(const Flight& flight, std::int64_t size) const;
  void fail(ErrorRef error);
  void abortTransfers();
  void suspendTransfers();
  void resumeTransfers();
  ErrorRef checkpoint(bool all);
  ErrorRef writeMaster();
  void complete();
  void end(const ErrorRef& error);
  ErrorRef resourceError(const Flight& flight, const std::string& why, const std::string& advice) const;
  PackageState packageState(bool complete) const;
  void leaveSession();

  void noteLoaded(const StreamPlan& plan, std::size_t resource);
  void reportLoaded();
  void postLoaded(bool last);
  std::vector<TimeRange> loadedRanges() const;

  const std::uint64_t _identifier;
  const std::shared_ptr<HLSAsset> _asset;
  const std::shared_ptr<platform::URLAsset> _assetFace;
  const std::vector<MediaSelection> _selections;
  const std::string _title;
  const DataRef _artwork;
  const TaskOptions _options;
  std::optional<Wish> _restoredWish;
  std::string _restoredPackage;
  const std::shared_ptr<SerialQueue> _work;
  const std::weak_ptr<DownloadSession> _weakSession;

  // For any thread.
  mutable std::mutex _mutex;
  Wanted _wanted = Wanted::Suspended;
  bool _ended = false;
  ErrorRef _error;
  std::string _location;
  std::shared_ptr<DownloadSession> _session; ///< from the first resume to the end
  std::atomic<std::int64_t> _received{0};
  /// Held while files of the package change, and by `cancel`: after it returned nothing is written any more.
  std::mutex _writing;
  bool _mayWrite = true; ///< guarded by `_writing`

  // For the work queue.
  Phase _phase = Phase::New;
  Streams _streams;
  std::unique_ptr<Package> _package;
  std::map<std::uint64_t, Flight> _flights;
  std::vector<std::shared_ptr<URLSessionDataTask>> _playlistTasks;
  std::size_t _playlistsPending = 0;
  std::vector<std::size_t> _written; ///< segments in each stream's local playlist
  std::vector<std::vector<std::string>> _strays;
  ErrorRef _failure;
  bool _aborting = false, _transfersSuspended = false;
  double _duration = 0; ///< of the longest stream
  TimeRange _newest;
  bool _loadedChanged = false, _loadedPosted = false;
};

} // namespace platform::assets
