#include "TolvaneDownloader/DASHDownloader/Internal/QVDASHResourceListBuilder.h"

#include "TolvaneDownloader/DASHDownloader/Internal/QVBindingExceptions.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"
#include "mpl/dash/Representation.h"

namespace {

std::uint64_t notNegative(std::int64_t value) {
  return value < 0 ? 0 : static_cast<std::uint64_t>(value);
}

std::shared_ptr<QVRangedURL> makeResource(const mpl::RangedURI& uri, mpl::ReferenceResolver& resolver,
                                          std::shared_ptr<const std::string> baseURL) {
  return QVRangedURL::rangedURLWithOffset(notNegative(uri.range.start), notNegative(uri.range.length),
                                          resolver.resolve(uri.reference).toStdString(), std::move(baseURL));
}

} // namespace

QVDASHResourceListBuilder::QVDASHResourceListBuilder(
    std::shared_ptr<const mpl::dash::Representation> representation, std::int64_t durationUs)
    : _representation(std::move(representation)), _durationUs(durationUs) {}
QVDASHResourceListBuilder::~QVDASHResourceListBuilder() = default;

QVResourceListRef QVDASHResourceListBuilder::fillResourcesWithBaseURL(const std::string& baseURL) {
  std::lock_guard lock(_lock);
  if (_resources && *_baseURL == baseURL)
    return _resources;
  _resources = nullptr;
  _baseURL = std::make_shared<const std::string>(baseURL);
  _resources = QVTranslateExceptions(
      [this] { return std::make_shared<const QVResourceList>(mergeRangedResourceURLs(_listResources())); });
  return _resources;
}

QVResourceList QVDASHResourceListBuilder::_listResources() const {
  QVResourceList resources;
  mpl::ReferenceResolver resolver;
  if (const mpl::RangedURI initialization = _representation->getInitialization(); !initialization.isEmpty())
    resources.push_back(makeResource(initialization, resolver, _baseURL));
  if (_representation->type() == mpl::dash::SegmentBase::Multi)
    fillResourcesFromMulti(resources,
                           static_cast<const mpl::dash::MultiSegmentRepresentation&>(*_representation));
  else
    fillResourcesFromSingle(resources,
                            static_cast<const mpl::dash::SingleSegmentRepresentation&>(*_representation));
  return resources;
}

void QVDASHResourceListBuilder::fillResourcesFromSingle(
    QVResourceList& resources, const mpl::dash::SingleSegmentRepresentation& representation) const {
  resources.push_back(QVRangedURL::rangedURLWithOffset(0, notNegative(representation.contentLength()),
                                                       representation.uri().get().toStdString(), _baseURL));
}

void QVDASHResourceListBuilder::fillResourcesFromMulti(
    QVResourceList& resources, const mpl::dash::MultiSegmentRepresentation& representation) const {
  const mpl::dash::SegmentIndex& index = representation.getIndex();
  const std::int64_t first = index.getFirstSegmentNum();
  const std::int64_t last = index.getLastSegmentNum(_durationUs);
  if (first > last)
    return;
  const auto count = static_cast<std::uint64_t>(last - first + 1);
  if (count > maximumResources - resources.size())
    throw platform::Exception("QVPlaylistFactoryException", "Too many segments in representation");
  resources.reserve(resources.size() + count);
  mpl::ReferenceResolver resolver;
  for (std::int64_t number = first; number <= last; ++number)
    resources.push_back(
        makeResource(index.getSegmentURL(static_cast<std::int32_t>(number)), resolver, _baseURL));
}
