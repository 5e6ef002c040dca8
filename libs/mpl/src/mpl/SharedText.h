#pragma once

#include "qvc/FastString.h"

#include <memory>
#include <utility>

namespace mpl {

/// An immutable text whose copies share one storage.
///
/// What a manifest states once (a base URL, a language, a template) is inherited by any number of objects
/// below; sharing keeps the memory of a presentation proportional to its manifest. Safe to copy and read from
/// any thread.
class SharedText {
public:
  SharedText() noexcept = default;
  SharedText(qvc::FastString text) {
    if (!text.isEmpty())
      _text = std::make_shared<const qvc::FastString>(std::move(text));
  }
  SharedText(const char* text) : SharedText(qvc::FastString(text)) {}

  const qvc::FastString& get() const noexcept {
    static const qvc::FastString empty;
    return _text ? *_text : empty;
  }
  operator const qvc::FastString&() const noexcept { return get(); }
  bool isEmpty() const noexcept { return _text == nullptr; }

  bool operator==(const SharedText& other) const { return _text == other._text || get() == other.get(); }

private:
  std::shared_ptr<const qvc::FastString> _text; ///< Null for an empty text.
};

} // namespace mpl
