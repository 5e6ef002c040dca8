#pragma once

#include <streambuf>
#include <string_view>

namespace mpl::hls {

/// Lets a stream read a text where it stands; a string stream would copy it. The text must outlive it.
class TextBuffer final : public std::streambuf {
public:
  explicit TextBuffer(std::string_view text) {
    char* begin = const_cast<char*>(text.data()); // only ever read through: nothing is written or put back
    setg(begin, begin, begin + text.size());
  }
};

} // namespace mpl::hls
