#include "platform/foundation/Exception.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/JSON.h"
#include "platform/foundation/KeyedArchive.h"
#include "platform/foundation/Locale.h"
#include "platform/foundation/Progress.h"
#include "platform/foundation/StringHash.h"
#include "platform/foundation/StringTable.h"
#include "platform/foundation/URL.h"
#include "platform/transfer/URLRequest.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <clocale>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace platform;
using support::TemporaryDirectory;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

std::string urlText(std::string_view text) {
  const auto url = URL::URLWithString(text);
  return url ? url->absoluteString() : "(none)";
}

std::string resolved(std::string_view text, std::string_view base) {
  const auto baseURL = URL::URLWithString(base);
  const auto url = URL::URLWithString(text, &*baseURL);
  return url ? url->absoluteString() : "(none)";
}

std::string textAt(const std::string& path) {
  const auto data = FileManager::contentsAtPath(path);
  return data ? std::string(data->begin(), data->end()) : "(none)";
}

} // namespace

TEST(ErrorTest, DescribesItselfAndItsCause) {
  const ErrorRef cause = makePOSIXError(ENOENT, "Cannot open \"x\"");
  EXPECT_EQ(cause->localizedDescription(), "Cannot open \"x\": No such file or directory");
  EXPECT_EQ(makeError(NSURLErrorDomain, -1, UserInfo{{NSUnderlyingErrorKey, cause}})->underlyingError(),
            cause);
  EXPECT_EQ(makeError(NSURLErrorDomain, -1, "text", cause)->underlyingError(), cause);
  EXPECT_THAT(makeError(NSURLErrorDomain, -999)->localizedDescription(),
              HasSubstr("NSURLErrorDomain error -999"));
  EXPECT_EQ(ErrorDomain("NSURLErrorDomain"), NSURLErrorDomain);
  EXPECT_FALSE(ErrorDomain("NSURLErrorDomain").isIdenticalTo(NSURLErrorDomain));
  EXPECT_TRUE(cause->domain().isIdenticalTo(NSPOSIXErrorDomain));
}

TEST(StringHashTest, IsStable) {
  EXPECT_EQ(stringHash(std::string_view("")), 0xEF46DB3751D8E999u);
  EXPECT_EQ(stringHash(std::string_view("abc")), 0x44BC2CF5AD770999u);
  EXPECT_EQ(stringHash(std::optional<std::string>()), 0u);
}

TEST(URLTest, ResolvesLikeTheStandardsExamples) {
  const std::pair<const char*, const char*> examples[] = {{"g", "http://a/b/c/g"},
                                                          {"./g", "http://a/b/c/g"},
                                                          {"g/", "http://a/b/c/g/"},
                                                          {"/g", "http://a/g"},
                                                          {"//g", "http://g"},
                                                          {"?y", "http://a/b/c/d;p?y"},
                                                          {"g?y", "http://a/b/c/g?y"},
                                                          {"#s", "http://a/b/c/d;p?q#s"},
                                                          {"g?y#s", "http://a/b/c/g?y#s"},
                                                          {";x", "http://a/b/c/;x"},
                                                          {"", "http://a/b/c/d;p?q"},
                                                          {".", "http://a/b/c/"},
                                                          {"..", "http://a/b/"},
                                                          {"../g", "http://a/b/g"},
                                                          {"../..", "http://a/"},
                                                          {"../../../g", "http://a/g"},
                                                          {"/./g", "http://a/g"},
                                                          {"/../g", "http://a/g"},
                                                          {"g.", "http://a/b/c/g."},
                                                          {"..g", "http://a/b/c/..g"},
                                                          {"./g/.", "http://a/b/c/g/"},
                                                          {"g/./h", "http://a/b/c/g/h"},
                                                          {"g;x=1/../y", "http://a/b/c/y"},
                                                          {"g?y/../x", "http://a/b/c/g?y/../x"},
                                                          {"ftp://h/x", "ftp://h/x"}};
  for (const auto& [reference, target] : examples)
    EXPECT_EQ(resolved(reference, "http://a/b/c/d;p?q#f"), target) << reference;

  EXPECT_EQ(resolved("s/1.mp4", "http://[2001:db8::1]:8080"), "http://[2001:db8::1]:8080/s/1.mp4");
  EXPECT_EQ(resolved("x", "file:///a/b"), "file:///a/x");
  EXPECT_EQ(resolved("/x", "http://u:p@h:81/a?q"), "http://u:p@h:81/x");
  EXPECT_EQ(resolved("x", "relative/base"), "(none)");
}

