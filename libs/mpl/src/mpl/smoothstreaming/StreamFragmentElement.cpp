#include "mpl/smoothstreaming/StreamFragmentElement.h"

#include "mpl/smoothstreaming/TrackFragmentElement.h"

#include <algorithm>
#include <stdexcept>

namespace SmoothStreaming {

StreamFragmentElement::StreamFragmentElement(const qvc::xml::Element& element,
                                             const StreamFragmentElement* previous,
                                             const qvc::xml::Element* next)
    : Element(element, "c") {
  std::uint64_t value = 0;
  if (findUnsigned(element, "n", value))
    _number = static_cast<std::uint32_t>(value);
  else if (previous != nullptr)
    _number = previous->_number + 1;

  if (!findUnsigned(element, "t", _time) && previous != nullptr)
    _time = previous->_time + previous->_repeats * previous->_duration;

  if (!findUnsigned(element, "d", _duration)) {
    if (next == nullptr || !findUnsigned(*next, "t", value))
      throw std::runtime_error("Can't calculate fragment time due to insufficient information");
    _duration = value - _time;
  }

  if (findUnsigned(element, "r", value))
    _repeats = std::max<std::uint32_t>(static_cast<std::uint32_t>(value), 1);
  _trackElements = makeChildren<TrackFragmentElement>(element, "f");
}

StreamFragmentElement::~StreamFragmentElement() = default;

} // namespace SmoothStreaming
