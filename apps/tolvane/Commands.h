#pragma once

#include "apps/tolvane/ProgressDisplay.h"
#include "apps/tolvane/Selection.h"

#include "platform/transfer/URLRequest.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tolvane {

/// Exit statuses of the program.
inline constexpr int statusDone = 0;
inline constexpr int statusFailed = 1;
inline constexpr int statusUsage = 2;
inline constexpr int statusInterrupted = 130;

/// Ends a command: one line for standard error, and the exit status.
class Failure : public std::runtime_error {
public:
  explicit Failure(const std::string& line, int status = statusFailed)
      : std::runtime_error(line), _status(status) {}
  int status() const { return _status; }

private:
  int _status;
};

struct DownloadOptions {
  std::vector<std::string> urls;
  std::string title;
  Selector video, audio, text;
  platform::HTTPHeaders headers;
  std::optional<int> jobs;
  ProgressMode progress = ProgressMode::Auto;
};

// Each command answers the exit status, or throws Failure or SelectionError.

int inspectCommand(const std::string& source, const platform::HTTPHeaders& headers, bool json);
int resourcesCommand(const std::string& source, const std::string& base, const platform::HTTPHeaders& headers,
                     bool json);
int downloadCommand(const std::string& library, const DownloadOptions& options);
int listCommand(const std::string& library, bool json);
int resumeCommand(const std::string& library, const std::vector<std::string>& identifiers, bool all,
                  std::optional<int> jobs, ProgressMode progress);
int cancelCommand(const std::string& library, const std::vector<std::string>& identifiers);
int removeCommand(const std::string& library, const std::vector<std::string>& identifiers);
int verifyCommand(const std::string& library, const std::string& identifier, bool withOrigin,
                  const platform::HTTPHeaders& headers);

} // namespace tolvane
