#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceListBuilder.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"

#include <limits>

namespace {

constexpr std::uint64_t openEnd = std::numeric_limits<std::uint64_t>::max();

std::uint64_t endOf(const QVRangedURL& resource) {
  if (resource.length() == 0 || resource.length() > openEnd - resource.offset())
    return openEnd;
  return resource.offset() + resource.length();
}

} // namespace

QVResourceListRef QVResourceListBuilder::fillResourcesWithBaseURL(const std::string&) {
  return nullptr;
}

std::shared_ptr<QVRangedURL> QVResourceListBuilder::mergeURLWithURL(const std::shared_ptr<QVRangedURL>& a,
                                                                    const std::shared_ptr<QVRangedURL>& b) {
  if (a->referenceURL() != b->referenceURL())
    return nullptr;
  const std::uint64_t endA = endOf(*a);
  const std::uint64_t endB = endOf(*b);
  std::uint64_t start = a->offset();
  std::uint64_t end = endB;
  if (a->offset() > b->offset()) {
    if (endB >= endA)
      return b;
    start = b->offset();
    end = endA;
  } else {
    if (endA >= endB)
      return a;
    if (a->offset() == b->offset())
      return b;
  }
  return QVRangedURL::rangedURLWithOffset(start, end == openEnd ? 0 : end - start, a->referenceURL(),
                                          a->baseURL());
}

QVResourceList QVResourceListBuilder::mergeRangedResourceURLs(QVResourceList list) {
  if (list.empty())
    return list;
  std::size_t current = 0;
  for (std::size_t next = 1; next < list.size(); ++next) {
    if (auto merged = mergeURLWithURL(list[current], list[next]))
      list[current] = std::move(merged);
    else if (++current != next)
      list[current] = std::move(list[next]);
  }
  list.resize(current + 1);
  return list;
}
