#pragma once

#include "platform/foundation/Data.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/URL.h"
#include "platform/transfer/URLRequest.h"
#include "platform/transfer/URLSession.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace platform {
class Progress;
}

/// The answer of an operation that a delegate need not have: nothing means "not implemented", and the queue
/// then does what the operation's comment says.
template <class T> using ZRKIfImplemented = std::optional<T>;

/// The one client of a `ZRKFileDownloader`.
///
/// Called on the downloader's delegate queue, one call at a time, except for `rootProgress`,
/// `urlRequestForRemoteURL`, `intendedLocalFileURLForIdentifier` and the increment of the activity count,
/// which come on the thread that starts a download, and `resumeDownloadWithIdentifier`, which comes on the
/// thread that resumes it. Never under a lock of the downloader, so every operation of it may be called from
/// here. Held weakly.
class ZRKFileDownloadDelegate {
public:
  virtual ~ZRKFileDownloadDelegate() = default;

  // ---- Required

  /// A download ended well; the file at `localFileURL` is the client's from now on. Its bytes are on stable
  /// storage; its name is once the client has synced the directory, which it may do for many files at once.
  /// Called once, and then nothing more comes for this start of the token.
  virtual void downloadDidCompleteWithIdentifier(const std::string& token,
                                                 const platform::URL& localFileURL) = 0;

  /// A download ended otherwise (NSURLErrorCancelled of NSURLErrorDomain when it was cancelled or paused).
  /// Called once, instead of the above.
  /// `httpStatusCode` of the last response, 0 when there was none; `errorMessagesStack` newest first;
  /// `resumeData` null when there is nothing to go on from.
  virtual void downloadFailedWithIdentifier(const std::string& token, const platform::ErrorRef& error,
                                            int httpStatusCode,
                                            const std::vector<std::string>& errorMessagesStack,
                                            const platform::DataRef& resumeData) = 0;

  /// A transfer starts; each increment is followed by one decrement, before the end is told.
  virtual void incrementNetworkActivityIndicatorActivityCount() = 0;
  virtual void decrementNetworkActivityIndicatorActivityCount() = 0;

  // ---- Optional. Those without a result do nothing here.

  /// `downloadProgressForIdentifier` has news.
  virtual void downloadProgressChangedForIdentifier(const std::string& token) { (void)token; }

  /// The download was paused through its progress object. Its end is told right after this, as a failure with
  /// NSURLErrorCancelled and the same resume data (null: a later start begins from zero).
  virtual void downloadPausedWithIdentifier(const std::string& token, const platform::DataRef& resumeData) {
    (void)token, (void)resumeData;
  }

  /// A download that is not running is to go on: the client knows its resume data and starts it. True when
  /// implemented; false is logged.
  virtual bool resumeDownloadWithIdentifier(const std::string& token) {
    (void)token;
    return false;
  }

  /// Whether the finished file is what was wanted; one that is not fails the download and is removed. Not
  /// implemented: it is.
  virtual ZRKIfImplemented<bool>
  downloadAtLocalFileURLIsValidForDownloadIdentifier(const platform::URL& localFileURL,
                                                     const std::string& token) {
    (void)localFileURL, (void)token;
    return std::nullopt;
  }

  /// Whether a response of that status holds the file. Not implemented: 200…299.
  virtual ZRKIfImplemented<bool> httpStatusCodeIsValidForDownloadIdentifier(int httpStatusCode,
                                                                            const std::string& token) {
    (void)httpStatusCode, (void)token;
    return std::nullopt;
  }

  /// The place to add headers and limits, before a session is opened.
  virtual void customizeBackgroundSessionConfiguration(platform::URLSessionConfiguration& configuration) {
    (void)configuration;
  }

  /// A server asks for credentials. True when implemented: `completionHandler` is then called exactly once,
  /// now or later, from any thread. False (logged) leaves it uncalled, and the response counts as it came.
  virtual bool onAuthenticationChallenge(const platform::AuthenticationChallenge& challenge,
                                         const std::string& token,
                                         const platform::ChallengeCompletion& completionHandler) {
    (void)challenge, (void)token, (void)completionHandler;
    return false;
  }

  /// A progress whose children the downloads become, one unit each; null: none.
  virtual std::shared_ptr<platform::Progress> rootProgress() { return nullptr; }

  /// The request to send. Not implemented: a plain GET. An implemented answer without a request
  /// (`return std::optional<platform::URLRequest>();`) fails the download.
  virtual ZRKIfImplemented<std::optional<platform::URLRequest>>
  urlRequestForRemoteURL(const platform::URL& remoteURL) {
    (void)remoteURL;
    return std::nullopt;
  }

  /// Where the finished file goes (a file URL; its directory must exist, and stand on the transfer service's
  /// file system for the move to be a rename). Not implemented:
  /// `ZRKFileDownloader::localFileURLForRemoteURL`. An implemented answer without a URL (`return
  /// std::optional<platform::URL>();`) fails the download.
  virtual ZRKIfImplemented<std::optional<platform::URL>>
  localFileURLForIdentifier(const std::string& token, const platform::URL& remoteURL) {
    (void)token, (void)remoteURL;
    return std::nullopt;
  }

  /// What `localFileURLForIdentifier` is going to answer, as far as it can be told when the download starts.
  /// A short file is then written there at once and not moved, when nothing stands there; should the process
  /// be killed meanwhile, a part of it may stay there. Not implemented: it is not known ahead.
  virtual ZRKIfImplemented<platform::URL> intendedLocalFileURLForIdentifier(const std::string& token) {
    (void)token;
    return std::nullopt;
  }
};
