// The pure decisions of the transfer service: header arithmetic and what a response means.

#include "platform/transfer/internal/HTTPRules.h"
#include "platform/transfer/internal/ResponsePolicy.h"
#include "platform/transfer/internal/ResumeData.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace platform;
using namespace platform::transfer;

namespace {

constexpr const char* Sent = "Tue, 06 Jan 2015 10:00:00 GMT";

std::string joined(std::int64_t a, std::int64_t b, std::int64_t c) {
  return std::to_string(a) + " " + std::to_string(b) + " " + std::to_string(c);
}

TEST(HTTPRules, Ranges) {
  const auto range = [](const char* text) {
    const auto read = parseRange(text);
    return read ? joined(read->first, read->last, read->suffix) : "none";
  };
  EXPECT_EQ(range("bytes=0-9"), "0 9 -1");
  EXPECT_EQ(range("bytes=5-"), "5 -1 -1");
  EXPECT_EQ(range("Bytes= 7 - 8 "), "7 8 -1");
  EXPECT_EQ(range("bytes=-500"), "-1 -1 500");
  for (const char* text :
       {"bytes=0-1,4-5", "bytes=9-3", "items=0-9", "bytes=-", "bytes=a-b", "bytes=99999999999999999999-"})
    EXPECT_EQ(range(text), "none") << text;

  const auto content = [](const char* text) {
    const auto read = parseContentRange(text);
    return read ? joined(read->first, read->last, read->total) : "none";
  };
  EXPECT_EQ(content("bytes 0-9/100"), "0 9 100");
  EXPECT_EQ(content("bytes 5-9/*"), "5 9 -1");
  EXPECT_EQ(content("bytes */100"), "-1 -1 100");
  EXPECT_EQ(content("bytes=0-9/10"), "0 9 10");
  for (const char* text : {"bytes 0-10/10", "bytes 9-0/10", "bytes 0-9", ""})
    EXPECT_EQ(content(text), "none") << text;
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
  auto dated = askedFor(100);
  dated.validators.lastModified = "Mon, 05 Jan 2015 10:00:00 GMT";
  auto head = askedFor(0);
  head.method = "HEAD";
  const HTTPHeaders rest{{"Content-Range", "bytes 100-999/1000"}, {"Content-Length", "900"}};
  auto with = [](HTTPHeaders headers, const char* name, const char* value) {
    headers[name] = value;
    return headers;
  };
  const std::vector<Case> cases{
      {"whole", askedFor(0), {200, {{"Content-Length", "7"}}}, Verdict::FromZero, 7, 7},
      {"no length", askedFor(0), {200, {}}, Verdict::FromZero},
      {"length beside chunks",
       askedFor(0),
       {200, {{"Content-Length", "7"}, {"Transfer-Encoding", "chunked"}}},
       Verdict::FromZero},
      {"head", head, {200, {{"Content-Length", "7"}}}, Verdict::FromZero, 0, 0},
      {"rest", askedFor(100), {206, rest}, Verdict::Append, 900, 1000},
      {"rest, other tag", askedFor(100), {206, with(rest, "ETag", "\"2\"")}, Verdict::Restart},
      {"rest, contradicting length",
       askedFor(100),
       {206, with(rest, "Content-Length", "901")},
       Verdict::Restart},
      {"rest, other start", askedFor(99), {206, rest}, Verdict::Restart},
      {"rest, cut end", askedFor(100), {206, {{"Content-Range", "bytes 100-998/1000"}}}, Verdict::Restart},
      {"rest, grown", askedFor(100), {206, {{"Content-Range", "bytes 100-1000/1001"}}}, Verdict::Restart},
      {"unasked part", askedFor(0), {206, rest}, Verdict::Restart},
      {"own range", askedFor(0, "bytes=100-"), {206, rest}, Verdict::FromZero, 900, 900},
      {"own range beyond the end", askedFor(0, "bytes=100-5000"), {206, rest}, Verdict::FromZero, 900, 900},
      {"own range, resumed", askedFor(50, "bytes=50-5000", 50), {206, rest}, Verdict::Append, 900, 950},
      {"own range, too much", askedFor(0, "bytes=100-200"), {206, rest}, Verdict::Restart},
      {"own suffix", askedFor(0, "bytes=-900"), {206, rest}, Verdict::FromZero, 900, 900},
      {"own ranges",
       askedFor(0, "bytes=0-1,5-6"),
       {206, {{"Content-Length", "300"}}},
       Verdict::FromZero,
       300,
       300},
      {"own range ignored",
       askedFor(0, "bytes=100-"),
       {200, {{"Content-Length", "1000"}}},
       Verdict::FromZero,
       1000,
       1000},
      {"changed", askedFor(100), {200, {{"ETag", "\"2\""}}}, Verdict::FromZero},
      {"unchanged, no date", askedFor(100), {200, {{"ETag", "\"1\""}}}, Verdict::FromZero},
      {"unchanged",
       dated,
       {200, {{"ETag", "\"1\""}, {"Last-Modified", dated.validators.lastModified}}},
       Verdict::AskByDate},
      {"held all", askedFor(1000), {416, {{"Content-Range", "bytes */1000"}}}, Verdict::HoldsAll, 0, 1000},
      {"held all, other tag",
       askedFor(1000),
       {416, {{"Content-Range", "bytes */1000"}, {"ETag", "\"2\""}}},
       Verdict::Restart},
      {"shrunk", askedFor(1000), {416, {{"Content-Range", "bytes */900"}}}, Verdict::Restart},
      {"refused", askedFor(1000), {416, {}}, Verdict::Restart},
      {"own range unsatisfiable", askedFor(0, "bytes=9-"), {416, {}}, Verdict::StatusBody},
      {"not found", askedFor(100), {404, {{"Content-Length", "5"}}}, Verdict::StatusBody, 5, 5},
      {"not modified", askedFor(0), {304, {{"Content-Length", "5"}}}, Verdict::StatusBody, 0, 0},
      {"moved", askedFor(0), {302, {{"Location", "/b"}}}, Verdict::Redirect},
      {"moved nowhere", askedFor(0), {302, {}}, Verdict::StatusBody},
      {"busy", askedFor(0), {503, {{"Retry-After", "60"}}}, Verdict::Later},
      {"busy for long", askedFor(0), {503, {{"Retry-After", "61"}}}, Verdict::StatusBody},
      {"busy", askedFor(0), {429, {}}, Verdict::StatusBody},
      {"refused", askedFor(0), {401, {{"WWW-Authenticate", "Basic realm=\"a\""}}}, Verdict::Challenge},
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
