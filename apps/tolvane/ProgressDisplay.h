#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace tolvane {

/// How far one quality is.
struct QualityProgress {
  std::string label; ///< "video 480p", "audio en"
  std::int64_t downloadedBytes = 0;
  std::int64_t expectedBytes = -1; ///< -1 unknown
  bool complete = false;
};

/// How far a download is, or several as one.
struct Snapshot {
  std::string identifier;
  std::string title;
  std::string totalLabel = "total";
  std::string state;
  std::vector<QualityProgress> qualities;
  std::int64_t downloadedBytes = 0;
  std::int64_t expectedBytes = -1;
};

enum class ProgressMode { Auto, Bar, Plain, JSON, None };

/// "auto", "bar", "plain", "json" or "none"; answers false for anything else.
bool parseProgressMode(const std::string& text, ProgressMode& mode);

/// Shows the progress of one download at a time. Used from one thread.
class ProgressDisplay {
public:
  virtual ~ProgressDisplay() = default;

  /// Whether it shows anything; one that does not needs no states.
  virtual bool isVisible() const { return true; }

  /// Shows what changed; cheap enough for every event, because it draws a few times a second at most.
  virtual void update(const Snapshot& snapshot) = 0;

  /// A line for who sits in front of it, before the first state.
  virtual void hint(const std::string& text) { (void)text; }

  /// Shows the final state and leaves the terminal on a fresh line.
  virtual void finish(const Snapshot& snapshot) = 0;

  /// Auto is a bar on a terminal and plain lines elsewhere. `out` must outlive the display.
  static std::unique_ptr<ProgressDisplay> create(ProgressMode mode, std::FILE* out);
};

} // namespace tolvane
