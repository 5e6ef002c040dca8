#include "apps/tolvane/FileCommands.h"

#include "apps/tolvane/Commands.h"
#include "apps/tolvane/Host.h"
#include "apps/tolvane/MediaFileCheck.h"
#include "apps/tolvane/Text.h"

#include "halvix/ContentName.h"
#include "halvix/DownloadRecord.h"
#include "halvix/ErrorDescription.h"
#include "halvix/ResourceHead.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/URL.h"

#include <cstdint>
#include <cstdio>
#include <future>
#include <nlohmann/json.hpp>
#include <optional>

namespace tolvane {
namespace {

using nlohmann::json;

using ResponseRef = std::shared_ptr<const platform::HTTPURLResponse>;

/// The head of the file's response. Throws Failure, also for a status that is none of a file.
ResponseRef askForHead(const std::string& source, const platform::HTTPHeaders& headers) {
  const std::string shown = halvix::urlForDisplay(source);
  const auto url = platform::URL::URLWithString(source);
  if (!url || !url->isHTTP())
    throw Failure("'" + shown + "' is no address of a file; give an http or https URL", statusUsage);
  std::promise<std::pair<ResponseRef, platform::ErrorRef>> answer;
  halvix::requestResourceHead(*url, headers, nullptr,
                              [&answer](const ResponseRef& response, const platform::ErrorRef& error) {
                                answer.set_value({response, error});
                              });
  auto [response, error] = answer.get_future().get();
  if (!response)
    throw Failure(shown + ": " + halvix::describeError(error));
  return response;
}

std::optional<std::string> header(const platform::HTTPURLResponse& response, const char* name) {
  return response.valueForHTTPHeaderField(name);
}

} // namespace

int inspectFile(const std::string& source, const platform::HTTPHeaders& headers, halvix::ContentType type,
                bool asJSON) {
  const ResponseRef response = askForHead(source, headers);
  const std::int64_t bytes = halvix::resourceLength(*response).value_or(-1);
  const std::string name = halvix::contentFileNameFromResponse(*response, source, type);
  const bool marked = header(*response, "ETag") || header(*response, "Last-Modified");
  const bool ranges =
      response->statusCode() == 206 || header(*response, "Accept-Ranges").value_or("none") != "none";
  if (asJSON) {
    const json object = {{"url", source},
                         {"contentType", halvix::rawValue(type)},
                         {"name", name},
                         {"bytes", bytes < 0 ? json() : json(bytes)},
                         {"resumable", marked && ranges}};
    std::printf("%s\n", object.dump(1, ' ', false, json::error_handler_t::replace).c_str());
    return statusDone;
  }
  std::printf("file %s\n  %s, %s\n", oneLine(name).c_str(), halvix::rawValue(type).c_str(),
              bytes < 0 ? "size unknown" : bytesText(bytes).c_str());
  std::printf("  %s\n", marked && ranges ? "an interrupted download goes on where it stopped"
                        : marked ? "the server does not say that it serves parts of files, so an interrupted "
                                   "download may have to start again"
                                 : "the server does not tell versions of the file apart, so an interrupted "
                                   "download starts again");
  return statusDone;
}

int verifyFile(const halvix::DownloadSummary& download, bool withOrigin,
               const platform::HTTPHeaders& headers) {
  if (download.state != halvix::DownloadState::success || !download.localPath) {
    std::printf("the download is not complete; its state is %s\n", halvix::rawValue(download.state).c_str());
    std::printf("verified: NOT whole\n");
    return statusFailed;
  }
  const std::string& path = *download.localPath;
  std::string fault;
  const auto attributes = platform::FileManager::attributesOfItemAtPath(path);
  if (!attributes || attributes->type != platform::FileAttributes::Type::Regular)
    fault = "is missing";
  else if (attributes->size != download.downloadedBytes)
    fault = "has " + std::to_string(attributes->size) + " of " + std::to_string(download.downloadedBytes) +
            " bytes";
  else
    fault = mediaFileFault(path);
  const bool whole = fault.empty();
  std::printf("%s  %s\n", whole ? "whole     " : "damaged   ", oneLine(path).c_str());
  if (whole)
    std::printf("    %lld bytes, as many as the server sent\n", static_cast<long long>(attributes->size));
  else
    std::printf("    %s\n", fault.c_str());

  bool same = true;
  if (withOrigin) {
    const ScratchHost scratch;
    const std::int64_t bytes = halvix::resourceLength(*askForHead(download.url, headers)).value_or(-1);
    same = bytes < 0 || bytes == download.downloadedBytes;
    if (bytes < 0)
      std::printf("    the server does not tell the length of its file\n");
    else if (same)
      std::printf("    the server's file has the same length\n");
    else
      std::printf("    the server's file has %lld bytes now: it is another version\n",
                  static_cast<long long>(bytes));
  }
  std::printf("%s\n", !whole  ? "verified: NOT whole; 'tolvane remove' and 'tolvane download' fetch it again"
                      : !same ? "verified: whole, but not what the server has now"
                              : "verified: everything is whole");
  return whole && same ? statusDone : statusFailed;
}

} // namespace tolvane
