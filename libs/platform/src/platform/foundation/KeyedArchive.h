#pragma once

#include "platform/foundation/Data.h"
#include "platform/foundation/Error.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

// Codes of NSCocoaErrorDomain that reading an archive can give.
inline constexpr std::int64_t NSCoderReadCorruptError = 4864;               ///< no archive, or a damaged one
inline constexpr std::int64_t NSCoderInvalidValueError = 4866;              ///< another record's archive
inline constexpr std::int64_t NSPropertyListReadUnknownVersionError = 3841; ///< from a newer version

/// Archives one record as named values.
///
/// The archive is JSON text that tells its format, the record's type name and version, and for each value its
/// type. A record's version rises when an older reader would misread it; a new key alone does not need that.
/// For one thread at a time.
class KeyedArchiver {
public:
  /// `typeName` and `version` of the record; the version is 1 or more.
  explicit KeyedArchiver(std::string typeName, int version = 1);
  ~KeyedArchiver();
  KeyedArchiver(const KeyedArchiver&) = delete;
  KeyedArchiver& operator=(const KeyedArchiver&) = delete;

  // A key that is encoded again gets the new value.
  void encodeString(const std::string& key, std::string_view value); ///< UTF-8; other bytes become U+FFFD
  void encodeInt64(const std::string& key, std::int64_t value);
  void encodeUInt64(const std::string& key, std::uint64_t value);
  void encodeFloat(const std::string& key, float value);
  void encodeDouble(const std::string& key, double value);
  void encodeBool(const std::string& key, bool value);
  void encodeBytes(const std::string& key, const Data& value);

  /// The archive of what has been encoded so far.
  Data archivedData() const;

private:
  struct Record;
  std::unique_ptr<Record> _record;
};

/// Reads what a `KeyedArchiver` wrote. Immutable, so it may be read from any thread.
class KeyedUnarchiver {
public:
  /// Null with `error` set (NSCocoaErrorDomain, codes above) when the data is no archive, is one of another
  /// type, or when its format or its record is newer than this program: such data is to be left alone.
  static std::unique_ptr<KeyedUnarchiver> unarchiverWithData(const Data& data, const std::string& typeName,
                                                             int newestVersion = 1,
                                                             ErrorRef* error = nullptr);
  ~KeyedUnarchiver();
  KeyedUnarchiver(const KeyedUnarchiver&) = delete;
  KeyedUnarchiver& operator=(const KeyedUnarchiver&) = delete;

  int version() const; ///< of the record as it was written
  bool containsValueForKey(const std::string& key) const;

  // Nothing when the key is absent or its value is of another type. An integer answers as each integer type
  // that holds it; every number answers as a float or double, rounded to it.
  std::optional<std::string> decodeString(const std::string& key) const;
  std::optional<std::int64_t> decodeInt64(const std::string& key) const;
  std::optional<std::uint64_t> decodeUInt64(const std::string& key) const;
  std::optional<float> decodeFloat(const std::string& key) const;
  std::optional<double> decodeDouble(const std::string& key) const;
  std::optional<bool> decodeBool(const std::string& key) const;
  std::optional<Data> decodeBytes(const std::string& key) const;

  /// The integer's lowest 32 bits as a signed number, for fields that are 32 bits wide: larger values wrap.
  std::optional<std::int32_t> decodeInt32(const std::string& key) const;

private:
  struct Record;
  explicit KeyedUnarchiver(std::unique_ptr<Record> record);
  std::unique_ptr<Record> _record;
};

} // namespace platform
