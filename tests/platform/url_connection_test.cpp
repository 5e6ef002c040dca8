// Plain connections of the real service: a slow reader, and the one end of each.

#include "platform/concurrency/Queue.h"
#include "platform/transfer/TransferService.h"
#include "platform/transfer/URLConnection.h"
#include "tests/support/Expectation.h"
#include "tests/support/FaultServer.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

using namespace platform;
using namespace support;

namespace {

class Reader final : public URLConnectionDelegate {
public:
  struct Seen {
    int status = 0;
    std::string body;
    int ends = 0;
    ErrorRef error;
    std::string order;
  };
  Watched<Seen> seen;

  void connectionDidReceiveResponse(URLConnection&,
                                    const std::shared_ptr<const HTTPURLResponse>& response) override {
    seen.change([&](Seen& s) { s.status = response->statusCode(), s.order += 'r'; });
  }
  void connectionDidReceiveData(URLConnection&, std::string_view bytes) override {
    seen.change([&](Seen& s) {
      s.body += bytes;
      if (s.order.back() != 'd')
        s.order += 'd';
    });
  }
  void connectionDidFinishLoading(URLConnection&) override {
    seen.change([](Seen& s) { ++s.ends, s.order += 'e'; });
  }
  void connectionDidFailWithError(URLConnection&, const ErrorRef& error) override {
    seen.change([&](Seen& s) { ++s.ends, s.error = error, s.order += 'e'; });
  }
  [[nodiscard]] bool waitForEnd() const {
    return seen.waitUntil([](const Seen& s) { return s.ends > 0; });
  }
};

class URLConnectionTest : public testing::Test {
protected:
  void SetUp() override {
    HTTPTransferServiceOptions options;
    options.directory = directory / "service";
    options.backgroundSessions = false;
    service = makeHTTPTransferService(options);
    ASSERT_TRUE(service);
  }
  /// Serves a body under /held that stops after 10 bytes, for good.
  void serveHeld() { server.serve("/held", {std::string(100, 'x'), "", ""}, stallingAfter(10, makeGate())); }
  std::shared_ptr<URLConnection> open(const std::string& path, const std::shared_ptr<Reader>& reader) {
    return service->openConnection(configuration, URLRequest(*URL::URLWithString(server.url(path))), reader,
                                   queue);
  }

  TemporaryDirectory directory;
  FaultServer server;
  std::shared_ptr<TransferService> service;
  std::shared_ptr<SerialQueue> queue = std::make_shared<SerialQueue>("reader");
  URLSessionConfiguration configuration;
};

TEST_F(URLConnectionTest, WaitsForASlowReader) {
  constexpr std::size_t Chunk = 64 * 1024, Chunks = 512;
  std::atomic<std::size_t> sent{0};
  Expectation muchSent;
  server.handle("/long", [&](const ServerRequest&, ServerConnection& connection) {
    connection.sendHead(200, {{"Content-Length", std::to_string(Chunk * Chunks)}});
    for (std::size_t i = 0; i < Chunks && connection.send(std::string(Chunk, static_cast<char>(i))); ++i)
      if ((sent += Chunk) == 2u << 20)
        muchSent.fulfil();
  });
  auto gate = std::make_shared<Expectation>();
  queue->async([gate] { EXPECT_TRUE(gate->wait()); });
  auto reader = std::make_shared<Reader>();
  auto connection = open("/long", reader);
  connection->start();
  ASSERT_TRUE(muchSent.wait());
  gate->fulfil();
  ASSERT_TRUE(reader->waitForEnd());
  const auto seen = reader->seen.copy();
  EXPECT_FALSE(seen.error);
  EXPECT_EQ(seen.order, "rde");
  ASSERT_EQ(seen.body.size(), Chunk * Chunks);
  for (std::size_t i = 0; i < Chunks; ++i)
    ASSERT_EQ(seen.body[i * Chunk], static_cast<char>(i));
}

TEST_F(URLConnectionTest, EndsExactlyOnce) {
  serveHeld();
  const auto expectCancelled = [&](const std::shared_ptr<Reader>& reader) {
    ASSERT_TRUE(reader->waitForEnd());
    queue->sync([] {});
    const auto seen = reader->seen.copy();
    EXPECT_EQ(seen.ends, 1);
    ASSERT_TRUE(seen.error);
    EXPECT_EQ(seen.error->code(), NSURLErrorCancelled);
  };
  auto before = std::make_shared<Reader>();
  auto connection = open("/held", before);
  connection->cancel();
  connection->start();
  expectCancelled(before);

  const auto running = [&](const std::shared_ptr<Reader>& reader) {
    auto made = open("/held", reader);
    made->start();
    made->start();
    EXPECT_TRUE(reader->seen.waitUntil([](const auto& s) { return s.body.size() == 10; }));
    return made;
  };
  auto cancelled = std::make_shared<Reader>();
  connection = running(cancelled);
  connection->cancel();
  connection->cancel();
  expectCancelled(cancelled);

  auto dropped = std::make_shared<Reader>();
  running(dropped).reset();
  expectCancelled(dropped);

  auto stopped = std::make_shared<Reader>();
  connection = running(stopped);
  service->shutdown();
  EXPECT_EQ(stopped->seen.copy().ends, 1) << "what waits is delivered before the shutdown returns";
  expectCancelled(stopped);
  auto late = std::make_shared<Reader>();
  connection = open("/held", late);
  connection->start();
  expectCancelled(late);
}

TEST_F(URLConnectionTest, GivesUpOnAServerThatSendsNothing) {
  serveHeld();
  configuration.timeoutIntervalForRequest = std::chrono::milliseconds(1000);
  auto reader = std::make_shared<Reader>();
  auto connection = open("/held", reader);
  connection->start();
  ASSERT_TRUE(reader->waitForEnd());
  const auto seen = reader->seen.copy();
  ASSERT_TRUE(seen.error);
  EXPECT_EQ(seen.error->code(), NSURLErrorTimedOut);
  EXPECT_EQ(seen.body.size(), 10u);
  configuration.identifier = "session";
  configuration.service = service;
  ErrorRef error;
  EXPECT_FALSE(URLSession::sessionWithConfiguration(configuration, {}, nullptr, &error));
  EXPECT_THAT(error->localizedDescription(), testing::HasSubstr("has no background sessions"));
}

} // namespace
