#include "qvc/URIImpl.h"

#include "qvc/URIEscapeEncoder.h"

#include <limits>
#include <stdexcept>

namespace qvc {
namespace {

constexpr size_t npos = std::string_view::npos;

/// A number that is none, or fits no port field, counts as no port.
uint32_t parsePort(std::string_view text) {
  try {
    const uint64_t port = FastString(text).toUInt(10);
    return port <= std::numeric_limits<uint32_t>::max() ? static_cast<uint32_t>(port) : 0;
  } catch (const std::out_of_range&) {
    return 0;
  }
}

} // namespace

void URIImpl::splitSchemeSpecific(std::string_view text) {
  const size_t question = text.find('?');
  query = question == npos ? FastString() : FastString(text.substr(question + 1));
  std::string_view rest = text.substr(0, question);
  if (!rest.starts_with("//")) {
    splitAuthority({});
    path = FastString(rest);
    return;
  }
  rest.remove_prefix(2);
  if (isFile()) {
    splitAuthority({});
    path = FastString(rest);
    return;
  }
  const size_t slash = rest.find('/');
  splitAuthority(rest.substr(0, slash));
  path = slash == npos ? FastString() : FastString(rest.substr(slash + 1));
}

void URIImpl::splitAuthority(std::string_view authority) {
  const size_t at = authority.find('@');
  userInfo = at == npos ? FastString() : FastString(authority.substr(0, at));
  if (at != npos)
    authority.remove_prefix(at + 1);
  const size_t colon = authority.find(':');
  hostName = FastString(authority.substr(0, colon));
  port = colon == npos ? 0 : parsePort(authority.substr(colon + 1));
}

void URIImpl::rebuildSchemeSpecific() {
  if (!isFile() && !hasAuthority() && query.isEmpty()) {
    schemeSpecificPart = path; // the references of playlists, by the hundred thousand
    return;
  }
  FastString result;
  result.reserve(userInfo.size() + hostName.size() + path.size() + query.size() + 10);
  if (isFile() || hasAuthority()) {
    result.append("//");
    if (!userInfo.isEmpty())
      result.append(userInfo).append('@');
    if (!hostName.isEmpty()) {
      result.append(hostName);
      if (port != 0)
        result.append(':').appendNumber(port);
      if (path.first() != '/')
        result.append('/');
    }
  }
  result.append(path);
  if (!query.isEmpty())
    result.append('?').append(query);
  schemeSpecificPart = std::move(result);
}

void URIImpl::encodeAll() {
  using Encoder = URI::EscapeEncoder;
  scheme = Encoder::defaultEncoder().encode(scheme);
  userInfo = Encoder::authorityEncoder().encode(userInfo);
  hostName = Encoder::authorityEncoder().encode(hostName);
  path = Encoder::defaultEncoder().encode(path);
  query = Encoder::queryEncoder().encode(query);
  fragment = Encoder::fragmentEncoder().encode(fragment);
  rebuildSchemeSpecific();
}

} // namespace qvc
