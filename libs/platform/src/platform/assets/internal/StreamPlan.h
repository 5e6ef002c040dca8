#pragma once

#include "platform/assets/internal/PlaylistFetch.h"
#include "platform/assets/internal/SegmentSpans.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace platform::assets {

enum class StreamKind { Video, Audio, Text };
const char* nameOf(StreamKind kind);

enum class ResourceKind : std::uint8_t { Media, Map, Key };

/// A file of the package: a whole file of the origin, or a piece of one.
struct PlannedResource {
  std::uint64_t identity = 0; ///< names the file; made of the reference and the range
  std::string_view reference; ///< as the playlist writes it
  Bytes bytes;
  std::int64_t size = -1; ///< as it is on disk, -1 before
  std::uint32_t firstSegment = 0;
  ResourceKind kind = ResourceKind::Media;
};

/// Where something is in the package.
struct Place {
  std::uint32_t resource = none;
  std::int64_t offset = 0;
};

/// What a media playlist needs, in order of first need, and what of it is on disk. Neighbouring ranges of a
/// file are one resource, and what is named twice is fetched once. For one thread at a time.
class StreamPlan {
public:
  /// Neighbouring ranges are joined up to this many bytes, so that several transfers share a large file.
  static constexpr std::int64_t largestPiece = 8 << 20;

  /// Nothing with `error` set when the playlist cannot be downloaded.
  static std::unique_ptr<StreamPlan> make(PlaylistRef playlist, StreamKind kind, std::string directory,
                                          ErrorRef& error);

  const Playlist& playlist() const { return *_playlist; }
  StreamKind kind() const { return _kind; }
  /// Below the package, made by us.
  const std::string& directory() const { return _directory; }
  const std::vector<PlannedResource>& resources() const { return _resources; }
  Place segmentPlace(std::size_t segment) const { return _segmentPlaces[segment]; }
  Place mapPlace(std::size_t map) const { return _mapPlaces[map]; }
  /// `none` for a key that is not fetched.
  std::uint32_t keyResource(std::size_t key) const { return _keyResources[key]; }

  std::string fileName(std::size_t resource) const; ///< with the size, once it is known
  std::string fileName(std::size_t resource, std::int64_t size) const;
  /// One that players take for what stands behind the reference, made of it and of what the stream is.
  std::string_view extensionFor(std::string_view reference) const;
  std::optional<URL> url(std::size_t resource) const;
  double duration() const { return _starts.back(); }
  double startOf(std::size_t segment) const { return _starts[segment]; }
  double startOfResource(std::size_t resource) const { return _starts[_resources[resource].firstSegment]; }

  /// Tells what lies in the stream's directory: names and sizes. Answers the names that are not of the plan.
  std::vector<std::string> adopt(const std::vector<std::pair<std::string, std::int64_t>>& files);

  void markDone(std::size_t resource, std::int64_t size);
  bool isComplete() const { return _done == _resources.size(); }
  std::size_t doneCount() const { return _done; }
  std::int64_t doneBytes() const { return _doneBytes; }
  /// Segments from the beginning that have everything they need.
  std::size_t playableSegments();
  /// Those that are on disk, as spans of segments.
  const SegmentSpans& loaded() const { return _loaded; }

  /// The first resource that is neither on disk nor was taken; nothing when there is none.
  std::optional<std::size_t> nextMissing();
  /// Moves on behind the resource that `nextMissing` told.
  void take() { ++_cursor; }

private:
  StreamPlan(PlaylistRef playlist, StreamKind kind, std::string directory)
      : _playlist(std::move(playlist)), _kind(kind), _directory(std::move(directory)) {}
  ErrorRef build();
  Place piece(std::string_view reference, const Bytes& bytes, std::size_t segment, ResourceKind kind);
  void shareRepeated();
  void indexSegments();
  ErrorRef checkReference(std::string_view reference, const char* what) const;

  const PlaylistRef _playlist;
  const StreamKind _kind;
  const std::string _directory;
  std::vector<PlannedResource> _resources;
  std::vector<Place> _segmentPlaces, _mapPlaces;
  std::vector<std::uint32_t> _keyResources;
  std::vector<double> _starts;
  // The segments of each resource: `_ofResource[_firstOf[r]]` up to `_firstOf[r + 1]`.
  std::vector<std::uint32_t> _firstOf, _ofResource;
  SegmentSpans _loaded;
  std::size_t _done = 0, _cursor = 0, _firstMissing = 0;
  std::int64_t _doneBytes = 0;
};

/// The identity in a file's name, and the size that the name tells; nothing for another file.
std::optional<std::pair<std::uint64_t, std::int64_t>> parseFileName(std::string_view name);

std::string hexOf(std::uint64_t value); ///< 16 digits

} // namespace platform::assets
