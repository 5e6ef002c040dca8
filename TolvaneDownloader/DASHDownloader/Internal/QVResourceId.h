#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

class QVResourceDownloadInfo;

/// The identity of a resource, short enough for a task's description: after a relaunch it leads from a task
/// that went on alone to the set, the quality and the resource that it belongs to. Immutable.
class QVResourceId {
public:
  /// The identity of a record, with its status at this moment. A record whose quality or set is gone has no
  /// URL and no quality id.
  static QVResourceId resourceIdWithResource(const QVResourceDownloadInfo& resource);

  /// Reads what `serializeToJSON` wrote. Members that are missing or of another type are absent, or 0; a text
  /// that is no JSON object gives an identity without any.
  static QVResourceId resourceIdWithJSONString(const std::string& text);

  const std::optional<std::string>& manifestURL() const { return _manifestURL; } ///< the set's source URL
  const std::optional<std::string>& qualityId() const { return _qualityId; }     ///< the quality's identifier
  std::uint64_t resourceIndex() const { return _resourceIndex; }                 ///< place in the quality
  std::uint64_t status() const { return _status; }                               ///< a QVDownloadStatus

  /// A compact JSON object; absent members are left out.
  std::string serializeToJSON() const;

private:
  QVResourceId() = default;

  std::optional<std::string> _manifestURL;
  std::optional<std::string> _qualityId;
  std::uint64_t _resourceIndex = 0;
  std::uint64_t _status = 0;
};
