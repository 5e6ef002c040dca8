#pragma once

#include "mpl/SharedText.h"
#include "mpl/dash/ContentProtection.h"
#include "mpl/dash/ContentType.h"

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace mpl::dash {

class Representation;

/// Interchangeable encodings of one piece of content. Immutable; may be read from any thread.
class AdaptationSet {
public:
  AdaptationSet(std::int32_t id, ContentType contentType, SharedText lang, SharedText mimeType,
                std::vector<std::shared_ptr<const Representation>> representations,
                std::vector<std::shared_ptr<const ContentProtection>> contentProtections)
      : _id(id), _contentType(contentType), _lang(std::move(lang)), _mimeType(std::move(mimeType)),
        _representations(std::move(representations)), _contentProtections(std::move(contentProtections)) {}

  /// -1 when not given.
  std::int32_t id() const noexcept { return _id; }
  ContentType contentType() const noexcept { return _contentType; }
  const SharedText& lang() const noexcept { return _lang; }
  /// The set's own; a representation may have another.
  const SharedText& mimeType() const noexcept { return _mimeType; }
  /// In document order, none null.
  const std::vector<std::shared_ptr<const Representation>>& representations() const noexcept {
    return _representations;
  }
  /// Of the set and all its representations, each once.
  const std::vector<std::shared_ptr<const ContentProtection>>& contentProtections() const noexcept {
    return _contentProtections;
  }

private:
  std::int32_t _id;
  ContentType _contentType;
  SharedText _lang;
  SharedText _mimeType;
  std::vector<std::shared_ptr<const Representation>> _representations;
  std::vector<std::shared_ptr<const ContentProtection>> _contentProtections;
};

} // namespace mpl::dash
