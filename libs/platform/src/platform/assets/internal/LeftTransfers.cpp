#include "platform/assets/internal/LeftTransfers.h"

#include "platform/assets/internal/AggregateTask.h"
#include "platform/foundation/FileManager.h"

namespace platform::assets {

namespace {

std::string packageOf(const std::string& description) {
  const auto directoryEnd = description.rfind('/');
  if (directoryEnd == std::string::npos || directoryEnd == 0)
    return {};
  const auto packageEnd = description.rfind('/', directoryEnd - 1);
  return packageEnd == std::string::npos ? std::string() : description.substr(0, packageEnd);
}

// The bytes then serve whoever asks for the same.
void cancelKeepingBytes(URLSessionDownloadTask& transfer) {
  transfer.cancelByProducingResumeData([](const DataRef&) {});
}

} // namespace

std::string LeftTransfers::description(const std::string& package, const std::string& directory,
                                       std::uint64_t identity) {
  return package + "/" + directory + "/" + hexOf(identity);
}

void LeftTransfers::learn(const std::vector<DownloadTaskRef>& transfers) {
  _known = true;
  for (const auto& transfer : transfers) {
    const auto description = transfer->taskDescription().value_or("");
    if (!_expected.contains(packageOf(description)) ||
        !_transfers.emplace(description, Transfer{transfer, {}}).second)
      cancelKeepingBytes(*transfer);
  }
}

std::optional<LeftTransfers::Transfer> LeftTransfers::take(const std::string& description) {
  const auto found = _transfers.find(description);
  if (found == _transfers.end())
    return std::nullopt;
  auto transfer = std::move(found->second);
  _transfers.erase(found);
  return transfer;
}

void LeftTransfers::drop(const std::string& package, bool keepBytes) {
  _expected.erase(package);
  std::erase_if(_transfers, [&](const auto& entry) {
    const Transfer& transfer = entry.second;
    if (packageOf(entry.first) != package)
      return false;
    if (!transfer.body.empty())
      FileManager::removeItemAtPath(transfer.body);
    else if (keepBytes)
      cancelKeepingBytes(*transfer.task);
    else
      transfer.task->cancel();
    return true;
  });
}

void LeftTransfers::didFinish(const DownloadTaskRef& transfer, const std::string& location) {
  const auto description = transfer->taskDescription().value_or("");
  const auto response = transfer->response();
  if (!response || (response->statusCode() != 200 && response->statusCode() != 206))
    return; // asked for anew by who needs it
  if (_known && !_transfers.contains(description))
    return;
  const auto expected = _expected.find(packageOf(description));
  const auto task = expected == _expected.end() ? nullptr : expected->second.lock();
  if (task && task->keepBody(location, description))
    _transfers.insert_or_assign(description, Transfer{transfer, description});
}

void LeftTransfers::didComplete(const URLSessionTask& transfer, const ErrorRef& error) {
  const auto found = _transfers.find(transfer.taskDescription().value_or(""));
  if (found != _transfers.end() && found->second.task->taskIdentifier() == transfer.taskIdentifier() &&
      (error || found->second.body.empty()))
    _transfers.erase(found);
}

} // namespace platform::assets
