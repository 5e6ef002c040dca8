#pragma once

#include "mpl/smoothstreaming/Element.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace SmoothStreaming {

class TrackFragmentElement;

/// One entry of a stream's timeline ("c"): a fragment, or a run of fragments of one length.
class StreamFragmentElement final : public Element {
public:
  /// `previous`: the entry before this one, null for the first; it gives what this one leaves out. `next`:
  /// the element whose time tells where an entry without a duration ends. Throws std::runtime_error when
  /// nothing tells the duration.
  StreamFragmentElement(const qvc::xml::Element& element, const StreamFragmentElement* previous,
                        const qvc::xml::Element* next);
  ~StreamFragmentElement() override;

  std::uint32_t number() const noexcept { return _number; }
  // In units of the stream's time scale.
  std::uint64_t time() const noexcept { return _time; }
  std::uint64_t duration() const noexcept { return _duration; } ///< of one fragment of the run
  /// How many fragments the entry stands for, itself included; at least 1.
  std::uint32_t repeats() const noexcept { return _repeats; }
  const std::vector<std::shared_ptr<TrackFragmentElement>>& trackElements() const noexcept {
    return _trackElements;
  }

private:
  std::uint64_t _duration = 0;
  std::uint64_t _time = 0;
  std::uint32_t _number = 0;
  std::uint32_t _repeats = 1;
  std::vector<std::shared_ptr<TrackFragmentElement>> _trackElements;
};

} // namespace SmoothStreaming
