#pragma once

#include <cstdint>

namespace mpl::dash {

/// What an adaptation set carries. The numbers are those of the movie model's track types.
enum class ContentType : std::int32_t { Unknown = 0, Video = 1, Audio = 2, Text = 3 };

} // namespace mpl::dash
