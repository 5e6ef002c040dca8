// Large bodies over several connections: what is asked for, what servers get wrong, and what survives.

#include "tests/platform/ChildProcess.h"
#include "tests/platform/TransferServiceFixture.h"

#include "platform/foundation/FileManager.h"

#include "platform/transfer/internal/HeldRanges.h"
#include "platform/transfer/internal/SplitPlan.h"

#include <algorithm>
#include <atomic>
#include <random>

using namespace transfer_tests;
using platform::transfer::HeldRanges;
using platform::transfer::Piece;
using platform::transfer::Span;
using platform::transfer::SplitPlan;

namespace {

TEST(HeldRanges, IsASetOfBytes) {
  std::mt19937 random(7);
  for (int round = 0; round < 300; ++round) {
    HeldRanges held;
    std::vector<bool> bytes(64);
    for (int step = 0; step < 12; ++step) {
      const auto first = static_cast<std::int64_t>(random() % 60);
      const auto end = first + static_cast<std::int64_t>(random() % 12);
      if (step % 5 == 4) {
        held.cut(first);
        std::fill(bytes.begin() + first, bytes.end(), false);
      } else {
        held.add({first, std::min<std::int64_t>(end, 64)});
        std::fill(bytes.begin() + first, bytes.begin() + std::min<std::int64_t>(end, 64), true);
      }
      ASSERT_EQ(held.total(), std::count(bytes.begin(), bytes.end(), true));
      for (std::size_t i = 1; i < held.spans().size(); ++i)
        ASSERT_LT(held.spans()[i - 1].end, held.spans()[i].first);
      const auto from = static_cast<std::int64_t>(random() % 64);
      const auto begin = std::find(bytes.begin() + from, bytes.end(), false);
      const auto stop = std::find(begin, bytes.end(), true);
      const auto hole = held.hole(from, 64);
      ASSERT_EQ(hole.length(), stop - begin) << held.text();
      ASSERT_TRUE(hole.empty() || hole.first == begin - bytes.begin());
    }
  }
}

TEST(SplitPlan, SharesEveryByteOutOnce) {
  std::mt19937 random(11);
  for (int round = 0; round < 200; ++round) {
    constexpr std::int64_t Length = 10'000;
    SplitPlan plan(100);
    HeldRanges held;
    held.add({2000, 2500});
    std::vector<Piece> pieces(5);
    std::vector<int> fetched(Length, 0);
    while (held.total() < Length) {
      auto& piece = pieces[random() % pieces.size()];
      if (piece.left() <= 0 && !plan.assign(piece, held, Length, 5)) {
        ASSERT_TRUE(std::any_of(pieces.begin(), pieces.end(), [](auto& other) { return other.left() > 0; }));
        continue;
      }
      if (random() % 50 == 0) { // a lost connection
        plan.release(piece);
        piece = {};
        continue;
      }
      const auto end = piece.at + std::min<std::int64_t>(piece.left(), 1 + random() % 200);
      for (auto at = piece.at; at < end; ++at)
        ++fetched[static_cast<std::size_t>(at)];
      held.add({piece.at, end});
      piece.at = end;
      if (piece.left() == 0 && random() % 2 == 0)
        plan.extend(piece, held, Length, Length, 5);
      if (piece.left() == 0)
        plan.release(piece);
    }
    for (std::int64_t at = 0; at < Length; ++at)
      ASSERT_EQ(fetched[static_cast<std::size_t>(at)], at >= 2000 && at < 2500 ? 0 : 1) << at;
  }
}

constexpr std::size_t Large = 24'000'000;
constexpr std::int64_t Mega = 1'000'000;

class SplitTransferTest : public TransferServiceTest {
protected:
  /// The request for the whole stops after a megabyte; those for parts are answered by `parts`.
  void serveLarge(const ServerHandler& parts) {
    server.handle("/a", [whole = FaultServer::entity(entity, stallingAfter(Mega, gate)),
                         parts](const ServerRequest& request, ServerConnection& connection) {
      (request.header("Range").empty() ? whole : parts)(request, connection);
    });
  }
  std::vector<Span> askedParts() const {
    std::vector<Span> parts;
    for (const auto& request : server.requests("/a")) {
      long long first = 0, last = static_cast<long long>(Large) - 1;
      if (std::sscanf(request.header("Range").c_str(), "bytes=%lld-%lld", &first, &last) > 0)
        parts.push_back({first, last + 1});
    }
    return parts;
  }
  void expectOneWhole(const RecordingSessionDelegate::TaskRecord& record) const {
    expectWhole(record, content);
    std::int64_t total = 0;
    for (const auto& progress : record.progress) {
      EXPECT_EQ(total += progress.written, progress.total);
      EXPECT_GE(progress.written, 0);
      EXPECT_EQ(progress.expected, static_cast<std::int64_t>(Large));
      EXPECT_EQ(progress.status, 200);
    }
  }

