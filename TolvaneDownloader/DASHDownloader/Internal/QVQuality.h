#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVMediaType.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceListBuilder.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

class QVTrack;

namespace mpl::dash {
class Representation;
}
namespace SmoothStreaming {
class StreamElement;
}

/// One rendition of a track at one bit rate: what a user chooses and what is downloaded as a whole. Owns the
/// builder of its resource list. Immutable; may be read from any thread.
class QVQuality : public std::enable_shared_from_this<QVQuality> {
public:
  /// `fourCC` none: the type's default ("vide", "audi", "text"). Raises a `platform::Exception`
  /// "InvalidArgumentException": "Invalid media type" when a default is wanted for a type outside 1 to 3,
  /// "FourCC string not four characters long" otherwise.
  static std::shared_ptr<QVQuality>
  qualityWithResourceListBuilder(std::shared_ptr<QVResourceListBuilder> builder, std::string parameters,
                                 std::optional<std::string> fourCC, std::string identifier, QVMediaType type,
                                 std::uint32_t bitrate, std::weak_ptr<QVTrack> parent);

  /// The quality for a DASH representation: video, audio or text after the parent track's type. `durationUs`:
  /// the period's, -1 when unknown. Raises "QVPlaylistFactoryException" for any other type.
  static std::shared_ptr<QVQuality>
  qualityWithRepresentation(std::shared_ptr<const mpl::dash::Representation> representation,
                            std::int64_t durationUs, const std::shared_ptr<QVTrack>& parent);

  /// The same for the quality level at `index` of a Smooth Streaming stream.
  static std::shared_ptr<QVQuality>
  qualityWithStreamElement(std::shared_ptr<const SmoothStreaming::StreamElement> streamElement,
                           unsigned index, const std::shared_ptr<QVTrack>& parent);

  virtual ~QVQuality();
  QVQuality(const QVQuality&) = delete;
  QVQuality& operator=(const QVQuality&) = delete;

  /// No list; `resourceBuilder()` does the work.
  virtual QVResourceListRef fillResourcesWithBaseUrl(const std::string& baseURL) const;

  std::uint32_t bitrate() const { return _bitrate; }                 ///< bits per second; 0: unknown
  std::shared_ptr<QVTrack> parent() const { return _parent.lock(); } ///< null once the playlist is gone
  /// A description for a reader, in the language of the locale at the time of building.
  const std::string& parameters() const { return _parameters; }
  const std::string& fourCC() const { return _fourCC; } ///< exactly four characters
  /// The same, but empty for a type's default: what the manifest itself says of the encoding.
  std::string knownFourCC() const;
  QVMediaType type() const { return _type; }
  const std::string& identifier() const { return _identifier; } ///< unique in its track
  const std::shared_ptr<QVResourceListBuilder>& resourceBuilder() const { return _resourceBuilder; }

protected:
  QVQuality(std::shared_ptr<QVResourceListBuilder> builder, std::string parameters,
            std::optional<std::string> fourCC, std::string identifier, QVMediaType type,
            std::uint32_t bitrate, std::weak_ptr<QVTrack> parent);

  // Parts of the subclasses' descriptions.
  static std::string bitrateText(std::uint32_t bitrate);
  static std::string kiloText(std::uint32_t value, const char* unit);
  /// The parent track's language in the user's language; nothing without a parent or a language.
  static std::optional<std::string> languageName(const std::shared_ptr<QVTrack>& parent);

private:
  std::shared_ptr<QVResourceListBuilder> _resourceBuilder;
  std::weak_ptr<QVTrack> _parent;
  std::string _parameters;
  std::string _fourCC;
  std::string _identifier;
  QVMediaType _type;
  std::uint32_t _bitrate;
};
