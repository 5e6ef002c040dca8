#pragma once

#include "qvc/FastString.h"

#include <iosfwd>
#include <map>
#include <string_view>

namespace mpl::hls {

/// One line of the stream, without its "\n" and one "\r" before it; nothing else is trimmed. Empty at the
/// end of the stream, which its state then tells.
qvc::FastString getLine(std::istream& stream);

/// What stands in the stream up to `delimiter`, which is taken out too, or to the end.
qvc::FastString splitString(std::istream& stream, char delimiter);

/// The text behind the line's first character, whatever that is, up to the first ":" or to the end.
qvc::FastString getTagName(const qvc::FastString& line);
/// The same without a copy, for as long as the line lives.
std::string_view tagNameOf(const qvc::FastString& line) noexcept;

/// The text after the first ":"; the whole line when there is none.
qvc::FastString getTagValue(const qvc::FastString& line);

/// The text before or after the first `delimiter`; the whole text when there is none.
qvc::FastString subStringBefore(const qvc::FastString& text, char delimiter);
qvc::FastString subStringAfter(const qvc::FastString& text, char delimiter);

using Attributes = std::map<qvc::FastString, qvc::FastString>;

/// The attributes of a tag's value: NAME=value,NAME="value, quoted". Spaces belong to names and values. A
/// name without a value is left out, of a repeated name the first value stays.
Attributes parseAttributes(const qvc::FastString& value);

} // namespace mpl::hls
