// Files of a library that are truncated, garbled, empty, of a newer version or in somebody else's hands.

#include "tests/safety/BoundedRun.h"
#include "tests/safety/Presentation.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <random>
#include <sqlite3.h>
#include <sys/file.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace support;
using namespace safety;
using nlohmann::json;

namespace {

constexpr const char* propertiesName = "QVMovieDownloadSetProperties.json";

void query(const std::string& path, const std::string& sql) {
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
      << sqlite3_errmsg(database);
  sqlite3_close(database);
}

enum class Damage { Truncated, Garbled, Empty };
const std::vector<Damage> allDamages{Damage::Truncated, Damage::Garbled, Damage::Empty};

void harm(const std::string& path, Damage damage) {
  std::string content = readFile(path);
  ASSERT_FALSE(content.empty()) << path;
  std::mt19937 random(3);
  switch (damage) {
  case Damage::Truncated:
    content.resize(content.size() / 2 + 1);
    break;
  case Damage::Garbled:
    for (char& byte : content)
      byte = static_cast<char>(random());
    break;
  case Damage::Empty:
    content.clear();
  }
  writeFile(path, content);
}

std::vector<std::string> filesWith(const std::string& directory, const std::string& extension) {
  std::vector<std::string> paths;
  for (const auto& entry : fs::directory_iterator(directory))
    if (entry.path().extension() == extension)
      paths.push_back(entry.path());
  return paths;
}

/// A library whose download was killed with two bodies half-way, made once and copied for every case.
class DamagedLibrary : public testing::Test {
protected:
  static void SetUpTestSuite() {
    _origin = std::make_unique<Origin>();
    Origin& origin = *_origin;
    origin.presentation.serve(origin.server);
    const Fault stall = stallingAfter(2'000, makeGate());
    for (const char* name : {"/low-2.m4s", "/high-1.m4s"})
      origin.server.once(name, stall);
    const std::string library = origin.directory / "library";
    auto command = downloadOf(origin.url(), library);
    command.insert(command.begin(), programPath());
    tolvane::Process process(command, origin.directory / "out");
    ASSERT_TRUE(stall.gate->waitUntilReached(2));
    for (const auto& [name, content] : origin.presentation.files())
      ASSERT_TRUE(origin.server.waitForRequests("/" + name, 1));
    while (process.running() && (filesWith(library + "/transfers/partials", ".json").size() < 2 ||
                                 origin.presentation.wholeFiles(downloadDirectoryIn(library)).size() <
                                     origin.presentation.files().size() - 2))
      std::this_thread::yield();
    process.signal(SIGKILL);
    ASSERT_EQ(process.wait(), 128 + SIGKILL);
    // One file for each database, so that harm to it is not healed from its log.
    for (const char* database : {"/halvix.db", "/transfers/journal.db"})
      query(library + database, "PRAGMA journal_mode=DELETE");
  }
  static void TearDownTestSuite() { _origin.reset(); }

  void SetUp() override { renew(); }

  void renew() {
    fs::remove_all(library());
    fs::copy(_origin->directory / "library", library(), fs::copy_options::recursive);
    _requestsBefore = _origin->server.requests().size();
  }

  std::string library() const { return _directory / "library"; }
  std::string folder() const { return downloadDirectoryIn(library()); }
  std::string partials() const { return library() + "/transfers/partials"; }

  ProgramResult run(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--library", library()});
    return runBounded(arguments);
  }
  ProgramResult resume() const { return run({"resume", "--all"}); }
  ProgramResult download() const { return runBounded(downloadOf(_origin->url(), library())); }

  /// Runs a case for each kind of harm to a file of the library, with what the file holds then.
  void forEach(const std::vector<Damage>& damages, const std::string& file,
               const std::function<void(const std::string& harmed)>& test) {
    for (const Damage damage : damages) {
      SCOPED_TRACE("damage " + std::to_string(static_cast<int>(damage)) + " to " + file);
      renew();
      harm(file, damage);
      test(readFile(file));
    }
  }

  /// Every command ends well or with one clear error that holds `word`, and `file` is left alone.
  void expectRefusal(const std::string& file, const std::string& word) const {
    const std::string before = readFile(file);
    for (const ProgramResult& result : {run({"list"}), resume(), download()}) {
      EXPECT_EQ(endFault(result), "");
      EXPECT_TRUE(result.status == 0 || result.err.find(word) != std::string::npos) << result.err;
    }
    EXPECT_EQ(readFile(file), before) << file << " was changed";
    EXPECT_EQ(_origin->presentation.faults(folder()), "");
  }

  /// The download ends whole, and what stood whole is not fetched again.
  void expectWholeAfter(const ProgramResult& result) const {
    EXPECT_TRUE(endedWell(result));
    const Presentation& presentation = _origin->presentation;
    EXPECT_EQ(presentation.faults(folder()), "");
    EXPECT_EQ(presentation.wholeFiles(folder()).size(), presentation.files().size());
    for (const ServerRequest& request : newRequests())
      EXPECT_TRUE(request.path == "/low-2.m4s" || request.path == "/high-1.m4s" ||
                  request.path == Presentation::manifestPath)
          << request.path << " is fetched again";
    const json list = json::parse(run({"list", "--json"}).out);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["state"], "success");
    EXPECT_TRUE(endedWell(run({"verify", list[0]["id"]})));
  }

