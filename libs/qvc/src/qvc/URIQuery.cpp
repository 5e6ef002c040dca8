#include "qvc/URIQuery.h"

#include <algorithm>
#include <unordered_set>

namespace qvc {

void URI::Query::parse(const FastString& text) {
  m_pairs.clear();
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = std::min(text.indexOf(m_pairSeparator, begin), text.size());
    // Looked for in this pair alone: a text of a million pairs without values must not be searched a million
    // times.
    const size_t middle = std::min(text.view().substr(0, end).find(m_valueSeparator, begin), end);
    if (begin < end)
      m_pairs.emplace_back(text.subStringRange(begin, middle), text.subStringRange(middle + 1, end));
    begin = end + 1;
  }
}

bool URI::Query::keyExists(const FastString& key) const noexcept {
  return std::any_of(m_pairs.begin(), m_pairs.end(), [&](const auto& pair) { return pair.first == key; });
}

std::vector<FastString> URI::Query::keys() const {
  std::vector<FastString> result;
  std::unordered_set<FastString> seen;
  for (const auto& [key, value] : m_pairs)
    if (seen.insert(key).second)
      result.push_back(key);
  return result;
}

FastString URI::Query::value(const FastString& key) const {
  for (const auto& pair : m_pairs)
    if (pair.first == key)
      return pair.second;
  return {};
}

std::vector<FastString> URI::Query::values(const FastString& key) const {
  std::vector<FastString> result;
  for (const auto& pair : m_pairs)
    if (pair.first == key)
      result.push_back(pair.second);
  return result;
}

FastString URI::Query::toString() const {
  FastString result;
  for (const auto& [key, value] : m_pairs) {
    if (!result.isEmpty())
      result.append(m_pairSeparator);
    result.append(key);
    if (!value.isEmpty())
      result.append(m_valueSeparator).append(value);
  }
  return result;
}

} // namespace qvc
