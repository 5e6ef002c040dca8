#include "tests/support/EntityResponse.h"

#include <algorithm>
#include <cstdio>

namespace support {

using platform::HTTPHeaders;

namespace {

struct ByteRange {
  std::size_t first = 0;
  std::size_t length = 0;
};

enum class RangeKind { None, Satisfiable, Unsatisfiable };

RangeKind parseRange(const ServerRequest& request, const Entity& entity, ByteRange& range) {
  const std::string text = request.header("Range");
  range = {0, entity.content.size()};
  if (text.find('-') == std::string::npos || text.find(',') != std::string::npos)
    return RangeKind::None;
  if (const std::string validator = request.header("If-Range");
      !validator.empty() && validator != (validator.ends_with('"') ? entity.etag : entity.lastModified))
    return RangeKind::None;
  const std::size_t total = entity.content.size();
  std::size_t first = 0, last = total == 0 ? 0 : total - 1, number = 0;
  if (std::sscanf(text.c_str(), "bytes=-%zu", &number) == 1)
    first = total - std::min(number, total);
  else if (const int found = std::sscanf(text.c_str(), "bytes=%zu-%zu", &first, &number); found < 1)
    return RangeKind::None;
  else if (found == 2)
    last = std::min(last, number);
  if (first >= total || last < first)
    return RangeKind::Unsatisfiable;
  range = {first, last - first + 1};
  return RangeKind::Satisfiable;
}

bool sendBody(ServerConnection& connection, std::string_view body, const Fault& fault) {
  const std::size_t limit = std::min(body.size(), fault.cutAfter.value_or(body.size()));
  const auto sendPart = [&](std::string_view part) {
    return part.empty() || (fault.chunked ? connection.sendChunk(part) : connection.send(part));
  };
  std::size_t sent = 0;
  if (fault.stallAfter) {
    sent = std::min(limit, *fault.stallAfter);
    if (!sendPart(body.substr(0, sent)) || !connection.wait(*fault.gate))
      return false;
  }
  if (!sendPart(body.substr(sent, limit - sent)) || fault.cutAfter)
    return false;
  return !fault.chunked || connection.sendChunk({});
}

} // namespace

void serveEntity(const Entity& entity, const Fault& fault, const ServerRequest& request,
                 ServerConnection& connection) {
  HTTPHeaders headers{{"Content-Type", entity.contentType}, {"Accept-Ranges", "bytes"}};
  if (!entity.etag.empty())
    headers["ETag"] = entity.etag;
  if (!entity.lastModified.empty())
    headers["Last-Modified"] = entity.lastModified;
  const std::string total = std::to_string(entity.content.size());

  ByteRange range{0, entity.content.size()};
  const RangeKind kind = fault.ignoreRange ? RangeKind::None : parseRange(request, entity, range);
  int status = 200;
  if (kind == RangeKind::Unsatisfiable) {
    status = 416;
    range = {};
    headers["Content-Range"] = "bytes */" + total;
  } else if (kind == RangeKind::Satisfiable) {
    status = 206;
    headers["Content-Range"] = "bytes " + std::to_string(range.first) + "-" +
                               std::to_string(range.first + range.length - 1) + "/" + total;
  }
  if (fault.contentRange)
    headers["Content-Range"] = *fault.contentRange;
  if (fault.chunked)
    headers["Transfer-Encoding"] = "chunked";
  else
    headers["Content-Length"] = std::to_string(range.length);
  for (const auto& [name, value] : fault.headers)
    headers[name] = value;

  if (!connection.sendHead(fault.status.value_or(status), headers) || request.method == "HEAD")
    return;
  const bool whole =
      sendBody(connection, std::string_view(entity.content).substr(range.first, range.length), fault);
  if (whole && !fault.closeAfter)
    return;
  if (fault.cutAfter && fault.cut == Fault::Cut::Reset)
    connection.reset();
  else
    connection.close();
}

} // namespace support
