#pragma once

// What the tests of both formats need to look at the playlists that they give.

#include "TolvaneDownloader/DASHDownloader/Internal/QVAudioQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVMovie.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylist.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVPlaylistFactory.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVRangedURL.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTextQuality.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVTrack.h"
#include "TolvaneDownloader/DASHDownloader/Internal/QVVideoQuality.h"
#include "platform/foundation/Exception.h"

#include <gmock/gmock.h>

namespace binding {

using namespace testing;

inline platform::Data data(const std::string& text) {
  return {text.begin(), text.end()};
}

/// Why the factory raised an exception during `work`; "none" when it did not.
template <class Work> std::string reasonOf(Work&& work) {
  try {
    work();
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "QVPlaylistFactoryException");
    return exception.reason();
  }
  return "none";
}

inline std::string resolved(const QVResourceListRef& list, std::size_t index) {
  return list->at(index)->resolveURL()->absoluteString();
}

} // namespace binding
