#pragma once

#include "qvc/FastString.h"

#include <cstdint>
#include <string_view>

namespace qvc {

/// The record behind a URI; internal. All texts are raw.
struct URIImpl {
  FastString scheme;
  /// Follows from the fields below; whoever changes them calls rebuildSchemeSpecific.
  FastString schemeSpecificPart;
  FastString userInfo;
  FastString hostName;
  /// Without its leading "/" when it was split from a text with an authority.
  FastString path;
  FastString query;
  FastString fragment;
  uint32_t port = 0;

  bool isFile() const noexcept { return scheme == "file"; }
  bool hasAuthority() const noexcept { return !userInfo.isEmpty() || !hostName.isEmpty() || port != 0; }

  /// Set the fields that the text, without fragment, stands for; the text must not be one of them.
  void splitSchemeSpecific(std::string_view text);
  void splitAuthority(std::string_view authority);
  void rebuildSchemeSpecific();
  /// Encodes every component, which so far holds plain text, and rebuilds.
  void encodeAll();
};

} // namespace qvc
