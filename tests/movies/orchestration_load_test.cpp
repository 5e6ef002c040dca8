// Long lists and arbitrary orders of events.

#include "tests/movies/orchestration_support.h"

#include <gtest/gtest.h>

#include <random>

using namespace orchestration;

namespace {

TEST(Load, FortyThousandResourcesInOneRun) {
  Stage stage({{"a", 10000}, {"b", 10000}, {"c", 10000}, {"d", 10000}});
  stage.set->setParallelDownloads(7);
  ASSERT_TRUE(stage.set->downloadWithAdditionalHeaders(std::nullopt));
  std::size_t events = 0;
  while (!stage.controller->attached.empty()) {
    const auto record = stage.controller->oldest();
    if (++events % 1000 == 0) {
      EXPECT_EQ(stage.set->_checkCounters(), "");
      EXPECT_LE(stage.controller->attached.size(), 28U);
      stage.set->pause();
      stage.set->resume();
    }
    stage.set->resourceBytesDownloaded(record, 100, 100);
    stage.finish(record);
  }
  EXPECT_EQ(events, 40000U);
  EXPECT_EQ(stage.set->numberOfDownloadedQualities(), 4U);
  EXPECT_EQ(stage.diary->lines.back(), "done ok");
  EXPECT_EQ(stage.set->downloadedSize(), 4000000);
}

TEST(Load, CountersHoldUnderAnyOrderOfEvents) {
  std::mt19937 random(20240229);
  const auto below = [&](std::size_t limit) { return static_cast<std::size_t>(random() % limit); };
  for (int round = 0; round < 6; ++round) {
    Stage stage(
        {{.identifier = "v", .count = 9, .bitrate = 8000},
         {.identifier = "a", .resources = {resourceAt("a/0", 0, 500), resourceAt("../x"), resourceAt("a/1")}},
         {"s", 3}},
        round % 2 == 0 ? 0 : 10);
    auto& set = *stage.set;
    for (int step = 0; step < 500; ++step) {
      auto& attached = stage.controller->attached;
      if (!attached.empty() && below(4) != 0) {
        const auto record = std::next(attached.begin(), static_cast<long>(below(attached.size())))->second;
        switch (below(4)) {
        case 0:
          set.resourceBytesDownloaded(record, static_cast<std::int64_t>(below(1000)),
                                      static_cast<std::int64_t>(below(1000)) - 1);
          break;
        case 1:
          stage.finish(record);
          break;
        case 2:
          stage.fail(record, 503);
          break;
        default:
          stage.fail(record, below(3) == 0 ? 404 : 500);
        }
      } else {
        const bool idle = set.status() == QVDownloadStatusInactive;
        switch (below(8)) {
        case 0:
          set.pause();
          break;
        case 1:
          set.resume();
          break;
        case 2:
          if (below(4) == 0)
            set.cancel();
          break;
        case 3:
          if (idle)
            set.selectQuality(stage.quality(below(3)));
          break;
        case 4:
          if (idle && below(3) == 0)
            set.deselectQuality(stage.quality(below(3)));
          break;
        case 5:
          if (idle)
            set.removeDownloadedQuality(stage.quality(below(3)));
          break;
        default:
          set.setParallelDownloads(1 + below(5));
          set.downloadWithAdditionalHeaders(std::nullopt);
        }
      }
      ASSERT_EQ(set._checkCounters(), "") << "round " << round << ", step " << step;
      ASSERT_EQ(set.status() == QVDownloadStatusInactive, attached.empty());
    }
  }
}

} // namespace
