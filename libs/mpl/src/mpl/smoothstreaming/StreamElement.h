#pragma once

#include "mpl/smoothstreaming/Element.h"
#include "mpl/smoothstreaming/Stream.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace mpl {
struct RangedURI;
}

namespace SmoothStreaming {

class StreamFragmentElement;
class TrackElement;

/// One stream of a presentation ("StreamIndex"): its qualities, and the times of the fragments that all of
/// them are cut into.
class StreamElement final : public Element {
public:
  /// What a text stream is for.
  enum class Subtype { SCMD = 0, CHAP = 1, SUBT = 2, CAPT = 3, DESC = 4, CTRL = 5, DATA = 6, None = 7 };

  /// Throws what `Element` describes.
  explicit StreamElement(const qvc::xml::Element& element);
  ~StreamElement() override;

  Stream::Type type() const noexcept { return _type; }
  /// `SCMD` also stands for a code that is absent or not known.
  Subtype subType() const noexcept { return _subType; }
  /// Units per second. Its default is ten times that of the presentation.
  std::uint64_t timeScale() const noexcept { return _timeScale; }
  qvc::FastString name() const { return _name; }
  /// What the manifest declares; `numberOfListedFragments()` is what it describes.
  std::uint64_t numberOfFragments() const noexcept { return _numberOfFragments; }
  /// The qualities that are there, whatever number the manifest declares.
  std::size_t numberOfTracks() const noexcept { return _trackElements.size(); }
  unsigned declaredNumberOfTracks() const noexcept { return _declaredNumberOfTracks; }
  /// The template of the fragments' URLs.
  const qvc::FastString& url() const noexcept { return _url; }
  std::uint32_t maxWidth() const noexcept { return _maxWidth; }
  std::uint32_t maxHeight() const noexcept { return _maxHeight; }
  std::uint32_t displayWidth() const noexcept { return _displayWidth; }
  std::uint32_t displayHeight() const noexcept { return _displayHeight; }
  qvc::FastString parentStream() const { return _parentStream; }
  bool manifestOutput() const noexcept { return _manifestOutput; }
  const std::vector<std::shared_ptr<TrackElement>>& trackElements() const noexcept { return _trackElements; }
  const std::vector<std::shared_ptr<StreamFragmentElement>>& streamFragmentElements() const noexcept {
    return _streamFragmentElements;
  }

  /// How many URLs `fillListOfURL` lists: what the entries describe, at most what the manifest declares. A
  /// few bytes can describe billions, so a caller looks here first.
  std::uint64_t numberOfListedFragments() const noexcept { return _numberOfListedFragments; }

  /// Calls `visit` with the reference text of each URL that `fillListOfURL` lists, in order; it may take the
  /// text. Throws as that does, before the first call.
  void visitURLs(unsigned long trackElementIndex, const std::function<void(std::string& uri)>& visit) const;

  /// Replaces `out` with the URLs of one quality's fragments, in order, each a whole resource to be read
  /// against `baseURL`. Throws std::invalid_argument, `out` unchanged, when there is no such quality.
  void fillListOfURL(const qvc::FastString& baseURL, unsigned long trackElementIndex,
                     std::vector<mpl::RangedURI>& out) const;

private:
  Stream::Type _type;
  std::uint64_t _numberOfFragments;
  unsigned _declaredNumberOfTracks;
  qvc::FastString _url;
  std::uint32_t _maxWidth;
  std::uint32_t _maxHeight;
  std::uint32_t _displayWidth;
  std::uint32_t _displayHeight;
  Subtype _subType = Subtype::None;
  std::uint64_t _timeScale;
  qvc::FastString _name;
  qvc::FastString _parentStream;
  bool _manifestOutput;
  std::vector<std::shared_ptr<TrackElement>> _trackElements;
  std::vector<std::shared_ptr<StreamFragmentElement>> _streamFragmentElements;
  std::uint64_t _numberOfListedFragments = 0;
};

} // namespace SmoothStreaming
