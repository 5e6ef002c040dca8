// What makes new URIs of two, or of a part of one.
#include "qvc/URI.h"

#include "qvc/URIImpl.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace qvc {
namespace {

constexpr size_t npos = std::string_view::npos;

/// The path up to, not including, its last "/"; empty if it has none.
std::string_view directoryOf(const FastString& path) {
  const size_t slash = path.lastIndexOf('/');
  return slash == npos ? std::string_view() : path.view().substr(0, slash);
}

std::vector<std::string_view> segmentsOf(std::string_view path) {
  std::vector<std::string_view> segments;
  for (size_t begin = 0;;) {
    const size_t end = path.find('/', begin);
    segments.push_back(path.substr(begin, end - begin));
    if (end == npos)
      return segments;
    begin = end + 1;
  }
}

/// `rooted`: there is nothing above the first segment.
FastString withoutDotSegments(std::string_view path, bool rooted) {
  std::vector<std::string_view> kept;
  for (const std::string_view segment : segmentsOf(path)) {
    if (segment == ".")
      continue;
    if (segment != "..")
      kept.push_back(segment);
    else if (!kept.empty() && kept.back() != "..")
      kept.pop_back();
    else if (!rooted)
      kept.push_back(segment);
  }
  FastString result;
  result.reserve(path.size());
  for (size_t i = 0; i < kept.size(); ++i) {
    if (i > 0)
      result.append('/');
    result.append(kept[i]);
  }
  return result;
}

} // namespace

URI URI::resolve(const URI& reference) const {
  if (isEmpty() || reference.isAbsolute())
    return reference;
  const URIImpl& to = reference.impl();
  if (to.path.isEmpty()) {
    URI result = *this;
    if (!to.fragment.isEmpty() && !isAbsolute() && !m_impl->hasAuthority() && m_impl->query.isEmpty())
      result.m_impl->fragment = to.fragment;
    return result;
  }

  URI result;
  URIImpl& parts = result.ensureImpl();
  parts.scheme = m_impl->scheme;
  const URIImpl& authority = to.hasAuthority() ? to : *m_impl;
  parts.userInfo = authority.userInfo;
  parts.hostName = authority.hostName;
  parts.port = authority.port;
  if (to.path.first() == '/') {
    parts.path = to.path;
  } else {
    const std::string_view directory = directoryOf(m_impl->path);
    parts.path.reserve(directory.size() + 1 + to.path.size());
    parts.path.append(directory);
    if (!directory.empty())
      parts.path.append('/');
    parts.path.append(to.path);
  }
  parts.query = to.query;
  parts.fragment = to.fragment;
  parts.rebuildSchemeSpecific();
  return result;
}

URI URI::base() const {
  URI result;
  if (!m_impl)
    return result;
  URIImpl& parts = result.ensureImpl();
  parts.scheme = m_impl->scheme;
  parts.userInfo = m_impl->userInfo;
  parts.hostName = m_impl->hostName;
  parts.port = m_impl->port;
  parts.path = FastString(directoryOf(m_impl->path));
  parts.rebuildSchemeSpecific();
  return result;
}

URI URI::normalize() const {
  URI result = *this;
  if (!m_impl)
    return result;
  URIImpl& parts = *result.m_impl;
  std::string_view path = m_impl->path.view();
  const bool absolute = path.starts_with('/');
  if (absolute)
    path.remove_prefix(1);
  FastString rest = withoutDotSegments(path, absolute || parts.hasAuthority());
  // An authority implies the "/", and without it this is the form that splitting gives. Before an empty
  // segment it has to stay, or the empty segment would be taken for it.
  const bool implied = !parts.hostName.isEmpty() && !parts.isFile() && rest.first() != '/';
  if (absolute && !implied)
    rest.pushFront('/');
  parts.path = std::move(rest);
  parts.rebuildSchemeSpecific();
  return result;
}

URI URI::relativize(const URI& other) const {
  const URI from = normalize();
  const URI to = other.normalize();
  if (from.isOpaque() || from.rawScheme() != to.rawScheme() || from.rawAuthority() != to.rawAuthority())
    return other;

  const std::vector<std::string_view> here = segmentsOf(from.rawPath().view());
  const std::vector<std::string_view> there = segmentsOf(to.rawPath().view());
  // The last segment names the document itself, whatever it is.
  const size_t limit = std::min(here.size(), there.size()) - 1;
  size_t common = 0;
  while (common < limit && here[common] == there[common])
    ++common;
  FastString path;
  for (size_t i = common; i + 1 < here.size(); ++i)
    path.append("../");
  for (size_t i = common; i < there.size(); ++i) {
    if (i > common)
      path.append('/');
    path.append(there[i]);
  }

  URI result = fromEncodedComponents({}, {}, path, to.rawQuery(), to.rawFragment());
  // An empty path would mean this document, a leading "/" the root, and an early ":" a scheme.
  if (path.isEmpty() || path.first() == '/' || fromEncodedString(result.toRawString()).isAbsolute())
    result.setRawPath("./" + path);
  return resolve(result).normalize() == to ? result : other;
}

} // namespace qvc
