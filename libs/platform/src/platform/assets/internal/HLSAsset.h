#pragma once

#include "platform/assets/URLAsset.h"
#include "platform/assets/internal/AssetModel.h"
#include "platform/concurrency/Queue.h"

#include <mutex>

namespace platform::assets {

/// The one kind of asset there is.
class HLSAsset final : public URLAsset {
public:
  HLSAsset(URL url, HTTPHeaders headers, AssetEnvironment environment)
      : _url(std::move(url)), _headers(std::move(headers)), _environment(std::move(environment)) {}

  const platform::URL& url() const override { return _url; }
  const HTTPHeaders& headers() const override { return _headers; }
  const AssetEnvironment& environment() const override { return _environment; }
  void loadValuesAsynchronouslyForKeys(const std::vector<std::string>& keys,
                                       std::function<void()> completion) override;
  KeyValueStatus statusOfValueForKey(const std::string& key, ErrorRef* error) const override;
  void cancelLoading() override;
  MediaSelectionGroupRef
  mediaSelectionGroupForMediaCharacteristic(const std::string& characteristic) const override;
  MediaSelection preferredMediaSelection() const override;
  std::vector<AssetVariant> variants() const override;

  /// Null before it is loaded.
  std::shared_ptr<const AssetModel> model() const;

private:
  std::shared_ptr<HLSAsset> shared() { return std::static_pointer_cast<HLSAsset>(shared_from_this()); }
  void load();
  void finish(std::shared_ptr<const AssetModel> model, const ErrorRef& error);

  const platform::URL _url;
  const HTTPHeaders _headers;
  const AssetEnvironment _environment;
  mutable std::mutex _mutex;
  KeyValueStatus _status = KeyValueStatus::Unknown;
  bool _cancelled = false;
  ErrorRef _error;
  std::shared_ptr<const AssetModel> _model;
  std::shared_ptr<URLSessionTask> _task;
  std::vector<std::function<void()>> _waiters;
};

} // namespace platform::assets
