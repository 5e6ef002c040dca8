#pragma once

#include "TolvaneDownloader/DASHDownloader/Internal/QVMovieDownloadSetDelegate.h"

#include "halvix/BaseDownloader.h"
#include "halvix/Presentation.h"

#include "platform/transfer/URLSessionConfiguration.h"

#include <memory>
#include <string>
#include <vector>

class QVMovieDownloader;
class QVQuality;

/// Joins the host's download framework with the segment downloader: it answers the host's calls with a
/// `QVMovieDownloader` of its own, turns chosen renditions into selected qualities, and carries status,
/// progress and completion of the sets back into the host's records.
///
/// Thread-safe. The events of a set arrive on the transfer session's queue, or on the thread of the command
/// that caused them, under the movie downloader's lock; nothing here waits for another thread in them.
///
/// A host download's identifier is the download id of its content URL, and so is the `uuid` of its set. A
/// download must have been prepared in this process before it is started. After a restart it is prepared and
/// started again and goes on from the files on disk.
class DashDownloader final : public halvix::BaseDownloader,
                             public halvix::ContentInspector,
                             public QVMovieDownloadSetDelegate {
public:
  /// The process's instance: cellular access, no headers, over the host's default environment.
  static std::shared_ptr<DashDownloader> shared();

  /// `environment` null: the host's default.
  static std::shared_ptr<DashDownloader>
  create(bool cellularAccess, platform::HTTPHeaders headers,
         std::shared_ptr<halvix::HostEnvironment> environment = nullptr);
  ~DashDownloader() override;

  /// The configuration of all sessions of this class in this process. Its identifier is new in each process:
  /// tasks of an earlier one are not handed back, their partial files are adopted.
  static const platform::URLSessionConfiguration& sessionConfiguration();

  const std::shared_ptr<QVMovieDownloader>& downloader() const { return _downloader; }

  using BaseDownloader::canDownload;
  bool canDownload(halvix::ContentType contentType) const override;
  std::shared_ptr<halvix::Download> createDownload(const halvix::PlayerConfiguration& configuration,
                                                   const platform::HTTPHeaders& headers,
                                                   halvix::QVErrorRef* error) override;
  void prepareDownload(const std::string& uuid, PrepareCompletion completion) override;
  halvix::QVErrorRef startDownload(const std::string& uuid,
                                   std::weak_ptr<halvix::DownloadDelegate> delegate) override;
  halvix::QVErrorRef pauseDownload(const std::string& uuid) override;
  halvix::QVErrorRef resumeDownload(const std::string& uuid) override;
  halvix::QVErrorRef cancelDownload(const std::string& uuid) override;
  halvix::QVErrorRef removeDownload(const std::string& uuid) override;

  void inspectContent(const std::string& source, const platform::HTTPHeaders& headers,
                      halvix::ContentInspector::Completion completion) override;

  void movieDownloadSetDidChangeStatus(const std::shared_ptr<QVMovieDownloadSet>& set,
                                       QVDownloadStatus status) override;
  void movieDownloadSetDidUpdateProgress(const std::shared_ptr<QVMovieDownloadSet>& set,
                                         QVDownloadProgress progress) override;
  void movieDownloadSetDidCompleteQuality(const std::shared_ptr<QVMovieDownloadSet>& set,
                                          const std::shared_ptr<QVQuality>& quality,
                                          const platform::ErrorRef& error) override;
  void movieDownloadSetDidCompleteWithError(const std::shared_ptr<QVMovieDownloadSet>& set,
                                            const platform::ErrorRef& error) override;

private:
  DashDownloader(bool cellularAccess, platform::HTTPHeaders headers,
                 std::shared_ptr<halvix::HostEnvironment> environment);

  std::shared_ptr<QVMovieDownloadSet> activeSet(const std::string& uuid) const;
  void describe(const QVMovieDownloadSet& set, halvix::Download& download) const;
  halvix::DownloadProgress::Renditions renditionsOf(const QVMovieDownloadSet& set) const;
  template <class Command> halvix::QVErrorRef command(const std::string& uuid, const char* what, Command run);

  std::shared_ptr<QVMovieDownloader> _downloader;
};
