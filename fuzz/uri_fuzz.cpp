// URI references: the first line is the base, the rest the reference.
#include "fuzz/FuzzInput.h"
#include "fuzz/SilentLog.h"

#include "qvc/FastString.h"
#include "qvc/URI.h"
#include "qvc/URIEscapeEncoder.h"
#include "qvc/URIQuery.h"

using namespace qvc;

namespace {

void readParts(const URI& uri) {
  uri.scheme(), uri.userInfo(), uri.hostName(), uri.path(), uri.query(), uri.fragment();
  uri.schemeSpecificPart(), uri.authority(), uri.rawAuthority(), uri.toString(), uri.base();
  uri.isEmpty(), uri.isAbsolute(), uri.isOpaque();
  const URI::Query query(uri.rawQuery());
  for (const FastString& key : query.keys())
    fuzzing::require(key.contains('\0') || query.keyExists(key), "a listed key has a value");
}

/// By all bytes: the texts' own comparison ends at a zero byte.
bool same(const URI& a, const URI& b) {
  return a.toRawString().view() == b.toRawString().view();
}

void readReference(const FastString& text) {
  const URI encoded(text);
  readParts(encoded);
  const FastString sent = encoded.toRawString();
  // A path that begins with "/" behind a host is written with that one slash only.
  if (!encoded.rawScheme().isEmpty() && !encoded.rawHostName().isEmpty() && encoded.rawPath().first() != '/')
    fuzzing::require(same(URI(sent), encoded), "an encoded text is encoded no further", sent.toStdString());

  const URI plain = URI::fromEncodedString(text);
  readParts(plain);
  const URI normal = plain.normalize();
  fuzzing::require(same(normal.normalize(), normal), "normalizing twice changes nothing",
                   plain.toRawString().toStdString());
}

void readPair(const FastString& baseText, const FastString& referenceText) {
  const URI base(baseText);
  const URI target = base.resolve(URI(referenceText));
  readParts(target);
  const URI other = URI(referenceText).normalize();
  const URI way = base.relativize(other);
  fuzzing::require(same(base.resolve(way).normalize(), other) || same(way, other),
                   "a relative way leads to its target",
                   base.toRawString().toStdString() + "\n" + other.toRawString().toStdString() + "\n" +
                       way.toRawString().toStdString());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto text = fuzzing::textOf(data, size);
  const auto line = text.find('\n');
  const FastString base(text.substr(0, line));
  const FastString reference(line == text.npos ? std::string_view() : text.substr(line + 1));
  readReference(base);
  readReference(reference);
  readPair(base, reference);
  return 0;
}
