#include "TolvaneDownloader/DASHDownloader/Internal/QVSmoothStreamingResourceListBuilder.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"
#include "mpl/smoothstreaming/StreamElement.h"
#include "platform/foundation/Exception.h"

QVSmoothStreamingResourceListBuilder::QVSmoothStreamingResourceListBuilder(
    std::shared_ptr<const SmoothStreaming::StreamElement> streamElement, unsigned index)
    : _streamElement(std::move(streamElement)), _index(index) {}
QVSmoothStreamingResourceListBuilder::~QVSmoothStreamingResourceListBuilder() = default;

QVResourceListRef QVSmoothStreamingResourceListBuilder::fillResourcesWithBaseURL(const std::string& baseURL) {
  std::lock_guard lock(_lock);
  if (_resources && *_baseURL == baseURL)
    return _resources;
  _resources = nullptr;
  _baseURL = std::make_shared<const std::string>(baseURL);
  _resources = std::make_shared<const QVResourceList>(mergeRangedResourceURLs(_listResources()));
  return _resources;
}

QVResourceList QVSmoothStreamingResourceListBuilder::_listResources() const {
  if (_streamElement->numberOfListedFragments() > maximumResources)
    throw platform::Exception("QVPlaylistFactoryException", "Too many fragments in stream");
  // What `fillListOfURL` lists, without a list of its own in between. A fragment is always fetched whole.
  QVResourceList resources;
  resources.reserve(_streamElement->numberOfListedFragments());
  _streamElement->visitURLs(_index, [&](std::string& uri) {
    resources.push_back(QVRangedURL::rangedURLWithReferenceURL(std::move(uri), _baseURL));
  });
  return resources;
}
