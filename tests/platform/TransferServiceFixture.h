#pragma once

#include "tests/support/Expectation.h"
#include "tests/support/FaultServer.h"
#include "tests/support/NginxServer.h"
#include "tests/support/RecordingSessionDelegate.h"
#include "tests/support/TemporaryDirectory.h"

#include "platform/transfer/TransferService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <thread>

namespace transfer_tests {

using namespace platform;
using namespace support;
using testing::EndsWith;
using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;

inline constexpr const char* OldDate = "Mon, 05 Jan 2015 10:00:00 GMT";

inline HTTPTransferServiceOptions optionsFor(const std::string& directory) {
  HTTPTransferServiceOptions options;
  options.directory = directory;
  options.retryDelay = std::chrono::milliseconds(1);
  return options;
}

/// A service in a directory of its own and a session of it.
class SessionTest : public testing::Test {
protected:
  ~SessionTest() override { close(); }

  bool tryOpen(const std::string& identifier = {}) {
    if (!service)
      service = makeHTTPTransferService(optionsFor(folder));
    configuration.identifier = identifier;
    configuration.service = service;
    delegate = std::make_shared<RecordingSessionDelegate>();
    session = URLSession::sessionWithConfiguration(configuration, delegate, nullptr, &error);
    return session != nullptr;
  }
  void open(const std::string& identifier = {}) {
    ASSERT_TRUE(tryOpen(identifier)) << error->localizedDescription();
  }
  void close() {
    session.reset();
    if (service)
      service->shutdown();
  }

  TemporaryDirectory directory;
  const std::string folder = directory / "service";
  std::shared_ptr<TransferService> service;
  URLSessionConfiguration configuration;
  std::shared_ptr<RecordingSessionDelegate> delegate;
  std::shared_ptr<URLSession> session;
  ErrorRef error;
};

/// One with a scripted server.
class TransferServiceTest : public SessionTest {
protected:
  ~TransferServiceTest() override { close(); } // before the server

  /// What a new process finds: the service and its session are gone, the directory is not.
  void restart(const std::string& identifier = {}) {
    close();
    service.reset();
    configuration.service.reset();
    open(identifier);
  }

  URLRequest request(const std::string& path, const std::string& range = {}) const {
    URLRequest made(*URL::URLWithString(server.url(path)));
    if (!range.empty())
      made.setValueForHTTPHeaderField(range, "Range");
    return made;
  }

  /// The service anew, with trust in the server's certificate, and a session of it.
  void openTrusting(const NginxServer& secure) {
    close();
    auto trusting = optionsFor(folder);
    trusting.certificateAuthorityFile = secure.certificateFile();
    service = makeHTTPTransferService(trusting);
    open();
  }

  /// Serves a body that can be gone on with; answers it.
  std::string serveRandom(const std::string& path, std::size_t count) {
    auto content = randomBytes(count);
    server.serve(path, {content, "\"1\"", OldDate});
    return content;
  }

  static DownloadTaskRef started(DownloadTaskRef task) {
    task->resume();
    return task;
  }
  DownloadTaskRef start(const std::string& path, const std::string& range = {}) {
    return started(session->downloadTaskWithRequest(request(path, range)));
  }
  DownloadTaskRef startURL(const std::string& url) {
    return started(session->downloadTaskWithRequest(URLRequest(*URL::URLWithString(url))));
  }
  DownloadTaskRef startWith(const Data& resumeData) {
    return started(session->downloadTaskWithResumeData(resumeData));
  }
  /// One whose response stopped after so many bytes.
  DownloadTaskRef startStalled(const std::string& path, std::size_t bytes) {
    server.once(path, stallingAfter(bytes, stalled));
    auto task = start(path);
    EXPECT_TRUE(delegate->waitForProgress(task->taskIdentifier(), static_cast<std::int64_t>(bytes)));
    return task;
  }

  RecordingSessionDelegate::TaskRecord finish(const DownloadTaskRef& task) {
    EXPECT_TRUE(delegate->waitForCompletions(++awaited));
    return delegate->task(task->taskIdentifier());
  }

  static void expectWhole(const RecordingSessionDelegate::TaskRecord& record, const std::string& content) {
    ASSERT_THAT(record.completions, SizeIs(1));
    EXPECT_FALSE(record.completions[0]) << record.completions[0]->localizedDescription();
    ASSERT_THAT(record.finishedAt, SizeIs(1));
    EXPECT_TRUE(record.content == content);
    ASSERT_FALSE(record.progress.empty());
    EXPECT_EQ(record.progress.back().total, static_cast<std::int64_t>(content.size()));
    EXPECT_THAT(record.order, EndsWith("wfc"));
  }

  static void expectError(const RecordingSessionDelegate::TaskRecord& record, std::int64_t code) {
    ASSERT_THAT(record.completions, SizeIs(1));
    ASSERT_TRUE(record.completions[0]);
    EXPECT_EQ(record.completions[0]->code(), code) << record.completions[0]->localizedDescription();
    EXPECT_TRUE(record.completions[0]->domain().isIdenticalTo(NSURLErrorDomain));
    EXPECT_THAT(record.finishedAt, SizeIs(0));
  }

  static DataRef resumeDataOf(const RecordingSessionDelegate::TaskRecord& record) {
    auto data = record.completions.at(0)->value<DataRef>(NSURLSessionDownloadTaskResumeData);
    return data ? *data : nullptr;
  }

  std::size_t filesBelow(const std::string& name) const {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder + "/" + name))
      count += entry.is_regular_file();
    return count;
  }

  void waitForOpenConnections(std::size_t most) const {
    while (server.openConnections() > most)
      std::this_thread::yield();
  }

  std::string rangeAskedLast(const std::string& path = "/a") const {
    return server.requests(path).back().header("Range");
  }

  /// Downloads until `held` bytes have come, then breaks the connection for good; answers the resume data.
  Data breakAt(const std::string& path, std::size_t held, const std::string& range = {}) {
    configuration.retryLimit = 0;
    if (!session)
      open();
    server.once(path, cuttingAfter(held));
    auto record = finish(start(path, range));
    expectError(record, NSURLErrorNetworkConnectionLost);
    const auto data = resumeDataOf(record);
    if (!data)
      throw std::runtime_error("no resume data after " + std::to_string(held) + " bytes of " + path);
    return *data;
  }

  FaultServer server;
  GateRef stalled = makeGate(); ///< never opened
  std::size_t awaited = 0;
};

} // namespace transfer_tests