  const std::string content = randomBytes(Large);
  const Entity entity{content, "\"1\"", OldDate};
  GateRef gate = makeGate();
};

TEST_F(SplitTransferTest, LooksLikeOneTransfer) {
  serveLarge(FaultServer::entity(entity));
  configuration.HTTPMaximumConnectionsPerHost = 4;
  open();
  auto task = start("/a");
  // All but what the first connection still stands in the way of, which is too little to share.
  ASSERT_TRUE(delegate->waitForProgress(task->taskIdentifier(), static_cast<std::int64_t>(Large) - 6 * Mega));
  gate->open();
  auto record = finish(task);
  expectOneWhole(record);
  EXPECT_THAT(record.resumedAt, SizeIs(0));
  EXPECT_LE(server.peakRequests(), 4u);
  HeldRanges asked;
  for (const auto& part : askedParts())
    asked.add(part);
  EXPECT_GE(asked.total(), static_cast<std::int64_t>(Large) - 7 * Mega);
  for (const auto& request : server.requests("/a"))
    EXPECT_EQ(request.header("If-Range"), request.header("Range").empty() ? "" : "\"1\"");
  EXPECT_EQ(filesBelow("partials") + filesBelow("finished"), 0u);
}

TEST_F(SplitTransferTest, LosesNothingToServersThatDoNotServeParts) {
  const std::vector<ServerHandler> handlers{
      FaultServer::entity(entity, {.ignoreRange = true}),
      FaultServer::entity(entity, {.contentRange = "bytes 1-2/3"}),
      FaultServer::entity(entity, {.contentRange = "nonsense"}),
      FaultServer::entity(entity, {.headers = {{"ETag", "\"2\""}}}),
      FaultServer::entity(entity, {.headers = {{"ETag", ""}}}),
      FaultServer::rangeNotSatisfiable(static_cast<std::int64_t>(Large)),
      FaultServer::reply(503, {{"Retry-After", "1"}}, "busy"),
      FaultServer::reply(429, {}, "busy"),
      FaultServer::redirect("/elsewhere"),
      FaultServer::dropConnection(),
  };
  open();
  std::ptrdiff_t wholes = 0;
  for (const auto& handler : handlers) {
    SCOPED_TRACE(wholes);
    std::atomic<std::size_t> answered = 0;
    serveLarge([&](const ServerRequest& request, ServerConnection& connection) {
      handler(request, connection);
      if (++answered == 1)
        gate->release(1); // the first connection goes on now
    });
    expectOneWhole(finish(start("/a")));
    const auto requests = server.requests("/a");
    const auto forTheWhole = [](const auto& request) { return request.header("Range").empty(); };
    EXPECT_EQ(std::count_if(requests.begin(), requests.end(), forTheWhole), ++wholes);
  }
}

TEST_F(SplitTransferTest, GetsAlongWithShortPartsAndFewConnections) {
  // Two connections at once, and every part breaks off half-way.
  std::atomic<int> parts = 0;
  serveLarge([&, brief = FaultServer::entity(entity, cuttingAfter(3 * Mega))](const ServerRequest& request,
                                                                              ServerConnection& connection) {
    if (++parts > 1)
      FaultServer::reply(503)(request, connection);
    else
      brief(request, connection);
    --parts;
  });
  configuration.retryLimit = 50; // a part may also fall to the first connection
  open();
  auto task = start("/a");
  ASSERT_TRUE(delegate->waitForProgress(task->taskIdentifier(), 9 * Mega));
  gate->open();
  expectOneWhole(finish(task));
}

TEST_F(SplitTransferTest, LeavesAPieceToTheConnectionThatCameToItFirst) {
  const Fault slow = stallingAfter(100'000, makeGate());
  const auto late = makeGate();
  std::atomic<int> parts = 0;
  serveLarge([&, helper = FaultServer::entity(entity, slow), plain = FaultServer::entity(entity)](
                 const ServerRequest& request, ServerConnection& connection) {
    const int part = ++parts;
    if (part == 2) { // half of what the helper still has to fetch, which it comes to before the answer does
      slow.gate->open();
      connection.wait(*late);
    }
    (part == 1 ? helper : plain)(request, connection);
  });
  configuration.HTTPMaximumConnectionsPerHost = 2;
  open();
  auto task = start("/a");
  ASSERT_TRUE(delegate->waitForProgress(task->taskIdentifier(), Mega + 100'000));
  gate->open();
  while (task->countOfBytesReceived() < static_cast<std::int64_t>(Large))
    std::this_thread::yield();
  late->open();
  expectWhole(finish(task), content);
  EXPECT_EQ(parts, 2);
}

TEST_F(SplitTransferTest, KeepsItsHolesOverPausesAndNeverMixes) {
  serveLarge(FaultServer::entity(entity));
  configuration.HTTPMaximumConnectionsPerHost = 4;
  open();
  auto task = start("/a");
  ASSERT_TRUE(delegate->waitForProgress(task->taskIdentifier(), static_cast<std::int64_t>(Large) - 6 * Mega));
  task->suspend();
  waitForOpenConnections(3); // those of the others are idle
  const auto held = task->countOfBytesReceived();
  const auto before = static_cast<std::ptrdiff_t>(askedParts().size());
  server.serve("/a", entity, stallingAfter(Mega, gate));
  task->resume();
  ASSERT_TRUE(delegate->waitForProgress(task->taskIdentifier(), held + Mega));
  HeldRanges asked;
  const auto parts = askedParts();
  std::for_each(parts.begin() + before, parts.end(), [&](const Span& part) { asked.add(part); });
  EXPECT_LE(asked.total(), static_cast<std::int64_t>(Large) - held);

  Arrival<DataRef> data;
  task->cancelByProducingResumeData([&](DataRef made) { data.arrive(std::move(made)); });
  expectError(finish(task), NSURLErrorCancelled);
  ASSERT_TRUE(data.wait().value_or(nullptr));
  const auto other = randomBytes(Large, 2);
  server.serve("/a", {other, "\"2\"", OldDate});
  auto resumed = session->downloadTaskWithResumeData(*data.wait().value());
  EXPECT_GE(resumed->countOfBytesReceived(), held + Mega);
  resumed->resume();
  auto record = finish(resumed);
  expectWhole(record, other);
  EXPECT_THAT(record.resumedAt, SizeIs(0));
}

TEST_F(SplitTransferTest, MakesRoomForOthersAndCancelsCleanly) {
  serveLarge(FaultServer::entity(entity, stallingAfter(100'000, gate)));
  const auto small = serveRandom("/small", 1000);
  configuration.HTTPMaximumConnectionsPerHost = 3;
  open();
  auto task = start("/a");
  ASSERT_TRUE(gate->waitUntilReached(3));
  expectWhole(finish(start("/small")), small);
  task->cancel();
  expectError(finish(task), NSURLErrorCancelled);
  waitForOpenConnections(1); // that of the small file is idle
  EXPECT_EQ(filesBelow("partials"), 0u);
}

TEST_F(SplitTransferTest, GivesEachPieceAConnectionOfItsOwnBesideHTTP2) {
  if (!NginxServer::isInstalled())
    GTEST_SKIP();
  directory.write("www/a", content);
  NginxServer secure(directory / "www", {.tls = true, .rateLimit = "20m"});
  configuration.HTTPMaximumConnectionsPerHost = 4;
  openTrusting(secure);
  expectWhole(finish(startURL(secure.url("/a"))), content);
  std::set<std::uint64_t> connections;
  for (const auto& entry : secure.accessLog())
    connections.insert(entry.connection);
  EXPECT_GE(connections.size(), 3u);
  EXPECT_LE(connections.size(), 5u);
}

/// What the maps in a directory tell, and the descriptions, which a sync may have brought further.
HeldRanges mapped(const std::string& partials) {
  HeldRanges held;
  for (const auto& entry : std::filesystem::directory_iterator(partials)) {
    if (entry.path().extension() != ".map" && entry.path().extension() != ".json")
      continue;
    const auto text = readFile(entry.path());
    for (auto at = text.find("[["); at != std::string::npos; at = text.find('[', at + 1)) {
      long long first = 0, end = 0;
      if (std::sscanf(text.c_str() + at + (text[at + 1] == '['), "[%lld,%lld]", &first, &end) == 2)
        held.add({first, end});
    }
  }
  return held;
}

class SplitCrash : public SessionTest {};

TEST_F(SplitCrash, AKilledProcessLeavesAMapOfWhatItHeld) {
  configuration.HTTPMaximumConnectionsPerHost = 4;
  // Made while this process has a single thread.
  ChildProcess child(
      [&](const URLRequest& request) { downloadUntilKilled(configuration, optionsFor(folder), request); });
  const auto content = randomBytes(Large);
  FaultServer server;
  const Fault stall = stallingAfter(3 * Mega, makeGate());
  server.serve("/a", {content, "\"1\"", OldDate}, stall);
  child.start(server.url("/a"));
  ASSERT_TRUE(stall.gate->waitUntilReached(4));
  constexpr std::int64_t Sent = 12 * Mega, Lost = 1LL << 20;
  while (mapped(folder + "/partials").total() < Sent - Lost)
    std::this_thread::yield();
  child.kill();
  const auto held = mapped(folder + "/partials");
  EXPECT_GE(held.spans().size(), 4u);

  server.serve("/a", {content, "\"1\"", OldDate});
  const auto before = server.requests().size();
  open();
  auto task = session->downloadTaskWithRequest(URLRequest(*URL::URLWithString(server.url("/a"))));
  task->resume();
  ASSERT_TRUE(delegate->waitForCompletions(1));
  const auto record = delegate->task(task->taskIdentifier());
  EXPECT_FALSE(record.completions.at(0));
  EXPECT_TRUE(record.content == content);
  EXPECT_THAT(record.resumedAt, testing::ElementsAre(testing::Pair(held.total(), std::int64_t(Large))));
  const auto requests = server.requests();
  for (auto i = before; i < requests.size(); ++i) {
    long long first = -1, last = static_cast<long long>(Large) - 1;
    ASSERT_GT(std::sscanf(requests[i].header("Range").c_str(), "bytes=%lld-%lld", &first, &last), 0);
    EXPECT_EQ(held.hole(first, last + 1), (Span{first, last + 1})) << requests[i].header("Range");
  }
  close();
  EXPECT_THAT(FileManager::contentsOfDirectoryAtPath(folder + "/partials"), testing::IsEmpty());
}

} // namespace
