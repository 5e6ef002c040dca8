#include "apps/tolvane/ProgressDisplay.h"

#include "apps/tolvane/Text.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <nlohmann/json.hpp>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tolvane {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

/// Bytes per second over the last few seconds.
class Rate {
public:
  void add(std::int64_t bytes) {
    auto now = Clock::now();
    if (!_samples.empty() && bytes < _samples.back().second)
      _samples.clear();
    _samples.emplace_back(now, bytes);
    while (_samples.size() > 2 && Seconds(now - _samples.front().first).count() > 5)
      _samples.pop_front();
  }
  double bytesPerSecond() const {
    if (_samples.size() < 2)
      return 0;
    double time = Seconds(_samples.back().first - _samples.front().first).count();
    return time < 0.05 ? 0 : double(_samples.back().second - _samples.front().second) / time;
  }
  /// -1 when it cannot be told.
  std::int64_t secondsLeft(const Snapshot& snapshot) const {
    double rate = bytesPerSecond();
    if (snapshot.expectedBytes < 0 || rate < 1)
      return -1;
    return std::int64_t(
        double(std::max<std::int64_t>(0, snapshot.expectedBytes - snapshot.downloadedBytes)) / rate + 0.5);
  }

private:
  std::deque<std::pair<Clock::time_point, std::int64_t>> _samples;
};

/// 0 to 100, or -1. Sizes are estimates until the servers have told them, so only a finished part says 100.
int percent(std::int64_t downloaded, std::int64_t expected, bool complete) {
  if (complete)
    return 100;
  if (expected < 1)
    return -1;
  return int(std::clamp(double(downloaded) / double(expected) * 100, 0.0, 99.0));
}

std::string percentText(int value) {
  return value < 0 ? "  ?" : std::to_string(value);
}

bool isComplete(const Snapshot& snapshot) {
  return snapshot.state == "success";
}

class Throttle {
public:
  explicit Throttle(double interval) : _interval(interval) {}
  bool due() {
    auto now = Clock::now();
    if (_drawn && Seconds(now - _last).count() < _interval)
      return false;
    _drawn = true;
    _last = now;
    return true;
  }

private:
  double _interval;
  bool _drawn = false;
  Clock::time_point _last;
};

class SilentDisplay : public ProgressDisplay {
  bool isVisible() const override { return false; }
  void update(const Snapshot&) override {}
  void finish(const Snapshot&) override {}
};

class BarDisplay : public ProgressDisplay {
public:
  explicit BarDisplay(std::FILE* out) : _out(out) {}

  void hint(const std::string& text) override {
    std::fprintf(_out, "%s\n", text.c_str());
    std::fflush(_out);
  }

  void update(const Snapshot& snapshot) override {
    _rate.add(snapshot.downloadedBytes);
    if (_throttle.due())
      draw(snapshot);
  }

  void finish(const Snapshot& snapshot) override {
    _rate.add(snapshot.downloadedBytes);
    draw(snapshot);
    _lines = 0;
  }

private:
  void draw(const Snapshot& snapshot) {
    winsize size{};
    ioctl(fileno(_out), TIOCGWINSZ, &size);
    std::size_t width = size.ws_col > 20 ? size.ws_col : 80;
    std::size_t rows = size.ws_row > 3 ? size.ws_row : 24;

    std::string text;
    if (_lines > 0)
      text += "\033[" + std::to_string(_lines) + "A";
    std::size_t lines = 0;
    // Where not all fit, what moves is worth a line.
    const bool allFit = snapshot.qualities.size() + 2 < rows;
    for (const QualityProgress& quality : snapshot.qualities) {
      if (!allFit && (quality.complete || quality.downloadedBytes == 0))
        continue;
      if (lines + 2 >= rows)
        break;
      text +=
          line(quality.label, quality.downloadedBytes, quality.expectedBytes, quality.complete, "", width);
      ++lines;
    }
    double rate = _rate.bytesPerSecond();
    std::int64_t left = _rate.secondsLeft(snapshot);
    std::string tail = isComplete(snapshot) ? ""
                       : snapshot.state == "paused"
                           ? "paused"
                           : bytesText(std::int64_t(rate)) + "/s  " + timeText(left) + " left";
    text += line(snapshot.totalLabel, snapshot.downloadedBytes, snapshot.expectedBytes, isComplete(snapshot),
                 tail, width);
    ++lines;
    // A redraw with fewer lines must not leave old ones below.
    text += "\033[J";
    _lines = lines;
    std::fwrite(text.data(), 1, text.size(), _out);
    std::fflush(_out);
  }

  static std::string line(const std::string& label, std::int64_t downloaded, std::int64_t expected,
                          bool complete, const std::string& tail, std::size_t width) {
    int value = percent(downloaded, expected, complete);
    std::string name = fitted(oneLine(label), 20);
    name += std::string(20 - std::min<std::size_t>(20, columns(name)), ' ');
    char counts[64];
    std::snprintf(counts, sizeof counts, " %3s%%  %9s  ", percentText(value).c_str(),
                  bytesText(downloaded).c_str());
    const std::size_t bar = width > 90 ? 30 : 16;
    std::size_t filled = value < 0 ? 0 : bar * static_cast<std::size_t>(value) / 100;
    std::string text =
        name + " [" + std::string(filled, '#') + std::string(bar - filled, '.') + "]" + counts + tail;
    return "\r\033[K" + fitted(text, width) + "\n";
  }

