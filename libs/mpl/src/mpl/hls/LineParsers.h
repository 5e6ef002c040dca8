#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>

namespace qvc {
class FastString;
}

namespace mpl::hls {

class HLSMasterPlaylist;
class HLSMediaPlaylist;
class HLSPlaylist;

/// Reads one line into the playlist, which the first line that belongs to one kind makes. `stream` stands
/// behind the line. Throws `mpl::ArgumentException` when the line belongs to the other kind.
void parseLine(std::shared_ptr<HLSPlaylist>& playlist, std::uint64_t& version, const qvc::FastString& line,
               std::istream& stream);

void parseCommonLine(std::uint64_t& version, const qvc::FastString& line);
/// A segment's tag, or its address; one that no "EXTINF" with a duration precedes is passed over.
void parseMediaSegmentLine(HLSMediaPlaylist& playlist, const qvc::FastString& line);
void parseMediaPlaylistLine(HLSMediaPlaylist& playlist, const qvc::FastString& line);
/// A variant takes the next line of the stream as its address.
void parseMasterPlaylistLine(HLSMasterPlaylist& playlist, const qvc::FastString& line, std::istream& stream);

} // namespace mpl::hls
