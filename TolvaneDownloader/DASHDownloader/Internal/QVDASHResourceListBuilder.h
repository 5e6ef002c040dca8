#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceListBuilder.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace mpl::dash {
class Representation;
class SingleSegmentRepresentation;
class MultiSegmentRepresentation;
} // namespace mpl::dash

/// Lists the initialization and the media segments of a DASH representation.
class QVDASHResourceListBuilder final : public QVResourceListBuilder {
public:
  /// `durationUs`: the period's, -1 when unknown.
  QVDASHResourceListBuilder(std::shared_ptr<const mpl::dash::Representation> representation,
                            std::int64_t durationUs);
  ~QVDASHResourceListBuilder() override;

  QVResourceListRef fillResourcesWithBaseURL(const std::string& baseURL) override;

private:
  QVResourceList _listResources() const;
  void fillResourcesFromSingle(QVResourceList& resources,
                               const mpl::dash::SingleSegmentRepresentation& representation) const;
  void fillResourcesFromMulti(QVResourceList& resources,
                              const mpl::dash::MultiSegmentRepresentation& representation) const;

  const std::shared_ptr<const mpl::dash::Representation> _representation;
  const std::int64_t _durationUs;

  std::mutex _lock; ///< over what follows
  std::shared_ptr<const std::string> _baseURL;
  QVResourceListRef _resources;
};
