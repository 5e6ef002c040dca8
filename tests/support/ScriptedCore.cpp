#include "tests/support/ScriptedCore.h"

#include <fstream>
#include <stdexcept>

namespace support {

using namespace platform;
using Lock = std::lock_guard<std::mutex>;

namespace scripted {

void Core::postLocked(const SessionState& session, Event event) {
  if (!session.queue) {
    if (!gone)
      events.push_back(std::move(event));
    return;
  }
  ++waitingEvents;
  session.queue->async([core = shared_from_this(), event = std::move(event)]() mutable {
    perform(event);
    event = {};
    Lock lock(core->mutex);
    --core->waitingEvents;
    ++core->queueDeliveries;
    core->changed.notify_all();
  });
}

void Core::perform(const Event& event) {
  if (event.call) {
    event.call();
    return;
  }
  if (auto session = event.session.lock()) {
    URLSessionDelegate nobody;
    const auto delegate = session->_state->delegate.lock();
    event.tell(*session, delegate ? *delegate : nobody);
  }
}

bool Core::deliverOne() {
  std::unique_lock lock(mutex);
  const auto me = std::this_thread::get_id();
  if (pumper == me)
    return false;
  changed.wait(lock, [this] { return !pumper; });
  if (events.empty())
    return false;
  struct Pumping {
    Core& core;
    ~Pumping() {
      Lock again(core.mutex);
      core.pumper.reset();
      core.changed.notify_all();
    }
  };
  Event event = std::move(events.front());
  events.pop_front();
  pumper = me;
  lock.unlock();
  Pumping pumping{*this};
  perform(event);
  event = {};
  return true;
}

void Core::removedFromSessionLocked(SessionState& session) {
  if (!session.invalidating || !session.live.empty() || !session.liveData.empty())
    return;
  tellLocked(session, [this](ScriptedSession& invalid, URLSessionDelegate& delegate) {
    std::shared_ptr<ScriptedSession> kept; // the last reference may be this one
    {
      Lock lock(mutex);
      kept.swap(invalid._state->keptUntilInvalid);
      openSessions.erase(invalid._configuration.identifier);
    }
    delegate.URLSessionDidBecomeInvalidWithError(invalid, nullptr);
  });
}

std::string writeTemporaryFile(Core& core, const std::string& content) {
  const std::string path =
      core.directory + "/scripted-" + std::to_string(core.nextFile.fetch_add(1)) + ".tmp";
  if (!(std::ofstream(path, std::ios::binary) << content).flush())
    throw std::runtime_error("cannot write " + path);
  return path;
}

ErrorRef cancelledError(const URLRequest& request, DataRef resumeData) {
  UserInfo info{{NSLocalizedDescriptionKey, std::string("cancelled")},
                {NSURLErrorFailingURLStringErrorKey, request.url().absoluteString()}};
  if (resumeData)
    info[NSURLSessionDownloadTaskResumeData] = std::move(resumeData);
  return makeError(NSURLErrorDomain, NSURLErrorCancelled, std::move(info));
}

} // namespace scripted

} // namespace support
