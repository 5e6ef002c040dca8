#include "platform/foundation/KeyedArchive.h"

#include "platform/foundation/Base64.h"
#include "platform/foundation/JSON.h"

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

namespace platform {

namespace {

constexpr const char* formatName = "keyed-archive";
constexpr int formatVersion = 1;

// JSON has no number for these; they travel as their names.
JSON numberValue(double value) {
  if (std::isnan(value))
    return "nan";
  if (std::isinf(value))
    return value > 0 ? "inf" : "-inf";
  return value;
}

std::optional<double> namedNumber(const std::string& name) {
  if (name == "nan")
    return std::numeric_limits<double>::quiet_NaN();
  if (name == "inf" || name == "-inf")
    return name == "inf" ? HUGE_VAL : -HUGE_VAL;
  return std::nullopt;
}

JSON typed(const char* type, JSON value) {
  return {{"type", type}, {"value", std::move(value)}};
}

} // namespace

struct KeyedArchiver::Record {
  std::string typeName;
  int version;
  JSON values = JSON::object();
};

KeyedArchiver::KeyedArchiver(std::string typeName, int version)
    : _record(std::make_unique<Record>(Record{std::move(typeName), version})) {}

KeyedArchiver::~KeyedArchiver() = default;

void KeyedArchiver::encodeString(const std::string& key, std::string_view value) {
  _record->values[key] = typed("string", value);
}
void KeyedArchiver::encodeInt64(const std::string& key, std::int64_t value) {
  _record->values[key] = typed("integer", value);
}
void KeyedArchiver::encodeUInt64(const std::string& key, std::uint64_t value) {
  _record->values[key] = typed("integer", value);
}
void KeyedArchiver::encodeFloat(const std::string& key, float value) {
  _record->values[key] = typed("real", numberValue(static_cast<double>(value)));
}
void KeyedArchiver::encodeDouble(const std::string& key, double value) {
  _record->values[key] = typed("real", numberValue(value));
}
void KeyedArchiver::encodeBool(const std::string& key, bool value) {
  _record->values[key] = typed("bool", value);
}
void KeyedArchiver::encodeBytes(const std::string& key, const Data& value) {
  _record->values[key] = typed("bytes", base64Encoded(value));
}

Data KeyedArchiver::archivedData() const {
  const std::string text = serializeJSON({{"format", formatName},
                                          {"formatVersion", formatVersion},
                                          {"type", _record->typeName},
                                          {"version", _record->version},
                                          {"values", _record->values}});
  return Data(text.begin(), text.end());
}

struct KeyedUnarchiver::Record {
  int version;
  JSON values;

