#include "qvc/URI.h"
#include "qvc/URIEscapeEncoder.h"
#include "qvc/URIQuery.h"

#include <gmock/gmock.h>

#include <array>
#include <vector>

namespace qvc {
namespace {

/// What goes in and what must come out.
using Texts = std::pair<const char*, const char*>;

TEST(URI, splitsAndJoinsEveryComponent) {
  const URI uri("http://user@h:8080/p/q?x=1#f");
  EXPECT_EQ(uri.port(), 8080u);
  EXPECT_THAT(
      std::vector({uri.rawScheme(), uri.rawUserInfo(), uri.rawHostName(), uri.rawPath(), uri.rawQuery(),
                   uri.rawFragment(), uri.rawAuthority(), uri.rawSchemeSpecificPart(), uri.toRawString()}),
      testing::ElementsAre("http", "user", "h", "p/q", "x=1", "f", "user@h:8080", "//user@h:8080/p/q?x=1",
                           "http://user@h:8080/p/q?x=1#f"));

  EXPECT_EQ(URI("http://h").toRawString(), "http://h/");
  EXPECT_EQ(URI("/abs/path?x").rawPath(), "/abs/path");
  EXPECT_EQ(URI("/abs/path?x").rawQuery(), "x");
  EXPECT_EQ(URI("p#a?b").rawFragment(), "a?b");
  EXPECT_EQ(URI("http://h:99999999999999999999/").port(), 0u);
  EXPECT_TRUE(URI("").isEmpty());
}

TEST(URI, findsTheScheme) {
  const Texts texts[] = {{"a.b:80/x", ""}, {"a.b:8080", ""}, {"urn:x", "urn"},         {"C:/dir", "C"},
                         {"a/b:c", ""},    {":x", ""},       {"seg?t=1:2", "seg?t=1"}, {"seg.ts?t=1:2", ""}};
  for (const auto& [text, scheme] : texts)
    EXPECT_EQ(URI::fromEncodedString(text).rawScheme(), scheme) << text;
  EXPECT_TRUE(URI("urn:x").isOpaque() && !URI("http://h").isOpaque());
}

TEST(URI, fileHasNoAuthority) {
  EXPECT_EQ(URI("file:///a/b").rawPath(), "/a/b");
  EXPECT_EQ(URI("file:///a/b").toRawString(), "file:///a/b");
  EXPECT_EQ(URI("file://host/a?q").rawPath(), "host/a");
  EXPECT_EQ(URI("file://host/a").rawAuthority(), "");
  EXPECT_EQ(URI("file:/a").toRawString(), "file:///a");
}

TEST(URI, encodesWhatIsNotEncoded) {
  EXPECT_EQ(URI("http://h/a b?c d#e f").toRawString(), "http://h/a%20b?c%20d#e%20f");
  EXPECT_EQ(URI("http://h/a%20b").toRawString(), "http://h/a%20b");
  EXPECT_EQ(URI("http://h/a%20b").toString(), "http://h/a b");
  EXPECT_EQ(URI("a%20b c").rawPath(), "a%2520b%20c") << "a text is encoded or it is not";
  EXPECT_EQ(URI("http", "us/er", "h", 80, "a?b%", "q", "").toRawString(), "http://us%2Fer@h:80/a%3Fb%25?q");
  EXPECT_EQ(URI("http", "u@h:1", "p", "", "f").toRawString(), "http://u@h:1/p#f");
  EXPECT_EQ(URI("http", "//h/p q?x", "f").toRawString(), "http://h/p%20q?x#f");
  EXPECT_EQ(URI("http://h/\xC3\xA9").rawPath(), "%C3%A9");
  EXPECT_EQ(URI("http://h/\xC3\xA9").path(), "\xC3\xA9");
}

TEST(URI, decodesWithoutCheckingTheDigits) {
  const Texts texts[] = {{"%41%2", "A%2"}, {"a+b%2541", "a+b%41"}, {"%4zx%", "@x%"}};
  for (const auto& [text, decoded] : texts)
    EXPECT_EQ(URI::EscapeEncoder::decode(text), decoded) << text;
  for (const char* text : {"%4z", "a%4"})
    EXPECT_FALSE(URI::EscapeEncoder::defaultEncoder().isEncoded(text)) << text;
}

TEST(URI, resolvesReferences) {
  const std::array<const char*, 3> references[] = {{"http://h/a/b", "c", "http://h/a/c"},
                                                   {"http://h/a", "c", "http://h/c"},
                                                   {"http://u@h:81/a/b?q#f", "/c?x#y", "http://u@h:81/c?x#y"},
                                                   {"http://h/a/b.m3u8", "../s.ts", "http://h/a/../s.ts"},
                                                   {"https://h/a", "//cdn/x", "https://cdn/x"},
                                                   {"http://h/a", "https://o/x", "https://o/x"},
                                                   {"", "c", "c"},
                                                   {"file:///d/m.mpd", "s.mp4", "file:///d/s.mp4"},
                                                   // Without a path a reference is the base.
                                                   {"http://h/a/b", "?x=1", "http://h/a/b"},
                                                   {"http://h/a/b", "#f", "http://h/a/b"},
                                                   {"http://h/a/b", "", "http://h/a/b"},
                                                   {"/a/b", "#f", "/a/b#f"},
                                                   {"/a/b?q", "#f", "/a/b?q"}};
  for (const auto& [base, reference, resolved] : references)
    EXPECT_EQ(URI(base).resolve(reference).toRawString(), resolved) << reference << " at " << base;
  EXPECT_EQ(URI("http://h").resolve("/a/b").resolve("c").toRawString(), "http://h/a/c");
}

TEST(URI, normalizesAndCuts) {
  const Texts texts[] = {{"http://h/./a/b/../../c/?q#f", "http://h/c/?q#f"},
                         {"http://h/../../a", "http://h/a"},
                         {"a/../../../b", "../../b"},
                         {"/a/../../b", "/b"},
                         {"file:///a/./b/../c", "file:///a/c"},
                         {"http://h/a/..", "http://h/"}};
  for (const auto& [text, normal] : texts)
    EXPECT_EQ(URI(text).normalize().toRawString(), normal) << text;
  EXPECT_EQ(URI("http://h/a/b.m3u8").resolve("../s.ts").normalize().toRawString(), "http://h/s.ts");
  EXPECT_EQ(URI("http://h/a/b.mpd?q#f").base().toRawString(), "http://h/a");
  EXPECT_EQ(URI("http://h/a").base().toRawString(), "http://h/");
  EXPECT_TRUE(URI().base().isEmpty() && URI().normalize().isEmpty());
}

TEST(URIQuery, splitsPairs) {
  const URI::Query query("a=1&b=x=y&&a=2&c");
  EXPECT_THAT(query.keys(), testing::ElementsAre("a", "b", "c"));
  EXPECT_THAT(query.values("a"), testing::ElementsAre("1", "2"));
  EXPECT_EQ(query.value("b"), "x=y");
  EXPECT_TRUE(query.keyExists("c") && query.value("c").isEmpty() && !query.keyExists("d"));
  EXPECT_EQ(query.toString(), "a=1&b=x=y&a=2&c");
  EXPECT_EQ(URI::Query("k:v;l:w", ';', ':').value("l"), "w");
}

} // namespace
} // namespace qvc
