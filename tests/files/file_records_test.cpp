// The item, the progress record and what is computed from them.

#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadItem.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloadProgress.h"
#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileDownloader.h"

#include "platform/foundation/KeyedArchive.h"
#include "platform/foundation/Progress.h"

#include <gmock/gmock.h>

using namespace platform;
using testing::HasSubstr;

namespace {

TEST(FileDownloadItem, CountsBytesOnItsProgressOnceTheSizeIsKnown) {
  auto root = Progress::progressWithTotalUnitCount(3);
  auto item = ZRKFileDownloadItem::itemWithDownloadToken("film", nullptr, nullptr, root);
  auto& progress = *item->progress();
  EXPECT_EQ(progress.kind(), NSProgressKindFile);
  EXPECT_EQ(std::any_cast<std::string>(progress.userInfo().at(NSProgressFileOperationKindKey)),
            NSProgressFileOperationKindDownloading);
  EXPECT_EQ(std::any_cast<std::string>(progress.userInfo().at("downloadToken")), "film");
  EXPECT_TRUE(progress.isCancellable());
  EXPECT_FALSE(progress.isPausable());
  EXPECT_EQ(progress.totalUnitCount(), 1);

  item->setReceivedFileSizeInBytes(50);
  EXPECT_EQ(progress.completedUnitCount(), 0);
  item->setExpectedFileSizeInBytes(-1);
  EXPECT_EQ(progress.totalUnitCount(), 1);
  item->setExpectedFileSizeInBytes(100);
  item->setReceivedFileSizeInBytes(50);
  EXPECT_EQ(progress.completedUnitCount(), 50);
  // One more unit of the parent, half of it done.
  EXPECT_EQ(root->totalUnitCount(), 4);
  EXPECT_DOUBLE_EQ(root->fractionCompleted(), 0.125);

  item->pushErrorMessage("first");
  item->pushErrorMessage("second");
  EXPECT_THAT(item->errorMessagesStack(), testing::ElementsAre("second", "first"));
  EXPECT_THAT(item->description(), HasSubstr("downloadToken: film"));
  EXPECT_THAT(item->description(), HasSubstr("hasUrlConnection: false"));
}

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
  EXPECT_EQ(read->expectedFileSize(), 3'000'000'000 - (std::int64_t{1} << 32));
  EXPECT_EQ(std::tuple(read->downloadProgress(), read->receivedFileSize(), read->estimatedRemainingTime(),
                       read->bytesPerSecondSpeed(), read->lastLocalizedDescription()),
            std::tuple(0.25f, 750'000'000, 12.5, 18'000'000'000u, "Downloading…"));
  EXPECT_FALSE(read->lastLocalizedAdditionalDescription());
  EXPECT_FALSE(read->nativeProgress());
  for (const char* name : {"downloadProgress", "expectedFileSize", "receivedFileSize",
                           "estimatedRemainingTime", "bytesPerSecondSpeed", "lastLocalizedDescription",
                           "lastLocalizedAdditionalDescription", "nativeProgress"})
    EXPECT_THAT(read->description(), HasSubstr(name));

  EXPECT_FALSE(ZRKFileDownloadProgress::progressWithArchivedData(Data{'{', '}'}, &error));
  EXPECT_EQ(error->code(), NSCoderReadCorruptError);
}

} // namespace
