#include "mpl/smoothstreaming/TrackFragmentElement.h"

#include "qvc/Base64.h"

namespace SmoothStreaming {

TrackFragmentElement::TrackFragmentElement(const qvc::xml::Element& element)
    : Element(element, "f"), _index(getUnsigned32(element, "i", false)) {
  if (const qvc::FastString text = element.getValue(); !text.isEmpty())
    qvc::Base64::base64ToByteArray(text, _manifestOutputSample);
}

} // namespace SmoothStreaming
