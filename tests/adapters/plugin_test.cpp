#include "TolvaneDownloader/DASHDownloader/DashDownloader.h"
#include "TolvaneDownloader/DASHDownloader/DashDownloaderFactory.h"
#include "TolvaneDownloader/DownloaderPlugin.h"
#include "TolvaneDownloader/FileDownloader/FileDownloader.h"
#include "TolvaneDownloader/HLSDownloader/HLSDownloader.h"
#include "TolvaneDownloader/HLSDownloader/HLSDownloaderFactory.h"
#include "tests/adapters/AdapterFixture.h"

#include "halvix/Plugin.h"
#include "halvix/Session.h"

#include <gtest/gtest.h>

using namespace tests;
using halvix::ContentType;

namespace {

class Dispatchers : public halvix::QVPluginDispatchers {
public:
  std::shared_ptr<halvix::DownloaderDispatcherProtocol>
  createDownloaderDispatcher(const std::shared_ptr<halvix::Session>& session) override {
    made.push_back(session->identifier());
    last = std::make_shared<RecordingDispatcher>();
    return last;
  }
  std::vector<std::string> made;
  std::shared_ptr<halvix::DownloaderDispatcherProtocol> last;
};

} // namespace

TEST(Plugin, RegistersItsFactoriesAndHandsOutTheSharedDownloader) {
  support::TemporaryDirectory directory;
  auto service = std::make_shared<support::ScriptedTransferService>(directory.path());
  auto environment = openEnvironment(directory.path());
  environment->setTransferService(service);
  halvix::HostEnvironment::setDefault(environment);

  DownloaderPlugin plugin;
  auto dispatchers = std::make_shared<Dispatchers>();
  auto context =
      std::make_shared<halvix::QVPluginContext>(dispatchers, std::make_shared<halvix::ComponentRegistry>());
  plugin.pluginAttached(context);
  EXPECT_EQ(plugin.currentContext(), context);

  auto first = std::make_shared<halvix::Session>("first"),
       second = std::make_shared<halvix::Session>("second");
  for (ContentType other : {ContentType::hls, ContentType::mp4, ContentType::mp3})
    EXPECT_FALSE(DashDownloaderFactory(dispatchers).canDownload(other));
  auto downloader = context->components()->downloader(first, ContentType::dash);
  EXPECT_EQ(downloader, plugin.dashDownloader());
  EXPECT_EQ(context->components()->downloader(second, ContentType::dash), downloader);
  EXPECT_EQ(dispatchers->made, (std::vector<std::string>{"first", "second"}));
  EXPECT_EQ(downloader->dispatcher(), dispatchers->last) << "the last session that asked gets the events";
  for (ContentType file : {ContentType::mp4, ContentType::mp3})
    EXPECT_EQ(context->components()->downloader(first, file), plugin.fileDownloader());
  for (ContentType other : {ContentType::dash, ContentType::mp4, ContentType::mp3})
    EXPECT_FALSE(HLSDownloaderFactory(dispatchers).canDownload(other));
  auto hls = context->components()->downloader(first, ContentType::hls);
  EXPECT_EQ(hls, plugin.hlsDownloader());
  EXPECT_TRUE(hls->canDownload(halvix::PlayerConfiguration{"http://h/a", ContentType::hls, ""}));
  EXPECT_FALSE(hls->canDownload(halvix::PlayerConfiguration{"http://h/a", std::nullopt, ""}));
  EXPECT_TRUE(context->components()->factories()[0]->canDownload(ContentType::hls))
      << "in the order in which they are asked";
  plugin.pluginDetached();
  EXPECT_NE(context->components()->factory(ContentType::dash, first), nullptr)
      << "detaching releases nothing";
  halvix::HostEnvironment::setDefault(nullptr);
}
