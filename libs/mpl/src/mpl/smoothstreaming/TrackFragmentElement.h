#pragma once

#include "mpl/smoothstreaming/Element.h"

#include "qvc/ByteArray.h"

#include <cstdint>

namespace SmoothStreaming {

/// What a manifest tells of one quality's part of a fragment ("f").
class TrackFragmentElement final : public Element {
public:
  explicit TrackFragmentElement(const qvc::xml::Element& element);

  std::uint32_t index() const noexcept { return _index; }
  /// The sample that stands in the manifest itself; empty when there is none.
  const qvc::ByteArray& manifestOutputSample() const noexcept { return _manifestOutputSample; }

private:
  std::uint32_t _index;
  qvc::ByteArray _manifestOutputSample;
};

} // namespace SmoothStreaming
