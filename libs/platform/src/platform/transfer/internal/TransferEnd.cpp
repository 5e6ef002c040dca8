// The part of Transfer that ends it: storing a whole body, and keeping or dropping what is held of another.

#include "platform/transfer/internal/DiskPool.h"
#include "platform/transfer/internal/FileWriting.h"
#include "platform/transfer/internal/Network.h"
#include "platform/transfer/internal/ResumeData.h"
#include "platform/transfer/internal/Session.h"
#include "platform/transfer/internal/Transfer.h"
#include "platform/transfer/internal/TransferErrors.h"

#include <curl/curl.h>

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace platform::transfer {

void Transfer::finishBody() {
  if (!_task.isDownload()) {
    auto data = _memory ? std::exchange(_memory, nullptr) : std::make_shared<Data>();
    end({nullptr, {}, std::move(data), nullptr});
    return;
  }
  if (_sink == Sink::Page) {
    storePage();
    return;
  }
  if (!_file)
    openPartial();
  if (_decision.expectedTotal >= 0 && held() < _decision.expectedTotal && _file->isMapped()) {
    goOn();
    return;
  }
  if (_decision.expectedTotal >= 0 && held() != _decision.expectedTotal) {
    tryAgainOrFail(errorForCurlCode(CURLE_PARTIAL_FILE, _task.request().url(), ""));
    return;
  }
  storeFile();
}

void Transfer::storeFile() {
  _pieces.stop();
  _phase = Phase::Storing;
  _network.bodyWaits();
  const auto length = held();
  const bool sync = !_file->isInMemory() || length > _task.session()->configuration().maximumLengthUnsynced;
  // One that is not synced counts for nothing until somebody has taken it: nobody is to find it.
  auto path =
      _network.store().newFinishedPath(*_file, sync && _resumable ? _description : PartialDescription());
  // A success ends the task right here: the way over the network thread would only delay what follows it.
  // Whether it was cancelled meanwhile is looked at when it is delivered.
  _network.disk().add(
      [&network = _network, task = _task.shared_from_this(), file = _file, path, length, sync]() mutable {
        int failure = 0;
        const auto intended = sync ? std::string() : task->intended();
        if (!intended.empty() && file->finishAt(intended, &failure))
          path = intended;
        else
          failure = file->finish(path, sync);
        if (failure == 0) {
          task->setComplete(length, path, sync);
          task->session()->end(task, {nullptr, path, nullptr, nullptr});
        }
        network.postSoon([task, failure, length] {
          if (task->transfer)
            task->transfer->stored(failure, length);
        });
      },
      sync ? DiskPool::Load::Waiting : DiskPool::Load::Copying);
}

void Transfer::stored(int failure, std::int64_t length) {
  _network.bodyIsStored();
  if (failure != 0) {
    _phase = Phase::Idle;
    _file->dropUnwritten();
    const auto missing = length - held();
    fail(writeError(failure, _file->path(), missing > 0 ? missing : -1));
    return;
  }
  _phase = Phase::Ended;
  _file.reset();
  _network.retire(_task);
}

void Transfer::storePage() {
  if (_pageDescriptor < 0 && !openPage()) {
    fail(std::exchange(_failure, nullptr));
    return;
  }
  _pieces.stop();
  _phase = Phase::Storing;
  _network.bodyWaits();
  auto result = std::make_shared<int>(0);
  auto path = std::exchange(_pagePath, {});
  onDisk(
      [descriptor = std::exchange(_pageDescriptor, -1), result] {
        *result = ::fdatasync(descriptor) == 0 ? 0 : errno;
        ::close(descriptor);
      },
      [result, path, length = _pageLength](Transfer& self) {
        self._network.bodyIsStored();
        self._phase = Phase::Idle;
        if (*result != 0) {
          removeFile(path);
          self.fail(writeError(*result, path, -1));
          return;
        }
        self._task.setComplete(length, path, true);
        // What is held of the resource itself does not end with an error page.
        if (self._file && self._resumable && self.held() > 0) {
          self._phase = Phase::Storing;
          self.onDisk([file = self._file, description = self.describe(true)] { file->settle(description); },
                      [path](Transfer& later) {
                        later.end({nullptr, path, nullptr, nullptr});
                      });
          return;
        }
        self.dropFile();
        self.end({nullptr, path, nullptr, nullptr});
      });
}

void Transfer::fail(ErrorRef error) {
  _pieces.stop();
  dropPage();
  keepAndEnd(std::move(error), true);
}

void Transfer::keepAndEnd(ErrorRef error, bool forAnybody) {
  const bool worthKeeping = _file && held() > 0 && _resumable && _description.validators.ifRange();
  // Suspended earlier, or never looked at yet: it is closed and described.
  auto name = _file ? std::string() : std::exchange(_parkedName, {});
  if (!_file && name.empty() && _task.isDownload())
    name = _task.partialToTake;
  if (!name.empty()) {
    if (!forAnybody) {
      end({std::move(error)});
      return;
    }
    _phase = Phase::Storing;
    auto data = resumeData(name, _task.received());
    onDisk(
        [&store = _network.store(), name, owner = _task.session()->owner()] { store.release(name, owner); },
        [error = std::move(error), data](Transfer& self) {
          self.end({withResumeData(error, data), {}, nullptr, data});
        });
    return;
  }
  if (!worthKeeping) {
    dropFile();
    end({std::move(error)});
    return;
  }
  _phase = Phase::Storing;
  auto result = std::make_shared<int>(0);
  onDisk([file = _file, description = describe(forAnybody), result] { *result = file->settle(description); },
         [error = std::move(error), forAnybody, result](Transfer& self) {
           DataRef data;
           self._task.setPartial(self._file->name());
           if (forAnybody && *result == 0)
             data = self.resumeData(self._file->name(), self._file->held().total());
           self._file.reset();
           self.end({withResumeData(error, data), {}, nullptr, data});
         });
}

void Transfer::suspendNow() {
  if (!_file)
    return;
  if (held() == 0 || !_resumable || !_description.validators.ifRange()) {
    dropFile();
    return;
  }
  _phase = Phase::Storing;
  onDisk([file = _file, description = describe(false)] { file->settle(description); },
         [](Transfer& self) {
           self._parkedName = self._file->name();
           self._task.setPartial(self._parkedName);
           self._file.reset();
           self._phase = Phase::Idle;
           self.reconcile();
         });
}

void Transfer::end(Outcome outcome) {
  _phase = Phase::Ended;
  auto task = _task.shared_from_this();
  _network.retire(_task);
  task->session()->end(task, std::move(outcome));
}

DataRef Transfer::resumeData(const std::string& name, std::int64_t length) const {
  if (!_task.isDownload() || name.empty())
    return nullptr;
  return serializeResumeData({_task.request(), name, length, _task.expected()});
}

PartialDescription Transfer::describe(bool forAnybody) const {
  auto description = _description;
  description.owner = forAnybody ? std::string() : _task.session()->owner();
  description.taskIdentifier = _task.identifier();
  return description;
}

void Transfer::dropFile() {
  if (_file) {
    _file->remove();
    _file.reset();
    _task.setPartial({});
  }
}

void Transfer::dropPage() {
  if (_pageDescriptor >= 0)
    ::close(std::exchange(_pageDescriptor, -1));
  if (!_pagePath.empty())
    removeFile(std::exchange(_pagePath, {}));
  _pageLength = 0;
}

} // namespace platform::transfer
