#include "TolvaneDownloader/DASHDownloader/Internal/QVMutableMovieDownloadProperties.h"
#include "platform/concurrency/Queue.h"
#include "platform/foundation/FileManager.h"
#include "tests/qvc/CapturedLog.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <filesystem>

using namespace testing;

namespace {

constexpr const char* jsonName = QVMovieDownloadProperties::defaultJSONName;

class Properties : public Test {
protected:
  std::shared_ptr<QVMutableMovieDownloadProperties> create(const std::string& manifestName = "manifest.mpd") {
    return QVMutableMovieDownloadProperties::propertiesWithSourceURL("http://h/m.mpd", directory,
                                                                     manifestName, jsonName);
  }

  std::shared_ptr<QVMutableMovieDownloadProperties> read() {
    return QVMovieDownloadProperties::propertiesWithLocalPath(directory, jsonName);
  }

  /// All, video, audio and text qualities.
  static std::vector<std::size_t> counts(const QVMovieDownloadProperties& properties) {
    return {properties.numberOfDownloadedQualities(), properties.numberOfDownloadedVideoQualities(),
            properties.numberOfDownloadedAudioQualities(), properties.numberOfDownloadedTextQualities()};
  }
  void store(const std::string& text) { temporary.write(jsonName, text); }
  std::string stored() { return support::readFile(temporary / jsonName); }

  /// What was logged since the last time.
  std::vector<std::string> logged() {
    std::vector<std::string> messages;
    for (; seen < log.entries().size(); ++seen)
      messages.push_back(log.entries()[seen].message.toStdString());
    return messages;
  }

  support::TemporaryDirectory temporary;
  const std::string directory = temporary.path();
  qvc::debug::CapturedLog log;
  std::size_t seen = 0;
};

} // namespace

TEST_F(Properties, EverySetterIsOnDiskAtOnce) {
  const auto properties = create();
  ASSERT_TRUE(properties);
  EXPECT_EQ(stored(),
            R"({"QVDownloadSetManifestName":"manifest.mpd","QVDownloadSetSourceURL":"http://h/m.mpd"})");
  EXPECT_EQ(properties->sourceURL(), "http://h/m.mpd");
  EXPECT_EQ(properties->localURL(), "file://" + directory + "/manifest.mpd");
  EXPECT_THAT(counts(*read()), Each(0u));
  EXPECT_EQ(read()->downloadedQualityIdentifiers(), std::nullopt);

  properties->setTitle("Ein Titel – \"✓\"");
  EXPECT_EQ(read()->title(), "Ein Titel – \"✓\"");
  properties->setTitle(std::nullopt);
  EXPECT_THAT(stored(), Not(HasSubstr("QVDownloadSetTitle")));

  properties->setObject({{"kept", true}}, "Other");
  properties->setDownloadedQualities(6, 1, 2, 3, {"b", "a"});
  const auto again = read();
  EXPECT_THAT(counts(*again), ElementsAre(6, 1, 2, 3));
  EXPECT_THAT(*again->downloadedQualityIdentifiers(), ElementsAre("b", "a"));
  EXPECT_EQ(again->objectForKey("Other")->dump(), R"({"kept":true})");
  EXPECT_EQ(again->objectForKey("Missing"), std::nullopt);
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(Properties, UnusableFiles) {
  EXPECT_EQ(read(), nullptr);
  EXPECT_THAT(logged(), ElementsAre(StartsWith("Error: Failed to open JSON file for reading: ")));

  const std::string url = R"("QVDownloadSetSourceURL":"http://h/")";
  const std::string manifest = R"("QVDownloadSetManifestName":)";
  const std::pair<const char*, std::vector<std::string>> faults[] = {
      {"Error: Failed to read JSON file: ", {"", "{" + url, std::string(100'000, '['), "[1]", "null"}},
      {"Error: No source URL in JSON file",
       {"{" + manifest + R"("m.mpd"})", R"({"QVDownloadSetSourceURL":7,)" + manifest + R"("m.mpd"})"}},
      {"Error: No manifest name in JSON file",
       {"{" + url + "}", "{" + url + "," + manifest + "{}}",
        "{" + url + "," + manifest + R"("../../etc/passwd"})", "{" + url + "," + manifest + R"(".."})"}}};
  for (const auto& [message, texts] : faults)
    for (const std::string& text : texts) {
      SCOPED_TRACE(text.substr(0, 80));
      store(text);
      EXPECT_EQ(read(), nullptr);
      EXPECT_EQ(create(), nullptr);
      EXPECT_THAT(logged(), ElementsAre(StartsWith(message), StartsWith(message)));
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
  EXPECT_THAT(counts(*properties), Each(0u));
  EXPECT_EQ(properties->downloadedQualityIdentifiers(), std::nullopt);
}

TEST_F(Properties, AFailedWriteIsLoggedAndMadeUpFor) {
  EXPECT_EQ(create("a/b.mpd"), nullptr);
  EXPECT_FALSE(platform::FileManager::fileExistsAtPath(temporary / jsonName));
  logged();

  const auto properties = create();
  const std::string moved = directory + ".away";
  std::filesystem::rename(directory, moved);
  properties->setTitle("T");
  EXPECT_THAT(logged(), ElementsAre(StartsWith("Error: Failed to open JSON file for writing: ")));
  EXPECT_EQ(properties->title(), "T");
  std::filesystem::rename(moved, directory);
  EXPECT_EQ(read()->title(), std::nullopt);

  properties->scheduleWriteJSON();
  properties->scheduleWriteJSON();
  platform::SerialQueue::background().sync([] {});
  EXPECT_FALSE(properties->writeQueued());
  EXPECT_EQ(read()->title(), "T");
  EXPECT_THAT(logged(), IsEmpty());
}
