#pragma once

namespace SmoothStreaming {

/// What a stream carries.
struct Stream {
  enum class Type { Audio = 0, Video = 1, Text = 2 };
};

} // namespace SmoothStreaming
