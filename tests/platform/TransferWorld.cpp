#include "tests/platform/TransferWorld.h"

#include "tests/support/FaultServer.h"
#include "tests/support/ScriptedTransferService.h"
#include "tests/support/TemporaryDirectory.h"

#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

namespace contract {

using namespace platform;
using namespace support;

namespace {

class HTTPWorld final : public World {
public:
  HTTPWorld() { start(); }
  ~HTTPWorld() override { _gate->open(); }
  std::shared_ptr<TransferService> service() override { return _service; }
  std::string url(const std::string& path) override { return _server.url(path); }
  void serve(const std::string& path, const std::string& content, int status) override {
    _server.serve(path, {content, "\"v1\"", ""},
                  {.status = status == 200 ? std::nullopt : std::optional(status)});
  }
  void hold(const std::string& path, std::size_t bytes) override {
    _server.once(path, stallingAfter(bytes, _gate));
  }
  void release() override { _gate->open(); }
  void breakOff(const std::string& path, std::size_t bytes) override {
    _server.once(path, cuttingAfter(bytes));
  }
  void settle() override {}
  void relaunch() override {
    _service.reset();
    start();
  }

private:
  void start() {
    HTTPTransferServiceOptions options;
    options.directory = _directory / "service";
    ErrorRef error;
    _service = makeHTTPTransferService(options, &error);
    if (!_service)
      throw std::runtime_error(error->localizedDescription());
  }
  TemporaryDirectory _directory;
  FaultServer _server;
  GateRef _gate = makeGate();
  std::shared_ptr<TransferService> _service;
};

class ScriptedWorld final : public World {
public:
  explicit ScriptedWorld(ScriptedTransferService::Delivery delivery)
      : _service(std::make_shared<ScriptedTransferService>(_directory.path(), delivery)) {
    start();
  }
  std::shared_ptr<TransferService> service() override { return _service; }
  std::string url(const std::string& path) override { return "http://scripted.test" + path; }
  void serve(const std::string& path, const std::string& content, int status) override {
    std::lock_guard lock(_mutex);
    _places[url(path)] = {content, status, {}, {}};
  }
  void hold(const std::string& path, std::size_t bytes) override {
    std::lock_guard lock(_mutex);
    _places[url(path)].hold = bytes;
  }
  void release() override {
    std::unique_lock lock(_mutex);
    auto held = std::move(_held);
    lock.unlock();
    for (const auto& [task, content] : held)
      task->finish(content);
  }
  void breakOff(const std::string& path, std::size_t bytes) override {
    std::lock_guard lock(_mutex);
    _places[url(path)].breakOff = bytes;
  }
  void settle() override { _service->run(); }
  void relaunch() override {
    _service = _service->relaunched();
    start();
  }

private:
  struct Place {
    std::string content;
    int status = 200;
    std::optional<std::size_t> hold, breakOff;
  };

  void start() {
    _service->onStart([this](ScriptedTask& task) { answer(task); });
    _service->onDataStart([this](ScriptedDataTask& task) {
      std::unique_lock lock(_mutex);
      Place& place = _places[task.request().url().absoluteString()];
      if (std::exchange(place.breakOff, std::nullopt))
        task.fail(NSURLErrorNetworkConnectionLost);
      else if (!place.hold)
        task.answer(place.status, place.content);
    });
  }
  void answer(ScriptedTask& task) {
    std::lock_guard lock(_mutex);
    Place& place = _places[task.request().url().absoluteString()];
    const auto total = static_cast<std::int64_t>(place.content.size());
    if (!task.response() || task.resumeData()) {
      task.respond(task.resumeData() ? 206 : place.status);
      const auto stop = place.hold ? place.hold : place.breakOff;
      if (stop)
        task.write(static_cast<std::int64_t>(*stop), total);
    }
    if (std::exchange(place.hold, std::nullopt))
      _held.emplace_back(std::static_pointer_cast<ScriptedTask>(task.shared_from_this()), place.content);
    else if (std::exchange(place.breakOff, std::nullopt))
      task.fail(NSURLErrorNetworkConnectionLost);
    else
      task.finish(place.content);
  }

  TemporaryDirectory _directory;
  std::shared_ptr<ScriptedTransferService> _service;
  std::mutex _mutex;
  std::map<std::string, Place> _places;
  std::vector<std::pair<ScriptedTaskRef, std::string>> _held;
};

} // namespace

std::unique_ptr<World> makeWorld(Kind kind) {
  if (kind == Kind::HTTP)
    return std::make_unique<HTTPWorld>();
  return std::make_unique<ScriptedWorld>(kind == Kind::Pumped ? ScriptedTransferService::Delivery::Pumped
                                                              : ScriptedTransferService::Delivery::OnQueue);
}

} // namespace contract
