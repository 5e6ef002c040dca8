#include "apps/tolvane/MediaFileCheck.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <set>
#include <string_view>

namespace tolvane {
namespace {

std::uint64_t bigEndian(const char* bytes, int count) {
  std::uint64_t value = 0;
  for (int i = 0; i < count; ++i)
    value = value << 8 | static_cast<unsigned char>(bytes[i]);
  return value;
}

bool isFirstBox(std::string_view type) {
  static const std::set<std::string_view> known{"ftyp", "styp", "moov", "moof",
                                                "sidx", "emsg", "prft", "mdat"};
  return known.count(type) > 0;
}

} // namespace

std::string mediaFileFault(const std::string& path) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in)
    return "cannot be read";
  const std::uint64_t size = static_cast<std::uint64_t>(in.tellg());
  if (size == 0)
    return "is empty";
  for (std::uint64_t at = 0; at < size;) {
    char head[16] = {};
    in.seekg(static_cast<std::streamoff>(at));
    in.read(head, static_cast<std::streamsize>(std::min<std::uint64_t>(16, size - at)));
    in.clear();
    std::string_view type(head + 4, 4);
    if (at == 0 && (size < 8 || !isFirstBox(type)))
      return {};
    std::uint64_t length = bigEndian(head, 4);
    if (length == 0 && size - at >= 8)
      return {};
    if (length == 1)
      length = bigEndian(head + 8, 8);
    if (size - at < 8 || length < 8 || length > size - at)
      return "ends within a box, so its tail is missing";
    at += length;
  }
  return {};
}

} // namespace tolvane
