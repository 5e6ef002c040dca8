#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKConnectionDownload.h"

#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileStorage.h"

#include "platform/concurrency/Queue.h"
#include "platform/foundation/FileManager.h"
#include "platform/foundation/UUID.h"
#include "platform/transfer/TransferService.h"

#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

using namespace platform;

namespace {

std::int64_t lengthOf(const HTTPURLResponse& response) {
  auto text = response.valueForHTTPHeaderField("Content-Length").value_or("");
  std::int64_t length = NSURLSessionTransferSizeUnknown;
  auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), length);
  return failure == std::errc() && end == text.data() + text.size() && length >= 0
             ? length
             : NSURLSessionTransferSizeUnknown;
}

} // namespace

std::shared_ptr<ZRKConnectionDownload> ZRKConnectionDownload::downloadWithRequest(
    const URLRequest& request, TransferService& service, const URLSessionConfiguration& configuration,
    const std::string& temporaryDirectory, std::shared_ptr<Queue> writerQueue,
    std::shared_ptr<Queue> delegateQueue) {
  std::shared_ptr<ZRKConnectionDownload> made(new ZRKConnectionDownload);
  made->_delegateQueue = std::move(delegateQueue);
  made->_temporaryDirectory = temporaryDirectory;
  made->_connection = service.openConnection(configuration, request, made, std::move(writerQueue));
  return made->_connection ? made : nullptr;
}

ZRKConnectionDownload::~ZRKConnectionDownload() {
  _dropFile();
}

void ZRKConnectionDownload::listen(ZRKConnectionDownloadListener listener) {
  _listener = std::move(listener);
}

void ZRKConnectionDownload::start() {
  _connection->start();
}

std::shared_ptr<const HTTPURLResponse> ZRKConnectionDownload::response() const {
  std::lock_guard guard(_responseMutex);
  return _response;
}

ErrorRef ZRKConnectionDownload::_openFile() {
  auto place =
      ZRKTempLocalFileURLForDownloadFromURL(_connection->originalRequest().url(), _temporaryDirectory);
  if (!place)
    return makeError(NSURLErrorDomain, NSURLErrorCannotCreateFile,
                     "The directory \"" + _temporaryDirectory + "\" cannot be used.");
  const auto wanted = place->path();
  _path = wanted;
  _descriptor = ::open(_path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
  if (_descriptor < 0 && errno == EEXIST) {
    _path = wanted + "-" + newUUIDString();
    _descriptor = ::open(_path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
  }
  if (_descriptor >= 0)
    return nullptr;
  auto failed = std::exchange(_path, {});
  return makeError(NSURLErrorDomain, NSURLErrorCannotCreateFile,
                   "The file \"" + failed + "\" cannot be created.", makePOSIXError(errno, failed));
}

ErrorRef ZRKConnectionDownload::_write(std::string_view bytes) {
  if (_descriptor < 0)
    if (auto error = _openFile())
      return error;
  while (!bytes.empty()) {
    const auto count = ::write(_descriptor, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0) {
      const int failure = count < 0 ? errno : EIO;
      std::string what = "The file \"" + _path + "\" cannot be written.";
      if (failure == ENOSPC || failure == EDQUOT) {
        const auto available = FileManager::availableBytesAtPath(_path).value_or(0);
        what = "There is not enough space for \"" + _path + "\": ";
        if (_expected >= 0)
          what += std::to_string(_expected - _written) + " more bytes are needed, ";
        what += std::to_string(available) + " bytes are free.";
      }
      return makeError(NSURLErrorDomain, NSURLErrorCannotWriteToFile, what, makePOSIXError(failure, _path));
    }
    bytes.remove_prefix(static_cast<std::size_t>(count));
    _written += count;
  }
  return nullptr;
}

void ZRKConnectionDownload::connectionDidReceiveResponse(
    URLConnection&, const std::shared_ptr<const HTTPURLResponse>& response) {
  {
    std::lock_guard guard(_responseMutex);
    _response = response;
  }
  _expected = lengthOf(*response);
  _dropFile(); // of an earlier response
  _written = 0;
  _tellProgress();
}

void ZRKConnectionDownload::connectionDidReceiveData(URLConnection& connection, std::string_view bytes) {
  if (_writeFailure)
    return;
  if ((_writeFailure = _write(bytes)))
    connection.cancel();
  else
    _tellProgress();
}

void ZRKConnectionDownload::connectionDidReceiveChallenge(URLConnection&,
                                                          const AuthenticationChallenge& challenge,
                                                          ChallengeCompletion completion) {
  _delegateQueue->async([self = shared_from_this(), challenge, completion = std::move(completion)] {
    self->_listener.challenge(challenge, completion);
  });
}

void ZRKConnectionDownload::connectionDidFinishLoading(URLConnection&) {
  if (!_writeFailure && _descriptor < 0)
    _writeFailure = _openFile(); // an empty body is a file too
  if (!_writeFailure && ::fdatasync(_descriptor) != 0)
    _writeFailure = makeError(NSURLErrorDomain, NSURLErrorCannotWriteToFile,
                              "The file \"" + _path + "\" cannot be written.", makePOSIXError(errno, _path));
  _end(std::exchange(_writeFailure, nullptr));
}

void ZRKConnectionDownload::connectionDidFailWithError(URLConnection&, const ErrorRef& error) {
  // A failure to write ended it by cancelling: that is the reason that counts.
  _end(_writeFailure ? std::exchange(_writeFailure, nullptr) : error);
}

void ZRKConnectionDownload::_tellProgress() {
  if (_progressPosted.exchange(true))
    return;
  _delegateQueue->async([self = shared_from_this()] {
    self->_progressPosted = false;
    self->_listener.progress(self->_written, self->_expected);
  });
}

void ZRKConnectionDownload::_end(ErrorRef error) {
  std::string path;
  if (error)
    _dropFile();
  else
    path = std::exchange(_path, {});
  if (_descriptor >= 0)
    ::close(std::exchange(_descriptor, -1));
  const auto last = response();
  _delegateQueue->async([self = shared_from_this(), status = last ? last->statusCode() : 0,
                         path = std::move(path), error = std::move(error)] {
    if (!error) {
      self->_listener.finished(status, path);
      ::unlink(path.c_str()); // unless it was moved away
    }
    self->_listener.ended(status, error);
    self->_listener = {};
  });
}

void ZRKConnectionDownload::_dropFile() {
  if (_descriptor >= 0)
    ::close(std::exchange(_descriptor, -1));
  if (!_path.empty())
    ::unlink(std::exchange(_path, {}).c_str());
}
