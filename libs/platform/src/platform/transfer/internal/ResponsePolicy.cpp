#include "platform/transfer/internal/ResponsePolicy.h"

#include "platform/transfer/internal/Redirects.h"

#include <algorithm>

namespace platform::transfer {

namespace {

Decision restart(std::string reason) {
  Decision decision;
  decision.verdict = Verdict::Restart;
  decision.reason = std::move(reason);
  return decision;
}

Decision bodyAsReceived(Verdict verdict, const HTTPHeaders& headers) {
  Decision decision;
  decision.verdict = verdict;
  // A length beside a transfer coding means nothing.
  if (!headers.contains("Transfer-Encoding"))
    decision.bodyLength = parseLength(headerValue(headers, "Content-Length")).value_or(-1);
  decision.expectedTotal = decision.bodyLength;
  return decision;
}

Decision decidePartial(const Asked& asked, const HTTPHeaders& headers) {
  if (!asked.continues() && asked.ownRange.empty())
    return restart("the server sent a part although the whole was asked for");
  auto own = parseRange(asked.ownRange);
  if (!asked.ownRange.empty() && !own)
    return bodyAsReceived(Verdict::FromZero, headers); // several ranges: one multipart body
  auto got = parseContentRange(headerValue(headers, "Content-Range"));
  if (!got || got->first < 0)
    return restart("the server sent a part without telling which");

  const std::int64_t total = got->total;
  std::int64_t first = asked.base + asked.held, last = -1;
  if (!asked.continues())
    first = own->suffix >= 0 ? (total >= 0 ? std::max<std::int64_t>(0, total - own->suffix) : got->first)
                             : own->first;
  if (asked.end >= 0)
    last = asked.base + asked.end - 1;
  else if (own && own->last >= 0)
    last = total >= 0 ? std::min(own->last, total - 1) : got->last > own->last ? -2 : got->last;
  else
    last = total >= 0 ? total - 1 : got->last;
  if (got->first != first || got->last != last)
    return restart("the server sent another part than asked for");
  if (asked.continues() && asked.total >= 0 && total >= 0 && asked.total != total)
    return restart("the resource changed its length");
  if (asked.continues() && tagDiffers(asked.validators, headers))
    return restart("the resource changed");

  Decision decision;
  decision.verdict = asked.continues() ? Verdict::Append : Verdict::FromZero;
  decision.bodyLength = last - first + 1;
  auto length = parseLength(headerValue(headers, "Content-Length"));
  if (length && !headers.contains("Transfer-Encoding") && *length != decision.bodyLength)
    return restart("the server's lengths contradict each other");
  decision.expectedTotal = asked.end >= 0 ? expectedLength(asked) : asked.held + decision.bodyLength;
  decision.base = first - asked.held;
  decision.entityTotal = total >= 0 ? total : asked.continues() ? asked.total : -1;
  decision.resumable = asked.method == "GET";
  return decision;
}

Decision decideUnsatisfiable(const Asked& asked, const HTTPHeaders& headers) {
  auto got = parseContentRange(headerValue(headers, "Content-Range"));
  if (!got || got->total < 0 || asked.end >= 0)
    return restart("the server refused to go on");
  auto own = parseRange(asked.ownRange);
  std::int64_t end = own && own->last >= 0 ? std::min(own->last + 1, got->total) : got->total;
  if (end != asked.base + asked.held || (asked.total >= 0 && asked.total != got->total) ||
      tagDiffers(asked.validators, headers))
    return restart("the resource changed");
  Decision decision;
  decision.verdict = Verdict::HoldsAll;
  decision.bodyLength = 0;
  decision.expectedTotal = asked.held;
  decision.base = asked.base;
  decision.entityTotal = got->total;
  return decision;
}

Decision decideWhole(const Asked& asked, const HTTPHeaders& headers) {
  if (asked.continues() && !asked.byDate && asked.validators.hasStrongETag() &&
      !asked.validators.lastModified.empty() && headerValue(headers, "Accept-Ranges") != "none") {
    auto now = validatorsOf(headers);
    bool unchanged = now.etag.empty() ? now.lastModified == asked.validators.lastModified
                                      : now.etag == asked.validators.etag;
    if (unchanged && now.lastModified == asked.validators.lastModified) {
      Decision decision;
      decision.verdict = Verdict::AskByDate;
      return decision;
    }
  }
  auto decision = bodyAsReceived(Verdict::FromZero, headers);
  if (asked.method == "HEAD")
    decision.bodyLength = decision.expectedTotal = 0;
  decision.entityTotal = decision.bodyLength;
  // The whole in answer to the caller's range can not be continued by a part of that range.
  decision.resumable = asked.method == "GET" && asked.ownRange.empty();
  return decision;
}

} // namespace

bool tagDiffers(const Validators& held, const HTTPHeaders& headers) {
  auto now = validatorsOf(headers);
  if (!held.etag.empty() && !now.etag.empty())
    return held.etag != now.etag;
  return !held.lastModified.empty() && !now.lastModified.empty() && held.lastModified != now.lastModified;
}

bool provesParts(const Asked& asked, const HTTPHeaders& headers) {
  auto range = parseContentRange(headerValue(headers, "Content-Range"));
  if (!range || range->total < 0 || range->total != asked.total)
    return false;
  if (asked.validators.hasStrongETag())
    return headerValue(headers, "ETag") == asked.validators.etag;
  return !tagDiffers(asked.validators, headers);
}

Decision decide(const Asked& asked, const ResponseHead& head, std::chrono::seconds retryAfterLimit,
                std::time_t now) {
  const auto& headers = head.headers;
  if (isRedirect(head.status) && headers.contains("Location")) {
    Decision decision;
    decision.verdict = Verdict::Redirect;
    return decision;
  }
  switch (head.status) {
  case 200:
    return decideWhole(asked, headers);
  case 206:
    return decidePartial(asked, headers);
  case 401:
    if (auto offer = parseChallenge(headerValue(headers, "WWW-Authenticate"))) {
      auto decision = bodyAsReceived(Verdict::Challenge, headers);
      decision.challenge = std::move(*offer);
      return decision;
    }
    break;
  case 416:
    if (asked.continues())
      return decideUnsatisfiable(asked, headers);
    break;
  case 429:
  case 503:
    if (auto delay = parseRetryAfter(headerValue(headers, "Retry-After"), now);
        delay && *delay <= retryAfterLimit) {
      auto decision = bodyAsReceived(Verdict::Later, headers);
      decision.delay = *delay;
      return decision;
    }
    break;
  default:
    break;
  }
  auto decision = bodyAsReceived(Verdict::StatusBody, headers);
  if (head.status == 304 || head.status == 204 || asked.method == "HEAD")
    decision.bodyLength = decision.expectedTotal = 0;
  return decision;
}

std::string continuingRange(const Asked& asked) {
  auto own = parseRange(asked.ownRange);
  std::string range = "bytes=" + std::to_string(asked.base + asked.held) + "-";
  if (asked.end >= 0)
    range += std::to_string(asked.base + asked.end - 1);
  else if (own && own->last >= 0)
    range += std::to_string(own->last);
  return range;
}

std::int64_t expectedLength(const Asked& asked) {
  auto own = parseRange(asked.ownRange);
  if (asked.total < 0)
    return -1;
  std::int64_t end = own && own->last >= 0 ? std::min(own->last + 1, asked.total) : asked.total;
  return end - asked.base;
}

} // namespace platform::transfer
