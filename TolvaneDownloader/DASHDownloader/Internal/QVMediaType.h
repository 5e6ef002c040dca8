#pragma once

/// What a track and its qualities carry. The numbers are fixed: they stand in files on disk.
using QVMediaType = unsigned;

inline constexpr QVMediaType QVMediaTypeVideo = 1;
inline constexpr QVMediaType QVMediaTypeAudio = 2;
inline constexpr QVMediaType QVMediaTypeText = 3;
