#include "mpl/dash/ContentProtectionsBuilder.h"

#include "mpl/Exception.h"

#include <algorithm>
#include <utility>

namespace mpl::dash {

bool ContentProtectionsBuilder::List::contains(const ContentProtection& protection) const {
  const auto found = _firstOfScheme.find(protection.schemeIdUri.view());
  if (found == _firstOfScheme.end())
    return false;
  const ContentProtection& entry = *_entries[found->second];
  if (entry.systemId != protection.systemId || entry.schemeInitData != protection.schemeInitData)
    throw StateException("Conflicting schemeId URIs");
  return true;
}

void ContentProtectionsBuilder::List::append(Protection protection) {
  _firstOfScheme.emplace(protection->schemeIdUri.view(), _entries.size());
  _entries.push_back(std::move(protection));
}

void ContentProtectionsBuilder::add(Protection protection) {
  if (!_collected.contains(*protection))
    _collected.append(std::move(protection));
}

void ContentProtectionsBuilder::endRepresentation() {
  std::sort(_currentRepresentation.begin(), _currentRepresentation.end(),
            [](const Protection& a, const Protection& b) { return a->schemeIdUri < b->schemeIdUri; });
  if (!_haveFirstRepresentation) {
    _common = _currentRepresentation;
    _haveFirstRepresentation = true;
    return;
  }
  if (!std::equal(_common.begin(), _common.end(), _currentRepresentation.begin(),
                  _currentRepresentation.end(),
                  [](const Protection& a, const Protection& b) { return *a == *b; }))
    throw StateException("Mismatching representation protections defined");
}

std::vector<ContentProtectionsBuilder::Protection> ContentProtectionsBuilder::build() const {
  if (_collected.entries().empty())
    return _common;
  std::vector<Protection> result = _collected.entries();
  for (const Protection& protection : _common) {
    if (!_collected.contains(*protection))
      result.push_back(protection);
  }
  return result;
}

} // namespace mpl::dash
