// Names of files that servers and URLs suggest, made safe.

#include "halvix/ContentName.h"

#include <gtest/gtest.h>

using namespace halvix;

TEST(ContentName, HeadersGiveTheNameInEachForm) {
  const auto name = [](std::string_view header) {
    return fileNameFromContentDisposition(header).value_or("(none)");
  };
  EXPECT_EQ(name("attachment; filename=movie.mp4"), "movie.mp4");
  EXPECT_EQ(name("attachment; filename=\"a; \\\"b\\\".mp4\"; size=3"), "a; \"b\".mp4");
  EXPECT_EQ(name("ATTACHMENT; FileName = x.mp4"), "x.mp4");
  EXPECT_EQ(name("attachment; filename=\"plain.mp4\"; filename*=UTF-8''na%C3%AFve.mp4"), "na\xc3\xafve.mp4");
  EXPECT_EQ(name("attachment; filename*=iso-8859-1'en'%a3.mp4"), "\xc2\xa3.mp4");
  EXPECT_EQ(name("attachment; filename*=x'y; filename=z.mp4"), "z.mp4");
  for (const char* none :
       {"", "inline", "attachment; filename=", "attachment; filename=\"", ";;;=", "a=\"\\"})
    EXPECT_EQ(name(none), "(none)") << none;
}

TEST(ContentName, NothingLeadsOutOfTheDirectoryOrPlaysWithTheTerminal) {
  const std::pair<const char*, const char*> cases[] = {
      {"movie.mp4", "movie.mp4"},
      {"Movie.M4V", "Movie.M4V"},
      {"../../etc/passwd", "passwd.mp4"},
      {"..\\..\\evil.mp4", "evil.mp4"},
      {"/a/b/", "b.mp4"},
      {"..", "download.mp4"},
      {"", "download.mp4"},
      {".mp4", "mp4.mp4"},
      {" .hidden.mp4 . ", "hidden.mp4"},
      {"a\x1b[31m\n\x7f.mp4", "a[31m.mp4"},
      {"gpj.\u202e4pm.mp4", "gpj.4pm.mp4"},
      {"bad\xff\xc3.mp4", "bad__.mp4"},
      {"\xe3\x81\x82.mp4", "\xe3\x81\x82.mp4"},
  };
  for (const auto& [suggested, wanted] : cases)
    EXPECT_EQ(contentFileName(suggested, ContentType::mp4), wanted) << suggested;
  EXPECT_EQ(contentFileName("song.mp4", ContentType::mp3), "song.mp4.mp3");

  std::string longName = ".mp4";
  for (int i = 0; i < 200; ++i)
    longName.insert(0, "\u00e4");
  const std::string cut = contentFileName(longName, ContentType::mp4);
  EXPECT_EQ(cut.size(), 200u);
  EXPECT_TRUE(cut.ends_with("\xc3\xa4.mp4"));

  EXPECT_EQ(contentFileNameFromURL("http://h/a/b%2F..%2Fc%20d.mp4?x=y.mp4#z", ContentType::mp4), "c d.mp4");
  EXPECT_EQ(contentFileNameFromURL("http://h", ContentType::mp3), "download.mp3");
}
