#pragma once

#include "platform/assets/internal/Attributes.h"
#include "platform/assets/internal/Playlist.h"

#include <string>
#include <string_view>

namespace platform::assets {

/// Reads a text into a Playlist. Lenient with what does no harm (missing target duration, white space,
/// unknown tags and attributes), strict with what would lead to wrong bytes.
class PlaylistParser {
public:
  PlaylistParser(Playlist& playlist, const Variables& imported) : _to(playlist), _imported(imported) {}
  void parse();

private:
  enum class Kind { Unknown, Master, Media };

  bool parseLine(std::string_view line);
  bool parseTag(std::string_view line);
  bool parseMediaTag(std::string_view name, std::string_view value, bool& known);
  bool parseMasterTag(std::string_view name, std::string_view value, bool& known);
  bool parseInfo(std::string_view value);
  bool parseByteRangeTag(std::string_view value);
  bool parseKey(std::string_view value, std::vector<PlaylistKey>& keys);
  bool parseMap(std::string_view value);
  bool parseRendition(std::string_view value);
  bool parseVariant(std::string_view value);
  bool parseSessionData(std::string_view value);
  bool parseDefinition(std::string_view value);
  bool addSegment(std::string_view uri);
  void finish();

  bool be(Kind kind);
  bool fail(const std::string& what);
  /// The value with its variables replaced; false when one is not defined.
  bool resolve(std::string_view text, std::string_view& result);
  template <class Take> bool eachAttribute(std::string_view list, Take&& take);
  bool number(std::string_view text, std::int64_t& value, const char* what);

  Playlist& _to;
  const Variables& _imported;
  std::size_t _line = 0;
  std::size_t _substitutedBytes = 0;
  Kind _kind = Kind::Unknown;

  // Of the segment to come.
  bool _hasInfo = false, _hasRange = false;
  ByteRangeText _range;
  PlaylistSegment _next;
  // Where the last sub-range of a file ended, for those that do not tell their offset.
  std::string_view _rangeFile;
  std::int64_t _rangeEnd = -1;
  double _longest = 0;
  bool _variantPending = false;
};

} // namespace platform::assets
