#include "platform/assets/internal/Package.h"

#include "platform/assets/internal/StreamPlan.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/JSON.h"
#include "platform/foundation/StringHash.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace platform::assets {

namespace {

enum StateProblem : std::int64_t { Busy = 255, Damaged = 3840, OtherVersion = 3841 };

ErrorRef stateError(StateProblem problem, const std::string& path, const std::string& why) {
  return makeError(NSCocoaErrorDomain, problem, "The package at " + path + " cannot be used: " + why);
}

std::string textOf(const JSON& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

bool flagOf(const JSON& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_boolean() && found->get<bool>();
}

std::int64_t numberOf(const JSON& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_number_integer() ? found->get<std::int64_t>() : 0;
}

// Read to be compared and shown, and in `directory`'s case to be opened: it must be a name of ours.
bool isName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

} // namespace

std::optional<PackageState> readPackageState(const std::string& packagePath, ErrorRef* error) {
  ErrorRef ignored;
  ErrorRef& to = error ? *error : ignored;
  const auto data = FileManager::contentsAtPath(packagePath + "/" + PackageState::fileName, &to);
  if (!data)
    return std::nullopt;
  const auto json = parseJSON({reinterpret_cast<const char*>(data->data()), data->size()}, &to);
  if (!json || !json->is_object()) {
    to = stateError(Damaged, packagePath,
                    "its state file is damaged. Remove the package and download it again");
    return std::nullopt;
  }
  if (numberOf(*json, "version") != PackageState::currentVersion) {
    to = stateError(OtherVersion, packagePath,
                    "its state file is of another version. Use the newer program that made it");
    return std::nullopt;
  }
  PackageState state;
  state.url = textOf(*json, "url");
  state.title = textOf(*json, "title");
  state.complete = flagOf(*json, "complete");
  state.session = textOf(*json, "session");
  state.task = static_cast<std::uint64_t>(numberOf(*json, "task"));
  if (json->contains("minimumBitrate"))
    state.wish.minimumBitrate = numberOf(*json, "minimumBitrate");
  if (const auto options = json->find("options"); options != json->end() && options->is_array())
    for (const auto& option : *options)
      if (option.is_object())
        state.wish.options.push_back({textOf(option, "type"), textOf(option, "name"),
                                      textOf(option, "language"), flagOf(option, "forced"),
                                      textOf(option, "characteristics")});
  if (const auto streams = json->find("streams"); streams != json->end() && streams->is_array())
    for (const auto& stream : *streams)
      if (stream.is_object() && isName(textOf(stream, "directory")))
        state.streams.push_back({textOf(stream, "directory"), textOf(stream, "kind"), textOf(stream, "name"),
                                 textOf(stream, "language"), flagOf(stream, "complete"),
                                 numberOf(stream, "bytes")});
  return state;
}

std::unique_ptr<Package> Package::open(const std::string& root, const std::string& url, ErrorRef& error) {
  const std::string hash = hexOf(stringHash(url));
  // Another number only when two addresses have one hash.
  for (int number = 1; number < 100; ++number) {
    const std::string path = root + "/" + hash + (number > 1 ? "-" + std::to_string(number) : "") + ".hls";
    if ((error = FileManager::createDirectoryAtPath(path, true)))
      return nullptr;
    FileDescriptor lock(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock || ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
      error =
          lock && errno == EWOULDBLOCK
              ? stateError(Busy, path,
                           "another download of the same address is writing it. Wait for it, or cancel it")
              : makePOSIXError(errno, "Cannot lock \"" + path + "\"");
      return nullptr;
    }
    const bool exists = FileManager::fileExistsAtPath(path + "/" + PackageState::fileName);
    const auto state = exists ? readPackageState(path, &error) : std::nullopt;
    // A damaged one is made anew; the files beside it describe themselves.
    if (exists && !state && (error->domain() != NSCocoaErrorDomain || error->code() == OtherVersion))
      return nullptr;
    error = nullptr;
    if (!state || state->url == url)
      return std::unique_ptr<Package>(new Package(path, std::move(lock)));
  }
  error = stateError(Busy, root, "too many packages share one hash");
  return nullptr;
}

ErrorRef Package::makeDirectory(const std::string& name) {
  return FileManager::createDirectoryAtPath(pathOf(name), false);
}

std::vector<std::pair<std::string, std::int64_t>> Package::files(const std::string& directory) const {
  std::vector<std::pair<std::string, std::int64_t>> list;
  for (auto& name : FileManager::contentsOfDirectoryAtPath(pathOf(directory))) {
    const auto attributes = FileManager::attributesOfItemAtPath(pathOf(directory) + "/" + name);
    if (attributes && attributes->type == FileAttributes::Type::Regular)
      list.emplace_back(std::move(name), attributes->size);
  }
  return list;
}

ErrorRef Package::moveIn(const std::string& location, const std::string& name, bool isSecret) {
  const std::string target = pathOf(name);
  if (::chmod(location.c_str(), isSecret ? 0600 : 0644) == 0 &&
      ::rename(location.c_str(), target.c_str()) == 0)
    return nullptr;
  // Across file systems; it syncs the directory as well.
  return FileManager::moveItemAtPath(location, target);
}

ErrorRef Package::sync(const std::string& directory) {
  const FileDescriptor descriptor(::open(pathOf(directory).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor || (::fsync(descriptor.get()) != 0 && errno != EINVAL))
    return makePOSIXError(errno, "Cannot sync directory \"" + pathOf(directory) + "\"");
  return nullptr;
}

ErrorRef Package::write(const std::string& name, std::string_view content) {
  return FileManager::writeDataAtomically(content, pathOf(name));
}

ErrorRef writePackageState(const std::string& packagePath, const PackageState& state) {
  JSON json{{"version", PackageState::currentVersion},
            {"url", state.url},
            {"title", state.title},
            {"complete", state.complete}};
  if (!state.session.empty()) {
    json["session"] = state.session;
    json["task"] = state.task;
  }
  if (state.wish.minimumBitrate)
    json["minimumBitrate"] = *state.wish.minimumBitrate;
  json["options"] = JSON::array();
  for (const auto& option : state.wish.options) {
    JSON one{{"type", option.mediaType}, {"name", option.name}};
    if (!option.language.empty())
      one["language"] = option.language;
    if (option.forced)
      one["forced"] = true;
    if (!option.characteristics.empty())
      one["characteristics"] = option.characteristics;
    json["options"].push_back(std::move(one));
  }
  json["streams"] = JSON::array();
  for (const auto& stream : state.streams)
    json["streams"].push_back({{"directory", stream.directory},
                               {"kind", stream.kind},
                               {"name", stream.name},
                               {"language", stream.language},
                               {"complete", stream.complete},
                               {"bytes", stream.bytes}});
  return FileManager::writeDataAtomically(serializeJSON(json), packagePath + "/" + PackageState::fileName);
}

void Package::removeOthers(const std::vector<std::string>& keep) {
  for (const auto& name : FileManager::contentsOfDirectoryAtPath(_path))
    if (std::find(keep.begin(), keep.end(), name) == keep.end())
      FileManager::removeItemAtPath(pathOf(name));
}

} // namespace platform::assets
