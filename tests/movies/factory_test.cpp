#include "tests/movies/binding_support.h"

#include "platform/concurrency/Queue.h"
#include "platform/transfer/URLSession.h"
#include "tests/support/ScriptedTransferService.h"
#include "tests/support/TemporaryDirectory.h"

using namespace binding;

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
  bool later = false; ///< It came on the background queue.
};

class Fetching : public Test {
protected:
  void SetUp() override { platform::TransferService::setDefaultService(service); }
  void TearDown() override { platform::TransferService::setDefaultService(nullptr); }

  void fetch(const std::string& target, const platform::HTTPHeaders& headers = {}) {
    const auto keep = [this](auto playlist, auto data, auto error) {
      outcomes.push_back({playlist, data, error, platform::SerialQueue::background().isCurrent()});
    };
    QVPlaylistFactory::generateWithURL(target, keep, headers);
  }
  /// The outcome of the one fetch since the last call.
  Outcome outcome() {
    EXPECT_EQ(outcomes.size(), 1u) << "one completion";
    return std::exchange(outcomes, {}).at(0);
  }
  /// Fetches what the server answers with `body`.
  Outcome fetched(int status, const std::string& body) {
    service->serveData(url, status, body);
    fetch(url);
    service->run();
    return outcome();
  }

  support::TemporaryDirectory directory;
  std::shared_ptr<support::ScriptedTransferService> service =
      std::make_shared<support::ScriptedTransferService>(directory.path());
  std::vector<Outcome> outcomes;
};

} // namespace

TEST(PlaylistFactory, NoFormatFits) {
  const std::string noXML = "Failed to parse XML", noSmoothXML = "Can't parse SmoothStreaming XML";
  const std::tuple<std::string, std::string, std::string> texts[] = {
      {std::string("\x7f\x00\xff\x13", 4), noXML, noSmoothXML},
      {"", noXML, noSmoothXML},
      {"<Other/>", "Not a valid MPD",
       "Passed invalid XML element. Expected tag SmoothStreamingMedia but got Other"}};
  for (const auto& [text, dash, smooth] : texts)
    try {
      QVPlaylistFactory::generateWithData(data(text));
      ADD_FAILURE() << "nothing was raised for " << text;
    } catch (const platform::Exception& exception) {
      SCOPED_TRACE(text);
      EXPECT_EQ(std::tuple(exception.name(), exception.reason(), exception.userInfo().size()),
                std::tuple("QVPlaylistFactoryException", noFormat, 2u));
      for (const auto& [key, reason] :
           {std::pair("DASHGeneratorError", dash), std::pair("SmoothStreamingGeneratorError", smooth)}) {
        const auto inner = std::any_cast<platform::Exception>(exception.userInfo().at(key));
        EXPECT_EQ(std::tuple(inner.name(), inner.reason()), std::tuple("QVPlaylistFactoryException", reason));
      }

      const auto error = QVPlaylistFactory::errorWithException(exception);
      EXPECT_EQ(std::tuple(error->domain().text(), error->code(), error->userInfo().size()),
                std::tuple("NSErrorQVDownloader", -101, 3u));
      for (const char* key :
           {"NSLocalizedDescription", "NSLocalizedFailureReason", "NSLocalizedRecoverySuggestion"})
        EXPECT_THAT(error->value<std::string>(key), Pointee(std::string(noFormat)));
      EXPECT_THAT(chain(error),
                  ElementsAre(noFormat, "as DASH: " + dash + "; as Smooth Streaming: " + smooth));
    }
}

TEST(PlaylistFactory, ADocumentIsJudgedAsWhatItsRootSays) {
  const std::string smooth = "<SmoothStreamingMedia MajorVersion='2'";
  const std::pair<std::string, const char*> texts[] = {
      {"<MPD mediaPresentationDuration='PT1S'/>", "as DASH: No Period found"},
      {smooth + "/>", "as Smooth Streaming: Can't retrieve required value MinorVersion"}};
  for (const auto& [text, cause] : texts)
    try {
      QVPlaylistFactory::generateWithData(data(text));
      ADD_FAILURE() << text;
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(chain(QVPlaylistFactory::errorWithException(exception)).back(), cause);
    }
  EXPECT_NO_THROW(QVPlaylistFactory::generateWithData(data(smooth + " MinorVersion='0' Duration='1'/>")));
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
  for (const std::string& text : {manifest, hollow}) {
    const auto outcome = fetched(200, text);
    EXPECT_EQ(textOf(outcome.data), text);
    EXPECT_EQ(outcome.error, nullptr);
    EXPECT_EQ(outcome.playlist ? outcome.playlist->url() : "none", text == manifest ? "" : "none");
  }
}

TEST_F(Fetching, WhatIsNoManifestSaysWhy) {
  const auto page = fetched(200, "<html/>");
  EXPECT_EQ(page.playlist, nullptr);
  EXPECT_EQ(textOf(page.data), "<html/>");
  EXPECT_THAT(chain(page.error), ElementsAre(noFormat, HasSubstr("Not a valid MPD")));

  for (const char* body : {"<html/>", ""}) {
    const auto error = fetched(404, body).error;
    ASSERT_TRUE(error && error->underlyingError());
    EXPECT_EQ(std::tuple(error->code(), error->userInfo().size()), std::tuple(-101, 3u));
    const auto cause = error->underlyingError();
    EXPECT_EQ(std::tuple(cause->domain().text(), cause->code()),
              std::tuple("QVDownloadHTTPErrorDomain", 404));
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
  const auto failed = outcome();
  EXPECT_EQ(failed.data, nullptr);
  EXPECT_EQ(failed.error, task->error()) << "a transfer's own error is handed on";
}

TEST_F(Fetching, WhatCannotBeFetchedFailsLater) {
  platform::TransferService::setDefaultService(nullptr);
  for (const auto& [target, code] : std::initializer_list<std::pair<std::string, std::int64_t>>{
           {"", platform::NSURLErrorBadURL},
           {"movies/m.mpd", platform::NSURLErrorUnsupportedURL},
           {url, platform::NSURLErrorResourceUnavailable}}) {
    SCOPED_TRACE(target);
    fetch(target);
    platform::SerialQueue::background().sync([] {});
    const auto failed = outcome();
    EXPECT_TRUE(failed.later && !failed.playlist && !failed.data);
    ASSERT_TRUE(failed.error);
    EXPECT_EQ(std::tuple(failed.error->domain(), failed.error->code()),
              std::tuple(platform::NSURLErrorDomain, code));
  }
}
