#pragma once

#include "mpl/dash/ContentProtection.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace mpl::dash {

/// Gathers the protections of one adaptation set while it is parsed: those of the set and of all its
/// representations, each distinct one once, in order of first appearance. One per set; not synchronised.
///
/// Two protections with the same scheme must agree, else the operations throw StateException ("Conflicting
/// schemeId URIs").
class ContentProtectionsBuilder {
public:
  using Protection = std::shared_ptr<const ContentProtection>;

  /// Adds a protection unless it is there already; `protection` must not be null.
  void add(Protection protection);

  /// To be called after each representation. Protections that were recorded for single representations would
  /// have to be the same for all of them, else StateException; the parser records none, as the merged list is
  /// what counts.
  void endRepresentation();

  /// The protections of the set.
  std::vector<Protection> build() const;

private:
  /// A list that finds a scheme without a scan.
  class List {
  public:
    bool contains(const ContentProtection& protection) const;
    void append(Protection protection);
    const std::vector<Protection>& entries() const noexcept { return _entries; }

  private:
    std::vector<Protection> _entries;
    std::unordered_map<std::string_view, std::size_t> _firstOfScheme; ///< Keys stand in the shared entries.
  };

  List _collected;
  std::vector<Protection> _common;
  std::vector<Protection> _currentRepresentation;
  bool _haveFirstRepresentation = false;
};

} // namespace mpl::dash
