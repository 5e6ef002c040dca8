#include "TolvaneDownloader/DASHDownloader/Internal/QVMutableMovieDownloadProperties.h"
#include "platform/concurrency/Queue.h"
#include "platform/foundation/FileManager.h"
#include "qvc/Log.h"
#include "qvc/LogOutputAdapter.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <mutex>

using namespace testing;

namespace {

constexpr const char* jsonName = QVMovieDownloadProperties::defaultJSONName;

/// Keeps the messages of the process's log for a test.
class Messages : public qvc::debug::LogOutputAdapter {
public:
  void printString(const qvc::FastString&, const qvc::debug::LogEntry& entry) override {
    std::lock_guard lock(_lock);
    _messages.push_back(entry.message.toStdString());
  }

  bool printLogStartTime() override { return false; }

  std::vector<std::string> take() {
    std::lock_guard lock(_lock);
    return std::exchange(_messages, {});
  }

private:
  std::mutex _lock;
  std::vector<std::string> _messages;
};

class Properties : public Test {
protected:
  void SetUp() override {
    qvc::debug::Log::instance().removeAllOutputAdapters();
    qvc::debug::Log::instance().addOutputAdapter(log);
  }
  void TearDown() override { qvc::debug::Log::instance().removeAllOutputAdapters(); }

  std::shared_ptr<QVMutableMovieDownloadProperties> create(const std::string& manifestName = "manifest.mpd") {
    return QVMutableMovieDownloadProperties::propertiesWithSourceURL("http://h/m.mpd", directory,
                                                                     manifestName, jsonName);
  }

  std::shared_ptr<QVMutableMovieDownloadProperties> read() {
    return QVMovieDownloadProperties::propertiesWithLocalPath(directory, jsonName);
  }

  void store(const std::string& text) { temporary.write(jsonName, text); }
  std::string stored() { return support::readFile(temporary / jsonName); }

  support::TemporaryDirectory temporary;
  const std::string directory = temporary.path();
  std::shared_ptr<Messages> log = std::make_shared<Messages>();
};

} // namespace

