// Long lists and arbitrary orders of events.

#include "tests/movies/orchestration_support.h"

#include <random>

using namespace orchestration;

namespace {

TEST(Load, FortyThousandResourcesInOneRun) {
  Stage stage({{"a", 10000}, {"b", 10000}, {"c", 10000}, {"d", 10000}});
  stage.set->setParallelDownloads(7);
  ASSERT_TRUE(stage.download());
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
        const std::size_t event = below(4);
        if (event == 0)
          set.resourceBytesDownloaded(record, static_cast<std::int64_t>(below(1000)),
                                      static_cast<std::int64_t>(below(1000)) - 1);
        else if (event == 1)
          stage.finish(record);
        else
          stage.fail(record, event == 2 ? 503 : below(3) == 0 ? 404 : 500);
      } else {
        const bool idle = set.status() == QVDownloadStatusInactive;
        const std::size_t command = below(8);
        if (command == 0)
          set.pause();
        else if (command == 1)
          set.resume();
        else if (command == 2 && below(4) == 0)
          set.cancel();
        else if (command == 3 && idle)
          set.selectQuality(stage.quality(below(3)));
        else if (command == 4 && idle && below(3) == 0)
          set.deselectQuality(stage.quality(below(3)));
        else if (command == 5 && idle)
          set.removeDownloadedQuality(stage.quality(below(3)));
        else if (command > 5) {
          set.setParallelDownloads(1 + below(5));
          stage.download();
        }
      }
      ASSERT_EQ(set._checkCounters(), "") << "round " << round << ", step " << step;
      ASSERT_EQ(set.status() == QVDownloadStatusInactive, attached.empty());
    }
  }
}

} // namespace
