// Downloads from a real server, over a session and over plain connections: what is reported must be the same.

#include "tests/files/RecordingFileDelegate.h"

#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadProgress.h"

#include "platform/foundation/FileManager.h"
#include "platform/foundation/Progress.h"
#include "platform/transfer/TransferService.h"
#include "tests/support/Command.h"
#include "tests/support/FaultServer.h"

#include <filesystem>
#include <fstream>

using namespace platform;
using namespace support;
using namespace files;
using testing::ElementsAre, testing::HasSubstr, testing::IsEmpty, testing::MatchesRegex, testing::SizeIs,
    testing::StartsWith;

namespace {

enum class Transport { Session, Connection };

/// Serves `content` to whoever proves by a digest (RFC 7616, MD5, qop=auth) to know the password.
ServerHandler digestProtected(const std::string& directory, const std::string& userAndRealm,
                              std::string password, std::string content) {
  const auto md5 = [directory](const std::string& text) {
    std::ofstream(directory + "/md5-in", std::ios::binary) << text;
    runCommand({"sh", "-c", "md5sum < md5-in > md5-out"}, directory);
    return readFile(directory + "/md5-out").substr(0, 32);
  };
  const char* wanted = R"(Basic realm="weak", Digest realm="vault", nonce="nonce-1", qop="auth")";
  return [=](const ServerRequest& request, ServerConnection& connection) {
    const auto header = request.header("Authorization");
    const auto field = [&](const std::string& name) {
      for (const std::string before : {" ", ","})
        if (auto at = header.find(before + name + "="); at != std::string::npos) {
          at = header.find_first_not_of('"', at + before.size() + name.size() + 1);
          return header.substr(at, header.find_first_of("\",", at) - at);
        }
      return std::string();
    };
    const auto proof = md5(md5(userAndRealm + ":" + password) + ":nonce-1:" + field("nc") + ":" +
                           field("cnonce") + ":auth:" + md5("GET:" + request.target));
    if (header.starts_with("Digest ") && field("response") == proof)
      FaultServer::reply(200, {}, content)(request, connection);
    else
      FaultServer::reply(401, {{"WWW-Authenticate", wanted}}, "who are you?")(request, connection);
  };
}

class FileDownloaderTest : public FileDownloaderFixture, public testing::TestWithParam<Transport> {
protected:
  void TearDown() override {
    downloader.reset();
    if (service)
      service->shutdown();
  }

  void open(std::int64_t limit = 0) {
    HTTPTransferServiceOptions options;
    options.directory = directory / "service";
    options.retryDelay = std::chrono::milliseconds(1);
    options.backgroundSessions = GetParam() == Transport::Session;
    service = makeHTTPTransferService(options);
    ASSERT_TRUE(service);
    FileDownloaderFixture::open(service, limit);
    ASSERT_FALSE(downloader->sessionError());
    EXPECT_EQ(downloader->backgroundSession() != nullptr, GetParam() == Transport::Session);
  }

  void start(const std::string& token, const std::string& path) {
    downloader->startDownloadWithIdentifierFromRemoteURL(token, *URL::URLWithString(server.url(path)));
  }

  End download(const std::string& path) {
    if (!downloader)
      open();
    start(path, path);
    return nextEnd();
  }
  End nextEnd() {
    EXPECT_TRUE(delegate->waitForEnds(++ended));
    return delegate->end(ended - 1);
  }

  std::size_t filesBelow(const std::string& name) const {
    std::size_t count = 0;
    if (std::filesystem::exists(directory / name))
      for (const auto& entry : std::filesystem::recursive_directory_iterator(directory / name))
        count += entry.is_regular_file() && entry.path().filename() != "CACHEDIR.TAG";
    return count;
  }

  static void expectError(const End& end, std::int64_t code) {
    ASSERT_TRUE(end.error) << end.file->absoluteString();
    EXPECT_EQ(end.error->code(), code) << end.error->localizedDescription();
    EXPECT_TRUE(end.error->domain().isIdenticalTo(NSURLErrorDomain));
  }

