#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylistFactory.h"
#include "platform/concurrency/Queue.h"
#include "platform/foundation/Exception.h"
#include "platform/foundation/URL.h"
#include "platform/transfer/URLSession.h"
#include "tests/support/ScriptedTransferService.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>

#include <utility>

using namespace testing;

namespace {

const std::string manifest =
    R"(<MPD mediaPresentationDuration="PT1S"><Period><AdaptationSet mimeType="video/mp4">)"
    R"(<Representation/></AdaptationSet></Period></MPD>)";
const std::string hollow = R"(<MPD mediaPresentationDuration="PT1S"><Period/></MPD>)";
const std::string url = "http://h/m.mpd";

std::string textOf(const platform::DataRef& data) {
  return data ? std::string(data->begin(), data->end()) : "none";
}

/// The descriptions of an error and of what led to it.
std::vector<std::string> chain(platform::ErrorRef error) {
  std::vector<std::string> texts;
  for (; error; error = error->underlyingError())
    texts.push_back(error->localizedDescription());
  return texts;
}

const char* const noFormat = "Can't find proper implementation for parsing manifest";

struct Outcome {
  std::shared_ptr<QVPlaylist> playlist;
  platform::DataRef data;
  platform::ErrorRef error;
};

class Fetching : public Test {
protected:
  void SetUp() override { platform::TransferService::setDefaultService(service); }
  void TearDown() override { platform::TransferService::setDefaultService(nullptr); }

  void fetch(const std::string& target, const platform::HTTPHeaders& headers = {}) {
    QVPlaylistFactory::generateWithURL(
        target,
        [this](std::shared_ptr<QVPlaylist> playlist, platform::DataRef data, platform::ErrorRef error) {
          outcomes.push_back({std::move(playlist), std::move(data), std::move(error)});
        },
        headers);
  }

  /// Fetches what the server answers with `body`.
  Outcome fetched(int status, const std::string& body) {
    service->serveData(url, status, body);
    fetch(url);
    service->run();
    EXPECT_EQ(outcomes.size(), 1u) << "one completion";
    return std::exchange(outcomes, {}).at(0);
  }

  support::TemporaryDirectory directory;
  std::shared_ptr<support::ScriptedTransferService> service =
      std::make_shared<support::ScriptedTransferService>(directory.path());
  std::vector<Outcome> outcomes;
};

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
      EXPECT_EQ(exception.userInfo().size(), 2u);
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
      EXPECT_EQ(error->domain().text(), "NSErrorQVDownloader");
      EXPECT_EQ(error->code(), -101);
      EXPECT_EQ(error->userInfo().size(), 3u);
      for (const char* key :
           {"NSLocalizedDescription", "NSLocalizedFailureReason", "NSLocalizedRecoverySuggestion"})
        EXPECT_THAT(error->value<std::string>(key), Pointee(std::string(noFormat)));
      EXPECT_THAT(chain(error),
                  ElementsAre(noFormat, "as DASH: " + dash + "; as Smooth Streaming: " + smooth));
    }
  }
}

TEST(PlaylistFactory, ADocumentIsJudgedAsWhatItsRootSays) {
  const auto causeOf = [](const std::string& text) {
    try {
      QVPlaylistFactory::generateWithData(platform::Data(text.begin(), text.end()));
    } catch (const platform::Exception& exception) {
      return chain(QVPlaylistFactory::errorWithException(exception)).back();
    }
    return std::string("parsed");
  };
  EXPECT_EQ(causeOf("<MPD mediaPresentationDuration='PT1S'/>"), "as DASH: No Period found");
  EXPECT_EQ(causeOf("<SmoothStreamingMedia MajorVersion='2'/>"),
            "as Smooth Streaming: Can't retrieve required value MinorVersion");
  EXPECT_EQ(causeOf("<SmoothStreamingMedia MajorVersion='2' MinorVersion='0' Duration='1'/>"), "parsed");
}