  std::vector<ServerRequest> newRequests() const {
    auto requests = _origin->server.requests();
    requests.erase(requests.begin(), requests.begin() + static_cast<std::ptrdiff_t>(_requestsBefore));
    return requests;
  }

private:
  struct Origin {
    TemporaryDirectory directory;
    Presentation presentation{4, 21};
    FaultServer server;
    std::string url() const { return server.url(Presentation::manifestPath); }
  };
  static std::unique_ptr<Origin> _origin;
  const TemporaryDirectory _directory;
  std::size_t _requestsBefore = 0;
};
std::unique_ptr<DamagedLibrary::Origin> DamagedLibrary::_origin;

} // namespace

TEST_F(DamagedLibrary, TheListOfDownloadsIsNeverWiped) {
  const std::string list = library() + "/halvix.db";
  forEach({Damage::Truncated, Damage::Garbled}, list, [&](const std::string& harmed) {
    for (const ProgramResult& result : {run({"list"}), resume(), download()})
      EXPECT_TRUE(refused(result, {"damaged"}));
    EXPECT_EQ(readFile(list), harmed);
    // The way out for its owner: without the list the downloads are found again by their addresses.
    fs::remove(list);
    expectWholeAfter(download());
  });
  forEach({Damage::Empty}, list, [&](const std::string&) { expectWholeAfter(download()); });

  renew();
  query(list, "PRAGMA user_version=99");
  expectRefusal(list, "newer");
  EXPECT_EQ(run({"list"}).status, 1);
}

TEST_F(DamagedLibrary, AJournalIsBegunAnewUnlessItIsNewer) {
  const std::string journal = library() + "/transfers/journal.db";
  forEach(allDamages, journal, [&](const std::string&) { expectWholeAfter(resume()); });
  renew();
  query(journal, "PRAGMA user_version=99");
  expectRefusal(journal, "newer");
  EXPECT_EQ(resume().status, 1);
}

TEST_F(DamagedLibrary, PropertiesAreMadeAnewAndWhatIsUnknownInThemIsKept) {
  const std::string file = folder() + "/" + propertiesName;
  const auto stored = [&] { return json::parse(readFile(file)); };
  forEach(allDamages, file, [&](const std::string& harmed) {
    expectWholeAfter(resume());
    EXPECT_EQ(readFile(folder() + "/damaged-" + propertiesName), harmed);
    EXPECT_EQ(stored()["QVNumberOfDownloadedQualities"], 2);
  });
  renew();
  json properties = stored();
  properties["FromTheFuture"] = {1, 2, 3};
  writeFile(file, properties.dump());
  expectWholeAfter(resume());
  EXPECT_EQ(stored()["FromTheFuture"], properties["FromTheFuture"]);
}