TEST(URLTest, MendsSloppyTextsAndRefusesHopelessOnes) {
  EXPECT_EQ(urlText(" http://h/a b/ü{1}|\"<>\\^`\n"), "http://h/a%20b/%C3%BC%7B1%7D%7C%22%3C%3E%5C%5E%60");
  EXPECT_EQ(urlText("http://h/100%/%41%zz%4"), "http://h/100%25/%41%25zz%254");
  EXPECT_EQ(urlText("http://h/[1]?a[]=b#x#y"), "http://h/%5B1%5D?a%5B%5D=b#x%23y");
  EXPECT_EQ(urlText("http://[::1]:80/x"), "http://[::1]:80/x");
  EXPECT_EQ(resolved("12:30.mp4", "http://h/a/"), "http://h/a/12%3A30.mp4");
  for (const char* hopeless : {"", "  ", "http://", "http:///x", "https:x", "HTTP://:80/", "http://h:port/",
                               "http://[::1", "http://[zz]/", "http://h]/"})
    EXPECT_EQ(urlText(hopeless), "(none)") << hopeless;
  EXPECT_EQ(resolved("//", "http://h/a"), "(none)");
  EXPECT_EQ(resolved("https:", "http://h/a"), "(none)");
}

TEST(URLTest, TellsItsComponents) {
  const URL url = *URL::URLWithString("HTTPS://me%40x:pa:ss@[fe80::1]:8443/a%20b/c%2Fd.tar.gz?q=%41#f");
  EXPECT_EQ(std::tuple(url.scheme(), url.user(), url.password(), url.host(), url.port(), url.query(),
                       url.fragment()),
            std::tuple("HTTPS", "me@x", "pa:ss", "fe80::1", 8443, "q=%41", "f"));
  EXPECT_EQ(std::tuple(url.path(), url.rawPath(), url.lastPathComponent(), url.pathExtension(), url.isHTTP()),
            std::tuple("/a b/c/d.tar.gz", "/a%20b/c%2Fd.tar.gz", "c/d.tar.gz", "gz", true));
  EXPECT_EQ(url.withoutQuery().absoluteString(), "HTTPS://me%40x:pa:ss@[fe80::1]:8443/a%20b/c%2Fd.tar.gz");
  EXPECT_EQ(url.deletingLastPathComponent().absoluteString(),
            "HTTPS://me%40x:pa:ss@[fe80::1]:8443/a%20b/?q=%41#f");

  const URL bare = *URL::URLWithString("http://h:99999");
  EXPECT_FALSE(bare.port() || bare.user() || bare.query() || bare.fragment());
  EXPECT_EQ(bare.path(), "");
  EXPECT_EQ(bare.lastPathComponent(), "");
  EXPECT_EQ(bare.deletingLastPathComponent().absoluteString(), "http://h:99999/");
  EXPECT_EQ(URL::URLWithString("http://h/a/b/")->deletingLastPathComponent().absoluteString(), "http://h/a/");
  EXPECT_EQ(URL::URLWithString("a?q")->deletingLastPathComponent().absoluteString(), "./?q");
  EXPECT_EQ(URL::URLWithString("/a/b/")->lastPathComponent(), "b");

  const std::string path = "/tmp/50% [x] ü?#.mpd";
  const URL file = URL::fileURLWithPath(path);
  EXPECT_TRUE(file.isFileURL());
  EXPECT_EQ(file.path(), path);
  EXPECT_EQ(urlText(file.absoluteString()), file.absoluteString());
}

