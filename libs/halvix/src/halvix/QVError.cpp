#include "halvix/QVError.h"

#include "halvix/ErrorDescription.h"

namespace halvix {

namespace {

const char* defaultMessage(ErrorType type) {
  switch (type) {
  case ErrorType::unknown:
    break;
  case ErrorType::downloader_id_not_found:
    return "there is no such download";
  case ErrorType::downloader_request_creation_failed:
    return "the download cannot be prepared";
  case ErrorType::downloader_not_found:
    return "nothing is attached that downloads this kind of content";
  case ErrorType::downloader_already_exists:
    return "there is already a download of this URL";
  case ErrorType::download_failed:
    return "the download failed";
  case ErrorType::download_interrupted:
    return "the download was interrupted";
  case ErrorType::download_selection_empty:
    return "nothing is selected";
  case ErrorType::download_id_ambiguous:
    return "more than one download fits";
  case ErrorType::content_type_unknown:
    return "the kind of content is unknown";
  case ErrorType::storage_error_while_removing_file:
    return "the content cannot be removed";
  case ErrorType::storage_error_while_writing_file:
    return "a file cannot be written";
  case ErrorType::library_unavailable:
    return "the library cannot be used";
  case ErrorType::library_locked:
    return "another process uses the library";
  case ErrorType::library_damaged:
    return "the list of downloads is damaged";
  case ErrorType::library_too_new:
    return "the list of downloads comes from a newer version";
  }
  return "something failed";
}

} // namespace

std::string QVError::description() const {
  // A view without ownership suffices: the text is made before the call returns.
  return describeError(QVErrorRef(QVErrorRef(), this));
}

QVErrorBuilder& QVErrorBuilder::severity(ErrorSeverity severity) {
  _severity = severity;
  return *this;
}

QVErrorBuilder& QVErrorBuilder::message(std::string text) {
  _message = std::move(text);
  return *this;
}

QVErrorBuilder& QVErrorBuilder::parent(platform::ErrorRef error) {
  _platformParent = std::move(error);
  _parent.reset();
  return *this;
}

QVErrorBuilder& QVErrorBuilder::parent(QVErrorRef error) {
  _parent = std::move(error);
  _platformParent.reset();
  return *this;
}

QVErrorRef QVErrorBuilder::build() const {
  std::shared_ptr<QVError> error(new QVError);
  error->_type = _type;
  error->_severity = _severity;
  error->_message = _message.empty() ? defaultMessage(_type) : _message;
  error->_parent = _parent;
  error->_platformParent = _platformParent;
  return error;
}

} // namespace halvix
