// The item, the progress record and what is computed from them.

#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadItem.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadProgress.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloader.h"

#include "platform/foundation/KeyedArchive.h"
#include "platform/foundation/Progress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace platform;

namespace {

TEST(FileDownloadItem, SmoothsItsSpeed) {
  using Clock = ZRKFileDownloadItem::Clock;
  auto item = ZRKFileDownloadItem::itemWithDownloadToken("film", nullptr, nullptr);
  const auto start = Clock::now();
  const auto sample = [&](std::chrono::milliseconds at) {
    return ZRKFileDownloader::remainingTimeAndBytesPerSecondForDownloadItem(*item, start + at);
  };
  using std::chrono::milliseconds;
  item->setDownloadStartDate(start);
  item->setBytesPerSecondSpeed(7);
  EXPECT_EQ(sample(milliseconds(1000)).bytesPerSecondSpeed, 0u);
  EXPECT_EQ(item->bytesPerSecondSpeed(), 7u) << "nothing is known, so nothing changes";

  item->setBytesPerSecondSpeed(0);
  item->setExpectedFileSizeInBytes(10'000);
  item->setReceivedFileSizeInBytes(1000);
  auto first = sample(milliseconds(1000));
  EXPECT_EQ(first.bytesPerSecondSpeed, 1000u);
  EXPECT_DOUBLE_EQ(first.remainingTime, 9.0);
  item->setReceivedFileSizeInBytes(4000);
  auto second = sample(milliseconds(2000));
  EXPECT_EQ(second.bytesPerSecondSpeed, 1800u);
  EXPECT_NEAR(second.remainingTime, 6000.0 / 1800.0, 1e-6);
  EXPECT_EQ(item->bytesPerSecondSpeed(), 1800u);

  // What the run started from is not counted as received in it.
  item->setResumedFileSizeInBytes(1000);
  item->setBytesPerSecondSpeed(0);
  EXPECT_EQ(sample(milliseconds(3000)).bytesPerSecondSpeed, 1000u);
  EXPECT_EQ(sample(milliseconds(0)).bytesPerSecondSpeed, 199u)
      << "no time has passed: only the old speed is left";
}

TEST(FileDownloadProgress, IsArchivedWithSizesThatAreReadAs32Bits) {
  auto progress = ZRKFileDownloadProgress::downloadProgress(
      0.25f, 3'000'000'000, 750'000'000, 12.5, 18'000'000'000u, Progress::progressWithTotalUnitCount(1));
  progress->setLastLocalizedDescription("Downloading…");
  const auto data = progress->archivedData();
  auto coder = KeyedUnarchiver::unarchiverWithData(data, "ZRKFileDownloadProgress");
  ASSERT_TRUE(coder);
  EXPECT_EQ(coder->decodeInt64("expectedFileSize"), 3'000'000'000);
  EXPECT_FALSE(coder->containsValueForKey("lastLocalizedAdditionalDescription"));

  ErrorRef error;
  auto read = ZRKFileDownloadProgress::progressWithArchivedData(data, &error);
  ASSERT_TRUE(read) << error->localizedDescription();
  EXPECT_EQ(read->downloadProgress(), 0.25f);
  EXPECT_EQ(read->expectedFileSize(), 3'000'000'000 - (std::int64_t{1} << 32));
  EXPECT_EQ(read->receivedFileSize(), 750'000'000);
  EXPECT_EQ(read->estimatedRemainingTime(), 12.5);
  EXPECT_EQ(read->bytesPerSecondSpeed(), 18'000'000'000u);
  EXPECT_EQ(read->lastLocalizedDescription(), "Downloading…");
  EXPECT_FALSE(read->lastLocalizedAdditionalDescription());
  EXPECT_FALSE(read->nativeProgress());

  EXPECT_FALSE(ZRKFileDownloadProgress::progressWithArchivedData(Data{'{', '}'}, &error));
  EXPECT_EQ(error->code(), NSCoderReadCorruptError);
}

} // namespace
