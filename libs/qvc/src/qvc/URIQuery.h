#pragma once

#include "qvc/URI.h"

#include <utility>
#include <vector>

namespace qvc {

/// A query string split into keys and values, in order; keys may repeat. Nothing is encoded or decoded.
/// A value; not synchronised.
class URI::Query {
public:
  explicit Query(char pairSeparator = '&', char valueSeparator = '=')
      : m_pairSeparator(pairSeparator), m_valueSeparator(valueSeparator) {}
  /// `text` without the "?".
  explicit Query(const FastString& text, char pairSeparator = '&', char valueSeparator = '=')
      : Query(pairSeparator, valueSeparator) {
    parse(text);
  }

  /// Replaces the content. A piece without value separator is a key with an empty value; empty pieces are
  /// skipped.
  void parse(const FastString& text);

  bool keyExists(const FastString& key) const noexcept;
  /// Every key once, in the order of first appearance.
  std::vector<FastString> keys() const;
  /// The first value of the key; empty if there is none.
  FastString value(const FastString& key) const;
  std::vector<FastString> values(const FastString& key) const;
  /// The pairs joined again; a key with an empty value is written without value separator.
  FastString toString() const;

private:
  char m_pairSeparator;
  char m_valueSeparator;
  std::vector<std::pair<FastString, FastString>> m_pairs;
};

} // namespace qvc
