#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVResourceListBuilder.h"
#include "platform/transfer/URLRequest.h"

#include <gmock/gmock.h>

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
  const auto resolved = [](const char* reference, const char* base) {
    const auto request = QVRangedURL::rangedURLWithReferenceURL(
                             reference, base ? std::make_shared<const std::string>(base) : nullptr)
                             ->prepareRequest();
    return request ? request->url().absoluteString() : "unresolvable";
  };
  EXPECT_EQ(resolved("seg-1.m4s", "http://h/dir/manifest.mpd?x=1"), "http://h/dir/seg-1.m4s");
  EXPECT_EQ(resolved("../v/1.m4s", "http://h/a/b/m.mpd"), "http://h/a/v/1.m4s");
  EXPECT_EQ(resolved("https://cdn/x", "http://h/dir/manifest.mpd"), "https://cdn/x");
  EXPECT_EQ(resolved("seg.m4s", nullptr), "unresolvable");
}

TEST(ResourceMerging, Table) {
  const auto merge = [](std::uint64_t offsetA, std::uint64_t lengthA, std::uint64_t offsetB,
                        std::uint64_t lengthB) {
    return text(
        QVResourceListBuilder::mergeURLWithURL(resource(offsetA, lengthA), resource(offsetB, lengthB)));
  };
  EXPECT_EQ(merge(0, 862, 0, 0), "a.mp4 0+0");
  EXPECT_EQ(merge(0, 0, 0, 862), "a.mp4 0+0");
  EXPECT_EQ(merge(0, 100, 500, 100), "a.mp4 0+600") << "gap included";
  EXPECT_EQ(merge(500, 100, 0, 100), "a.mp4 0+600");
  EXPECT_EQ(merge(500, 100, 0, 1000), "a.mp4 0+1000");
  EXPECT_EQ(merge(0, 1000, 500, 100), "a.mp4 0+1000");
  EXPECT_EQ(merge(500, 0, 100, 50), "a.mp4 100+0") << "an open end stays open";
  EXPECT_EQ(merge(100, 50, 500, 0), "a.mp4 100+0");
  EXPECT_EQ(merge(100, 50, 100, 80), "a.mp4 100+80");
  EXPECT_EQ(merge(10, maximum, 5, 10), "a.mp4 5+0") << "an end beyond 64 bits is the end of the resource";
  EXPECT_EQ(merge(0, 10, maximum, 10), "a.mp4 0+0");
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