TEST(URLRequestTest, HeadersIgnoreCaseAndStatusCodesHaveTexts) {
  URLRequest request(*URL::URLWithString("http://h/"));
  request.setValueForHTTPHeaderField("bytes=0-1", "Range");
  request.setValueForHTTPHeaderField("bytes=2-3", "range");
  EXPECT_EQ(request.valueForHTTPHeaderField("RANGE"), "bytes=2-3");
  EXPECT_EQ(request.allHTTPHeaderFields().size(), 1u);
  const std::pair<int, std::optional<std::string>> texts[] = {
      {200, "no error"}, {404, "not found"}, {499, "client error"}, {99, {}}, {600, {}}};
  for (const auto& [code, text] : texts)
    EXPECT_EQ(HTTPURLResponse::localizedStringForStatusCode(code), text) << code;
  const std::pair<const char*, std::optional<std::int64_t>> dates[] = {
      {"Sun, 06 Nov 1994 08:49:37 GMT", 784111777}, {"Sunday, 06-Nov-94 08:49:37 GMT", 784111777},
      {"Sun Nov  6 08:49:37 1994", 784111777},      {"Thu, 29 Feb 2024 23:59:59 GMT", 1709251199},
      {"Sun, 06 anF 1994 08:49:37 GMT", {}},        {"yesterday", {}}};
  for (const auto& [text, seconds] : dates)
    EXPECT_EQ(HTTPURLResponse(request.url(), 200, {{"Last-Modified", text}}).lastModifiedSeconds(), seconds)
        << text;
}

TEST(FileManagerTest, WritesMovesListsAndRemoves) {
  const TemporaryDirectory directory;
  const std::string nested = directory / "a/b/c";
  EXPECT_EQ(FileManager::createDirectoryAtPath(nested, false)->code(), ENOENT);
  EXPECT_EQ(FileManager::createDirectoryAtPath(nested, true), nullptr);
  EXPECT_EQ(FileManager::createDirectoryAtPath(nested + "/", true), nullptr);

  const std::string longName(255, 'n');
  ASSERT_EQ(FileManager::writeDataAtomically("first", nested + "/" + longName), nullptr);
  ASSERT_EQ(FileManager::writeDataAtomically("second", nested + "/" + longName), nullptr);
  ASSERT_EQ(FileManager::writeDataAtomically("old", directory / "target"), nullptr);
  EXPECT_THAT(FileManager::contentsOfDirectoryAtPath(nested), ElementsAre(longName));
  ASSERT_EQ(FileManager::moveItemAtPath(nested + "/" + longName, directory / "target"), nullptr);
  EXPECT_EQ(textAt(directory / "target"), "second");
  EXPECT_THAT(FileManager::contentsOfDirectoryAtPath(directory.path()), ElementsAre("a", "target"));
  EXPECT_EQ(FileManager::createDirectoryAtPath(directory / "target", true)->code(), EEXIST);

  ErrorRef error;
  EXPECT_EQ(FileManager::contentsAtPath(nested, &error), std::nullopt);
  EXPECT_EQ(error->code(), EISDIR);
  EXPECT_GT(textAt("/proc/self/status").size(), 100u) << "a file whose size is told as 0";
  EXPECT_EQ(FileManager::moveItemAtPath(directory / "missing", directory / "target")->code(), ENOENT);
  EXPECT_EQ(textAt(directory / "target"), "second");

  ASSERT_EQ(::symlink((directory / "target").c_str(), (nested + "/link").c_str()), 0);
  EXPECT_EQ(FileManager::attributesOfItemAtPath(nested + "/link")->type, FileAttributes::Type::SymbolicLink);
  EXPECT_EQ(FileManager::removeItemAtPath(directory / "a"), nullptr);
  EXPECT_EQ(FileManager::removeItemAtPath(directory / "a")->code(), ENOENT);
  EXPECT_TRUE(FileManager::fileExistsAtPath(directory / "target"));
  EXPECT_TRUE(FileManager::removeAllItemsAtPath(directory.path()));
  EXPECT_TRUE(FileManager::directoryExistsAtPath(directory.path()));
  EXPECT_TRUE(FileManager::removeAllItemsAtPath(directory / "missing"));
}

