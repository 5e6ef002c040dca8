#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylistFactory.h"
#include "platform/concurrency/Queue.h"
#include "platform/foundation/Exception.h"
#include "platform/foundation/URL.h"
#include "platform/transfer/URLSession.h"

#include <gmock/gmock.h>

using namespace testing;

namespace {

/// The descriptions of an error and of what led to it.
std::vector<std::string> chain(platform::ErrorRef error) {
  std::vector<std::string> texts;
  for (; error; error = error->underlyingError())
    texts.push_back(error->localizedDescription());
  return texts;
}

const char* const noFormat = "Can't find proper implementation for parsing manifest";

} // namespace

TEST(PlaylistFactory, NoFormatFits) {
  for (const std::string& text :
       {std::string("\x7f\x00\xff\x13", 4), std::string(), std::string("<Other/>")}) {
    try {
      QVPlaylistFactory::generateWithData(platform::Data(text.begin(), text.end()));
      ADD_FAILURE() << "nothing was raised";
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(exception.name(), "QVPlaylistFactoryException");
      EXPECT_EQ(exception.reason(), noFormat);
      const auto inner = [&exception](const char* key) {
        const auto found = std::any_cast<platform::Exception>(exception.userInfo().at(key));
        EXPECT_EQ(found.name(), "QVPlaylistFactoryException");
        return found.reason();
      };
      const std::string dash = inner("DASHGeneratorError");
      EXPECT_EQ(dash, text == "<Other/>" ? "Not a valid MPD" : "Failed to parse XML");
      const std::string smooth = inner("SmoothStreamingGeneratorError");
      EXPECT_EQ(smooth, text == "<Other/>"
                            ? "Passed invalid XML element. Expected tag SmoothStreamingMedia but got Other"
                            : "Can't parse SmoothStreaming XML");

      const auto error = QVPlaylistFactory::errorWithException(exception);
      EXPECT_EQ(error->code(), -101);
      for (const char* key :
           {"NSLocalizedDescription", "NSLocalizedFailureReason", "NSLocalizedRecoverySuggestion"})
        EXPECT_THAT(error->value<std::string>(key), Pointee(std::string(noFormat)));
      EXPECT_THAT(chain(error),
                  ElementsAre(noFormat, "as DASH: " + dash + "; as Smooth Streaming: " + smooth));
    }
  }
}

TEST(PlaylistFactory, WhatCannotBeFetchedFailsLater) {
  for (const auto& [target, code] : std::initializer_list<std::pair<std::string, std::int64_t>>{
           {"", platform::NSURLErrorBadURL},
           {"movies/m.mpd", platform::NSURLErrorUnsupportedURL},
           {"http://h/m.mpd", platform::NSURLErrorResourceUnavailable}}) {
    int calls = 0;
    QVPlaylistFactory::generateWithURL(target, [&, wanted = code](auto playlist, auto data, auto error) {
      ++calls;
      EXPECT_TRUE(platform::SerialQueue::background().isCurrent());
      EXPECT_EQ(playlist, nullptr);
      EXPECT_EQ(data, nullptr);
      ASSERT_TRUE(error);
      EXPECT_EQ(error->domain(), platform::NSURLErrorDomain);
      EXPECT_EQ(error->code(), wanted);
    });
    platform::SerialQueue::background().sync([] {});
    EXPECT_EQ(calls, 1) << target;
  }
}
