#pragma once

#include "platform/transfer/internal/Exchange.h"
#include "platform/transfer/internal/PartialStore.h"
#include "platform/transfer/internal/Pieces.h"
#include "platform/transfer/internal/Redirects.h"
#include "platform/transfer/internal/ResponsePolicy.h"
#include "platform/transfer/internal/SplitPlan.h"
#include "platform/transfer/internal/Task.h"

#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace platform::transfer {

class Network;

/// The life of a task on the network thread: finds what is held of its body, runs exchanges until the body is
/// whole, and stores it. All operations are for the network thread.
///
/// Its own exchange fetches one piece of the body, which nearly always is all that is missing. A large one is
/// shared with helping connections (`Pieces`); what decides – heads, failures, tries, credentials – stays
/// with the transfer's own exchange.
class Transfer final : public Exchange::Listener, private Pieces::Owner {
public:
  Transfer(TaskState& task, Network& network);
  ~Transfer() override;

  /// Acts on the difference between what is wanted and what is.
  void reconcile();

  bool wantsPlace() const { return _phase == Phase::Waiting; }
  void placeGranted();
  void tick(std::chrono::steady_clock::time_point now);

private:
  enum class Phase {
    Idle,       ///< nothing under way
    Preparing,  ///< looking for bytes held, on a disk thread
    Waiting,    ///< in line for a place
    Active,     ///< an exchange runs
    Resting,    ///< others fetch what is missing
    Delaying,   ///< before another try
    Challenged, ///< the delegate was asked for a credential
    Storing,    ///< a disk thread works on the file
    Ended,
  };
  /// Where body bytes go.
  enum class Sink { None, Partial, Page, Memory, Nowhere };
  /// What follows an exchange that was not the last one.
  enum class Next { Finish, Again, Redirect, Delay, Challenge, Piece, Rest };

  bool exchangeHead(ResponseHead head) override;
  bool exchangeBody(const char* bytes, std::size_t count) override;
  void exchangeFinished(int code, bool onReusedConnection, const std::string& detail) override;

  // Start
  void prepare();
  void prepared(std::optional<Claim> claim, bool named);
  void attempt();
  void ask();
  Hop firstHop() const { return {_task.request().url(), _task.request().HTTPMethod()}; }
  bool choosePiece();
  Exchange::Request makeRequest();
  Exchange::Request plainRequest(const Hop& hop, Asked& asked) const;
  void askForPart(Exchange::Request& request, Asked& asked, std::int64_t from, std::int64_t end) const;
  std::optional<std::string> ifRange() const;
  int cap() const;
  std::int64_t held() const { return _file ? _file->held().total() : 0; }

  // Splitting
  Exchange::Request requestForPiece(const Piece& piece, Asked& asked) override;
  bool storePiece(std::int64_t at, const char* bytes, std::size_t count) override;
  const HeldRanges& heldRanges() const override { return _file->held(); }
  void pieceEnded() override;
  void considerSplitting();
  void startPieces();
  bool extendOwn();
  void goOn();
  bool isWhole() const { return _shown && _length >= 0 && held() >= _length; }
  /// A response to this version of the body was shown; those to further pieces are no news.
  bool isFurther() const { return _shown && _file && _file->isMapped(); }

  // Response
  bool accept(Decision decision, ResponseHead head);
  bool acceptBody(const Decision& decision, const ResponseHead& head);
  bool acceptStatus(const Decision& decision, const ResponseHead& head);
  void showResponse(std::int64_t held);
  bool holdsVersionOf(const Decision& decision, const ResponseHead& head) const;
  bool giveUpHeld(const std::string& reason);
  void wrote(std::int64_t count);
  bool storeOwn(const char* bytes, std::size_t count);
  bool follow(const ResponseHead& head);
  void openPartial();
  bool openPage();
  int writePage(const char* bytes, std::size_t count);
  bool breakOff(ErrorRef error);

  // End
  void stopExchange();
  void stopOwn();
  void tryAgainOrFail(ErrorRef error);
  void delay(std::chrono::milliseconds time);
  void askDelegate();
  void finishBody();
  void storeFile();
  void stored(int failure, std::int64_t length);
  void storePage();
  void fail(ErrorRef error);
  void keepAndEnd(ErrorRef error, bool forAnybody);
  void suspendNow();
  void dropFile();
  void dropPage();
  void end(Outcome outcome);
  DataRef resumeData(const std::string& name, std::int64_t length) const;
  PartialDescription describe(bool forAnybody) const;
  void reportProgress(std::chrono::steady_clock::time_point now);
  void later(std::function<void(Transfer&)> work);
  void onDisk(std::function<void()> work, std::function<void(Transfer&)> then);

  TaskState& _task;
  Network& _network;
  Phase _phase = Phase::Idle;
  unsigned _ticket = 0; ///< tells a late answer from the awaited one

  // What is held
  std::shared_ptr<PartialFile> _file;
  PartialDescription _description; ///< of the file's content
  bool _resumable = false;         ///< the content can be gone on with
  std::string _parkedName;         ///< the file's name while it is closed
  bool _announceResume = false;

  // The running try
  std::unique_ptr<Exchange> _exchange;
  Hop _hop;
  std::set<std::string> _visited;
  std::string _placeOrigin; ///< non-empty while a place is held or asked for
  Asked _asked;
  Decision _decision;
  std::shared_ptr<const HTTPURLResponse> _head;
  Sink _sink = Sink::None;
  Next _next = Next::Finish;
  std::chrono::milliseconds _nextDelay{0};
  std::int64_t _got = 0; ///< body bytes of this exchange
  ErrorRef _failure;     ///< why it was broken off for good
  int _pageDescriptor = -1;
  std::string _pagePath;
  std::int64_t _pageLength = 0;
  std::shared_ptr<Data> _memory;

  // Pieces
  SplitPlan _plan;
  Piece _own;                    ///< of the running try, kept until another one is chosen
  std::int64_t _responseEnd = 0; ///< where the body of the running exchange ends
  std::int64_t _length = -1;     ///< of the whole body, -1 unknown
  bool _shown = false;           ///< the task has a response of this version
  bool _mayServeParts = false;   ///< as far as the response tells
  bool _announcesParts = false;
  bool _askWhole = false; ///< the server was wrong about a part
  bool _mapping = false;
  std::optional<Hop> _piecesHop;
  Pieces _pieces;

  // Over all tries
  int _tries = 0;
  int _freeTries = 0;
  bool _restarted = false;
  bool _byDate = false;
  bool _dateTried = false;
  std::optional<URLCredential> _credential;
  std::string _credentialScheme;
  int _refusals = 0;

  // Upkeep
  std::chrono::steady_clock::time_point _lastTick{};
  std::chrono::steady_clock::time_point _lastReport{};
  std::chrono::steady_clock::time_point _nextSync{};
  std::int64_t _syncedLength = 0;
  bool _syncing = false;
  std::int64_t _unreported = 0; ///< bytes since the clock was looked at
};

} // namespace platform::transfer