  // The value under `key` when it is of that type, else null.
  const JSON* find(const std::string& key, const char* type) const {
    const auto it = values.find(key);
    if (it == values.end() || !it->is_object())
      return nullptr;
    const auto typeField = it->find("type"), valueField = it->find("value");
    return typeField != it->end() && valueField != it->end() && *typeField == type ? &*valueField : nullptr;
  }
};

KeyedUnarchiver::KeyedUnarchiver(std::unique_ptr<Record> record) : _record(std::move(record)) {}
KeyedUnarchiver::~KeyedUnarchiver() = default;

std::unique_ptr<KeyedUnarchiver> KeyedUnarchiver::unarchiverWithData(const Data& data,
                                                                     const std::string& typeName,
                                                                     int newestVersion, ErrorRef* error) {
  const auto refuse = [&](std::int64_t code, const std::string& reason, ErrorRef cause = nullptr) {
    if (error)
      *error = makeError(NSCocoaErrorDomain, code, reason, std::move(cause));
    return nullptr;
  };
  const auto integer = [](const JSON& object, const char* key) -> std::int64_t {
    const auto it = object.find(key);
    return it != object.end() && it->is_number_integer() ? it->get<std::int64_t>() : 0;
  };

  ErrorRef parseError;
  const auto archive = parseJSON({reinterpret_cast<const char*>(data.data()), data.size()}, &parseError);
  if (!archive || !archive->is_object() || archive->value("/format"_json_pointer, JSON()) != formatName)
    return refuse(NSCoderReadCorruptError, "The data is no archive.", parseError);
  if (integer(*archive, "formatVersion") > formatVersion)
    return refuse(NSPropertyListReadUnknownVersionError, "The archive was written by a newer version.");
  const auto values = archive->find("values");
  const std::int64_t version = integer(*archive, "version");
  if (integer(*archive, "formatVersion") < 1 || version < 1 || values == archive->end() ||
      !values->is_object())
    return refuse(NSCoderReadCorruptError, "The archive is damaged.");
  if (archive->value("/type"_json_pointer, JSON()) != typeName)
    return refuse(NSCoderInvalidValueError, "The archive does not hold a " + typeName + ".");
  if (version > newestVersion)
    return refuse(NSPropertyListReadUnknownVersionError,
                  "The " + typeName + " was archived by a newer version (" + std::to_string(version) +
                      "; this one reads up to " + std::to_string(newestVersion) + ").");
  auto record = std::make_unique<Record>(Record{static_cast<int>(version), std::move(*values)});
  return std::unique_ptr<KeyedUnarchiver>(new KeyedUnarchiver(std::move(record)));
}

int KeyedUnarchiver::version() const {
  return _record->version;
}

bool KeyedUnarchiver::containsValueForKey(const std::string& key) const {
  return _record->values.contains(key);
}

std::optional<std::string> KeyedUnarchiver::decodeString(const std::string& key) const {
  const JSON* value = _record->find(key, "string");
  return value && value->is_string() ? std::optional(value->get<std::string>()) : std::nullopt;
}

std::optional<std::int64_t> KeyedUnarchiver::decodeInt64(const std::string& key) const {
  const JSON* value = _record->find(key, "integer");
  if (!value || !value->is_number_integer() ||
      (value->is_number_unsigned() && value->get<std::uint64_t>() > std::numeric_limits<std::int64_t>::max()))
    return std::nullopt;
  return value->get<std::int64_t>();
}

std::optional<std::uint64_t> KeyedUnarchiver::decodeUInt64(const std::string& key) const {
  const JSON* value = _record->find(key, "integer");
  if (!value || !value->is_number_integer() ||
      (!value->is_number_unsigned() && value->get<std::int64_t>() < 0))
    return std::nullopt;
  return value->get<std::uint64_t>();
}

std::optional<std::int32_t> KeyedUnarchiver::decodeInt32(const std::string& key) const {
  const JSON* value = _record->find(key, "integer");
  if (!value || !value->is_number_integer())
    return std::nullopt;
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(value->get<std::uint64_t>()));
}

std::optional<double> KeyedUnarchiver::decodeDouble(const std::string& key) const {
  const JSON* value = _record->find(key, "real");
  if (value && value->is_string())
    return namedNumber(value->get_ref<const std::string&>());
  if (!value)
    value = _record->find(key, "integer");
  return value && value->is_number() ? std::optional(value->get<double>()) : std::nullopt;
}

std::optional<float> KeyedUnarchiver::decodeFloat(const std::string& key) const {
  const auto value = decodeDouble(key);
  return value ? std::optional(static_cast<float>(*value)) : std::nullopt;
}

std::optional<bool> KeyedUnarchiver::decodeBool(const std::string& key) const {
  const JSON* value = _record->find(key, "bool");
  return value && value->is_boolean() ? std::optional(value->get<bool>()) : std::nullopt;
}

std::optional<Data> KeyedUnarchiver::decodeBytes(const std::string& key) const {
  const JSON* value = _record->find(key, "bytes");
  return value && value->is_string() ? base64Decoded(value->get_ref<const std::string&>()) : std::nullopt;
}

} // namespace platform
