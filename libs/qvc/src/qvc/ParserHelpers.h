#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace qvc::parserhelpers {

/// Reads one number of type `T` from the start of `text` as a stream in the classic "C" locale does: leading
/// white space is skipped and what follows the number is left alone.
/// On success `*consumed` (if not null) is the number of bytes used, white space included. On failure, a
/// number out of range among them, the result is 0 and `*consumed` is 0.
template <typename T> T _parse(std::string_view text, size_t* consumed = nullptr);

extern template float _parse<float>(std::string_view, size_t*);
extern template double _parse<double>(std::string_view, size_t*);
extern template int32_t _parse<int32_t>(std::string_view, size_t*);
extern template uint32_t _parse<uint32_t>(std::string_view, size_t*);
extern template int64_t _parse<int64_t>(std::string_view, size_t*);
extern template uint64_t _parse<uint64_t>(std::string_view, size_t*);

} // namespace qvc::parserhelpers
