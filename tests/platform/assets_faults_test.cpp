// What goes wrong on the way, and what a later download makes of it.
#include "tests/platform/AssetFixture.h"

#include <filesystem>
#include <thread>

namespace asset_tests {

namespace {

namespace fs = std::filesystem;

std::string segments(int count, const std::string& before = {}) {
  std::string text = "#EXTM3U\n#EXT-X-TARGETDURATION:2\n" + before;
  for (int i = 0; i < count; ++i)
    text += "#EXTINF:2,\ns" + std::to_string(i) + ".ts\n";
  return text + "#EXT-X-ENDLIST\n";
}

class AssetFaultTest : public AssetTest {
protected:
  void playlist(const std::string& path, std::string text) { server.serve(path, {std::move(text), "", ""}); }
  void media(int count, const std::string& folder = "/v/") {
    for (int i = 0; i < count; ++i)
      server.serve(folder + "s" + std::to_string(i) + ".ts",
                   {std::string(20'000, static_cast<char>('a' + i)), "\"" + std::to_string(i) + "\"", ""});
  }
  std::ptrdiff_t packages() const {
    return std::distance(fs::directory_iterator(directory / "packages"), fs::directory_iterator());
  }
  std::string failureOf(const std::string& path) {
    const auto error = endOf(start(asset(server.url(path))));
    return error ? error->localizedDescription() : "none";
  }
  std::size_t requestsFor(const std::string& path) const { return server.requests(path).size(); }

  std::vector<AggregateAssetDownloadTaskRef> tasks() {
    Arrival<std::vector<AggregateAssetDownloadTaskRef>> listed;
    session->getAllTasksWithCompletionHandler([&](auto tasks) { listed.arrive(std::move(tasks)); });
    return listed.wait().value_or(std::vector<AggregateAssetDownloadTaskRef>());
  }
  /// The task of a download whose process ended with the folder's s1.ts at byte 8000. Where that goes on,
  /// `gate` holds it.
  AggregateAssetDownloadTaskRef interruptAndRelaunch(const std::string& folder) {
    playlist(folder + "list", segments(3));
    media(3, folder);
    gate = makeGate();
    for (const std::size_t bytes : {8000, 1000})
      server.once(folder + "s1.ts", stallingAfter(bytes, gate));
    const auto first = start(asset(server.url(folder + "list")));
    EXPECT_TRUE(gate->waitUntilReached());
    EXPECT_TRUE(delegate->waitFor(*first, [](const auto& record) { return record.lastSum >= 4; }));
    service->shutdown();
    EXPECT_TRUE(endOf(first));
    relaunch();
    const auto found = tasks();
    if (found.size() != 1)
      throw std::runtime_error("the task is not there again");
    EXPECT_EQ(found[0]->URLAsset()->url().absoluteString(), server.url(folder + "list"));
    EXPECT_EQ(found[0]->state(), URLSessionTaskState::Suspended);
    EXPECT_TRUE(gate->waitUntilReached(2));
    return found[0];
  }
  std::size_t leftBodies() const {
    std::size_t count = 0;
    for (const auto& entry : fs::recursive_directory_iterator(directory / "packages"))
      count += entry.is_regular_file() && entry.path().filename().string().size() == 16;
    return count;
  }
  GateRef gate;
};

} // namespace

TEST_F(AssetFaultTest, WhatIsNoCompletePlaylistIsRefusedBeforeAnythingIsWritten) {
  playlist("/live", "#EXTM3U\n#EXTINF:2,\ns0.ts\n");
  playlist("/empty", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nnothing.m3u8\n");
  playlist("/nothing.m3u8", "#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXT-X-ENDLIST\n");
  playlist("/missing", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\ngone.m3u8\n");
  playlist("/nested", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nmissing\n");
  playlist("/page", "<html>not found</html>");
  EXPECT_THAT(failureOf("/live"), testing::AllOf(HasSubstr(server.url("/live")), HasSubstr("live stream")));
  EXPECT_THAT(failureOf("/empty"), testing::AllOf(HasSubstr("/nothing.m3u8"), HasSubstr("no segments")));
  EXPECT_THAT(failureOf("/missing"), testing::AllOf(HasSubstr("/gone.m3u8"), HasSubstr("404")));
  EXPECT_THAT(failureOf("/nested"), HasSubstr("master playlist where a media playlist"));
  EXPECT_THAT(failureOf("/page"), HasSubstr("not a valid HLS playlist"));
  EXPECT_EQ(packages(), 0);
}

TEST_F(AssetFaultTest, AMissingSegmentIsNamedTheRestIsKeptAndTheNextDownloadFetchesOnlyWhatIsMissing) {
  playlist("/v/list", segments(12));
  media(12);
  gate = makeGate(); // something else comes first
  server.once("/v/s9.ts", [this](const ServerRequest& request, ServerConnection& connection) {
    if (connection.wait(*gate))
      FaultServer::reply(404)(request, connection);
  });
  const auto first = start(asset(server.url("/v/list")));
  EXPECT_TRUE(delegate->waitFor(*first, [](const auto& record) { return record.lastSum >= 4; }));
  gate->open();
  const auto error = endOf(first);
  ASSERT_TRUE(error);
  EXPECT_THAT(error->localizedDescription(),
              testing::AllOf(HasSubstr("Segment 10"), HasSubstr(server.url("/v/s9.ts")), HasSubstr("404")));
  const auto package = AssetPackage::packageAtPath(first->location());
  ASSERT_TRUE(package);
  EXPECT_FALSE(package->complete);
  EXPECT_TRUE(package->isIntact());
  ASSERT_THAT(package->streams, SizeIs(1));
  EXPECT_LE(package->streams[0].duration, 18); // plays up to what is missing, or to what came
  EXPECT_EQ(package->streams[0].duration > 0,
            fs::exists(AssetPackage::masterPlaylistPath(first->location())));

  std::vector<std::string> kept; // by the letter that fills each body
  for (const auto& entry : fs::recursive_directory_iterator(first->location()))
    if (entry.path().extension() == ".ts")
      kept.push_back("/v/s" + std::to_string(readFile(entry.path()).at(0) - 'a') + ".ts");
  EXPECT_FALSE(kept.empty());
  relaunch();
  EXPECT_THAT(tasks(), SizeIs(0)) << "one that has failed is listed again";
  const auto second = start(asset(server.url("/v/list")));
  finish(second);
  EXPECT_EQ(second->location(), first->location());
  for (const auto& path : kept)
    EXPECT_EQ(requestsFor(path), 1u) << path;
  auto stream = AssetPackage::packageAtPath(second->location())->streams[0];
  EXPECT_DOUBLE_EQ(stream.duration, 24);

  // One that was damaged later is told, and mended by the next download.
  fs::resize_file(second->location() + "/" + stream.files[3], 10);
  stream = AssetPackage::packageAtPath(second->location())->streams[0];
  EXPECT_THAT(stream.damaged, ElementsAre(stream.files[3]));
  finish(start(asset(server.url("/v/list"))));
}

TEST_F(AssetFaultTest, AKeyThatCannotBeFetchedIsTheErrorAndOthersAreLeftAsTheyAre) {
  playlist("/v/list", segments(2, "#EXT-X-KEY:METHOD=AES-128,URI=\"k\"\n"));
  media(2);
  server.handle("/v/k", FaultServer::reply(403));
  EXPECT_THAT(failureOf("/v/list"),
              testing::AllOf(HasSubstr("The key"), HasSubstr(server.url("/v/k")), HasSubstr("403")));
  playlist("/v/drm", segments(2, "#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"skd://k\",KEYFORMAT=\"com.example\"\n"));
  const auto task = start(asset(server.url("/v/drm")));
  finish(task);
  const auto stream = AssetPackage::packageAtPath(task->location())->streams[0];
  EXPECT_THAT(readFile(task->location() + "/" + stream.playlist), HasSubstr("URI=\"skd://k\",KEYFORMAT"));
}

TEST_F(AssetFaultTest, AddressesCountFromWhereThePlaylistReallyStandsAndNamesStayInThePackage) {
  server.handle("/master", FaultServer::redirect(server.url("/deep/er/master", "localhost")));
  playlist("/deep/er/master", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\n../v/list\n");
  server.handle("/deep/v/list", FaultServer::redirect(server.url("/cdn/list", "localhost")));
  playlist("/cdn/list",
           "#EXTM3U\n#EXTINF:1,\n../../../../../../up.ts\n#EXTINF:1,\n/%2e%2e/%2fetc%2fx.ts\n#EXTINF:1,\n"
           "a%00b.ts\n#EXT-X-ENDLIST\n");
  server.handle("/up.ts", FaultServer::reply(200, {{"Content-Length", "1"}}, "u"));
  for (const std::string path : {"/%2e%2e/%2fetc%2fx.ts", "/%2fetc%2fx.ts", "/cdn/a%00b.ts"})
    server.handle(path, FaultServer::reply(200, {{"Content-Length", "1"}}, "x"));
  const auto task = start(asset(server.url("/master")));
  finish(task);
  EXPECT_EQ(requestsFor("/up.ts"), 1u);
  for (const auto& entry : fs::recursive_directory_iterator(fs::path(directory.path())))
    EXPECT_TRUE(entry.path().filename() != "up.ts" && entry.path().filename() != "x.ts");
  EXPECT_EQ(packages(), 1);
}

TEST_F(AssetFaultTest, WrongAnswersToRangesAreNeverStored) {
  playlist("/v/list", "#EXTM3U\n#EXTINF:2,\n#EXT-X-BYTERANGE:100@50\nall.ts\n#EXT-X-ENDLIST\n");
  server.serve("/v/all.ts", {std::string(1000, 'x'), "", ""}, {.ignoreRange = true});
  EXPECT_THAT(failureOf("/v/list"), HasSubstr("does not serve byte ranges"));
  server.serve("/v/all.ts", {std::string(70, 'x'), "", ""});
  EXPECT_THAT(failureOf("/v/list"), HasSubstr("sent 20 bytes where the playlist names 100"));
}

TEST_F(AssetFaultTest, AnInterruptedSegmentGoesOnInTheNextProcess) {
  // Its transfer goes on by itself; it is taken up under way, or when it has ended.
  for (const bool ended : {false, true}) {
    const std::string folder = ended ? "/ended/" : "/under-way/";
    const auto second = interruptAndRelaunch(folder);
    if (ended) {
      gate->open();
      while (leftBodies() == 0)
        std::this_thread::yield();
    }
    second->resume();
    gate->open();
    finish(second);
    const auto again = server.requests(folder + "s1.ts");
    ASSERT_THAT(again, SizeIs(2));
    EXPECT_EQ(again[1].header("Range"), "bytes=8000-");
    EXPECT_EQ(requestsFor(folder + "s0.ts") + requestsFor(folder + "s2.ts"), 2u);
    EXPECT_EQ(leftBodies(), 0u);
  }
}

TEST_F(AssetFaultTest, WhatIsLeftOfACancelledTaskEndsWithIt) {
  const auto second = interruptAndRelaunch("/v/");
  second->cancel();
  ASSERT_TRUE(endOf(second));
  while (server.openConnections() > 0)
    std::this_thread::yield();
  relaunch();
  EXPECT_THAT(tasks(), SizeIs(0));
  gate->open();
  finish(start(asset(server.url("/v/list")))); // another one goes on from what there is
  EXPECT_EQ(requestsFor("/v/s0.ts") + requestsFor("/v/s2.ts"), 2u);
  const auto requests = server.requests("/v/s1.ts");
  ASSERT_THAT(requests, SizeIs(3));
  EXPECT_THAT(requests[2].header("Range"), testing::AnyOf("bytes=8000-", "bytes=9000-"));
}

TEST_F(AssetFaultTest, SuspendedItRestsAndCancelledItWritesNothingMore) {
  playlist("/v/list", segments(20));
  media(20);
  const auto startHeld = [&](const std::string& path) {
    gate = makeGate();
    server.once("/v/s3.ts", stallingAfter(5000, gate));
    auto task = start(asset(server.url(path)));
    EXPECT_TRUE(gate->waitUntilReached());
    return task;
  };
  const auto task = startHeld("/v/list");
  task->suspend();
  EXPECT_EQ(task->state(), URLSessionTaskState::Suspended);
  task->resume();
  gate->open();
  finish(task);

  // A second one for what is being downloaded is refused; the first is not disturbed.
  playlist("/v/other", segments(20));
  const auto busy = startHeld("/v/other");
  const auto refused = endOf(start(asset(server.url("/v/other"))));
  ASSERT_TRUE(refused);
  EXPECT_THAT(refused->localizedDescription(), HasSubstr("another download"));
  busy->cancel();
  fs::remove_all(busy->location());
  const auto error = endOf(busy);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), NSURLErrorCancelled);
  EXPECT_FALSE(fs::exists(busy->location()));
  EXPECT_EQ(busy->state(), URLSessionTaskState::Completed);
}

TEST_F(AssetFaultTest, LoadingCompletesOnceForEveryCallerAndHeadersGoEverywhere) {
  playlist("/v/list", segments(1));
  media(1);
  const auto made =
      asset(server.url("/v/list"), {{AVURLAssetHTTPHeaderFieldsKey, HTTPHeaders{{"X-Token", "t"}}}});
  Expectation loaded(3);
  for (int i = 0; i < 2; ++i)
    made->loadValuesAsynchronouslyForKeys({"tracks"}, [&] { loaded.fulfil(); });
  ASSERT_TRUE(loaded.wait(2));
  made->loadValuesAsynchronouslyForKeys({"tracks"}, [&] { loaded.fulfil(); });
  ASSERT_TRUE(loaded.wait());
  EXPECT_EQ(made->statusOfValueForKey("tracks"), URLAsset::KeyValueStatus::Loaded);
  EXPECT_EQ(requestsFor("/v/list"), 1u);
  finish(start(made));
  for (const auto& request : server.requests())
    EXPECT_EQ(request.header("X-Token"), "t");

  gate = makeGate();
  server.handle(
      "/slow", [gate = gate](const ServerRequest&, ServerConnection& connection) { connection.wait(*gate); });
  const auto slow = asset(server.url("/slow"));
  Expectation cancelled;
  slow->loadValuesAsynchronouslyForKeys({"tracks"}, [&] { cancelled.fulfil(); });
  ASSERT_TRUE(gate->waitUntilReached());
  slow->cancelLoading();
  ASSERT_TRUE(cancelled.wait());
  EXPECT_EQ(slow->statusOfValueForKey("tracks"), URLAsset::KeyValueStatus::Cancelled);
}

TEST_F(AssetFaultTest, WhatWillBeFetchedIsListedWithoutWriting) {
  playlist("/v/list", segments(3));
  Arrival<std::pair<std::vector<AssetResource>, ErrorRef>> listed;
  session->getResourcesOfURLAsset(asset(server.url("/v/list")), {}, {}, [&](auto resources, auto error) {
    listed.arrive({std::move(resources), error});
  });
  const auto result = listed.wait();
  ASSERT_TRUE(result && !result->second);
  ASSERT_THAT(result->first, SizeIs(3));
  EXPECT_EQ(result->first[1].url, server.url("/v/s1.ts"));
  EXPECT_EQ(packages(), 0);
}

} // namespace asset_tests
