#pragma once

#include <cstdint>
#include <string>

namespace tolvane {

/// "3.4 MB"; decimal units, one digit behind the point from kB on; "?" for a negative (unknown) count.
std::string bytesText(std::int64_t bytes);

/// "0:07", "12:34", "1:02:03"; "?" for a negative (unknown) time.
std::string timeText(std::int64_t seconds);

/// One line: control characters (line breaks, escape sequences) become "?", so that a name or a message from
/// outside cannot move a terminal's cursor.
std::string oneLine(const std::string& text);

/// Columns that a UTF-8 text takes, one for each code point.
std::size_t columns(const std::string& text);

/// The text cut to at most `width` columns, with "…" at its end when it was cut.
std::string fitted(const std::string& text, std::size_t width);

} // namespace tolvane
