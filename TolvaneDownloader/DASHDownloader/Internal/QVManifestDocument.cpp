#include "TolvaneDownloader/DASHDownloader/Internal/QVManifestDocument.h"

#include "qvc/xml/Parser.h"

const qvc::xml::Element& QVManifestDocument::root() const {
  if (!_root) {
    _root.emplace();
    qvc::xml::Parser::parse(*_root, _data.data(), _data.size(), nullptr); // leaves it null on failure
  }
  return *_root;
}