TEST(FileManagerTest, SumsFoldersAndAsksTheFileSystem) {
  const TemporaryDirectory directory;
  FileManager::createDirectoryAtPath(directory / "sub", false);
  FileManager::writeDataAtomically(std::string(1000, 'x'), directory / "sub/a");
  FileManager::writeDataAtomically(std::string(24, 'x'), directory / "b");
  const auto sub = FileManager::attributesOfItemAtPath(directory / "sub");
  EXPECT_EQ(FileManager::folderSize(directory.path()), 1024 + sub->size);
  EXPECT_EQ(FileManager::folderSize(directory / "missing"), 0);
  EXPECT_EQ(FileManager::folderSize(directory / "b"), 0);
  EXPECT_GT(FileManager::availableBytesAtPath(directory / "not/yet/there").value_or(0), 0);
  EXPECT_GT(FileManager::maximumNameLengthAtPath(directory / "not/yet/there"), 14u);
}

TEST(FileManagerTest, AFailedWriteLeavesNothingBehind) {
  const TemporaryDirectory directory;
  ASSERT_EQ(FileManager::writeDataAtomically("old", directory / "file"), nullptr);
  // A limit on file sizes stands in for a full disk.
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  const rlimit small{4096, before.rlim_max};
  const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
  ::setrlimit(RLIMIT_FSIZE, &small);
  const ErrorRef error = FileManager::writeDataAtomically(std::string(100'000, 'x'), directory / "file");
  ::setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, oldHandler);

  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), EFBIG);
  EXPECT_THAT(error->localizedDescription(), HasSubstr(directory / "file"));
  EXPECT_THAT(error->localizedDescription(), HasSubstr("100000 bytes"));
  EXPECT_EQ(textAt(directory / "file"), "old");
  EXPECT_THAT(FileManager::contentsOfDirectoryAtPath(directory.path()), ElementsAre("file"));
}

TEST(FileManagerTest, MovesAcrossFileSystems) {
  struct stat here {
  }, there{};
  if (::stat("/tmp", &here) != 0 || ::stat("/dev/shm", &there) != 0 || here.st_dev == there.st_dev)
    GTEST_SKIP() << "only one file system";
  const TemporaryDirectory from("/dev/shm"), to("/tmp");
  FileManager::createDirectoryAtPath(from / "set/sub", true);
  FileManager::writeDataAtomically(std::string(3'000'000, 'x'), from / "set/sub/file");
  ASSERT_EQ(::symlink("file", (from / "set/sub/link").c_str()), 0);
  ASSERT_EQ(FileManager::moveItemAtPath(from / "set", to / "moved"), nullptr);
  EXPECT_FALSE(FileManager::fileExistsAtPath(from / "set"));
  EXPECT_EQ(textAt(to / "moved/sub/link"), std::string(3'000'000, 'x'));
  EXPECT_NE(FileManager::moveItemAtPath(from / "missing", to / "x"), nullptr);
  EXPECT_NE(FileManager::moveItemAtPath(to / "moved", from / "no/parent"), nullptr);
  EXPECT_THAT(FileManager::contentsOfDirectoryAtPath(to.path()), ElementsAre("moved"));
}

