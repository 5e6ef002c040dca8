#pragma once

#include <memory>
#include <string>
#include <vector>

class QVRangedURL;

using QVResourceList = std::vector<std::shared_ptr<QVRangedURL>>;
/// A finished list, handed on without a copy. Null: no list.
using QVResourceListRef = std::shared_ptr<const QVResourceList>;

/// Turns a quality into the ordered list of what must be fetched for it; each manifest format derives its
/// own. Owned by its quality, and it keeps alive what it needs of the parsed manifest. Thread-safe.
class QVResourceListBuilder {
public:
  /// Most resources that one quality may list, before merging. A few bytes of a hostile manifest can claim
  /// billions; a day of one-second segments is below a tenth of this.
  static constexpr std::size_t maximumResources = 1'000'000;

  QVResourceListBuilder() = default;
  virtual ~QVResourceListBuilder() = default;
  QVResourceListBuilder(const QVResourceListBuilder&) = delete;
  QVResourceListBuilder& operator=(const QVResourceListBuilder&) = delete;

  /// The resources, with relative URLs to be read against `baseURL` (the manifest's own URL). The last list
  /// is cached: the same base again gives the same list. Null from this class; builders of a format return a
  /// list, or raise a `platform::Exception` "QVPlaylistFactoryException" whose reason tells what in the
  /// manifest does not work (a URL template, a segment number, too many resources); the cache is then empty.
  virtual QVResourceListRef fillResourcesWithBaseURL(const std::string& baseURL);

  /// The covering range of two ranges of one file, gaps included, or null when the files differ. Answers `a`
  /// or `b` itself when it already covers both. An end beyond 64 bits counts as the end of the resource.
  static std::shared_ptr<QVRangedURL> mergeURLWithURL(const std::shared_ptr<QVRangedURL>& a,
                                                      const std::shared_ptr<QVRangedURL>& b);

  /// Merges each run of neighbours that name one file; the order stays. Pass the list by move: it is
  /// compacted in place.
  static QVResourceList mergeRangedResourceURLs(QVResourceList list);
};