TEST_F(DamagedLibrary, AStoredManifestThatCannotBeReadIsAnErrorAndNotReplaced) {
  const std::string manifest = folder() + "/manifest.mpd", good = readFile(manifest);
  forEach(allDamages, manifest, [&](const std::string& harmed) {
    for (const auto& result : {resume(), download(), run({"verify", fs::path(folder()).filename()})})
      EXPECT_TRUE(refused(result, {}));
    EXPECT_EQ(readFile(manifest), harmed);
    writeFile(manifest, good);
    expectWholeAfter(resume());
  });
  // A process that died while it stored the manifest leaves a torn one under a temporary name.
  renew();
  fs::rename(manifest, folder() + "/.tmp-1");
  harm(folder() + "/.tmp-1", Damage::Truncated);
  expectWholeAfter(resume());
}

TEST_F(DamagedLibrary, APartIsContinuedOnlyAsFarAsItIsSure) {
  const auto each = [&](const std::string& extension, const std::function<void(const std::string&)>& change) {
    renew();
    const auto paths = filesWith(partials(), extension);
    ASSERT_EQ(paths.size(), 2u);
    for (const std::string& path : paths)
      change(path);
    expectWholeAfter(resume());
  };
  for (const std::string extension : {".json", ".part"})
    for (const Damage damage : allDamages) {
      SCOPED_TRACE(extension + " " + std::to_string(static_cast<int>(damage)));
      if (extension == ".json" || damage != Damage::Garbled) // no part tells that its bytes are others
        each(extension, [&](const std::string& path) { harm(path, damage); });
    }
  each(".part", [](const std::string& path) { writeFile(path, readFile(path) + std::string(100'000, 'x')); });
  each(".part", [](const std::string& path) { fs::remove(path); });

  // A newer program's parts stay as they are, and the resources are fetched beside them.
  std::map<std::string, std::string> kept;
  each(".json", [&](const std::string& path) {
    json description = json::parse(readFile(path));
    description["version"] = 99;
    writeFile(path, description.dump());
    const std::string part = fs::path(path).replace_extension(".part");
    kept[path] = readFile(path), kept[part] = readFile(part);
  });
  for (const auto& [path, content] : kept)
    EXPECT_EQ(readFile(path), content) << path;
}

TEST_F(DamagedLibrary, WhatIsInUseByAnotherIsLeftToIt) {
  // A part that a living process writes.
  const auto parts = filesWith(partials(), ".part");
  ASSERT_EQ(parts.size(), 2u);
  const int held = ::open(parts[0].c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(::flock(held, LOCK_EX | LOCK_NB), 0);
  const std::string before = readFile(parts[0]);
  expectWholeAfter(resume());
  EXPECT_EQ(readFile(parts[0]), before);
  ::close(held);

  // The library itself; the lock file's text only serves the message.
  renew();
  for (const char* text : {"", "garbage", "99999999999999999999", "-1"}) {
    writeFile(library() + "/halvix.lock", text);
    const int lock = ::open((library() + "/halvix.lock").c_str(), O_RDWR | O_CLOEXEC);
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(lock, F_OFD_SETLK, &whole), 0);
    EXPECT_TRUE(refused(resume(), {"in use"}));
    EXPECT_TRUE(endedWell(run({"list"})));
    ::close(lock);
  }
  expectWholeAfter(resume());
}

TEST_F(DamagedLibrary, FilesThatNobodyKnowsAreInNobodysWay) {
  const std::string id = fs::path(folder()).filename();
  for (const std::string& path :
       {partials() + "/0000000000000000-0.part", partials() + "/nonsense", partials() + "/x.json.new",
        library() + "/transfers/finished/p-1-1-0", library() + "/transfers/finished/nonsense",
        library() + "/transfers/locks/p-1-1.lock", library() + "/transfers/locks/s-.lock",
        folder() + "/.tmp-2", library() + "/DashDownloader/" + id + "/stray"})
    writeFile(path, "?");
  fs::create_directory(partials() + "/directory.part");
  const ProgramResult result = resume();
  fs::remove(folder() + "/stray");
  expectWholeAfter(result);
}
