#include "qvc/URI.h"

#include "qvc/URIEscapeEncoder.h"
#include "qvc/URIImpl.h"

namespace qvc {
namespace {

FastString decoded(const FastString& text) {
  return URI::EscapeEncoder::decode(text);
}

/// Encodes what is not encoded yet; returns whether anything changed.
bool encodeInPlace(FastString& text, const URI::EscapeEncoder& encoder) {
  if (encoder.isEncoded(text))
    return false;
  text = encoder.encode(text);
  return true;
}

} // namespace

URI::URI() noexcept = default;
URI::URI(URI&& other) noexcept = default;
URI& URI::operator=(URI&& other) noexcept = default;
URI::~URI() = default;

URI::URI(const URI& other) : m_impl(other.m_impl ? std::make_unique<URIImpl>(*other.m_impl) : nullptr) {}

URI& URI::operator=(const URI& other) {
  if (!other.m_impl)
    m_impl.reset();
  else if (this != &other)
    ensureImpl() = *other.m_impl;
  return *this;
}

URI::URI(const FastString& text) : URI(fromEncodedString(text)) {
  if (!m_impl)
    return;
  URIImpl& parts = *m_impl;
  bool changed = encodeInPlace(parts.scheme, EscapeEncoder::defaultEncoder());
  changed |= encodeInPlace(parts.userInfo, EscapeEncoder::authorityEncoder());
  changed |= encodeInPlace(parts.hostName, EscapeEncoder::authorityEncoder());
  changed |= encodeInPlace(parts.path, EscapeEncoder::defaultEncoder());
  changed |= encodeInPlace(parts.query, EscapeEncoder::queryEncoder());
  encodeInPlace(parts.fragment, EscapeEncoder::fragmentEncoder());
  if (changed)
    parts.rebuildSchemeSpecific();
}

URI::URI(const FastString& scheme, const FastString& userInfo, const FastString& host, uint32_t port,
         const FastString& path, const FastString& query, const FastString& fragment) {
  URIImpl& parts = ensureImpl();
  parts.scheme = scheme;
  parts.userInfo = userInfo;
  parts.hostName = host;
  parts.port = port;
  parts.path = path;
  parts.query = query;
  parts.fragment = fragment;
  parts.encodeAll();
}

URI::URI(const FastString& scheme, const FastString& authority, const FastString& path,
         const FastString& query, const FastString& fragment) {
  URIImpl& parts = ensureImpl();
  parts.scheme = scheme;
  parts.splitAuthority(authority.view());
  parts.path = path;
  parts.query = query;
  parts.fragment = fragment;
  parts.encodeAll();
}

URI::URI(const FastString& scheme, const FastString& schemeSpecificPart, const FastString& fragment) {
  URIImpl& parts = ensureImpl();
  parts.scheme = scheme;
  parts.splitSchemeSpecific(schemeSpecificPart.view());
  parts.fragment = fragment;
  parts.encodeAll();
}

URI URI::fromEncodedString(const FastString& text) {
  URI result;
  if (text.isEmpty())
    return result;
  URIImpl& parts = result.ensureImpl();
  std::string_view rest = text.view();

  // A "/" before the ":" makes it part of a path, a "." part of a host and port.
  const size_t colon = rest.find(':');
  if (colon != std::string_view::npos && colon > 0 &&
      rest.substr(0, colon).find_first_of("/.") == std::string_view::npos) {
    parts.scheme = FastString(rest.substr(0, colon));
    rest.remove_prefix(colon + 1);
  }
  if (const size_t hash = rest.find('#'); hash != std::string_view::npos) {
    parts.fragment = FastString(rest.substr(hash + 1));
    rest = rest.substr(0, hash);
  }
  parts.splitSchemeSpecific(rest);
  parts.rebuildSchemeSpecific();
  return result;
}

URI URI::fromEncodedComponents(const FastString& scheme, const FastString& authority, const FastString& path,
                               const FastString& query, const FastString& fragment) {
  URI result;
  URIImpl& parts = result.ensureImpl();
  parts.scheme = scheme;
  parts.splitAuthority(authority.view());
  parts.path = path;
  parts.query = query;
  parts.fragment = fragment;
  parts.rebuildSchemeSpecific();
  return result;
}

URIImpl& URI::ensureImpl() {
  if (!m_impl)
    m_impl = std::make_unique<URIImpl>();
  return *m_impl;
}

const URIImpl& URI::impl() const noexcept {
  static const URIImpl empty;
  return m_impl ? *m_impl : empty;
}

const FastString& URI::rawScheme() const noexcept {
  return impl().scheme;
}
const FastString& URI::rawUserInfo() const noexcept {
  return impl().userInfo;
}
const FastString& URI::rawHostName() const noexcept {
  return impl().hostName;
}
const FastString& URI::rawPath() const noexcept {
  return impl().path;
}
const FastString& URI::rawQuery() const noexcept {
  return impl().query;
}
const FastString& URI::rawFragment() const noexcept {
  return impl().fragment;
}
const FastString& URI::rawSchemeSpecificPart() const noexcept {
  return impl().schemeSpecificPart;
}
uint32_t URI::port() const noexcept {
  return impl().port;
}

FastString URI::rawAuthority() const {
  const URIImpl& parts = impl();
  FastString result;
  result.reserve(parts.userInfo.size() + parts.hostName.size() + 12);
  if (!parts.userInfo.isEmpty())
    result.append(parts.userInfo).append('@');
  result.append(parts.hostName);
  if (parts.port != 0)
    result.append(':').appendNumber(parts.port);
  return result;
}

FastString URI::scheme() const {
  return decoded(rawScheme());
}
FastString URI::userInfo() const {
  return decoded(rawUserInfo());
}
FastString URI::hostName() const {
  return decoded(rawHostName());
}
FastString URI::path() const {
  return decoded(rawPath());
}
FastString URI::query() const {
  return decoded(rawQuery());
}
FastString URI::fragment() const {
  return decoded(rawFragment());
}
FastString URI::schemeSpecificPart() const {
  return decoded(rawSchemeSpecificPart());
}
FastString URI::authority() const {
  return decoded(rawAuthority());
}

void URI::setRawScheme(const FastString& scheme) {
  ensureImpl().scheme = scheme;
  m_impl->rebuildSchemeSpecific();
}

void URI::setRawUserInfo(const FastString& userInfo) {
  ensureImpl().userInfo = userInfo;
  m_impl->rebuildSchemeSpecific();
}

void URI::setRawHostName(const FastString& hostName) {
  ensureImpl().hostName = hostName;
  m_impl->rebuildSchemeSpecific();
}

void URI::setRawPath(const FastString& path) {
  ensureImpl().path = path;
  m_impl->rebuildSchemeSpecific();
}

void URI::setRawQuery(const FastString& query) {
  ensureImpl().query = query;
  m_impl->rebuildSchemeSpecific();
}

void URI::setRawFragment(const FastString& fragment) {
  ensureImpl().fragment = fragment;
}

void URI::setRawSchemeSpecificPart(const FastString& text) {
  // A copy: the text may be this URI's own.
  const FastString copy = text;
  ensureImpl().splitSchemeSpecific(copy.view());
  m_impl->rebuildSchemeSpecific();
}

void URI::setPort(uint32_t port) {
  ensureImpl().port = port;
  m_impl->rebuildSchemeSpecific();
}

FastString URI::toRawString() const {
  const URIImpl& parts = impl();
  FastString result;
  result.reserve(parts.scheme.size() + parts.schemeSpecificPart.size() + parts.fragment.size() + 2);
  if (!parts.scheme.isEmpty())
    result.append(parts.scheme).append(':');
  result.append(parts.schemeSpecificPart);
  if (!parts.fragment.isEmpty())
    result.append('#').append(parts.fragment);
  return result;
}

FastString URI::toString() const {
  FastString result = scheme();
  if (!result.isEmpty())
    result.append(':');
  result.append(schemeSpecificPart());
  if (const FastString text = fragment(); !text.isEmpty())
    result.append('#').append(text);
  return result;
}

bool URI::isEmpty() const noexcept {
  return !m_impl ||
         (m_impl->scheme.isEmpty() && m_impl->schemeSpecificPart.isEmpty() && m_impl->fragment.isEmpty());
}

bool URI::isAbsolute() const noexcept {
  return !rawScheme().isEmpty();
}

bool URI::isOpaque() const noexcept {
  return isAbsolute() && rawSchemeSpecificPart().first() != '/';
}

bool URI::equals(const URI& other) const noexcept {
  return rawScheme() == other.rawScheme() && rawSchemeSpecificPart() == other.rawSchemeSpecificPart() &&
         rawFragment() == other.rawFragment();
}

} // namespace qvc
