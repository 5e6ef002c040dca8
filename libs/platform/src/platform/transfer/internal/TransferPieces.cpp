// The part of Transfer that shares a large body with helping connections.

#include "platform/transfer/internal/Network.h"
#include "platform/transfer/internal/Session.h"
#include "platform/transfer/internal/Transfer.h"
#include "platform/transfer/internal/TransferErrors.h"

#include <utility>

namespace platform::transfer {

/// Decides which bytes the own exchange asks for next. False when that leaves nothing to do for it: then the
/// transfer rests, or has ended.
bool Transfer::choosePiece() {
  if (!_task.isDownload() || _askWhole || (held() == 0 && !_pieces.isRunning()))
    return true;
  if (isWhole()) {
    _sink = Sink::Partial;
    _decision.expectedTotal = _length;
    finishBody();
    return false;
  }
  Asked known;
  auto scratch = plainRequest(firstHop(), known);
  known.base = _description.base;
  known.total = _description.total;
  _length = expectedLength(known);
  if (_length < 0) {
    _own = {_file->held().end(), Piece::Open, false};
    return true;
  }
  // A whole file is asked for its last byte again: the answer then is an ordinary part, with a head to show.
  if (held() >= _length) {
    auto most = _file->held();
    most.cut(_length - 1);
    _file->setHeld(std::move(most));
  }
  const bool chosen = _own.left() > 0 && _own.end <= _length && _plan.isRunning(_own);
  if (chosen || _plan.assign(_own, _file->held(), _length, _pieces.isStarted() ? _pieces.most() : 1))
    return true;
  _phase = Phase::Resting;
  return false;
}

/// After a piece: the next one, or the end.
void Transfer::goOn() {
  _plan.release(_own);
  attempt();
}

bool Transfer::extendOwn() {
  return _length >= 0 && _pieces.isStarted() &&
         _plan.extend(_own, _file->held(), _length, _responseEnd, _pieces.most());
}

/// With the first bytes of a response: from then on its file is there.
void Transfer::considerSplitting() {
  const auto minimum = _task.session()->configuration().minimumLengthForSplitting;
  if (_length < 0 || !_mayServeParts || !_resumable || !_description.validators.ifRange() || cap() < 2 ||
      (!_file->isMapped() && (minimum <= 0 || _length - held() < minimum)))
    return;
  if (_file->isMapped()) {
    if (!_pieces.isStarted() || _piecesHop != _hop)
      later([](Transfer& self) { self.startPieces(); });
    return;
  }
  if (std::exchange(_mapping, true))
    return;
  // Nothing may be written behind a hole before the description tells of holes.
  _file->handOver();
  auto failure = std::make_shared<int>(0);
  onDisk([failure, file = _file, description = describe(false),
          generation = _file->generation()] { *failure = file->startMap(description, generation); },
         [failure, file = _file](Transfer& self) {
           self._mapping = false;
           if (*failure == 0 && self._file == file)
             self.startPieces();
         });
}

void Transfer::startPieces() {
  if (_phase != Phase::Active || _sink != Sink::Partial || _askWhole || !_file || !_file->isMapped())
    return;
  _piecesHop = _hop;
  // From here to the end was all its own; what others do not take it goes on to.
  const auto before = _own.end;
  _own.end = _own.at;
  _plan.enter(_own);
  if (!_plan.extend(_own, _file->held(), _length, _responseEnd, cap()))
    _own.end = before;
  _pieces.start(_placeOrigin, _length, _announcesParts);
}

Exchange::Request Transfer::requestForPiece(const Piece& piece, Asked& asked) {
  auto request = plainRequest(*_piecesHop, asked);
  request.method = asked.method = "GET";
  askForPart(request, asked, piece.at, piece.end);
  return request;
}

bool Transfer::storePiece(std::int64_t at, const char* bytes, std::size_t count) {
  if (_failure)
    return false;
  if (int failure = _file->write(at, bytes, count)) {
    _failure = writeError(failure, _file->path(), _length - held());
    later([](Transfer& self) {
      if (!self._failure)
        return;
      auto error = std::exchange(self._failure, nullptr);
      self.stopExchange();
      self.fail(std::move(error));
    });
    return false;
  }
  wrote(static_cast<std::int64_t>(count));
  return true;
}

void Transfer::pieceEnded() {
  switch (_phase) {
  case Phase::Resting:
    attempt();
    break;
  case Phase::Waiting:
  case Phase::Delaying:
    if (isWhole()) {
      stopOwn();
      attempt();
    }
    break;
  case Phase::Idle:
  case Phase::Preparing:
  case Phase::Active:
  case Phase::Challenged:
  case Phase::Storing:
  case Phase::Ended:
    break;
  }
}

} // namespace platform::transfer
