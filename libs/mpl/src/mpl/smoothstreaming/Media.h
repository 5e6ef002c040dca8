#pragma once

#include "mpl/smoothstreaming/Element.h"

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace SmoothStreaming {

class Protection;
class StreamElement;

/// A client manifest ("SmoothStreamingMedia"): the root of the tree.
class Media final : public Element {
public:
  /// Throws what `Element` describes.
  explicit Media(const qvc::xml::Element& element);
  ~Media() override;

  /// Major and minor.
  const std::pair<std::int32_t, std::int32_t>& version() const noexcept { return _version; }
  /// Units per second, for the times on this element.
  std::int64_t timeScale() const noexcept { return _timeScale; }
  std::int64_t duration() const noexcept { return _duration; }
  bool isLive() const noexcept { return _isLive; }
  std::int64_t lookaheadCount() const noexcept { return _lookaheadCount; }
  std::int64_t DVRWindowLength() const noexcept { return _dvrWindowLength; }
  const std::vector<std::shared_ptr<StreamElement>>& streamElements() const noexcept {
    return _streamElements;
  }
  /// Null when the presentation is not protected.
  std::shared_ptr<Protection> protection() const { return _protection; }

private:
  std::pair<std::int32_t, std::int32_t> _version;
  std::int64_t _timeScale;
  std::int64_t _duration;
  bool _isLive;
  std::int64_t _lookaheadCount;
  std::int64_t _dvrWindowLength;
  std::vector<std::shared_ptr<StreamElement>> _streamElements;
  std::shared_ptr<Protection> _protection;
};

} // namespace SmoothStreaming
