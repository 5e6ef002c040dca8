#pragma once

#include "mpl/smoothstreaming/Element.h"
#include "mpl/smoothstreaming/Stream.h"

#include "qvc/ByteArray.h"

#include <cstdint>

namespace SmoothStreaming {

class StreamElement;

/// One quality of a stream ("QualityLevel"). Must not outlive its stream.
class TrackElement final : public Element {
public:
  /// `parent` is kept, not owned; `type` is its type. Throws what `Element` describes.
  TrackElement(StreamElement* parent, const qvc::xml::Element& element, Stream::Type type);

  StreamElement* parentStream() const noexcept { return _parentStream; }
  Stream::Type type() const noexcept { return _type; }
  std::uint32_t index() const noexcept { return _index; }
  std::uint32_t bitrate() const noexcept { return _bitrate; } ///< bits per second
  std::uint32_t maxWidth() const noexcept { return _maxWidth; }
  std::uint32_t maxHeight() const noexcept { return _maxHeight; }
  std::uint32_t samplingRate() const noexcept { return _samplingRate; } ///< Hz
  std::uint32_t audioTag() const noexcept { return _audioTag; }
  std::uint32_t bitsPerSample() const noexcept { return _bitsPerSample; }
  std::uint32_t packetSize() const noexcept { return _packetSize; } ///< bytes
  const qvc::ByteArray& codecPrivateData() const noexcept { return _codecPrivateData; }
  std::uint32_t channels() const noexcept { return _channels; }
  /// Empty, or exactly four bytes: longer codes are cut, shorter ones filled with zero bytes.
  const qvc::FastString& fourCC() const noexcept { return _fourCC; }
  /// Bytes of the length before each NAL unit; 0: not known.
  std::uint32_t NALUnitLengthField() const noexcept { return _nalUnitLengthField; }

private:
  StreamElement* _parentStream;
  Stream::Type _type;
  std::uint32_t _index;
  std::uint32_t _bitrate;
  std::uint32_t _maxWidth;
  std::uint32_t _maxHeight;
  std::uint32_t _samplingRate;
  std::uint32_t _audioTag;
  std::uint32_t _bitsPerSample;
  std::uint32_t _packetSize;
  qvc::ByteArray _codecPrivateData;
  std::uint32_t _channels;
  qvc::FastString _fourCC;
  std::uint32_t _nalUnitLengthField;
};

} // namespace SmoothStreaming
