#include "platform/transfer/internal/PartialDescription.h"

#include "platform/foundation/FileManager.h"
#include "platform/foundation/JSON.h"

#include <nlohmann/json.hpp>

#include <fstream>

namespace platform::transfer {

namespace {

constexpr int DescriptionVersion = 1;
/// Of a description beside which the file's length tells nothing.
constexpr int MappedVersion = 2;
constexpr int MapVersion = 1;

/// Intervals that are in order and belong together.
HeldRanges rangesFrom(const JSON& json) {
  HeldRanges held;
  for (const auto& span : json) {
    Span read{span.at(0).get<std::int64_t>(), span.at(1).get<std::int64_t>()};
    if (read.first < 0 || read.end < read.first)
      return {};
    held.add(read);
  }
  return held;
}

/// Nothing when the map is of another run of the system, or when it cannot be understood.
HeldRanges readMap(const std::string& path) {
  auto bytes = FileManager::contentsAtPath(path);
  if (!bytes)
    return {};
  auto json = parseJSON({reinterpret_cast<const char*>(bytes->data()), bytes->size()});
  try {
    if (json && json->at("version") == MapVersion && json->at("boot") == bootIdentifier())
      return rangesFrom(json->at("held"));
  } catch (const JSON::exception&) {
    // Torn; the description still tells what is on stable storage.
  }
  return {};
}

} // namespace

HeldRanges trustedRanges(const PartialDescription& description, std::int64_t fileSize,
                         const std::string& mapPath) {
  auto held = description.synced;
  // A file longer than what it is part of was written to by somebody else.
  const bool plausible = description.total < 0 || fileSize <= description.total - description.base;
  if (plausible && description.boot == bootIdentifier())
    held.add(description.mapped ? readMap(mapPath) : HeldRanges::prefix(fileSize));
  held.cut(fileSize);
  return held;
}

const std::string& bootIdentifier() {
  static const std::string identifier = [] {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string text;
    std::getline(file, text);
    return text;
  }();
  return identifier;
}

std::string partialMapText(const HeldRanges& held) {
  return "{\"version\":" + std::to_string(MapVersion) + ",\"boot\":\"" + bootIdentifier() +
         "\",\"held\":" + held.text() + "}";
}

std::string serializePartialDescription(const PartialDescription& d) {
  JSON held = JSON::array();
  for (const auto& span : d.synced.spans())
    held.push_back({span.first, span.end});
  JSON json{{"version", d.mapped ? MappedVersion : DescriptionVersion},
            {"method", d.method},
            {"url", d.url},
            {"range", d.range},
            {"etag", d.validators.etag},
            {"lastModified", d.validators.lastModified},
            {"lastModifiedStrong", d.validators.lastModifiedStrong},
            {"base", d.base},
            {"total", d.total},
            {"synced", held},
            {"boot", d.boot},
            {"owner", d.owner},
            {"task", d.taskIdentifier}};
  return serializeJSON(json);
}

bool parsePartialDescription(std::string_view text, PartialDescription& d, bool& newer) {
  newer = false;
  auto json = parseJSON(text);
  if (!json || !json->is_object())
    return false;
  try {
    const auto version = json->at("version").get<int>();
    d.mapped = version == MappedVersion;
    if (version > MappedVersion) {
      newer = true;
      return false;
    }
    d.method = json->at("method").get<std::string>();
    d.url = json->at("url").get<std::string>();
    d.range = json->at("range").get<std::string>();
    d.validators.etag = json->at("etag").get<std::string>();
    d.validators.lastModified = json->at("lastModified").get<std::string>();
    d.validators.lastModifiedStrong = json->at("lastModifiedStrong").get<bool>();
    d.base = json->at("base").get<std::int64_t>();
    d.total = json->at("total").get<std::int64_t>();
    d.synced = rangesFrom(json->at("synced"));
    d.boot = json->at("boot").get<std::string>();
    d.owner = json->at("owner").get<std::string>();
    d.taskIdentifier = json->at("task").get<std::uint64_t>();
  } catch (const JSON::exception&) {
    return false;
  }
  return d.base >= 0;
}

} // namespace platform::transfer
