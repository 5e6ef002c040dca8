#include "apps/tolvane/Selection.h"

#include <gtest/gtest.h>

using namespace tolvane;
using Positions = std::vector<std::size_t>;

namespace {

const std::vector<Choice> video{
    {"0", "", 0, 900'000, 480}, {"1", "", 0, 300'000, 240}, {"2", "", 1, 2'500'000, 1080}};
const std::vector<Choice> audio{{"a", "fre", 0, 64'000, 0},
                                {"b", "fre", 0, 128'000, 0},
                                {"c", "deu", 1, 96'000, 0},
                                {"d", "en-GB", 2, 48'000, 0}};

} // namespace

TEST(Selection, VideoByQualityHeightBitrateAndIdentifier) {
  auto choose = [](const char* text) { return chooseVideo(parseVideoSelector(text), video); };
  EXPECT_EQ(chooseVideo({}, video), Positions{2});
  EXPECT_EQ(choose("best"), Positions{2});
  EXPECT_EQ(choose("worst"), Positions{1});
  EXPECT_EQ(choose("all"), (Positions{0, 1, 2}));
  EXPECT_EQ(choose("none"), Positions{});
  EXPECT_EQ(choose("720p"), Positions{0});
  EXPECT_EQ(choose("100p"), Positions{1}) << "nothing that small: the lowest";
  EXPECT_EQ(choose("1500k"), Positions{0});
  EXPECT_EQ(choose("1k"), Positions{1});
  EXPECT_EQ(choose("3M"), Positions{2});
  EXPECT_EQ(choose("id:1"), Positions{1});
  EXPECT_THROW(choose("id:9"), SelectionError);
}

TEST(Selection, SoundInTheUsersLanguageElseTheFirstTracksBest) {
  EXPECT_EQ(chooseAudio({}, audio, "de_AT.UTF-8"), Positions{2});
  EXPECT_EQ(chooseAudio({}, audio, "en_US.UTF-8"), Positions{3});
  EXPECT_EQ(chooseAudio({}, audio, "it"), Positions{1});
  EXPECT_EQ(chooseAudio({}, {}, "en"), Positions{});
  auto choose = [](const char* text) { return chooseAudio(parseTrackSelector(text), audio, "en"); };
  EXPECT_EQ(choose("de,fr"), (Positions{1, 2})) << "639-2 codes name the same languages";
  EXPECT_EQ(choose("all").size(), 4u);
  EXPECT_EQ(choose("id:a"), Positions{0});
  EXPECT_THROW(choose("de,it"), SelectionError);
  EXPECT_EQ(chooseText({}, audio), Positions{}) << "no text unless asked for";
}

TEST(Selection, NonsenseIsRefusedWithWhatWouldWork) {
  for (const char* text : {"", "bset", "720", "p", "-5p", "0k", "id:", "99999999999999999999k"})
    EXPECT_THROW(parseVideoSelector(text), SelectionError) << text;
  for (const char* text : {"", "e", "en,", "e n", "en;de"})
    EXPECT_THROW(parseTrackSelector(text), SelectionError) << text;
  try {
    chooseVideo(parseVideoSelector("id:x"), video);
    FAIL();
  } catch (const SelectionError& error) {
    EXPECT_NE(std::string(error.what()).find("id:2 1080p 2500k"), std::string::npos) << error.what();
  }
}
