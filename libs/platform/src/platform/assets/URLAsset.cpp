#include "platform/assets/internal/HLSAsset.h"

#include "platform/assets/internal/AssetErrors.h"
#include "platform/transfer/TransferService.h"

#include <algorithm>
#include <utility>

namespace platform {

std::shared_ptr<URLAsset> URLAsset::assetWithURL(URL url, AssetEnvironment environment) {
  return assetWithURL(std::move(url), UserInfo(), std::move(environment));
}

std::shared_ptr<URLAsset> URLAsset::assetWithURL(URL url, const UserInfo& options,
                                                 AssetEnvironment environment) {
  HTTPHeaders headers;
  const auto found = options.find(AVURLAssetHTTPHeaderFieldsKey);
  if (found != options.end())
    if (const auto* given = std::any_cast<HTTPHeaders>(&found->second))
      headers = *given;
  return std::make_shared<assets::HLSAsset>(std::move(url), std::move(headers), std::move(environment));
}

namespace assets {

namespace {
constexpr const char* tracksKey = "tracks";
}

void HLSAsset::loadValuesAsynchronouslyForKeys(const std::vector<std::string>& keys,
                                               std::function<void()> completion) {
  const bool tracks = std::find(keys.begin(), keys.end(), tracksKey) != keys.end();
  bool start = false;
  {
    const std::lock_guard lock(_mutex);
    if (tracks && (_status == KeyValueStatus::Unknown || _status == KeyValueStatus::Loading)) {
      start = _status == KeyValueStatus::Unknown;
      _status = KeyValueStatus::Loading;
      _waiters.push_back(std::exchange(completion, nullptr));
    }
  }
  if (start)
    load();
  else if (completion)
    SerialQueue::background().async(std::move(completion));
}

void HLSAsset::load() {
  auto service = _environment.service ? _environment.service : TransferService::defaultService();
  auto session = service ? service->sharedSession() : nullptr;
  const std::string address = _url.absoluteString();
  if (!session || !_url.isHTTP()) {
    auto error = !_url.isHTTP()
                     ? assetError(AVErrorOperationNotSupportedForAsset, "The playlist", address,
                                  "it is not behind an http or https address", "Check the address")
                     : assetError(AVErrorUnknown, "The playlist", address, "there is no transfer service",
                                  "Set the default service, or one in the asset's environment");
    SerialQueue::background().async([self = shared(), error] { self->finish(nullptr, error); });
    return;
  }
  auto task = fetchPlaylist(
      *session, _url, _headers, {}, "The playlist", [self = shared()](PlaylistRef playlist, ErrorRef error) {
        std::shared_ptr<const AssetModel> model;
        if (playlist)
          model = AssetModel::make(std::move(playlist), self->_environment.preferredLanguages);
        self->finish(std::move(model), error);
      });
  bool cancelled;
  {
    const std::lock_guard lock(_mutex);
    cancelled = _cancelled;
    if (_status == KeyValueStatus::Loading)
      _task = task;
  }
  if (cancelled)
    task->cancel();
}

void HLSAsset::finish(std::shared_ptr<const AssetModel> model, const ErrorRef& error) {
  std::vector<std::function<void()>> waiters;
  std::shared_ptr<URLSessionTask> task; // released outside the lock
  {
    const std::lock_guard lock(_mutex);
    task = std::move(_task);
    waiters.swap(_waiters);
    _error = error;
    _model = std::move(model);
    _status = _model ? KeyValueStatus::Loaded
              : error->domain() == NSURLErrorDomain && error->code() == NSURLErrorCancelled
                  ? KeyValueStatus::Cancelled
                  : KeyValueStatus::Failed;
  }
  for (const auto& waiter : waiters)
    waiter();
}

URLAsset::KeyValueStatus HLSAsset::statusOfValueForKey(const std::string& key, ErrorRef* error) const {
  if (key != tracksKey) {
    if (error)
      *error = makeError(AVFoundationErrorDomain, AVErrorUnknown, "An asset has no key \"" + key + "\"");
    return KeyValueStatus::Failed;
  }
  const std::lock_guard lock(_mutex);
  if (error)
    *error = _error;
  return _status;
}

void HLSAsset::cancelLoading() {
  std::shared_ptr<URLSessionTask> task;
  {
    const std::lock_guard lock(_mutex);
    if (_status != KeyValueStatus::Loading)
      return;
    _cancelled = true;
    task = _task;
  }
  if (task)
    task->cancel();
}

std::shared_ptr<const AssetModel> HLSAsset::model() const {
  const std::lock_guard lock(_mutex);
  return _model;
}

MediaSelectionGroupRef
HLSAsset::mediaSelectionGroupForMediaCharacteristic(const std::string& characteristic) const {
  const auto loaded = model();
  const auto place = AssetModel::placeOf(characteristic);
  return loaded && place ? loaded->groups[*place] : nullptr;
}

MediaSelection HLSAsset::preferredMediaSelection() const {
  const auto loaded = model();
  return loaded ? loaded->preferred : MediaSelection();
}

std::vector<AssetVariant> HLSAsset::variants() const {
  std::vector<AssetVariant> list;
  const auto loaded = model();
  if (loaded && loaded->playlist->isMaster())
    for (const auto& variant : loaded->playlist->master().variants)
      list.push_back({variant.bandwidth, variant.averageBandwidth, variant.resolution,
                      std::string(variant.codecs), variant.frameRate});
  return list;
}

} // namespace assets

} // namespace platform