TEST(JSONTest, ParsesUpToItsDepthAndWritesAnything) {
  const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_NE(parseJSON(nested(512)), nullptr);
  EXPECT_NE(parseJSON("{\"\\\"[[[\": \"" + std::string(1000, '[') + "\"}"), nullptr);
  for (const std::string& bad :
       {nested(513), std::string("{\"a\":"), std::string("\"\xff\""), std::string()}) {
    ErrorRef error;
    EXPECT_EQ(parseJSON(bad, &error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
  }
  EXPECT_EQ(serializeJSON(JSON{{"k", "a\xff"}}), "{\"k\":\"a\xEF\xBF\xBD\"}");
}

TEST(LocaleTest, NamesLanguages) {
  EXPECT_EQ(Locale("de_AT.UTF-8").identifier(), "de-AT");
  EXPECT_EQ(Locale("de_AT.UTF-8").languageCode(), "de");
  for (const char* english : {"", "C", "POSIX", "C.UTF-8", "???"})
    EXPECT_EQ(Locale(english).identifier(), "en") << english;

  const Locale english("en");
  for (const char* german : {"deu", "ger", "de", "DE", "de-AT"})
    EXPECT_EQ(english.displayNameForLanguageCode(german), "German") << german;
  EXPECT_EQ(Locale("de").displayNameForLanguageCode("fre"), "Französisch");
  for (const char* nameless : {"xyz", "qaa", "English", "", "root"})
    EXPECT_EQ(english.displayNameForLanguageCode(nameless), std::nullopt) << nameless;

  EXPECT_EQ(Locale::canonicalLanguage("iw"), "he");
  EXPECT_EQ(Locale::canonicalLanguage("haw"), "haw");
  EXPECT_EQ(Locale::canonicalLanguage("xyz-US"), "xyz-us");

  EXPECT_EQ(Locale::current().identifier(), "en");
  Locale::setCurrent(Locale("fr"));
  EXPECT_EQ(Locale::current().languageCode(), "fr");
  Locale::setCurrent(english);
}

TEST(StringTableTest, AnswersTheCatalogueElseTheKey) {
  EXPECT_EQ(StringTable::localizedString("Downloading"), "Downloading");

  // A catalogue with one entry: magic, revision, count, and the two tables of lengths and offsets.
  const TemporaryDirectory directory;
  FileManager::createDirectoryAtPath(directory / "de/LC_MESSAGES", true);
  const std::uint32_t words[] = {0x950412de, 0, 2, 28, 44, 0, 0, 0, 60, 11, 61, 40, 73, 12, 114};
  std::string catalogue(reinterpret_cast<const char*>(words), sizeof words);
  catalogue += std::string("\0Downloading\0", 13);
  catalogue += std::string("Content-Type: text/plain; charset=UTF-8\n\0", 41) + "Lädt gerade";
  catalogue += '\0';
  ASSERT_EQ(FileManager::writeDataAtomically(catalogue, directory / "de/LC_MESSAGES/tolvane-test.mo"),
            nullptr);

  ASSERT_NE(std::setlocale(LC_MESSAGES, "C.UTF-8"), nullptr);
  ::setenv("LANGUAGE", "de", 1);
  StringTable::bind("tolvane-test", directory.path());
  EXPECT_EQ(StringTable::localizedString("Downloading"), "Lädt gerade");
  EXPECT_EQ(StringTable::localizedString("Other"), "Other");
  EXPECT_EQ(StringTable::localizedString(""), "");
  ::unsetenv("LANGUAGE");
  std::setlocale(LC_MESSAGES, "C");
}

TEST(ProgressTest, ChildrenCountForTheirShare) {
  const auto root = Progress::progressWithTotalUnitCount(0);
  int changes = 0;
  root->setChangeHandler([&](Progress&) { ++changes; });
  EXPECT_TRUE(root->isIndeterminate());
  std::weak_ptr<Progress> first;
  {
    const auto a = Progress::progressWithTotalUnitCount(1), b = Progress::progressWithTotalUnitCount(-1);
    first = a;
    root->addToTotalUnitCount(2);
    root->addChild(a, 1);
    root->addChild(b, 1);
    EXPECT_THROW(root->addChild(a, 1), Exception);
    EXPECT_THROW(a->addChild(root, 1), Exception);
    a->setTotalUnitCount(3'000'000'000);
    a->setCompletedUnitCount(750'000'000);
    EXPECT_DOUBLE_EQ(root->fractionCompleted(), 0.125);
    b->setTotalUnitCount(4);
    b->setCompletedUnitCount(2);
    EXPECT_DOUBLE_EQ(root->fractionCompleted(), 0.375);
    EXPECT_EQ(root->completedUnitCount(), 0);
    EXPECT_EQ(root->localizedDescription(), "37% completed");
    a->setCompletedUnitCount(3'000'000'000);
    EXPECT_EQ(root->completedUnitCount(), 1);
    EXPECT_DOUBLE_EQ(root->fractionCompleted(), 0.75);
    b->setCompletedUnitCount(9);
  }
  EXPECT_TRUE(root->isFinished());
  EXPECT_TRUE(first.expired());
  EXPECT_EQ(changes, 5);
}

TEST(ProgressTest, RequestsReachTheWholeTreeOnce) {
  std::vector<std::string> calls;
  const auto note = [&](const char* what) { return [&calls, what] { calls.emplace_back(what); }; };
  const auto root = Progress::progressWithTotalUnitCount(2), child = Progress::progressWithTotalUnitCount(1);
  root->addChild(child, 1);
  root->setPausingHandler(note("root pauses"));
  child->setPausingHandler(note("child pauses"));
  child->setResumingHandler(note("child resumes"));
  child->setCancellationHandler([&] {
    calls.emplace_back("child cancels");
    child->setCompletedUnitCount(1); // no lock is held, and the tree changes under the caller
  });
  EXPECT_FALSE(child->isPausable());
  root->pause();
  root->pause();
  EXPECT_TRUE(child->isPaused());
  root->resume();
  root->cancel();
  root->cancel();
  EXPECT_THAT(calls, ElementsAre("root pauses", "child pauses", "child resumes", "child cancels"));

  calls.clear();
  const auto late = Progress::progressWithTotalUnitCount(1);
  root->addChild(late, 1);
  EXPECT_TRUE(late->isCancelled());
  late->setCancellationHandler(note("late cancels"));
  EXPECT_THAT(calls, ElementsAre("late cancels"));
}

TEST(ProgressTest, DescribesADownload) {
  const auto progress = Progress::progressWithTotalUnitCount(3'400'000);
  progress->setCompletedUnitCount(1'250'000);
  EXPECT_EQ(progress->localizedAdditionalDescription(), "1250000 of 3400000");
  progress->setKind(NSProgressKindFile);
  progress->setUserInfoObject(NSProgressFileOperationKindKey,
                              std::string(NSProgressFileOperationKindDownloading));
  progress->setThroughput(500'000);
  progress->setEstimatedTimeRemaining(std::chrono::seconds(65));
  EXPECT_EQ(progress->localizedDescription(), "Downloading…");
  EXPECT_EQ(progress->localizedAdditionalDescription(), "1.2 MB of 3.4 MB (500.0 kB/s) – 1:05 remaining");
  EXPECT_EQ(std::any_cast<std::int64_t>(progress->userInfo().at(NSProgressThroughputKey)), 500'000);
  progress->setThroughput(std::nullopt);
  EXPECT_EQ(progress->throughput(), std::nullopt);
  progress->setLocalizedDescription("Mine");
  EXPECT_EQ(progress->localizedDescription(), "Mine");
}

TEST(ProgressTest, ManyThreadsMayMoveOneTree) {
  const auto root = Progress::progressWithTotalUnitCount(4);
  root->setChangeHandler([](Progress& progress) { progress.fractionCompleted(); });
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      const auto child = Progress::progressWithTotalUnitCount(500);
      root->addChild(child, 1);
      for (int done = 1; done <= 500; ++done)
        child->setCompletedUnitCount(done);
    });
  root->pause();
  root->resume();
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(root->completedUnitCount(), 4);
  EXPECT_DOUBLE_EQ(root->fractionCompleted(), 1.0);
}

TEST(KeyedArchiveTest, ReturnsWhatWasEncoded) {
  KeyedArchiver archiver("Record", 2);
  const Data bytes = {0, 1, 254, 255};
  archiver.encodeString("text", "ü\n");
  archiver.encodeInt64("negative", std::numeric_limits<std::int64_t>::min());
  archiver.encodeUInt64("huge", std::numeric_limits<std::uint64_t>::max());
  archiver.encodeInt64("size", 3'000'000'000);
  archiver.encodeFloat("fraction", 0.1f);
  archiver.encodeDouble("infinite", -HUGE_VAL);
  archiver.encodeBool("flag", true);
  archiver.encodeBytes("bytes", bytes);
  archiver.encodeBytes("empty", {});

  const auto read = KeyedUnarchiver::unarchiverWithData(archiver.archivedData(), "Record", 3);
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(read->version(), 2);
  EXPECT_EQ(read->decodeString("text"), "ü\n");
  EXPECT_EQ(read->decodeInt64("negative"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(read->decodeUInt64("negative"), std::nullopt);
  EXPECT_EQ(read->decodeUInt64("huge"), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(read->decodeInt64("huge"), std::nullopt);
  EXPECT_EQ(read->decodeInt64("size"), 3'000'000'000);
  EXPECT_EQ(read->decodeInt32("size"), -1'294'967'296);
  EXPECT_EQ(read->decodeFloat("fraction"), 0.1f);
  EXPECT_EQ(read->decodeDouble("infinite"), -HUGE_VAL);
  EXPECT_EQ(read->decodeDouble("size"), 3e9);
  EXPECT_EQ(read->decodeBool("flag"), true);
  EXPECT_EQ(read->decodeBytes("bytes"), bytes);
  EXPECT_EQ(read->decodeBytes("empty"), Data());
  EXPECT_EQ(read->decodeString("size"), std::nullopt);
  EXPECT_FALSE(read->containsValueForKey("absent"));
}

TEST(KeyedArchiveTest, RefusesWhatItCannotRead) {
  const auto codeOf = [](const std::string& text, int newestVersion = 1) -> std::int64_t {
    ErrorRef error;
    const auto read =
        KeyedUnarchiver::unarchiverWithData(Data(text.begin(), text.end()), "R", newestVersion, &error);
    EXPECT_EQ(read, nullptr);
    return error ? error->code() : 0;
  };
  const auto archive = [](const char* formatVersion, const char* type, const char* version,
                          const char* values) {
    return std::string(R"({"format":"keyed-archive","formatVersion":)") + formatVersion + R"(,"type":")" +
           type + R"(","version":)" + version + R"(,"values":)" + values + "}";
  };
  for (const std::string& corrupt :
       {std::string(), std::string("[]"), std::string("{}"), archive("\"1\"", "R", "1", "{}"),
        archive("1", "R", "0", "{}"), archive("1", "R", "1", "[]")})
    EXPECT_EQ(codeOf(corrupt), NSCoderReadCorruptError) << corrupt;
  EXPECT_EQ(codeOf(archive("1", "Other", "1", "{}")), NSCoderInvalidValueError);
  EXPECT_EQ(codeOf(archive("2", "R", "1", "\"unknown shape\"")), NSPropertyListReadUnknownVersionError);
  EXPECT_EQ(codeOf(archive("1", "R", "3", "{}"), 2), NSPropertyListReadUnknownVersionError);
}
