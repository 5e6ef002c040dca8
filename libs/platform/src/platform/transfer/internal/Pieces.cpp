#include "platform/transfer/internal/Pieces.h"

#include "platform/transfer/internal/Network.h"
#include "platform/transfer/internal/Session.h"

#include <curl/curl.h>

#include <algorithm>
#include <ctime>
#include <utility>

namespace platform::transfer {

namespace {

using Clock = std::chrono::steady_clock;

bool turnsAway(int status) {
  return status == 403 || status == 408 || status == 429 || status >= 500;
}

} // namespace

/// One connection.
class Pieces::Fetch final : public Exchange::Listener {
public:
  explicit Fetch(Pieces& pieces) : origin(pieces._origin), _pieces(pieces) {}

  void start(TaskStateRef task) {
    _from = piece.at;
    auto request = _pieces._owner.requestForPiece(piece, _asked);
    request.ownConnection = true;
    _exchange = std::make_unique<Exchange>(_pieces._network, std::move(task), *this, request);
    _pieces._network.start(*_exchange);
  }
  Clock::time_point lastActivity() const { return _exchange->lastActivity(); }

  bool exchangeHead(ResponseHead head) override {
    const auto decision = decide(_asked, head, std::chrono::seconds(0), std::time(nullptr));
    if (decision.verdict == Verdict::Append && provesParts(_asked, head.headers)) {
      _responseEnd = piece.at + decision.bodyLength;
      _pieces._proven = _accepted = piece.begun = true;
    } else {
      _refused = turnsAway(head.status);
    }
    return _accepted && piece.left() > 0; // somebody may have come to it first
  }

  bool exchangeBody(const char* bytes, std::size_t count) override {
    auto left = static_cast<std::int64_t>(count);
    for (std::int64_t taken = 0; left > 0; left -= taken, bytes += taken) {
      taken = std::min(left, piece.left());
      if (isDisowned || taken <= 0 ||
          !_pieces._owner.storePiece(piece.at, bytes, static_cast<std::size_t>(taken)))
        return false;
      piece.at += taken;
      if (piece.left() == 0 && piece.at < _responseEnd)
        _pieces._plan.extend(piece, _pieces._owner.heldRanges(), _pieces._length, _responseEnd,
                             _pieces.most());
    }
    // Its end may have moved nearer than that of the response; what lies behind is somebody else's.
    return piece.left() > 0 || piece.at == _responseEnd;
  }

  void exchangeFinished(int code, bool onReusedConnection, const std::string&) override {
    _exchange.reset();
    const bool gained = piece.at > _from;
    auto how = piece.left() <= 0 ? End::Done : End::Broken;
    if (!_accepted && code != CURLE_OK && code != CURLE_WRITE_ERROR)
      how = onReusedConnection ? End::Broken : End::Refused; // an idle connection may have been closed
    else if (!_accepted)
      how = _refused ? End::Refused : End::Useless;
    else if (code == CURLE_WEIRD_SERVER_REPLY)
      how = End::Useless;
    else if (!gained && how == End::Broken)
      how = End::Refused;
    _pieces.ended(*this, how);
  }

  Piece piece;
  const std::string origin;
  bool isDisowned = false;

private:
  Pieces& _pieces;
  std::int64_t _from = 0;
  std::int64_t _responseEnd = 0;
  Asked _asked;
  std::unique_ptr<Exchange> _exchange;
  bool _accepted = false;
  bool _refused = false;
};

Pieces::Pieces(Network& network, TaskStateRef task, Owner& owner, SplitPlan& plan)
    : _network(network), _task(task), _owner(owner), _plan(plan) {}

Pieces::~Pieces() {
  stop();
}

int Pieces::cap() const {
  auto task = _task.lock();
  return task ? std::max(1, task->session()->configuration().HTTPMaximumConnectionsPerHost) : 1;
}

void Pieces::start(const std::string& origin, std::int64_t length, bool announced) {
  _origin = origin;
  _length = length;
  _limit = cap() - 1;
  _proven = announced;
  fill();
}

void Pieces::stop() {
  while (!_fetches.empty())
    drop(_fetches.size() - 1);
  _length = 0;
  _limit = 0;
}

void Pieces::disown() {
  for (auto& fetch : _fetches)
    fetch->isDisowned = true;
  _length = 0;
  _limit = 0;
}

void Pieces::limit() {
  _limit = std::min(_limit, static_cast<int>(_fetches.size()));
}

int Pieces::most() const {
  return _limit + 1;
}

Clock::time_point Pieces::lastActivity() const {
  Clock::time_point last{};
  for (const auto& fetch : _fetches)
    last = std::max(last, fetch->lastActivity());
  return last;
}

void Pieces::fill() {
  auto task = _task.lock();
  const auto most = static_cast<std::size_t>(_proven ? _limit : std::min(_limit, 1));
  while (task && _fetches.size() < most && _network.takeSparePlace(_origin, cap())) {
    auto fetch = std::make_unique<Fetch>(*this);
    if (!_plan.assign(fetch->piece, _owner.heldRanges(), _length, this->most())) {
      _network.giveBackPlace(_origin, cap());
      return;
    }
    _fetches.push_back(std::move(fetch));
    _fetches.back()->start(task);
  }
}

void Pieces::ended(Fetch& fetch, End how) {
  const auto found = std::find_if(_fetches.begin(), _fetches.end(),
                                  [&](const auto& entry) { return entry.get() == &fetch; });
  drop(static_cast<std::size_t>(found - _fetches.begin()));
  if (!isStarted())
    return;
  if (how == End::Useless)
    _limit = 0;
  else if (how == End::Refused)
    limit();
  _owner.pieceEnded();
  if (isStarted())
    fill();
}

void Pieces::tick(Clock::time_point now) {
  if (!isStarted())
    return;
  const auto task = _task.lock();
  for (std::size_t i = _fetches.size(); i-- > 0;)
    if (now - _fetches[i]->lastActivity() > task->session()->configuration().timeoutIntervalForRequest) {
      ended(*_fetches[i], End::Refused);
      return; // the others have their turn with the next tick
    }
  if (!_fetches.empty() && _network.placeIsAwaited(_fetches.back()->origin, cap())) {
    ended(*_fetches.back(), End::Done);
    return;
  }
  fill();
}

void Pieces::drop(std::size_t index) {
  auto fetch = std::move(_fetches[index]);
  _fetches.erase(_fetches.begin() + static_cast<std::ptrdiff_t>(index));
  _plan.release(fetch->piece);
  _network.giveBackPlace(fetch->origin, cap());
}

} // namespace platform::transfer
