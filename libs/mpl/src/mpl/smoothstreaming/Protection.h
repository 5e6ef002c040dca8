#pragma once

#include "mpl/smoothstreaming/Element.h"

#include <memory>
#include <vector>

namespace SmoothStreaming {

/// What one protection system needs to know ("ProtectionHeader").
class ProtectionHeader final : public Element {
public:
  explicit ProtectionHeader(const qvc::xml::Element& element);

  /// As written.
  const qvc::FastString& systemID() const noexcept { return _systemID; }
  /// As written; systems mostly use Base64.
  const qvc::FastString& contents() const noexcept { return _contents; }

private:
  qvc::FastString _systemID;
  qvc::FastString _contents;
};

/// The protection systems of a presentation ("Protection").
class Protection final : public Element {
public:
  explicit Protection(const qvc::xml::Element& element);

  const std::vector<std::shared_ptr<ProtectionHeader>>& protectionHeaders() const noexcept {
    return _protectionHeaders;
  }

private:
  std::vector<std::shared_ptr<ProtectionHeader>> _protectionHeaders;
};

} // namespace SmoothStreaming
