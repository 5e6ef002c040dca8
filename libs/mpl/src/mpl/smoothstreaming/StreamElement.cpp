#include "mpl/smoothstreaming/StreamElement.h"

#include "mpl/RangedURI.h"
#include "mpl/smoothstreaming/StreamFragmentElement.h"
#include "mpl/smoothstreaming/TrackElement.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <stdexcept>
#include <string_view>

namespace SmoothStreaming {

namespace {

Stream::Type typeFromText(const qvc::FastString& text) {
  if (text == "audio")
    return Stream::Type::Audio;
  if (text == "video")
    return Stream::Type::Video;
  if (text == "text")
    return Stream::Type::Text;
  throw std::runtime_error("Unsupported Type value");
}

StreamElement::Subtype subtypeFromText(const qvc::FastString& text) {
  constexpr const char* codes[] = {"SCMD", "CHAP", "SUBT", "CAPT", "DESC", "CTRL", "DATA"};
  const auto* const found =
      std::find_if(std::begin(codes), std::end(codes), [&text](const char* code) { return text == code; });
  return found == std::end(codes) ? StreamElement::Subtype::SCMD
                                  : static_cast<StreamElement::Subtype>(found - std::begin(codes));
}

/// A URL template, cut at the places where a start time goes.
class TimeTemplate {
public:
  explicit TimeTemplate(const qvc::FastString& text) {
    constexpr std::string_view tokens[] = {"{start_time}", "{start time}"};
    std::string_view rest = text.view();
    for (;;) {
      const std::size_t first = rest.find(tokens[0]);
      const std::size_t at = std::min(first, rest.find(tokens[1]));
      _size += _pieces.emplace_back(rest.substr(0, at)).size();
      if (at == std::string_view::npos)
        break;
      rest.remove_prefix(at + (at == first ? tokens[0] : tokens[1]).size());
    }
  }

  std::string at(std::uint64_t time) const {
    std::array<char, 20> buffer;
    const char* const end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), time).ptr;
    const std::string_view digits(buffer.data(), static_cast<std::size_t>(end - buffer.data()));
    std::string text;
    text.reserve(_size + (_pieces.size() - 1) * digits.size());
    text = _pieces.front();
    for (std::size_t i = 1; i < _pieces.size(); ++i)
      text.append(digits).append(_pieces[i]);
    return text;
  }

private:
  std::vector<std::string> _pieces; ///< Never empty.
  std::size_t _size = 0;            ///< Of all pieces together.
};

} // namespace

// The members are initialised in the order of their declaration; when several attributes are at fault, that
// order decides which one is reported.
StreamElement::StreamElement(const qvc::xml::Element& element)
    : Element(element, "StreamIndex"), _type(typeFromText(getElementAttribute(element, "Type", false, ""))),
      _numberOfFragments(getUnsigned(element, "Chunks", false)),
      _declaredNumberOfTracks(getUnsigned32(element, "QualityLevels", false)),
      _url(getElementAttribute(element, "Url", false, "")),
      _maxWidth(getUnsigned32(element, "MaxWidth", _type != Stream::Type::Video, "0")),
      _maxHeight(getUnsigned32(element, "MaxHeight", _type != Stream::Type::Video, "0")),
      _displayWidth(getUnsigned32(element, "DisplayWidth", _type != Stream::Type::Video, "0")),
      _displayHeight(getUnsigned32(element, "DisplayHeight", _type != Stream::Type::Video, "0")),
      _subType(subtypeFromText(getElementAttribute(element, "Subtype", _type != Stream::Type::Text, ""))),
      // One zero more than the presentation's default, on purpose.
      _timeScale(getUnsigned(element, "TimeScale", true, "100000000")),
      _name(getElementAttribute(element, "Name", true, "")),
      _parentStream(getElementAttribute(element, "ParentStream", true, "")),
      // Set by a value that sorts after "true", not by "true" itself; on purpose.
      _manifestOutput(getElementAttribute(element, "ManifestOutput", true, "false").compare("true", false) ==
                      1) {
  std::size_t fragments = 0;
  for (const qvc::xml::Element& child : element.children()) {
    const std::string_view name = child.getLocalName().view();
    if (name == "QualityLevel")
      _trackElements.push_back(std::make_shared<TrackElement>(this, child, _type));
    else if (name == "c")
      ++fragments;
  }

  _streamFragmentElements.reserve(fragments);
  const StreamFragmentElement* previous = nullptr;
  for (const qvc::xml::Element& child : element.children()) {
    if (child.getLocalName().view() != "c")
      continue;
    // The entry itself, not its successor, is where a missing duration is taken from.
    auto fragment = std::make_shared<StreamFragmentElement>(child, previous, &child);
    previous = fragment.get();
    // Repeats have 32 bits: as many of them as fit into memory do not overflow.
    _numberOfListedFragments += fragment->repeats();
    _streamFragmentElements.push_back(std::move(fragment));
  }
  _numberOfListedFragments = std::min(_numberOfListedFragments, _numberOfFragments);
}

StreamElement::~StreamElement() = default;

void StreamElement::visitURLs(unsigned long trackElementIndex,
                              const std::function<void(std::string& uri)>& visit) const {
  if (trackElementIndex >= _trackElements.size())
    throw std::invalid_argument("trackElementIndex shall be less than number of available tracks");
  const auto bitrate = qvc::FastString::fromUInt(_trackElements[trackElementIndex]->bitrate());
  const TimeTemplate uri(_url.replaceAllCopy("{bitrate}", bitrate).replaceAllRef("{Bitrate}", bitrate));
  std::uint64_t left = _numberOfListedFragments;
  for (const auto& fragment : _streamFragmentElements) {
    for (std::uint64_t j = 0; j < fragment->repeats(); ++j, --left) {
      if (left == 0)
        return;
      std::string text = uri.at(fragment->time() + fragment->duration() * j);
      visit(text);
    }
  }
}

void StreamElement::fillListOfURL(const qvc::FastString& baseURL, unsigned long trackElementIndex,
                                  std::vector<mpl::RangedURI>& out) const {
  const mpl::SharedText base(baseURL);
  std::vector<mpl::RangedURI> list;
  // Not what is declared, which may be any number: what is described.
  if (trackElementIndex < _trackElements.size())
    list.reserve(_numberOfListedFragments);
  visitURLs(trackElementIndex, [&](std::string& uri) {
    list.push_back({mpl::Range(), {qvc::FastString(std::move(uri)), base}});
  });
  out = std::move(list);
}

} // namespace SmoothStreaming
