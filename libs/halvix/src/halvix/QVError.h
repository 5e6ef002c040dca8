#pragma once

#include "platform/foundation/Error.h"

#include <memory>
#include <string>

namespace halvix {

enum class ErrorType {
  unknown,
  downloader_id_not_found,
  downloader_request_creation_failed,
  downloader_not_found,      ///< no registered factory takes the content type
  downloader_already_exists, ///< another download holds the content URL
  download_failed,           ///< a running download ended with an error
  download_interrupted,      ///< the process that ran it ended
  download_selection_empty,  ///< nothing that can be fetched is selected
  download_id_ambiguous,     ///< a prefix fits more than one download
  content_type_unknown,      ///< neither the URL nor the server tells what it is
  storage_error_while_removing_file,
  storage_error_while_writing_file,
  library_unavailable, ///< the library's directory or files cannot be used
  library_locked,      ///< another process writes the library
  library_damaged,     ///< the list of downloads is garbled
  library_too_new,     ///< the list of downloads comes from a newer version
};

enum class ErrorSeverity { warning, recoverable, fatal };

class QVError;
/// An error on its way to an application; null means success.
using QVErrorRef = std::shared_ptr<const QVError>;

/// A failure as the host tells it to its application: what failed, how bad it is, and the reason, which is
/// another host error or an error of the platform. Immutable, so it may be read from any thread.
class QVError {
public:
  ErrorType type() const { return _type; }
  ErrorSeverity severity() const { return _severity; }
  /// What failed, without the reasons; a fixed text of the type when the builder was given none.
  const std::string& message() const { return _message; }
  /// The host error that led to this one, or null.
  const QVErrorRef& parent() const { return _parent; }
  /// The platform error that led to this one, or null. An error has at most one of the two kinds of parent.
  const platform::ErrorRef& platformParent() const { return _platformParent; }

  /// What and why in one line; see `describeError`.
  std::string description() const;

private:
  friend class QVErrorBuilder;
  QVError() = default;
  ErrorType _type = ErrorType::unknown;
  ErrorSeverity _severity = ErrorSeverity::fatal;
  std::string _message;
  QVErrorRef _parent;
  platform::ErrorRef _platformParent;
};

/// Makes host errors:
/// `QVErrorBuilder(ErrorType::downloader_id_not_found).severity(ErrorSeverity::fatal).parent(error).build()`.
class QVErrorBuilder {
public:
  explicit QVErrorBuilder(ErrorType type) : _type(type) {}

  QVErrorBuilder& severity(ErrorSeverity severity); ///< fatal when never called
  QVErrorBuilder& message(std::string text);
  /// The reason; null leaves the error without one. The last call of either form counts.
  QVErrorBuilder& parent(platform::ErrorRef error);
  QVErrorBuilder& parent(QVErrorRef error);

  QVErrorRef build() const;

private:
  ErrorType _type;
  ErrorSeverity _severity = ErrorSeverity::fatal;
  std::string _message;
  QVErrorRef _parent;
  platform::ErrorRef _platformParent;
};

} // namespace halvix