TEST_F(Properties, EverySetterIsOnDiskAtOnce) {
  const auto properties = create();
  ASSERT_TRUE(properties);
  EXPECT_EQ(stored(),
            R"({"QVDownloadSetManifestName":"manifest.mpd","QVDownloadSetSourceURL":"http://h/m.mpd"})");
  EXPECT_EQ(properties->sourceURL(), "http://h/m.mpd");
  EXPECT_EQ(properties->localURL(), "file://" + directory + "/manifest.mpd");
  EXPECT_EQ(read()->numberOfDownloadedQualities(), 0u);
  EXPECT_EQ(read()->downloadedQualityIdentifiers(), std::nullopt);

  properties->setTitle("Ein Titel – \"✓\"");
  EXPECT_EQ(read()->title(), "Ein Titel – \"✓\"");
  properties->setTitle(std::nullopt);
  EXPECT_THAT(stored(), Not(HasSubstr("QVDownloadSetTitle")));

  properties->setNumberOfDownloadedQualities(4);
  properties->setNumberOfDownloadedVideoQualities(1);
  properties->setNumberOfDownloadedAudioQualities(2);
  properties->setNumberOfDownloadedTextQualities(3);
  properties->setDownloadedQualityIdentifiers({"b", "a"});
  properties->setObject({{"kept", true}}, "Other");
  auto again = read();
  EXPECT_EQ(again->numberOfDownloadedQualities(), 4u);
  EXPECT_EQ(again->numberOfDownloadedVideoQualities(), 1u);
  EXPECT_EQ(again->numberOfDownloadedAudioQualities(), 2u);
  EXPECT_EQ(again->numberOfDownloadedTextQualities(), 3u);
  EXPECT_THAT(*again->downloadedQualityIdentifiers(), ElementsAre("b", "a"));

  again->setDownloadedQualities(6, 1, 2, 3, {"x"});
  again = read();
  EXPECT_EQ(again->numberOfDownloadedQualities(), 6u);
  EXPECT_THAT(*again->downloadedQualityIdentifiers(), ElementsAre("x"));
  EXPECT_EQ(again->objectForKey("Other")->dump(), R"({"kept":true})");
  EXPECT_EQ(again->objectForKey("Missing"), std::nullopt);
  EXPECT_THAT(log->take(), IsEmpty());
}

TEST_F(Properties, AFileThatIsThereIsKept) {
  store(R"({"QVDownloadSetSourceURL":"http://other/","QVDownloadSetManifestName":"x y.mpd","Foreign":1})");
  const std::string before = stored();
  const auto properties = create();
  ASSERT_TRUE(properties);
  EXPECT_EQ(properties->sourceURL(), "http://other/");
  EXPECT_EQ(properties->localURL(), "file://" + directory + "/x%20y.mpd");
  EXPECT_EQ(stored(), before);
}

TEST_F(Properties, UnusableFiles) {
  EXPECT_EQ(read(), nullptr);
  EXPECT_THAT(log->take(), ElementsAre(StartsWith("Error: Failed to open JSON file for reading: ")));

  const std::string url = R"("QVDownloadSetSourceURL":"http://h/")";
  const std::string manifest = R"("QVDownloadSetManifestName":)";
  const std::pair<std::string, std::string> faults[] = {
      {"", "Error: Failed to read JSON file: "},
      {"{" + url, "Error: Failed to read JSON file: "},
      {std::string(100'000, '['), "Error: Failed to read JSON file: "},
      {"[1]", "Error: Failed to read JSON file: "},
      {"null", "Error: Failed to read JSON file: "},
      {"{" + manifest + R"("m.mpd"})", "Error: No source URL in JSON file"},
      {R"({"QVDownloadSetSourceURL":7,)" + manifest + R"("m.mpd"})", "Error: No source URL in JSON file"},
      {"{" + url + "}", "Error: No manifest name in JSON file"},
      {"{" + url + "," + manifest + "{}}", "Error: No manifest name in JSON file"},
      {"{" + url + "," + manifest + R"("../../etc/passwd"})", "Error: No manifest name in JSON file"},
      {"{" + url + "," + manifest + R"(".."})", "Error: No manifest name in JSON file"},
  };
  for (const auto& [text, message] : faults) {
    store(text);
    EXPECT_EQ(read(), nullptr) << text.substr(0, 80);
    EXPECT_EQ(create(), nullptr) << text.substr(0, 80);
    EXPECT_THAT(log->take(), ElementsAre(StartsWith(message), StartsWith(message))) << text.substr(0, 80);
    EXPECT_EQ(stored(), text) << "an unreadable file is left alone";
  }
}

TEST_F(Properties, MembersOfAWrongTypeCountAsAbsent) {
  store(
      R"({"QVDownloadSetSourceURL":"http://h/","QVDownloadSetManifestName":"m","QVDownloadSetTitle":[],)"
      R"("QVNumberOfDownloadedQualities":"3","QVNumberOfDownloadedVideoQualities":-1,)"
      R"("QVNumberOfDownloadedAudioQualities":18446744073709551615,"QVDownloadedQualityIdentifiers":["a",1]})");
  const auto properties = read();
  ASSERT_TRUE(properties);
  EXPECT_EQ(properties->title(), std::nullopt);
  EXPECT_EQ(properties->numberOfDownloadedQualities(), 0u);
  EXPECT_EQ(properties->numberOfDownloadedVideoQualities(), 0u);
  EXPECT_EQ(properties->numberOfDownloadedAudioQualities(), 0u);
  EXPECT_EQ(properties->downloadedQualityIdentifiers(), std::nullopt);
}

TEST_F(Properties, AFailedWriteIsLoggedAndMadeUpFor) {
  EXPECT_EQ(create("a/b.mpd"), nullptr);
  EXPECT_FALSE(platform::FileManager::fileExistsAtPath(temporary / jsonName));
  log->take();

  const auto properties = create();
  const std::string moved = directory + ".away";
  std::filesystem::rename(directory, moved);
  properties->setTitle("T");
  EXPECT_THAT(log->take(), ElementsAre(StartsWith("Error: Failed to open JSON file for writing: ")));
  EXPECT_EQ(properties->title(), "T");
  std::filesystem::rename(moved, directory);
  EXPECT_EQ(read()->title(), std::nullopt);

  properties->scheduleWriteJSON();
  properties->scheduleWriteJSON();
  platform::SerialQueue::background().sync([] {});
  EXPECT_FALSE(properties->writeQueued());
  EXPECT_EQ(read()->title(), "T");
  EXPECT_THAT(log->take(), IsEmpty());
}