  static void expectFile(const End& end, const std::string& content) {
    ASSERT_TRUE(end.file) << end.error->localizedDescription();
    EXPECT_TRUE(readFile(end.file->path()) == content);
  }

  FaultServer server;
  std::shared_ptr<TransferService> service;
  std::size_t ended = 0;
};

TEST_P(FileDownloaderTest, PutsAFileIntoItsPlace) {
  const auto content = randomBytes(3 << 20);
  server.serve("/movie.mp4", {content, "\"1\"", ""});
  delegate->headers["X-Key"] = "secret";
  delegate->root = Progress::progressWithTotalUnitCount(0);
  auto end = download("/movie.mp4");
  expectFile(end, content);
  EXPECT_THAT(end.file->path(),
              MatchesRegex(std::string(directory / "documents") +
                           "/file-download/[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}\\.mp4"));
  EXPECT_TRUE(FileManager::fileExistsAtPath(directory / "documents/file-download/CACHEDIR.TAG"));
  EXPECT_EQ(server.requests("/movie.mp4").at(0).header("X-Key"), "secret");
  const auto records = delegate->records.copy();
  EXPECT_THAT(records.events, ElementsAre("+", "-", "ended /movie.mp4"));
  EXPECT_GT(records.progress, 0u);
  EXPECT_EQ(records.statusChecks, 1u);
  EXPECT_FALSE(downloader->hasActiveDownloads());
  EXPECT_DOUBLE_EQ(delegate->root->fractionCompleted(), 1.0);
  EXPECT_EQ(filesBelow("temporary"), 0u);
}

TEST_P(FileDownloaderTest, KeepsToItsLimitInTheOrderOfArrival) {
  open(2);
  auto gate = makeGate();
  for (const std::string name : {"a", "b", "c", "d", "e"}) {
    server.serve("/" + name, {name, "", ""});
    server.once("/" + name, stallingAfter(0, gate));
    start(name, "/" + name);
  }
  EXPECT_EQ(downloader->waitingDownloadsCount(), 3u);
  EXPECT_TRUE(downloader->isDownloadingIdentifier("b"));
  EXPECT_FALSE(downloader->isWaitingForDownloadOfIdentifier("b"));
  EXPECT_TRUE(downloader->isWaitingForDownloadOfIdentifier("c"));
  EXPECT_FALSE(downloader->isDownloadingIdentifier("c"));

  // Stopping what waits: a paused one goes silently, a cancelled one is told.
  downloader->pauseDownloadWithIdentifier("d");
  downloader->cancelDownloadWithIdentifier("e");
  downloader->cancelDownloadWithIdentifier("unknown");
  ASSERT_TRUE(delegate->waitForEnds(1));
  EXPECT_EQ(delegate->end(0).token, "e");
  expectError(delegate->end(0), NSURLErrorCancelled);
  EXPECT_EQ(downloader->waitingDownloadsCount(), 1u);
  gate->open();
  ASSERT_TRUE(delegate->waitForEnds(4));
  const auto records = delegate->records.copy();
  ASSERT_THAT(records.ends, SizeIs(4));
  EXPECT_NE(records.ends[1].token, "c") << "it starts when one of the first two has ended";
  EXPECT_THAT(server.requests("/d"), IsEmpty());
  EXPECT_THAT(server.requests("/e"), IsEmpty());
  EXPECT_EQ(records.activity, 0);
}

TEST_P(FileDownloaderTest, JudgesTheStatus) {
  server.handle("/gone", FaultServer::reply(404, {{"Content-Length", "4"}}, "page"));
  server.handle("/same", FaultServer::reply(304));
  placeAt(directory / "own/file");
  directory.write("own/file", "an older good one");
  auto gone = download("/gone");
  expectError(gone, NSURLErrorBadServerResponse);
  EXPECT_EQ(gone.status, 404);
  EXPECT_THAT(gone.messages, ElementsAre("Invalid http status code: 404"));
  EXPECT_EQ(*gone.error->value<std::string>(NSURLErrorFailingURLStringErrorKey), server.url("/gone"));
  EXPECT_EQ(gone.error->value<URL>(NSURLErrorFailingURLErrorKey)->absoluteString(), server.url("/gone"));
  EXPECT_EQ(download("/same").messages.at(0), "Invalid http status code: 304");
  EXPECT_EQ(readFile(directory / "own/file"), "an older good one") << "an error page is not the file";
  delegate->statusIsValid = true;
  expectFile(download("/gone"), "page");
  EXPECT_EQ(filesBelow("temporary"), 0u);
}

TEST_P(FileDownloaderTest, TellsWhatWasWrongWithAFile) {
  server.serve("/empty", {"", "\"1\"", ""});
  server.serve("/file", {"content", "\"1\"", ""});
  const auto expectUnusable = [this](const End& end, const std::string& message) {
    expectError(end, NSURLErrorResourceUnavailable);
    EXPECT_EQ(end.status, 200);
    ASSERT_THAT(end.messages, SizeIs(1));
    EXPECT_THAT(end.messages[0], StartsWith("ERR: " + message));
    EXPECT_THAT(end.messages[0], MatchesRegex(".* \\([A-Za-z]+\\.cpp, [0-9]+\\)"));
    EXPECT_THAT(log.lines(), testing::Contains(end.messages[0]));
    EXPECT_THAT(end.error->localizedDescription(), HasSubstr(message));
  };
  auto empty = download("/empty");
  expectUnusable(empty, "Zero file size for item at ");
  EXPECT_THAT(empty.messages.at(0), HasSubstr("Code=-1014"));

  placeAt(std::nullopt);
  expectUnusable(download("/file"), "Missing information: Local file URL (token: /file)");

  const auto folder = directory / "documents/file-download/";
  std::filesystem::create_directories(folder + "here/below");
  placeAt(folder + "here");
  expectUnusable(download("/file"), "Error on removing file at " + folder + "here");
  EXPECT_TRUE(FileManager::directoryExistsAtPath(folder + "here/below"));

  placeAt(folder + "no/such/folder");
  auto unmoved = download("/file");
  expectUnusable(unmoved, "Unable to move file from ");
  EXPECT_THAT(unmoved.messages.at(0), HasSubstr("Code=-3005"));

  delegate->place = nullptr;
  delegate->fileIsValid = false;
  expectUnusable(download("/file"), "Download check failed for item at " + folder);
  EXPECT_EQ(filesBelow("documents"), 0u) << "nothing that was refused stays behind";
  std::filesystem::remove_all(directory / "documents");
  directory.write("documents", "not a directory");
  expectUnusable(download("/file"), "Missing information: Local file URL (token: /file)");
  expectLogged("ERR: on create directory: ");
  // A folder that takes no files.
  std::filesystem::remove(directory / "documents");
  std::filesystem::create_directories(directory / "documents");
  std::filesystem::create_directory_symlink("/proc/self", directory / "documents/file-download");
  expectUnusable(download("/file"), "Missing information: Local file URL (token: /file)");
  expectLogged("ERR: on set resource value (NSURLIsExcludedFromBackupKey): ");
  EXPECT_EQ(filesBelow("temporary"), 0u);
}

TEST_P(FileDownloaderTest, LeavesOnlyGoodFilesInTheirIntendedPlace) {
  server.serve("/empty", {"", "\"1\"", ""});
  server.serve("/file", {"content", "\"1\"", ""});
  const std::string intended = directory / "own/file";
  std::filesystem::create_directory(directory / "own");
  delegate->intendedPlace = URL::fileURLWithPath(intended);
  placeAt(intended);
  EXPECT_TRUE(download("/empty").error);
  delegate->fileIsValid = false;
  EXPECT_TRUE(download("/file").error);
  delegate->fileIsValid.reset();
  delegate->statusIsValid = false;
  EXPECT_TRUE(download("/file").error);
  delegate->statusIsValid.reset();
  placeAt(directory / "no/such/folder");
  EXPECT_TRUE(download("/file").error);
  placeAt(std::nullopt);
  EXPECT_TRUE(download("/file").error);
  EXPECT_EQ(filesBelow("own"), 0u);

  placeAt(directory / "own/other name");
  expectFile(download("/file"), "content");
  EXPECT_EQ(filesBelow("own"), 1u);
  placeAt(intended);
  expectFile(download("/file"), "content");
  server.serve("/file", {"newer", "\"2\"", ""});
  expectFile(download("/file"), "newer");
  EXPECT_EQ(filesBelow("own"), 2u);
}

TEST_P(FileDownloaderTest, ReportsLostConnectionsAndBadStarts) {
  server.serve("/cut", {randomBytes(100'000), "\"1\"", ""});
  server.once("/cut", cuttingAfter(50'000));
  auto lost = download("/cut");
  expectError(lost, NSURLErrorNetworkConnectionLost);
  EXPECT_EQ(lost.status, 200);
  server.handle("/circle", FaultServer::redirect("/circle"));
  expectError(download("/circle"), NSURLErrorHTTPTooManyRedirects);
  server.handle("/down", FaultServer::redirect("ftp://127.0.0.1/x"));
  expectError(download("/down"), NSURLErrorUnsupportedURL);

  delegate->request = [](const URL&) { return std::nullopt; };
  auto refused = download("/cut");
  expectError(refused, NSURLErrorBadURL);
  EXPECT_THAT(refused.messages,
              ElementsAre(StartsWith("ERR: No download item ("), StartsWith("ERR: No url request (")));
  // A client's own request, to another host than the first: its header stays with that one.
  delegate->request = [](const URL& url) {
    std::optional<URLRequest> request(url);
    request->setValueForHTTPHeaderField("me", "X-Token");
    return request;
  };
  server.handle("/away", FaultServer::redirect(server.url("/cut", "localhost")));
  ASSERT_TRUE(download("/away").file);
  EXPECT_EQ(server.requests("/away").at(0).header("X-Token"), "me");
  EXPECT_EQ(server.requests("/cut").back().header("X-Token"), "");
  EXPECT_EQ(delegate->records.copy().activity, 0);
  EXPECT_EQ(filesBelow("temporary"), 0u);

  downloader->startDownloadWithIdentifierUsingResumeData("garbage", Data{1, 2, 3});
  const End unusable = nextEnd();
  if (GetParam() == Transport::Connection) {
    expectError(unusable, NSURLErrorBadURL);
    EXPECT_THAT(unusable.messages,
                ElementsAre(StartsWith("ERR: No download item ("), StartsWith("ERR: Missing remote url (")));
  } else {
    expectError(unusable, NSURLErrorUnknown);
  }
}

TEST_P(FileDownloaderTest, StopsAndResumesThroughItsProgress) {
  const auto content = randomBytes(1 << 20);
  server.serve("/movie.mp4", {content, "\"1\"", ""});
  auto gate = makeGate();
  Fault held = stallingAfter(600'000, gate);
  server.once("/movie.mp4", held);
  open();
  std::optional<DataRef> resumeData;
  delegate->resume = [&](const std::string& token) {
    if (*resumeData)
      downloader->startDownloadWithIdentifierUsingResumeData(token, **resumeData);
    else
      start(token, "/movie.mp4");
  };
  delegate->root = Progress::progressWithTotalUnitCount(0);
  start("film", "/movie.mp4");
  std::shared_ptr<ZRKFileDownloadProgress> progress;
  ASSERT_TRUE(delegate->records.waitUntil([&](const auto&) {
    progress = downloader->downloadProgressForIdentifier("film");
    return progress && progress->receivedFileSize() >= 600'000;
  }));
  const auto head = downloader->responseForIdentifier("film");
  ASSERT_TRUE(head);
  EXPECT_EQ(head->valueForHTTPHeaderField("ETag"), "\"1\"");
  EXPECT_EQ(progress->expectedFileSize(), std::int64_t(content.size()));
  EXPECT_FLOAT_EQ(progress->downloadProgress(), 600'000.0f / static_cast<float>(content.size()));
  EXPECT_EQ(progress->nativeProgress()->completedUnitCount(), progress->receivedFileSize());
  EXPECT_TRUE(progress->nativeProgress()->throughput());
  delegate->root->pause();
  ASSERT_TRUE(delegate->waitForEnds(1));
  auto records = delegate->records.copy();
  EXPECT_THAT(records.events, ElementsAre("+", "paused film", "-", "ended film"));
  expectError(records.ends[0], NSURLErrorCancelled);
  resumeData = records.paused.at(0).second;
  EXPECT_EQ(*resumeData != nullptr, GetParam() == Transport::Session);
  EXPECT_EQ(records.ends[0].resumeData != nullptr, GetParam() == Transport::Session);
  EXPECT_FALSE(downloader->downloadProgressForIdentifier("film"));

  delegate->root->resume();
  progress->nativeProgress()->resume();
  ASSERT_TRUE(delegate->waitForEnds(2));
  expectFile(delegate->end(1), content);
  if (GetParam() == Transport::Session) {
    EXPECT_EQ(server.requests("/movie.mp4").at(1).header("Range"), "bytes=600000-");
  }

  // Cancelling the root ends what runs, what waits and whatever is started below it afterwards.
  server.serve("/stuck", {content, "\"1\"", ""}, held);
  start("stuck", "/stuck");
  ASSERT_TRUE(server.waitForRequests("/stuck", 1));
  delegate->root->cancel();
  start("late", "/stuck");
  ASSERT_TRUE(delegate->waitForEnds(4));
  expectError(delegate->end(2), NSURLErrorCancelled);
  expectError(delegate->end(3), NSURLErrorCancelled);
  EXPECT_EQ(delegate->records.copy().activity, 0);
  downloader->cancelDownloadWithIdentifier("stuck");
  Arrival<DataRef> nothing;
  downloader->pauseDownloadWithIdentifier("stuck", [&](DataRef data) { nothing.arrive(std::move(data)); });
  EXPECT_EQ(nothing.wait(), std::optional<DataRef>(nullptr));
  delegate->resume = nullptr;
  downloader->resumeDownloadWithIdentifier("stuck");
  expectLogged("ERR: Resume action called without implementation (");
}

TEST_P(FileDownloaderTest, AnswersChallenges) {
  server.serve("/secret", {"the secret", "\"1\"", ""});
  server.protect("/secret", "me", "right");
  auto refused = download("/secret");
  expectError(refused, NSURLErrorBadServerResponse);
  EXPECT_THAT(refused.messages, ElementsAre("Invalid http status code: 401"));
  expectLogged("ERR: Received authentication challenge with no delegate method implemented (");
  delegate->credentials = [](const AuthenticationChallenge& challenge) {
    return URLCredential{"me", challenge.previousFailureCount == 0 ? "wrong" : "right"};
  };
  expectFile(download("/secret"), "the secret");
  EXPECT_THAT(delegate->records.copy().challenges, SizeIs(2));

  server.handle("/vault", digestProtected(directory.path(), "me:vault", "right", "the gold"));
  expectFile(download("/vault"), "the gold");
  const auto challenges = delegate->records.copy().challenges;
  ASSERT_THAT(challenges, SizeIs(4));
  EXPECT_EQ(challenges[3].scheme + " " + challenges[3].realm, "digest vault");
  EXPECT_EQ(challenges[3].previousFailureCount, 1);
}

TEST_P(FileDownloaderTest, BadStartsInTheListDoNotStandOnOneStack) {
  open(1);
  auto gate = makeGate();
  server.serve("/first", {"x", "", ""}, stallingAfter(0, gate));
  start("first", "/first");
  ASSERT_TRUE(server.waitForRequests("/first", 1));
  delegate->request = [](const URL&) { return std::nullopt; };
  constexpr std::size_t Many = 20'000;
  for (std::size_t i = 0; i < Many; ++i)
    start("bad", "/bad");
  gate->open();
  ASSERT_TRUE(delegate->waitForEnds(1 + Many));
  EXPECT_EQ(downloader->waitingDownloadsCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Transports, FileDownloaderTest,
                         testing::Values(Transport::Session, Transport::Connection),
                         [](const auto& transport) {
                           return transport.param == Transport::Session ? "Session" : "Connection";
                         });

} // namespace
