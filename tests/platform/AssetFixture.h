#pragma once

#include "tests/support/Expectation.h"
#include "tests/support/FaultServer.h"
#include "tests/support/TemporaryDirectory.h"

#include "platform/assets/AssetDownloadURLSession.h"
#include "platform/assets/AssetPackage.h"
#include "platform/transfer/TransferService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace asset_tests {

using namespace platform;
using namespace support;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

/// Writes down what a session tells.
class RecordingAssetDelegate final : public AssetDownloadDelegate {
public:
  struct Record {
    std::string order; ///< w l c
    std::string location;
    std::vector<TimeRange> loaded;
    double expected = 0, lastSum = 0;
    bool grewOnly = true;
    std::vector<ErrorRef> completions;
  };

  void URLSessionAggregateAssetDownloadTaskWillDownloadTo(AssetDownloadURLSession&,
                                                          const AggregateAssetDownloadTaskRef& task,
                                                          const std::string& location) override {
    change(*task, 'w', [&](Record& to) { to.location = location; });
  }
  void URLSessionAggregateAssetDownloadTaskDidLoad(AssetDownloadURLSession&,
                                                   const AggregateAssetDownloadTaskRef& task,
                                                   const TimeRange&, const std::vector<TimeRange>& loaded,
                                                   const TimeRange& expected,
                                                   const MediaSelection&) override {
    change(*task, 'l', [&](Record& to) {
      double sum = 0;
      for (const auto& range : loaded)
        sum += range.duration;
      to.grewOnly &= sum >= to.lastSum;
      to.lastSum = sum;
      to.loaded = loaded;
      to.expected = expected.duration;
    });
  }
  void URLSessionTaskDidCompleteWithError(AssetDownloadURLSession&, const AggregateAssetDownloadTaskRef& task,
                                          const ErrorRef& error) override {
    change(*task, 'c', [&](Record& to) { to.completions.push_back(error); });
  }

  Record record(const AggregateAssetDownloadTask& task) const {
    return _records.copy()[task.taskIdentifier()];
  }
  template <class Condition>
  [[nodiscard]] bool waitFor(const AggregateAssetDownloadTask& task, Condition&& met) const {
    return _records.waitUntil([&](const auto& records) {
      const auto found = records.find(task.taskIdentifier());
      return found != records.end() && met(found->second);
    });
  }

private:
  template <class Change> void change(const AggregateAssetDownloadTask& task, char letter, Change&& change) {
    _records.change([&](auto& records) {
      Record& record = records[task.taskIdentifier()];
      if (!record.order.ends_with(letter))
        record.order += letter;
      change(record);
    });
  }
  Watched<std::map<std::uint64_t, Record>> _records;
};

/// A transfer service, a session and a place for packages.
class AssetTest : public testing::Test {
protected:
  AssetTest() { open(); }
  ~AssetTest() override { close(); }

  void open() {
    HTTPTransferServiceOptions options;
    options.directory = directory / "transfers";
    options.retryDelay = std::chrono::milliseconds(1);
    service = makeHTTPTransferService(options);
    delegate = std::make_shared<RecordingAssetDelegate>();
    auto configuration = URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier);
    configuration.service = service;
    configuration.retryLimit = 1;
    ErrorRef error;
    session = AssetDownloadURLSession::sessionWithConfiguration(configuration, {directory / "packages"},
                                                                delegate, nullptr, &error);
    if (!session)
      throw std::runtime_error(error->localizedDescription());
  }

  /// As a process that ends: transfers stop, nothing of ours runs any more.
  void close() {
    if (service)
      service->shutdown();
    session.reset();
    service.reset();
  }

  void relaunch() {
    close();
    open();
  }

  std::shared_ptr<URLAsset> asset(const std::string& url, const UserInfo& options = {}) const {
    return URLAsset::assetWithURL(*URL::URLWithString(url), options, {service, {"en"}});
  }

  AggregateAssetDownloadTaskRef start(const std::shared_ptr<URLAsset>& of) {
    auto task = session->aggregateAssetDownloadTaskWithURLAsset(of, {}, "A_title", nullptr, {});
    task->resume();
    return task;
  }

  /// The error that the task ends with.
  ErrorRef endOf(const AggregateAssetDownloadTaskRef& task) {
    EXPECT_TRUE(delegate->waitFor(*task, [](const auto& record) { return !record.completions.empty(); }));
    const auto record = delegate->record(*task);
    EXPECT_THAT(record.completions, SizeIs(1));
    EXPECT_TRUE(record.grewOnly);
    return record.completions.empty() ? nullptr : record.completions.front();
  }

  void finish(const AggregateAssetDownloadTaskRef& task) {
    const auto error = endOf(task);
    ASSERT_FALSE(error) << error->localizedDescription();
    const auto record = delegate->record(*task);
    EXPECT_EQ(record.order, "wlc");
    ASSERT_THAT(record.loaded, SizeIs(1));
    EXPECT_DOUBLE_EQ(record.loaded[0].duration, record.expected);
    const auto package = AssetPackage::packageAtPath(task->location());
    ASSERT_TRUE(package);
    EXPECT_TRUE(package->complete);
    EXPECT_TRUE(package->isIntact());
  }

  TemporaryDirectory directory;
  std::string identifier = "assets";
  FaultServer server;
  std::shared_ptr<TransferService> service;
  std::shared_ptr<RecordingAssetDelegate> delegate;
  std::shared_ptr<AssetDownloadURLSession> session;
};

} // namespace asset_tests
