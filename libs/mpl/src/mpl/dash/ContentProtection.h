#pragma once

#include "qvc/ByteArray.h"
#include "qvc/FastString.h"
#include "qvc/Uuid.h"

namespace mpl::dash {

/// What a protection system needs to start. A plain value.
struct SchemeInitData {
  qvc::FastString mimeType; ///< "video/mp4" when taken from a pssh element, else empty.
  qvc::ByteArray data;      ///< The whole pssh box.

  bool operator==(const SchemeInitData&) const = default;
};

/// One protection system of an adaptation set. A plain value.
struct ContentProtection {
  qvc::FastString schemeIdUri;
  qvc::Uuid systemId;
  SchemeInitData schemeInitData;

  bool operator==(const ContentProtection&) const = default;
};

} // namespace mpl::dash
