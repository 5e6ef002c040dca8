#include "mpl/ReferenceURI.h"

#include "qvc/URI.h"

#include <algorithm>
#include <string_view>

namespace mpl {

namespace {

/// Whether the text is a relative path and nothing else, with no character that is ever encoded.
bool isPlainPath(std::string_view text) {
  const auto isPlain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '-' && c <= '9') || c == '_';
  };
  return !text.empty() && text.front() != '/' && std::all_of(text.begin(), text.end(), isPlain);
}

} // namespace

qvc::FastString ReferenceURI::resolve() const {
  return qvc::URI(base.get()).resolve(qvc::URI(uri.get())).toRawString();
}

qvc::FastString ReferenceResolver::resolve(const ReferenceURI& reference) {
  if (!isPlainPath(reference.uri.get().view()))
    return reference.resolve();
  if (!(reference.base == _base)) {
    _base = reference.base;
    _directory = ReferenceURI{"x", _base}.resolve();
    _directory.popBack();
  }
  qvc::FastString resolved;
  resolved.reserve(_directory.size() + reference.uri.get().size());
  resolved.append(_directory).append(reference.uri.get());
  return resolved;
}

} // namespace mpl
