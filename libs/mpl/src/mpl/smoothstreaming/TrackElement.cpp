#include "mpl/smoothstreaming/TrackElement.h"

namespace SmoothStreaming {

namespace {

qvc::FastString ofFourBytes(qvc::FastString code) {
  if (!code.isEmpty())
    code.resize(4);
  return code;
}

} // namespace

// The members are initialised in the order of their declaration; when several attributes are at fault, that
// order decides which one is reported.
TrackElement::TrackElement(StreamElement* parent, const qvc::xml::Element& element, Stream::Type type)
    : Element(element, "QualityLevel"), _parentStream(parent), _type(type),
      _index(getUnsigned32(element, "Index", true, "0")), _bitrate(getUnsigned32(element, "Bitrate", false)),
      _maxWidth(getUnsigned32(element, "MaxWidth", type != Stream::Type::Video, "0")),
      _maxHeight(getUnsigned32(element, "MaxHeight", type != Stream::Type::Video, "0")),
      _samplingRate(getUnsigned32(element, "SamplingRate", type != Stream::Type::Audio, "0")),
      _audioTag(getUnsigned32(element, "AudioTag", type != Stream::Type::Audio, "0")),
      _bitsPerSample(getUnsigned32(element, "BitsPerSample", type != Stream::Type::Audio, "0")),
      _packetSize(getUnsigned32(element, "PacketSize", type != Stream::Type::Audio, "0")),
      _codecPrivateData(qvc::FastString::hexToArray(
          getElementAttribute(element, "CodecPrivateData", type == Stream::Type::Text, ""))),
      _channels(getUnsigned32(element, "Channels", type != Stream::Type::Audio, "0")),
      _fourCC(ofFourBytes(getElementAttribute(element, "FourCC", type == Stream::Type::Text, ""))),
      _nalUnitLengthField(getUnsigned32(element, "NALUnitLengthField", true,
                                        type == Stream::Type::Video && _fourCC == "H264" ? "4" : "0")) {}

} // namespace SmoothStreaming
