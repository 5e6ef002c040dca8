// The pure decisions of the transfer service: header arithmetic and what a response means.

#include "platform/transfer/internal/HTTPRules.h"
#include "platform/transfer/internal/ResponsePolicy.h"
#include "platform/transfer/internal/ResumeData.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace platform;
using namespace platform::transfer;
using testing::ElementsAre;

namespace {

constexpr const char* Sent = "Tue, 06 Jan 2015 10:00:00 GMT";

TEST(HTTPRules, Ranges) {
  const auto read = [](const char* text) {
    const auto range = parseRange(text);
    return range ? std::vector{range->first, range->last, range->suffix} : std::vector<std::int64_t>();
  };
  EXPECT_THAT(read("bytes=0-9"), ElementsAre(0, 9, -1));
  EXPECT_THAT(read("bytes=5-"), ElementsAre(5, -1, -1));
  EXPECT_THAT(read("Bytes= 7 - 8 "), ElementsAre(7, 8, -1));
  EXPECT_THAT(read("bytes=-500"), ElementsAre(-1, -1, 500));
  for (const char* bad :
       {"bytes=0-1,4-5", "bytes=9-3", "items=0-9", "bytes=-", "bytes=a-b", "bytes=99999999999999999999-"})
    EXPECT_THAT(read(bad), ElementsAre()) << bad;

  const auto readContent = [](const char* text) {
    const auto range = parseContentRange(text);
    return range ? std::vector{range->first, range->last, range->total} : std::vector<std::int64_t>();
  };
  EXPECT_THAT(readContent("bytes 0-9/100"), ElementsAre(0, 9, 100));
  EXPECT_THAT(readContent("bytes 5-9/*"), ElementsAre(5, 9, -1));
  EXPECT_THAT(readContent("bytes */100"), ElementsAre(-1, -1, 100));
  EXPECT_THAT(readContent("bytes=0-9/10"), ElementsAre(0, 9, 10));
  for (const char* bad : {"bytes 0-10/10", "bytes 9-0/10", "bytes 0-9", ""})
    EXPECT_THAT(readContent(bad), ElementsAre()) << bad;
}

TEST(HTTPRules, Values) {
  EXPECT_EQ(parseRetryAfter("120", 0), std::chrono::seconds(120));
  EXPECT_EQ(parseRetryAfter("Thu, 01 Jan 1970 00:02:00 GMT", 100), std::chrono::seconds(20));
  EXPECT_EQ(parseRetryAfter("Thu, 01 Jan 1970 00:02:00 GMT", 1000), std::chrono::seconds(0));
  EXPECT_FALSE(parseRetryAfter("soon", 0));
  EXPECT_FALSE(parseRetryAfter("-5", 0));

  auto offer = [](const char* text) {
    auto made = parseChallenge(text);
    return made ? made->scheme + "/" + made->realm : "none";
  };
  EXPECT_EQ(offer("Basic realm=\"a \\\"b\\\"\""), "basic/a \"b\"");
  EXPECT_EQ(offer("Basic realm=\"x, Digest realm=y\""), "basic/x, Digest realm=y");
  EXPECT_EQ(offer("Basic realm=\"a\", Digest realm=\"b\", nonce=\"c\""), "digest/b");
  EXPECT_EQ(offer("Bearer"), "none");

  EXPECT_EQ(originOf(*URL::URLWithString("HTTP://Host/a")),
            originOf(*URL::URLWithString("http://host:80/b")));
  EXPECT_NE(originOf(*URL::URLWithString("http://host/")), originOf(*URL::URLWithString("https://host/")));
}

TEST(HTTPRules, ChoosesOnlyValidatorsThatHold) {
  auto ifRange = [](HTTPHeaders headers) { return validatorsOf(headers).ifRange().value_or("none"); };
  const std::string old = "Mon, 05 Jan 2015 10:00:00 GMT", fresh = "Tue, 06 Jan 2015 09:59:30 GMT";
  EXPECT_EQ(ifRange({{"ETag", "\"1\""}, {"Last-Modified", old}, {"Date", Sent}}), "\"1\"");
  EXPECT_EQ(ifRange({{"ETag", "W/\"1\""}, {"Last-Modified", old}, {"Date", Sent}}), old);
  EXPECT_EQ(ifRange({{"Last-Modified", fresh}, {"Date", Sent}}), "none");
  EXPECT_EQ(ifRange({{"Last-Modified", old}}), "none");
  EXPECT_EQ(ifRange({}), "none");
}

Asked askedFor(std::int64_t held, const std::string& range = {}, std::int64_t base = 0) {
  Asked asked;
  asked.held = held;
  asked.ownRange = range;
  asked.base = base;
  asked.total = held > 0 ? 1000 : -1;
  asked.validators = {"\"1\"", "", false};
  return asked;
}

TEST(ResponsePolicy, Table) {
  struct Case {
    const char* name;
    Asked asked;
    ResponseHead head;
    Verdict verdict;
    std::int64_t length = -1, total = -1;
  };
  using enum Verdict;
  auto dated = askedFor(100);
  const std::string old = dated.validators.lastModified = "Mon, 05 Jan 2015 10:00:00 GMT";
  auto head = askedFor(0);
  head.method = "HEAD";
  const HTTPHeaders rest{{"Content-Range", "bytes 100-999/1000"}, {"Content-Length", "900"}};
  auto with = [](HTTPHeaders headers, const char* name, const char* value) {
    headers[name] = value;
    return headers;
  };
  const ResponseHead part{206, rest}, seven{200, {{"Content-Length", "7"}}},
      all{200, {{"Content-Length", "1000"}}};
  const std::vector<Case> cases{
      {"whole", askedFor(0), seven, FromZero, 7, 7},
      {"no length", askedFor(0), {200, {}}, FromZero},
      {"chunks", askedFor(0), {200, {{"Content-Length", "7"}, {"Transfer-Encoding", "chunked"}}}, FromZero},
      {"head", head, seven, FromZero, 0, 0},
      {"rest", askedFor(100), part, Append, 900, 1000},
      {"rest, other tag", askedFor(100), {206, with(rest, "ETag", "\"2\"")}, Restart},
      {"rest, contradicting length", askedFor(100), {206, with(rest, "Content-Length", "901")}, Restart},
      {"rest, other start", askedFor(99), part, Restart},
      {"rest, cut end", askedFor(100), {206, {{"Content-Range", "bytes 100-998/1000"}}}, Restart},
      {"rest, grown", askedFor(100), {206, {{"Content-Range", "bytes 100-1000/1001"}}}, Restart},
      {"unasked part", askedFor(0), part, Restart},
      {"own range", askedFor(0, "bytes=100-"), part, FromZero, 900, 900},
      {"own range beyond the end", askedFor(0, "bytes=100-5000"), part, FromZero, 900, 900},
      {"own range, resumed", askedFor(50, "bytes=50-5000", 50), part, Append, 900, 950},
      {"own range, too much", askedFor(0, "bytes=100-200"), part, Restart},
      {"own suffix", askedFor(0, "bytes=-900"), part, FromZero, 900, 900},
      {"own ranges", askedFor(0, "bytes=0-1,5-6"), {206, {{"Content-Length", "300"}}}, FromZero, 300, 300},
      {"own range ignored", askedFor(0, "bytes=100-"), all, FromZero, 1000, 1000},
      {"changed", askedFor(100), {200, {{"ETag", "\"2\""}}}, FromZero},
      {"unchanged, no date", askedFor(100), {200, {{"ETag", "\"1\""}}}, FromZero},
      {"unchanged", dated, {200, {{"ETag", "\"1\""}, {"Last-Modified", old}}}, AskByDate},
      {"held all", askedFor(1000), {416, {{"Content-Range", "bytes */1000"}}}, HoldsAll, 0, 1000},
      {"held, other tag",
       askedFor(1000),
       {416, {{"Content-Range", "bytes */1000"}, {"ETag", "\"2\""}}},
       Restart},
      {"shrunk", askedFor(1000), {416, {{"Content-Range", "bytes */900"}}}, Restart},
      {"refused", askedFor(1000), {416, {}}, Restart},
      {"own range unsatisfiable", askedFor(0, "bytes=9-"), {416, {}}, StatusBody},
      {"not found", askedFor(100), {404, {{"Content-Length", "5"}}}, StatusBody, 5, 5},
      {"not modified", askedFor(0), {304, {{"Content-Length", "5"}}}, StatusBody, 0, 0},
      {"moved", askedFor(0), {302, {{"Location", "/b"}}}, Redirect},
      {"moved nowhere", askedFor(0), {302, {}}, StatusBody},
      {"busy", askedFor(0), {503, {{"Retry-After", "60"}}}, Later},
      {"busy for long", askedFor(0), {503, {{"Retry-After", "61"}}}, StatusBody},
      {"busy", askedFor(0), {429, {}}, StatusBody},
      {"refused", askedFor(0), {401, {{"WWW-Authenticate", "Basic realm=\"a\""}}}, Challenge},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto decision = decide(c.asked, c.head, std::chrono::seconds(60), 0);
    EXPECT_EQ(decision.verdict, c.verdict);
    EXPECT_EQ(decision.bodyLength, c.length);
    EXPECT_EQ(decision.expectedTotal, c.total);
  }
  EXPECT_EQ(continuingRange(askedFor(7, "bytes=10-99", 10)), "bytes=17-99");
  EXPECT_EQ(continuingRange(askedFor(7, "bytes=-20", 980)), "bytes=987-");
  EXPECT_EQ(expectedLength(askedFor(7, "bytes=10-5000", 10)), 990);
}

TEST(ResumeDataFormat, SurvivesAnythingItIsGiven) {
  URLRequest request(*URL::URLWithString("http://host/a"));
  request.setValueForHTTPHeaderField("bytes=1-", "Range");
  auto bytes = serializeResumeData({request, "name", 5, 10});
  auto read = parseResumeData(*bytes);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->request.url(), request.url());
  EXPECT_EQ(read->request.allHTTPHeaderFields(), request.allHTTPHeaderFields());
  EXPECT_EQ(read->partial, "name");
  std::string text(bytes->begin(), bytes->end());
  for (std::size_t length = 0; length < text.size(); ++length)
    EXPECT_FALSE(parseResumeData(Data(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(length))));
  auto newer = text;
  newer.replace(newer.find("\"version\":1"), 11, "\"version\":2");
  read = parseResumeData(Data(newer.begin(), newer.end()));
  ASSERT_TRUE(read);
  EXPECT_EQ(read->partial, "");
}

} // namespace
