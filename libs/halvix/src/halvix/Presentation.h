#pragma once

#include "halvix/QVError.h"
#include "halvix/Tracks.h"

#include "platform/transfer/URLRequest.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace halvix {

/// One movie of a presentation and what it offers.
struct PresentationMovie {
  double duration = -1; ///< seconds, negative unknown
  Tracks tracks;
};

/// What a content URL holds, described without making a download of it.
struct Presentation {
  std::string url;
  std::vector<PresentationMovie> movies;
  bool isLive = false; ///< still going on; what it lists is a part
};

/// What a downloader can implement besides `BaseDownloader`: telling what content offers, leaving no trace in
/// the library. Thread-safe.
class ContentInspector {
public:
  /// Called exactly once, from any thread: (presentation, null) or (null, error).
  using Completion = std::function<void(std::shared_ptr<const Presentation> presentation, QVErrorRef error)>;

  virtual ~ContentInspector() = default;

  /// `source` is an http or https URL, which is fetched with `headers`, or the path of a local file.
  virtual void inspectContent(const std::string& source, const platform::HTTPHeaders& headers,
                              Completion completion) = 0;
};

} // namespace halvix
