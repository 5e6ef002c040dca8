#pragma once

#include <cstdint>
#include <memory>

namespace qvc {
class FastString;
}

namespace mpl::hls {

/// What both kinds of M3U8 playlists have in common. Complete when `parse` answers it and not changed
/// afterwards, so it may then be read from any thread.
///
/// The model is a summary: it tells what a presentation offers and which keys it needs. Nine tags are read
/// (`mpl/hls/Tags.h`), everything else is passed over, and segments count by the ".ts" in their addresses.
class HLSPlaylist {
public:
  enum class PlaylistType { master = 0, media = 1 };

  virtual ~HLSPlaylist() = default;

  PlaylistType type() const noexcept { return _type; }
  /// The number of the last "EXT-X-VERSION", 1 without one.
  std::uint64_t version() const noexcept { return _version; }

  /// Reads a playlist: an `HLSMasterPlaylist` or an `HLSMediaPlaylist`, as its first tag that belongs to one
  /// kind decides. Null for a text that has no such tag; take that as invalid. `data` is not needed
  /// afterwards. Addresses stay as they are written, whatever `baseURL` is.
  ///
  /// Throws `mpl::ArgumentException` for an empty text, for one that does not begin with "#EXTM3U", and for
  /// one that mixes the tags of both kinds. Unknown tags and numbers that are none are not errors; the latter
  /// read as 0.
  static std::shared_ptr<HLSPlaylist> parse(const char* data, unsigned long length,
                                            const qvc::FastString& baseURL);

protected:
  explicit HLSPlaylist(PlaylistType type) noexcept : _type(type) {}
  HLSPlaylist(const HLSPlaylist&) = default;
  HLSPlaylist& operator=(const HLSPlaylist&) = default;

private:
  PlaylistType _type;
  std::uint64_t _version = 1;
};

} // namespace mpl::hls
