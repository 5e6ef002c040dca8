#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceListBuilder.h"
#include "platform/transfer/URLRequest.h"

#include <gmock/gmock.h>

#include <array>

using namespace testing;

namespace {

constexpr std::uint64_t maximum = ~std::uint64_t(0);

std::shared_ptr<QVRangedURL> resource(std::uint64_t offset, std::uint64_t length,
                                      const std::string& url = "a.mp4") {
  return QVRangedURL::rangedURLWithOffset(offset, length, url, nullptr);
}

std::string text(const std::shared_ptr<QVRangedURL>& url) {
  return url ? url->referenceURL() + " " + std::to_string(url->offset()) + "+" + std::to_string(url->length())
             : "none";
}

std::vector<std::string> merged(const QVResourceList& list) {
  std::vector<std::string> texts;
  for (const auto& url : QVResourceListBuilder::mergeRangedResourceURLs(list))
    texts.push_back(text(url));
  return texts;
}

std::optional<std::string> rangeHeader(std::uint64_t offset, std::uint64_t length) {
  return resource(offset, length, "http://h/a")->prepareRequest()->valueForHTTPHeaderField("range");
}

} // namespace

TEST(RangedURL, Requests) {
  EXPECT_EQ(rangeHeader(0, 862), "bytes=0-862");
  EXPECT_EQ(rangeHeader(100, 0), "bytes=100-");
  EXPECT_EQ(rangeHeader(100, 50), "bytes=100-50");
  EXPECT_EQ(rangeHeader(maximum, maximum), "bytes=18446744073709551615-18446744073709551615");
  EXPECT_EQ(rangeHeader(0, 0), std::nullopt);

  const auto head = resource(5, 6, "http://h/a")->prepareHeadRequest();
  EXPECT_EQ(head->HTTPMethod(), "HEAD");
  EXPECT_EQ(head->valueForHTTPHeaderField("Accept-Encoding"), "identity");
  EXPECT_EQ(head->valueForHTTPHeaderField("Range"), std::nullopt);
}

TEST(RangedURL, Resolution) {
  const std::array<const char*, 3> references[] = {
      {"seg-1.m4s", "http://h/dir/manifest.mpd?x=1", "http://h/dir/seg-1.m4s"},
      {"../v/1.m4s", "http://h/a/b/m.mpd", "http://h/a/v/1.m4s"},
      {"https://cdn/x", "http://h/dir/manifest.mpd", "https://cdn/x"}};
  for (const auto& [reference, base, resolved] : references)
    EXPECT_EQ(QVRangedURL::rangedURLWithReferenceURL(reference, std::make_shared<const std::string>(base))
                  ->prepareRequest()
                  ->url()
                  .absoluteString(),
              resolved);
  EXPECT_FALSE(QVRangedURL::rangedURLWithReferenceURL("seg.m4s", nullptr)->prepareRequest());
}

TEST(ResourceMerging, Table) {
  // Gaps are included, an open end stays open, and an end beyond 64 bits is the end of the resource.
  const std::tuple<std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t, const char*> rows[] = {
      {0, 862, 0, 0, "0+0"},       {0, 0, 0, 862, "0+0"},         {0, 100, 500, 100, "0+600"},
      {500, 100, 0, 100, "0+600"}, {500, 100, 0, 1000, "0+1000"}, {0, 1000, 500, 100, "0+1000"},
      {500, 0, 100, 50, "100+0"},  {100, 50, 500, 0, "100+0"},    {100, 50, 100, 80, "100+80"},
      {10, maximum, 5, 10, "5+0"}, {0, 10, maximum, 10, "0+0"}};
  for (const auto& [offsetA, lengthA, offsetB, lengthB, merged] : rows) {
    const auto first = resource(offsetA, lengthA), second = resource(offsetB, lengthB);
    EXPECT_EQ(text(QVResourceListBuilder::mergeURLWithURL(first, second)), std::string("a.mp4 ") + merged)
        << text(first) << " with " << text(second);
  }
  EXPECT_EQ(QVResourceListBuilder::mergeURLWithURL(resource(0, 1), resource(0, 1, "b.mp4")), nullptr);

  const auto covering = resource(0, 0);
  EXPECT_EQ(QVResourceListBuilder::mergeURLWithURL(covering, resource(7, 7)), covering);
  EXPECT_EQ(QVResourceListBuilder::mergeURLWithURL(resource(7, 7), covering), covering);
}

TEST(ResourceMerging, OnlyNeighbours) {
  EXPECT_THAT(merged({}), IsEmpty());
  EXPECT_THAT(
      merged({resource(0, 10, "a"), resource(0, 10, "b"), resource(10, 10, "a"), resource(10, 10, "b")}),
      ElementsAre("a 0+10", "b 0+10", "a 10+10", "b 10+10"));
  EXPECT_THAT(merged({resource(0, 10, "a"), resource(10, 10, "a"), resource(0, 10, "b"),
                      resource(10, 10, "b"), resource(20, 0, "b"), resource(0, 0, "c")}),
              ElementsAre("a 0+20", "b 0+0", "c 0+0"));
}
