#pragma once

#include "mpl/dash/AdaptationSet.h"
#include "qvc/FastString.h"

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace mpl::dash {

/// A stretch of the presentation. Immutable; may be read from any thread. Times are in milliseconds.
class Period {
public:
  Period(qvc::FastString id, std::int64_t start, std::int64_t duration,
         std::vector<std::unique_ptr<const AdaptationSet>> adaptationSets)
      : _id(std::move(id)), _start(start), _duration(duration), _adaptationSets(std::move(adaptationSets)) {}

  const qvc::FastString& id() const noexcept { return _id; }
  /// -1 when not known.
  std::int64_t start() const noexcept { return _start; }
  /// -1 when not given.
  std::int64_t duration() const noexcept { return _duration; }
  /// In document order, none null.
  const std::vector<std::unique_ptr<const AdaptationSet>>& adaptationSets() const noexcept {
    return _adaptationSets;
  }

private:
  qvc::FastString _id;
  std::int64_t _start;
  std::int64_t _duration;
  std::vector<std::unique_ptr<const AdaptationSet>> _adaptationSets;
};

} // namespace mpl::dash
