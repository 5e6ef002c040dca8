#include "qvc/URI.h"
#include "qvc/URIEscapeEncoder.h"
#include "qvc/URIQuery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace qvc {
namespace {

FastString resolved(const char* base, const char* reference) {
  return URI(base).resolve(reference).toRawString();
}

TEST(URI, splitsAndJoinsEveryComponent) {
  const URI uri("http://user@h:8080/p/q?x=1#f");
  EXPECT_EQ(uri.rawScheme(), "http");
  EXPECT_EQ(uri.rawUserInfo(), "user");
  EXPECT_EQ(uri.rawHostName(), "h");
  EXPECT_EQ(uri.port(), 8080u);
  EXPECT_EQ(uri.rawPath(), "p/q");
  EXPECT_EQ(uri.rawQuery(), "x=1");
  EXPECT_EQ(uri.rawFragment(), "f");
  EXPECT_EQ(uri.rawAuthority(), "user@h:8080");
  EXPECT_EQ(uri.rawSchemeSpecificPart(), "//user@h:8080/p/q?x=1");
  EXPECT_EQ(uri.toRawString(), "http://user@h:8080/p/q?x=1#f");

  EXPECT_EQ(URI("http://h").toRawString(), "http://h/");
  EXPECT_EQ(URI("/abs/path?x").rawPath(), "/abs/path");
  EXPECT_EQ(URI("/abs/path?x").rawQuery(), "x");
  EXPECT_EQ(URI("p#a?b").rawFragment(), "a?b");
  EXPECT_EQ(URI("http://h:99999999999999999999/").port(), 0u);
  EXPECT_TRUE(URI("").isEmpty());
}

TEST(URI, findsTheScheme) {
  for (const auto& [text, scheme] :
       std::initializer_list<std::pair<const char*, const char*>>{{"a.b:80/x", ""},
                                                                  {"a.b:8080", ""},
                                                                  {"urn:x", "urn"},
                                                                  {"C:/dir", "C"},
                                                                  {"a/b:c", ""},
                                                                  {":x", ""},
                                                                  {"seg?t=1:2", "seg?t=1"},
                                                                  {"seg.ts?t=1:2", ""}})
    EXPECT_EQ(URI::fromEncodedString(text).rawScheme(), scheme) << text;
  EXPECT_TRUE(URI("urn:x").isOpaque());
  EXPECT_FALSE(URI("http://h").isOpaque());
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
  const auto decode = [](const char* text) { return URI::EscapeEncoder::decode(text); };
  EXPECT_EQ(decode("%41%2"), "A%2");
  EXPECT_EQ(decode("a+b%2541"), "a+b%41");
  EXPECT_EQ(decode("%4zx%"), "@x%");
  EXPECT_FALSE(URI::EscapeEncoder::defaultEncoder().isEncoded("%4z"));
  EXPECT_FALSE(URI::EscapeEncoder::defaultEncoder().isEncoded("a%4"));
}

TEST(URI, resolvesReferences) {
  EXPECT_EQ(resolved("http://h/a/b", "c"), "http://h/a/c");
  EXPECT_EQ(resolved("http://h/a", "c"), "http://h/c");
  EXPECT_EQ(resolved("http://u@h:81/a/b?q#f", "/c?x#y"), "http://u@h:81/c?x#y");
  EXPECT_EQ(resolved("http://h/a/b.m3u8", "../s.ts"), "http://h/a/../s.ts");
  EXPECT_EQ(resolved("https://h/a", "//cdn/x"), "https://cdn/x");
  EXPECT_EQ(resolved("http://h/a", "https://o/x"), "https://o/x");
  EXPECT_EQ(resolved("", "c"), "c");
  EXPECT_EQ(resolved("file:///d/m.mpd", "s.mp4"), "file:///d/s.mp4");
  EXPECT_EQ(URI("http://h").resolve("/a/b").resolve("c").toRawString(), "http://h/a/c");
}

TEST(URI, referencesWithoutPathResolveToTheBase) {
  EXPECT_EQ(resolved("http://h/a/b", "?x=1"), "http://h/a/b");
  EXPECT_EQ(resolved("http://h/a/b", "#f"), "http://h/a/b");
  EXPECT_EQ(resolved("http://h/a/b", ""), "http://h/a/b");
  EXPECT_EQ(resolved("/a/b", "#f"), "/a/b#f");
  EXPECT_EQ(resolved("/a/b?q", "#f"), "/a/b?q");
}

TEST(URI, normalizesAndCuts) {
  const auto normal = [](const char* text) { return URI(text).normalize().toRawString(); };
  EXPECT_EQ(URI("http://h/a/b.m3u8").resolve("../s.ts").normalize().toRawString(), "http://h/s.ts");
  EXPECT_EQ(normal("http://h/./a/b/../../c/?q#f"), "http://h/c/?q#f");
  EXPECT_EQ(normal("http://h/../../a"), "http://h/a");
  EXPECT_EQ(normal("a/../../../b"), "../../b");
  EXPECT_EQ(normal("/a/../../b"), "/b");
  EXPECT_EQ(normal("file:///a/./b/../c"), "file:///a/c");
  EXPECT_EQ(normal("http://h/a/.."), "http://h/");
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
