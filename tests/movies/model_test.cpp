#include "TolvaneDownloader/DASHDownloader/Internal/QVAudioQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTextQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVVideoQuality.h"
#include "platform/foundation/Locale.h"

#include <gmock/gmock.h>

#include <clocale>

using namespace testing;

namespace {

std::shared_ptr<QVTrack> trackNamed(const std::string& name, std::optional<std::string> language) {
  return QVTrack::trackWithType(QVMediaTypeText, 1, name, std::move(language), 1, {});
}

std::string audioText(const std::shared_ptr<QVTrack>& parent) {
  return QVAudioQuality::qualityWithResourceListBuilder(nullptr, "mp4a", "1", 128'000, {}, 2, 48'000, 0,
                                                        parent)
      ->parameters();
}

std::string textText(const std::shared_ptr<QVTrack>& parent) {
  return QVTextQuality::qualityWithResourceListBuilder(nullptr, "stpp", "1", 0, 0, 0, std::nullopt, parent)
      ->parameters();
}

} // namespace

TEST(Quality, Descriptions) {
  const std::string before = std::setlocale(LC_NUMERIC, nullptr);
  std::setlocale(LC_NUMERIC, "de_DE.UTF-8"); // where it exists: numbers in descriptions do not follow it

  const auto video = QVVideoQuality::qualityWithResourceListBuilder(nullptr, "avc1", "v", 1'234'567, {1, 2},
                                                                    1920, 1080, 4, nullptr);
  EXPECT_EQ(video->parameters(), "1920 x 1080 @ 1234.6 kbps");
  EXPECT_EQ(video->type(), QVMediaTypeVideo);
  EXPECT_THAT(video->codecPrivateData(), ElementsAre(1, 2));
  EXPECT_EQ(video->fillResourcesWithBaseUrl("http://h/"), nullptr);

  EXPECT_EQ(audioText(trackNamed("", "ger")), "German 48.0 kHZ, 2 ch @ 128.0 kbps\t");
  EXPECT_EQ(audioText(trackNamed("", "de")), "German 48.0 kHZ, 2 ch @ 128.0 kbps\t");
  EXPECT_EQ(audioText(trackNamed("", std::nullopt)), "Unknown 48.0 kHZ, 2 ch @ 128.0 kbps\t");
  EXPECT_EQ(audioText(nullptr), "Unknown 48.0 kHZ, 2 ch @ 128.0 kbps\t");

  EXPECT_EQ(textText(trackNamed("3 [application/TTML+xml]", "fre")), "French [TTML]");
  EXPECT_EQ(textText(trackNamed("3 [text/vtt]", "fre")), "French [VTT]");
  EXPECT_EQ(textText(trackNamed("3 [application/mp4]", "fre")), "French");
  EXPECT_EQ(textText(trackNamed("3 [text/vtt]", std::nullopt)), "[VTT]");
  EXPECT_EQ(textText(nullptr), "");
  std::setlocale(LC_NUMERIC, before.c_str());

  const platform::Locale locale = platform::Locale::current();
  platform::Locale::setCurrent(platform::Locale("de"));
  EXPECT_EQ(audioText(trackNamed("", "ger")), "Deutsch 48.0 kHZ, 2 ch @ 128.0 kbps\t");
  platform::Locale::setCurrent(locale);
}
