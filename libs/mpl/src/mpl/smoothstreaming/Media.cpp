#include "mpl/smoothstreaming/Media.h"

#include "mpl/smoothstreaming/Protection.h"
#include "mpl/smoothstreaming/StreamElement.h"

namespace SmoothStreaming {

// The members are initialised in the order of their declaration; when several attributes are at fault, that
// order decides which one is reported.
Media::Media(const qvc::xml::Element& element)
    : Element(element, "SmoothStreamingMedia"), _version{static_cast<std::int32_t>(
                                                             getSigned(element, "MajorVersion", false)),
                                                         static_cast<std::int32_t>(
                                                             getSigned(element, "MinorVersion", false))},
      _timeScale(getSigned(element, "TimeScale", true, "10000000")),
      _duration(getSigned(element, "Duration", false)),
      _isLive(getElementAttribute(element, "IsLive", true, "").equals("true", false)),
      _lookaheadCount(getSigned(element, "LookaheadCount", true, "0")),
      _dvrWindowLength(getSigned(element, "DVRWindowLength", true, "0")),
      _streamElements(makeChildren<StreamElement>(element, "StreamIndex")) {
  if (const qvc::xml::Element protection = element.getFirstChildElement("Protection"); !protection.isNull())
    _protection = std::make_shared<Protection>(protection);
}

Media::~Media() = default;

} // namespace SmoothStreaming
