#include "platform/transfer/internal/Transfer.h"

#include "platform/transfer/internal/DiskPool.h"
#include "platform/transfer/internal/Network.h"
#include "platform/transfer/internal/Session.h"
#include "platform/transfer/internal/TransferErrors.h"

#include <curl/curl.h>

#include <algorithm>
#include <utility>

namespace platform::transfer {

namespace {

using Clock = std::chrono::steady_clock;

// A connection that had idled may have been closed while the request was on its way.
constexpr int MostFreeTries = 5;
// A power failure costs about this much of a transfer.
constexpr std::chrono::milliseconds SyncInterval{1000};

} // namespace

Transfer::Transfer(TaskState& task, Network& network)
    : _task(task), _network(network), _hop(firstHop()),
      _pieces(network, task.shared_from_this(), *this, _plan) {}

Transfer::~Transfer() {
  _exchange.reset();
  dropPage();
}

void Transfer::reconcile() {
  if (_phase == Phase::Preparing || _phase == Phase::Storing || _phase == Phase::Ended)
    return; // their end looks again
  const auto wanted = _task.wanted();
  if (wanted == Wanted::Run) {
    if (_phase == Phase::Idle)
      prepare();
    return;
  }
  stopExchange();
  switch (wanted) {
  case Wanted::Run:
    break;
  case Wanted::Suspend:
    suspendNow();
    break;
  case Wanted::Cancel:
    if (!_parkedName.empty() || !_task.partialToTake.empty()) {
      auto name = std::exchange(_parkedName, {});
      if (name.empty())
        name = _task.partialToTake;
      _phase = Phase::Storing;
      onDisk(
          [&store = _network.store(), name, owner = _task.session()->owner()] { store.discard(name, owner); },
          [](Transfer& self) { self.end({cancelledError(self._task.request().url())}); });
      break;
    }
    dropFile();
    end({cancelledError(_task.request().url())});
    break;
  case Wanted::CancelKeep:
    keepAndEnd(cancelledError(_task.request().url()), true);
    break;
  case Wanted::Stop:
    keepAndEnd(cancelledError(_task.request().url()), !_task.session()->isBackground());
    break;
  }
}

void Transfer::onDisk(std::function<void()> work, std::function<void(Transfer&)> then) {
  // The task's reference keeps this object; the loop drops it only after the answer.
  auto task = _task.shared_from_this();
  _network.disk().add([&network = _network, task = std::move(task), work = std::move(work),
                       then = std::move(then)]() mutable {
    work();
    work = nullptr;
    network.post([task = std::move(task), then = std::move(then)] {
      if (task->transfer)
        then(*task->transfer);
    });
  });
}

void Transfer::later(std::function<void(Transfer&)> work) {
  _network.post([task = _task.shared_from_this(), work = std::move(work)] {
    if (task->transfer)
      work(*task->transfer);
  });
}

int Transfer::cap() const {
  return std::max(1, _task.session()->configuration().HTTPMaximumConnectionsPerHost);
}

// ---- Start

void Transfer::prepare() {
  if (_task.startError) {
    end({_task.startError});
    return;
  }
  _visited.clear();
  _plan.release(_own);
  _askWhole = _shown = false;
  const auto& request = _task.request();
  if (!_task.isDownload() || _file) {
    attempt();
    return;
  }
  auto range = request.valueForHTTPHeaderField("Range").value_or("");
  auto name = !_parkedName.empty() ? std::exchange(_parkedName, {}) : std::exchange(_task.partialToTake, {});
  auto& store = _network.store();
  const auto url = request.url().absoluteString();
  const bool mayAdopt = request.HTTPMethod() == "GET";
  if (!mayAdopt || (name.empty() && !store.mayHoldOrphan(request.HTTPMethod(), url, range))) {
    attempt();
    return;
  }
  _phase = Phase::Preparing;
  auto found = std::make_shared<std::pair<std::optional<Claim>, bool>>();
  onDisk(
      [&store, found, name, url, range, method = request.HTTPMethod(), owner = _task.session()->owner(),
       task = _task.identifier()] {
        if (!name.empty())
          found->first = store.reclaim(name, owner, method, url, range);
        found->second = found->first.has_value();
        if (!found->first)
          found->first = store.adopt(method, url, range, owner, task);
      },
      [found](Transfer& self) { self.prepared(std::move(found->first), found->second); });
}

void Transfer::prepared(std::optional<Claim> claim, bool named) {
  _phase = Phase::Idle;
  if (claim) {
    // Going on with bytes of one's own is nothing to tell of; bytes from elsewhere are.
    _announceResume = !named || claim->description.taskIdentifier != _task.identifier() ||
                      claim->description.owner != _task.session()->owner();
    _file = std::move(claim->file);
    _description = std::move(claim->description);
    _resumable = true;
    _syncedLength = 0;
    _task.setPartial(_file->name());
  }
  if (_task.wanted() == Wanted::Run)
    attempt();
  else
    reconcile();
}

void Transfer::attempt() {
  if (!choosePiece())
    return;
  _hop = firstHop();
  _visited.clear();
  ask();
}

void Transfer::ask() {
  const auto& url = _hop.url;
  if (!url.isHTTP()) {
    fail(errorForCurlCode(CURLE_UNSUPPORTED_PROTOCOL, url, ""));
    return;
  }
  if (url.host().value_or("").empty()) {
    fail(urlError(NSURLErrorBadURL, url, "The URL names no server"));
    return;
  }
  _visited.insert(_hop.key());
  _placeOrigin = originOf(url);
  _phase = Phase::Waiting;
  _network.askForPlace(_task.shared_from_this(), _placeOrigin, cap());
}

void Transfer::placeGranted() {
  _phase = Phase::Active;
  _decision = {};
  _head = nullptr;
  _sink = Sink::None;
  _next = Next::Finish;
  _got = 0;
  _failure = nullptr;
  _exchange = std::make_unique<Exchange>(_network, _task.shared_from_this(), *this, makeRequest());
  _network.start(*_exchange);
}

std::optional<std::string> Transfer::ifRange() const {
  return _byDate ? _description.validators.lastModified : _description.validators.ifRange();
}

Exchange::Request Transfer::plainRequest(const Hop& hop, Asked& asked) const {
  Exchange::Request request{
      hop.url, hop.method,
      headersFor(hop, _task.request(), _task.session()->configuration().HTTPAdditionalHeaders)};
  if (!hop.leftOrigin) {
    request.credential = _credential;
    request.scheme = _credentialScheme;
  }
  asked = {};
  asked.method = hop.method;
  asked.ownRange = headerValue(request.headers, "Range");
  return request;
}

void Transfer::askForPart(Exchange::Request& request, Asked& asked, std::int64_t from,
                          std::int64_t end) const {
  asked.base = _description.base;
  asked.total = _description.total;
  asked.validators = _description.validators;
  asked.byDate = _byDate;
  asked.held = from;
  asked.end = end;
  request.headers["Range"] = continuingRange(asked);
  request.headers["If-Range"] = *ifRange();
}

Exchange::Request Transfer::makeRequest() {
  auto request = plainRequest(_hop, _asked);
  if (held() > 0 && (!_resumable || !ifRange() || _hop.method != "GET"))
    _file->setHeld({});
  if (_askWhole || (held() == 0 && !_pieces.isRunning())) {
    _own = {0, Piece::Open, false};
    return request;
  }
  askForPart(request, _asked, _own.at, _own.end < _length ? _own.end : -1);
  return request;
}

// ---- End of an exchange

void Transfer::stopOwn() {
  ++_ticket;
  if (_exchange || _phase == Phase::Waiting) {
    if (_phase == Phase::Active)
      _network.giveBackPlace(_placeOrigin, cap());
    _exchange.reset();
  }
  dropPage();
  _memory.reset();
  _phase = Phase::Idle;
}

void Transfer::stopExchange() {
  stopOwn();
  _pieces.stop();
}

void Transfer::exchangeFinished(int code, bool onReusedConnection, const std::string& detail) {
  const auto url = _hop.url;
  const bool hadHead = _exchange->hasHead();
  _network.giveBackPlace(_placeOrigin, cap());
  _exchange.reset();
  _phase = Phase::Idle;
  if (!_pieces.isStarted())
    _pieces.stop();
  if (_failure) {
    fail(std::exchange(_failure, nullptr));
    return;
  }
  switch (_next) {
  case Next::Again:
    attempt();
    return;
  case Next::Redirect:
    ask();
    return;
  case Next::Delay:
    delay(_nextDelay);
    return;
  case Next::Piece:
    goOn();
    return;
  case Next::Rest:
    if (_pieces.isRunning())
      _phase = Phase::Resting;
    else
      attempt();
    return;
  case Next::Challenge:
  case Next::Finish:
    break;
  }
  if (hadHead && _decision.verdict == Verdict::HoldsAll)
    code = CURLE_OK;
  if (code == CURLE_OK && _decision.bodyLength >= 0 && _got != _decision.bodyLength)
    code = CURLE_PARTIAL_FILE;
  if (code == CURLE_OK && !hadHead)
    code = CURLE_WEIRD_SERVER_REPLY;
  if (code == CURLE_OK) {
    if (_next == Next::Challenge)
      askDelegate();
    else
      finishBody();
    return;
  }
  dropPage();
  // Neither does what an earlier response had left behind on the connection count against this one.
  if (code == CURLE_UNSUPPORTED_PROTOCOL)
    code = CURLE_WEIRD_SERVER_REPLY;
  if (!hadHead && onReusedConnection && (isTransientCurlCode(code) || code == CURLE_WEIRD_SERVER_REPLY) &&
      _freeTries < MostFreeTries) {
    ++_freeTries;
    attempt();
    return;
  }
  auto error = errorForCurlCode(code, url, detail);
  if (isTransientCurlCode(code))
    tryAgainOrFail(std::move(error));
  else
    fail(std::move(error));
}

void Transfer::tryAgainOrFail(ErrorRef error) {
  if (_tries >= _task.session()->configuration().retryLimit) {
    fail(std::move(error));
    return;
  }
  delay(_network.options().retryDelay * (1LL << std::min(_tries, 10)));
  ++_tries;
}

void Transfer::delay(std::chrono::milliseconds time) {
  _phase = Phase::Delaying;
  const auto ticket = ++_ticket;
  _network.after(time, [task = _task.weak_from_this(), ticket] {
    auto live = task.lock();
    if (live && live->transfer && live->transfer->_ticket == ticket &&
        live->transfer->_phase == Phase::Delaying)
      live->transfer->attempt();
  });
}

void Transfer::askDelegate() {
  _phase = Phase::Challenged;
  const auto ticket = ++_ticket;
  AuthenticationChallenge challenge;
  challenge.host = _hop.url.host().value_or("");
  challenge.realm = _decision.challenge.realm;
  challenge.scheme = _decision.challenge.scheme;
  challenge.previousFailureCount = _refusals;
  auto session = _task.session();
  auto answer = [session, weak = _task.weak_from_this(), ticket](AuthChallengeDisposition disposition,
                                                                 std::optional<URLCredential> credential) {
    session->runOnNetwork([weak, ticket, disposition, credential = std::move(credential)] {
      auto task = weak.lock();
      auto* self = task ? task->transfer.get() : nullptr;
      if (!self || self->_ticket != ticket || self->_phase != Phase::Challenged)
        return;
      self->_phase = Phase::Idle;
      if (disposition == AuthChallengeDisposition::UseCredential && credential) {
        ++self->_refusals;
        self->_credential = credential;
        self->_credentialScheme = self->_decision.challenge.scheme;
        self->dropPage();
        self->_memory.reset();
        self->attempt();
      } else if (disposition == AuthChallengeDisposition::CancelAuthenticationChallenge) {
        self->dropPage();
        self->fail(
            urlError(NSURLErrorCancelled, self->_task.request().url(), "The authentication was cancelled"));
      } else {
        self->_task.setResponse(self->_head, self->_pageLength, self->_decision.expectedTotal);
        self->finishBody();
      }
    });
  };
  session->postChallenge(_task.shared_from_this(), std::move(challenge), std::move(answer));
}

// ---- Upkeep

void Transfer::tick(Clock::time_point now) {
  if (std::exchange(_lastTick, now) == now)
    return; // one call for each exchange
  if (_phase == Phase::Active && now - std::max(_exchange->lastActivity(), _pieces.lastActivity()) >
                                     _task.session()->configuration().timeoutIntervalForRequest) {
    stopExchange();
    fail(errorForCurlCode(CURLE_OPERATION_TIMEDOUT, _hop.url, ""));
    return;
  }
  _pieces.tick(now);
  const bool toFile = (_phase == Phase::Active && _sink == Sink::Partial) || _pieces.isRunning();
  if (toFile || (_phase == Phase::Active && _sink == Sink::Page))
    reportProgress(now);
  if (toFile && _file && _file->failure() != 0) {
    stopExchange();
    const int failure = _file->failure();
    _file->dropUnwritten();
    fail(writeError(failure, _file->path(), _length >= 0 ? _length - held() : -1));
    return;
  }
  if (!toFile || !_file || !_resumable || _syncing || now < _nextSync || held() == _syncedLength)
    return;
  _file->handOver();
  _syncing = true;
  const auto length = held();
  onDisk([file = _file, description = describe(false),
          generation = _file->generation()] { file->syncAndDescribe(description, generation); },
         [length](Transfer& self) {
           self._syncing = false;
           if (self._file)
             self._task.setPartial(self._file->name());
           self._syncedLength = length;
           self._nextSync = Clock::now() + SyncInterval;
         });
}

} // namespace platform::transfer
