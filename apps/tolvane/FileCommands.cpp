#include "apps/tolvane/FileCommands.h"

#include "apps/tolvane/Commands.h"
#include "apps/tolvane/Host.h"
#include "apps/tolvane/MediaFileCheck.h"
#include "apps/tolvane/Text.h"

#include "halvix/ContentName.h"
#include "halvix/DownloadRecord.h"
#include "halvix/ErrorDescription.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/URL.h"
#include "platform/transfer/URLSession.h"

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
  const auto session = platform::URLSession::sharedSession();
  if (!url || !url->isHTTP() || !session)
    throw Failure("'" + shown + "' is no address of a file; give an http or https URL", statusUsage);
  platform::URLRequest request(*url);
  request.setHTTPMethod("HEAD");
  for (const auto& [name, value] : headers)
    request.setValueForHTTPHeaderField(value, name);
  std::promise<std::pair<ResponseRef, platform::ErrorRef>> answer;
  const auto task =
      session->dataTaskWithRequest(request, [&answer](const platform::DataRef&, const ResponseRef& response,
                                                      const platform::ErrorRef& error) {
        answer.set_value({response, error});
      });
  task->resume();
  auto [response, error] = answer.get_future().get();
  if (error || !response)
    throw Failure(shown + ": " + halvix::describeError(error));
  if (response->statusCode() < 200 || response->statusCode() > 299)
    throw Failure(shown + ": the server answers with HTTP status " + std::to_string(response->statusCode()));
  return response;
}

std::int64_t lengthOf(const platform::HTTPURLResponse& response) {
  const auto text = response.valueForHTTPHeaderField("Content-Length");
  if (!text || text->empty() || text->size() > 18 ||
      text->find_first_not_of("0123456789") != std::string::npos)
    return -1;
  return std::stoll(*text);
}

std::optional<std::string> header(const platform::HTTPURLResponse& response, const char* name) {
  return response.valueForHTTPHeaderField(name);
}

} // namespace

int inspectFile(const std::string& source, const platform::HTTPHeaders& headers, halvix::ContentType type,
                bool asJSON) {
  const ResponseRef response = askForHead(source, headers);
  const std::int64_t bytes = lengthOf(*response);
  const auto disposition = header(*response, "Content-Disposition");
  const auto told = disposition ? halvix::fileNameFromContentDisposition(*disposition) : std::nullopt;
  const bool nameFits = halvix::contentTypeFromURL(source) == type;
  const std::string name = told && !nameFits ? halvix::contentFileName(*told, type)
                           : nameFits
                               ? halvix::contentFileNameFromURL(source, type)
                               : halvix::contentFileNameFromURL(response->url().absoluteString(), type);
  const bool marked = header(*response, "ETag") || header(*response, "Last-Modified");
  const bool ranges = header(*response, "Accept-Ranges").value_or("none") != "none";
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
    const std::int64_t bytes = lengthOf(*askForHead(download.url, headers));
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