  std::FILE* _out;
  Throttle _throttle{0.1};
  Rate _rate;
  std::size_t _lines = 0;
};

class PlainDisplay : public ProgressDisplay {
public:
  explicit PlainDisplay(std::FILE* out) : _out(out) {}

  void update(const Snapshot& snapshot) override {
    _rate.add(snapshot.downloadedBytes);
    reportCompleteQualities(snapshot);
    int value = percent(snapshot.downloadedBytes, snapshot.expectedBytes, isComplete(snapshot));
    if (value < _next || !_throttle.due())
      return;
    _next = value / 10 * 10 + 10;
    print(snapshot, value);
  }

  void finish(const Snapshot& snapshot) override {
    reportCompleteQualities(snapshot);
    print(snapshot, percent(snapshot.downloadedBytes, snapshot.expectedBytes, isComplete(snapshot)));
    _complete.clear();
    _next = 0;
  }

private:
  void reportCompleteQualities(const Snapshot& snapshot) {
    _complete.resize(std::max(_complete.size(), snapshot.qualities.size()));
    for (std::size_t i = 0; i < snapshot.qualities.size(); ++i) {
      const QualityProgress& quality = snapshot.qualities[i];
      if (quality.complete && !_complete[i]) {
        _complete[i] = true;
        std::fprintf(_out, "%s: complete, %s\n", oneLine(quality.label).c_str(),
                     bytesText(quality.downloadedBytes).c_str());
      }
    }
    std::fflush(_out);
  }

  void print(const Snapshot& snapshot, int value) {
    const std::string label = snapshot.totalLabel == "total" ? "" : snapshot.totalLabel + ": ";
    std::fprintf(_out, "%s%s%% of %s, %s/s\n", label.c_str(), percentText(value).c_str(),
                 snapshot.expectedBytes < 0 ? "an unknown size" : bytesText(snapshot.expectedBytes).c_str(),
                 bytesText(std::int64_t(_rate.bytesPerSecond())).c_str());
    std::fflush(_out);
  }

  std::FILE* _out;
  Throttle _throttle{0.5};
  Rate _rate;
  int _next = 0;
  std::vector<bool> _complete;
};

class JSONDisplay : public ProgressDisplay {
public:
  explicit JSONDisplay(std::FILE* out) : _out(out) {}

  void update(const Snapshot& snapshot) override {
    _rate.add(snapshot.downloadedBytes);
    if (_throttle.due())
      print(snapshot);
  }
  void finish(const Snapshot& snapshot) override {
    _rate.add(snapshot.downloadedBytes);
    print(snapshot);
  }

private:
  static nlohmann::json known(std::int64_t value) {
    return value < 0 ? nlohmann::json() : nlohmann::json(value);
  }

  void print(const Snapshot& snapshot) {
    nlohmann::json object = {{"id", snapshot.identifier},
                             {"title", snapshot.title},
                             {"state", snapshot.state},
                             {"downloadedBytes", snapshot.downloadedBytes},
                             {"expectedBytes", known(snapshot.expectedBytes)},
                             {"bytesPerSecond", std::int64_t(_rate.bytesPerSecond())},
                             {"remainingSeconds", known(_rate.secondsLeft(snapshot))}};
    nlohmann::json& qualities = object["qualities"] = nlohmann::json::array();
    for (const QualityProgress& quality : snapshot.qualities)
      qualities.push_back({{"name", quality.label},
                           {"downloadedBytes", quality.downloadedBytes},
                           {"expectedBytes", known(quality.expectedBytes)},
                           {"complete", quality.complete}});
    std::string text = object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    std::fwrite(text.data(), 1, text.size(), _out);
    std::fflush(_out);
  }

  std::FILE* _out;
  Throttle _throttle{0.2};
  Rate _rate;
};

} // namespace

bool parseProgressMode(const std::string& text, ProgressMode& mode) {
  static const std::pair<const char*, ProgressMode> modes[] = {{"auto", ProgressMode::Auto},
                                                               {"bar", ProgressMode::Bar},
                                                               {"plain", ProgressMode::Plain},
                                                               {"json", ProgressMode::JSON},
                                                               {"none", ProgressMode::None}};
  for (const auto& [name, value] : modes)
    if (text == name) {
      mode = value;
      return true;
    }
  return false;
}

std::unique_ptr<ProgressDisplay> ProgressDisplay::create(ProgressMode mode, std::FILE* out) {
  if (mode == ProgressMode::Auto)
    mode = isatty(fileno(out)) ? ProgressMode::Bar : ProgressMode::Plain;
  switch (mode) {
  case ProgressMode::Bar:
    return std::make_unique<BarDisplay>(out);
  case ProgressMode::Plain:
    return std::make_unique<PlainDisplay>(out);
  case ProgressMode::JSON:
    return std::make_unique<JSONDisplay>(out);
  default:
    return std::make_unique<SilentDisplay>();
  }
}

} // namespace tolvane
