#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceListBuilder.h"

#include <memory>
#include <mutex>
#include <string>

namespace SmoothStreaming {
class StreamElement;
}

/// Lists the fragments of a Smooth Streaming quality level.
class QVSmoothStreamingResourceListBuilder final : public QVResourceListBuilder {
public:
  /// `index`: the level's position in the stream.
  QVSmoothStreamingResourceListBuilder(std::shared_ptr<const SmoothStreaming::StreamElement> streamElement,
                                       unsigned index);
  ~QVSmoothStreamingResourceListBuilder() override;

  /// What the manifest's tree throws leaves as it is.
  QVResourceListRef fillResourcesWithBaseURL(const std::string& baseURL) override;

private:
  QVResourceList _listResources() const;

  const std::shared_ptr<const SmoothStreaming::StreamElement> _streamElement;
  const unsigned _index;

  std::mutex _lock; ///< over what follows
  std::shared_ptr<const std::string> _baseURL;
  QVResourceListRef _resources;
};
