// The half of Transfer that reads responses: what a head means for what is held, and where body bytes go.

#include "platform/transfer/internal/Network.h"
#include "platform/transfer/internal/Session.h"
#include "platform/transfer/internal/Transfer.h"
#include "platform/transfer/internal/TransferErrors.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <unistd.h>
#include <utility>

namespace platform::transfer {

namespace {

using Clock = std::chrono::steady_clock;

// Delegates hear of progress this often at most.
constexpr std::chrono::milliseconds ReportInterval{50};
// After so many bytes the clock is looked at for that.
constexpr std::int64_t ReportStep = 1LL << 20;
// What a short transfer holds is not worth a description; one that lives longer gets one.
constexpr std::chrono::milliseconds FirstSync{250};

} // namespace

bool Transfer::exchangeHead(ResponseHead head) {
  auto decision = decide(_asked, head, _network.options().retryAfterLimit, std::time(nullptr));
  _decision = decision;
  return accept(std::move(decision), std::move(head));
}

bool Transfer::accept(Decision decision, ResponseHead head) {
  const auto& url = _hop.url;
  const auto status = decision.verdict == Verdict::HoldsAll ? 206 : head.status;
  _head = std::make_shared<const HTTPURLResponse>(url, status, head.headers);
  _sink = Sink::Nowhere;
  switch (decision.verdict) {
  case Verdict::Append:
  case Verdict::FromZero:
    return acceptBody(decision, head);
  case Verdict::StatusBody:
    return acceptStatus(decision, head);
  case Verdict::HoldsAll:
    _task.setResponse(_head, held(), held());
    _decision.bodyLength = -1; // the error text that came with it does not matter
    return true;
  case Verdict::Restart:
    return giveUpHeld(decision.reason);
  case Verdict::AskByDate:
    if (std::exchange(_dateTried, true)) {
      // Asked by date before: whatever this server does, it does not go on.
      _asked.byDate = true;
      _decision = decide(_asked, head, _network.options().retryAfterLimit, std::time(nullptr));
      return acceptBody(_decision, head);
    }
    _byDate = true;
    _next = Next::Again;
    return false;
  case Verdict::Redirect:
    return follow(head);
  case Verdict::Challenge:
    if (_hop.leftOrigin)
      return acceptStatus(decision, head);
    _next = Next::Challenge;
    _sink = _task.isDownload() ? Sink::Page : Sink::Memory;
    return true;
  case Verdict::Later:
    if (_tries >= _task.session()->configuration().retryLimit)
      return acceptStatus(decision, head);
    ++_tries;
    _next = Next::Delay;
    _nextDelay = decision.delay;
    return true;
  }
  return true;
}

/// A status that is not about the body itself. In answer to a further piece it may come of the number of
/// connections, or of a link that has expired: the body is not given up for it.
bool Transfer::acceptStatus(const Decision& decision, const ResponseHead& head) {
  if (isFurther()) {
    _pieces.limit();
    if (_pieces.isRunning()) {
      _next = Next::Rest;
      return true;
    }
    if (_tries < _task.session()->configuration().retryLimit) {
      _next = Next::Delay;
      _nextDelay = _network.options().retryDelay * (1LL << std::min(_tries++, 10));
      return true;
    }
  }
  return acceptBody(decision, head);
}

bool Transfer::acceptBody(const Decision& decision, const ResponseHead& head) {
  if (!_task.isDownload()) {
    _task.setResponse(_head, 0, decision.expectedTotal);
    const auto most = _task.session()->configuration().maximumDataLength;
    if (decision.bodyLength > most)
      return breakOff(urlError(NSURLErrorDataLengthExceedsMaximum, _task.request().url(),
                               "The answer is longer than the " + std::to_string(most) +
                                   " bytes that are taken into memory"));
    _sink = Sink::Memory;
    _memory = std::make_shared<Data>();
    if (decision.bodyLength > 0)
      _memory->reserve(static_cast<std::size_t>(decision.bodyLength));
    return true;
  }
  _mayServeParts = head.status == 206 || headerValue(head.headers, "Accept-Ranges") != "none";
  _announcesParts = head.status == 206 || headerValue(head.headers, "Accept-Ranges") == "bytes";
  if (decision.verdict == Verdict::Append) {
    _sink = Sink::Partial;
    _length = decision.expectedTotal;
    _responseEnd = _asked.held + decision.bodyLength;
    _own.end = std::min(_own.end, _responseEnd);
    _own.begun = true;
    auto validators = validatorsOf(head.headers);
    if (_description.validators.etag.empty())
      _description.validators.etag = validators.etag;
    if (decision.entityTotal >= 0)
      _description.total = decision.entityTotal;
    if (isFurther()) {
      // While the request was on its way, who fetched what lies before may have gone on over the piece.
      if (_own.left() > 0)
        return true;
      _next = Next::Piece;
      return false;
    }
    _nextSync = Clock::now() + FirstSync;
    showResponse(held());
    if (std::exchange(_announceResume, false))
      _task.session()->postResumed(_task.shared_from_this(), held(), decision.expectedTotal);
    return true;
  }
  if (decision.verdict == Verdict::FromZero && decision.resumable) {
    _announceResume = false;
    _length = decision.expectedTotal;
    _responseEnd = _length >= 0 ? _length : Piece::Open;
    _sink = Sink::Partial;
    _pieces.disown();
    _own = {0, _responseEnd, true};
    if (holdsVersionOf(decision, head)) {
      // The same bytes once more, because the server no longer sends parts of them.
      _askWhole = true;
      if (!isFurther())
        showResponse(held());
      return true;
    }
    _askWhole = _shown = false;
    if (_file)
      if (int failure = _file->clear())
        return breakOff(writeError(failure, _file->path(), decision.bodyLength));
    const auto& request = _task.request();
    _description = {};
    _description.method = request.HTTPMethod();
    _description.url = request.url().absoluteString();
    _description.range = _asked.ownRange;
    _description.validators = validatorsOf(head.headers);
    _description.base = decision.base;
    _description.total = decision.entityTotal;
    _resumable = true;
    _syncedLength = 0;
    _byDate = _dateTried = false;
    _nextSync = Clock::now() + FirstSync;
  } else {
    _sink = Sink::Page;
    // The resource itself, but in a form that is never continued: what was held of it is outdated.
    if (decision.verdict == Verdict::FromZero) {
      _pieces.disown();
      dropFile();
    }
  }
  showResponse(0);
  return true;
}

void Transfer::showResponse(std::int64_t held) {
  _shown = _sink == Sink::Partial;
  _lastReport = {};
  _task.setResponse(_head, held, _decision.expectedTotal);
}

/// A file with holes is worth more than the beginning of its whole.
bool Transfer::holdsVersionOf(const Decision& decision, const ResponseHead& head) const {
  if (!_file || !_file->isMapped() || decision.entityTotal < 0 ||
      decision.entityTotal != _description.total || decision.base != _description.base)
    return false;
  const auto& validators = _description.validators;
  return validators.hasStrongETag() ? headerValue(head.headers, "ETag") == validators.etag
                                    : validators.ifRange() && !tagDiffers(validators, head.headers);
}

bool Transfer::giveUpHeld(const std::string& reason) {
  if (_file && _file->isMapped() && !std::exchange(_askWhole, true)) {
    _pieces.disown();
    _next = Next::Again;
    return false;
  }
  if (std::exchange(_restarted, true))
    return breakOff(urlError(NSURLErrorBadServerResponse, _task.request().url(),
                             "The server's answer does not fit the request: " + reason));
  if (_file)
    if (int failure = _file->clear())
      return breakOff(writeError(failure, _file->path(), -1));
  _resumable = false;
  _announceResume = false;
  _next = Next::Again;
  return false;
}

bool Transfer::follow(const ResponseHead& head) {
  if (auto error =
          _hop.follow(head.status, headerValue(head.headers, "Location"), _visited, _task.request().url()))
    return breakOff(std::move(error));
  _next = Next::Redirect;
  return true;
}

bool Transfer::exchangeBody(const char* bytes, std::size_t count) {
  const auto size = static_cast<std::int64_t>(count);
  _got += size;
  if (_sink == Sink::Nowhere)
    return _got <= MostDrained;
  if (_decision.bodyLength >= 0 && _got > _decision.bodyLength)
    return breakOff(urlError(NSURLErrorBadServerResponse, _task.request().url(),
                             "The server sent more than it had announced"));
  if (_sink == Sink::Memory) {
    if (!_memory)
      _memory = std::make_shared<Data>();
    if (_got > _task.session()->configuration().maximumDataLength)
      return breakOff(urlError(NSURLErrorDataLengthExceedsMaximum, _task.request().url(),
                               "The answer is longer than what is taken into memory"));
    _memory->insert(_memory->end(), bytes, bytes + count);
    _task.setHeld(_got);
    return true;
  }
  if (_sink == Sink::Partial) {
    if (!storeOwn(bytes, count))
      return false;
  } else {
    if (_pageDescriptor < 0 && !openPage())
      return false;
    if (int failure = writePage(bytes, count))
      return breakOff(writeError(failure, _pagePath,
                                 _decision.bodyLength >= 0 ? _decision.bodyLength - _got + size : -1));
  }
  if (_next == Next::Challenge)
    return true; // the delegate may never see this page
  if (_sink == Sink::Page)
    _task.setHeld(_pageLength);
  return true;
}

void Transfer::wrote(std::int64_t count) {
  _task.setHeld(held());
  // A connection that is faster than this thread keeps it from its ticks.
  if ((_unreported += count) >= ReportStep) {
    _unreported = 0;
    reportProgress(Clock::now());
  }
}

bool Transfer::storeOwn(const char* bytes, std::size_t count) {
  if (!_file)
    openPartial();
  auto left = static_cast<std::int64_t>(count);
  for (std::int64_t taken = 0; left > 0; left -= taken, bytes += taken) {
    taken = std::min(left, _own.left());
    if (taken <= 0)
      return false;
    if (int failure = _file->write(_own.at, bytes, static_cast<std::size_t>(taken)))
      return breakOff(writeError(failure, _file->path(), _length >= 0 ? _length - held() : -1));
    _own.at += taken;
    wrote(taken);
    // Its end may have moved nearer than that of the response; what lies behind is somebody else's.
    if (_own.left() == 0 && _own.at < _responseEnd && !extendOwn()) {
      _next = Next::Piece;
      return false;
    }
  }
  if (_got == static_cast<std::int64_t>(count))
    considerSplitting();
  return true;
}

void Transfer::reportProgress(Clock::time_point now) {
  if (now - _lastReport < ReportInterval || !_task.hasUnreportedBytes() || !_task.claimProgressEvent())
    return;
  _lastReport = now;
  _task.session()->postProgress(_task.shared_from_this());
}

bool Transfer::breakOff(ErrorRef error) {
  _failure = std::move(error);
  return false;
}

void Transfer::openPartial() {
  _file =
      _network.store().create(PartialStore::keyOf(_description.method, _description.url, _description.range));
}

bool Transfer::openPage() {
  _pagePath = _network.store().newFinishedPath();
  int failure = 0;
  _pageDescriptor = _network.store().createFinished(_pagePath, &failure);
  _pageLength = 0;
  if (_pageDescriptor < 0)
    return breakOff(writeError(failure, _network.options().directory, _decision.bodyLength));
  return true;
}

int Transfer::writePage(const char* bytes, std::size_t count) {
  while (count > 0) {
    auto written = ::write(_pageDescriptor, bytes, count);
    if (written < 0 && errno == EINTR)
      continue;
    if (written < 0)
      return errno;
    bytes += written;
    count -= static_cast<std::size_t>(written);
    _pageLength += written;
  }
  return 0;
}

} // namespace platform::transfer