TEST(PlaylistFactory, Files) {
  const support::TemporaryDirectory directory;
  const auto generate = [&directory](const std::string& text, platform::ErrorRef* error) {
    return QVPlaylistFactory::generateWithFile(directory.write("m.mpd", text), error);
  };
  platform::ErrorRef error;
  EXPECT_TRUE(generate(manifest, &error));
  EXPECT_FALSE(generate(hollow, &error));
  EXPECT_FALSE(QVPlaylistFactory::generateWithFile(directory / "missing", &error));
  EXPECT_EQ(error, nullptr);
  EXPECT_FALSE(generate("", nullptr));
  EXPECT_FALSE(generate("", &error));
  EXPECT_THAT(chain(error), ElementsAre(noFormat, HasSubstr("Failed to parse XML")));
}

TEST_F(Fetching, Manifests) {
  auto outcome = fetched(200, manifest);
  EXPECT_TRUE(outcome.playlist);
  EXPECT_EQ(outcome.playlist->url(), "");
  EXPECT_EQ(textOf(outcome.data), manifest);
  EXPECT_EQ(outcome.error, nullptr);

  outcome = fetched(200, hollow);
  EXPECT_EQ(outcome.playlist, nullptr);
  EXPECT_EQ(textOf(outcome.data), hollow);
  EXPECT_EQ(outcome.error, nullptr);
}

TEST_F(Fetching, WhatIsNoManifestSaysWhy) {
  auto outcome = fetched(200, "<html/>");
  EXPECT_EQ(outcome.playlist, nullptr);
  EXPECT_EQ(textOf(outcome.data), "<html/>");
  EXPECT_THAT(chain(outcome.error), ElementsAre(noFormat, HasSubstr("Not a valid MPD")));

  for (const char* body : {"<html/>", ""}) {
    outcome = fetched(404, body);
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->code(), -101);
    EXPECT_EQ(outcome.error->userInfo().size(), 3u);
    const auto cause = outcome.error->underlyingError();
    ASSERT_TRUE(cause);
    EXPECT_EQ(cause->domain().text(), "QVDownloadHTTPErrorDomain");
    EXPECT_EQ(cause->code(), 404);
    EXPECT_THAT(cause->value<std::string>("QVStatusMessage"),
                Pointee(*platform::HTTPURLResponse::localizedStringForStatusCode(404)));
  }
}

TEST_F(Fetching, HeadersReachTheRequest) {
  fetch(url, {{"Authorization", "Bearer x"}});
  ASSERT_EQ(service->dataTasks().size(), 1u);
  const auto task = service->dataTasks()[0];
  EXPECT_EQ(task->request().HTTPMethod(), "GET");
  EXPECT_THAT(task->request().allHTTPHeaderFields(), ElementsAre(Pair("Authorization", "Bearer x")));
  EXPECT_THAT(outcomes, IsEmpty());

  EXPECT_TRUE(task->fail(platform::NSURLErrorTimedOut));
  service->run();
  ASSERT_EQ(outcomes.size(), 1u);
  EXPECT_EQ(outcomes[0].data, nullptr);
  EXPECT_EQ(outcomes[0].error, task->error()) << "a transfer's own error is handed on";
}

TEST_F(Fetching, WhatCannotBeFetchedFailsLater) {
  platform::TransferService::setDefaultService(nullptr);
  for (const auto& [target, code] : std::initializer_list<std::pair<std::string, std::int64_t>>{
           {"", platform::NSURLErrorBadURL},
           {"movies/m.mpd", platform::NSURLErrorUnsupportedURL},
           {url, platform::NSURLErrorResourceUnavailable}}) {
    bool later = false;
    QVPlaylistFactory::generateWithURL(target, [&](auto playlist, auto data, auto error) {
      later = platform::SerialQueue::background().isCurrent();
      outcomes.push_back({playlist, data, error});
    });
    platform::SerialQueue::background().sync([] {});
    EXPECT_TRUE(later);
    ASSERT_EQ(outcomes.size(), 1u) << target;
    const auto [playlist, data, error] = std::exchange(outcomes, {}).at(0);
    EXPECT_EQ(playlist, nullptr);
    EXPECT_EQ(data, nullptr);
    ASSERT_TRUE(error) << target;
    EXPECT_EQ(error->domain(), platform::NSURLErrorDomain);
    EXPECT_EQ(error->code(), code) << target;
  }
}
