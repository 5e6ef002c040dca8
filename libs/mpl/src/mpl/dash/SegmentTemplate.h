#pragma once

#include "mpl/dash/MultiSegmentBase.h"

#include <memory>

namespace mpl::dash {

/// Segments whose URLs are made from a template (see `TemplateURI`). A malformed template fails the query
/// that expands it, with ArgumentException, never the parsing of the manifest.
class SegmentTemplate final : public MultiSegmentBase {
public:
  SegmentTemplate(RangedURI initialization, std::int64_t timescale, std::int64_t presentationTimeOffset,
                  std::int32_t startNumber, std::int64_t duration,
                  std::shared_ptr<const SegmentTimeline> timeline, SharedText initializationTemplate,
                  SharedText mediaTemplate, SharedText baseURL);

  /// From the template, if that is not empty, else the stated one.
  RangedURI getInitialization(const Representation& representation) const override;
  RangedURI getSegmentURL(const Representation& representation, std::int32_t number) const override;
  std::int32_t getLastSegmentNum(std::int64_t periodDurationUs) const override;

  const SharedText& initializationTemplate() const noexcept { return _initializationTemplate; }
  const SharedText& mediaTemplate() const noexcept { return _mediaTemplate; }
  const SharedText& baseURL() const noexcept { return _baseURL; }

private:
  SharedText _initializationTemplate;
  SharedText _mediaTemplate;
  SharedText _baseURL;
};

} // namespace mpl::dash
