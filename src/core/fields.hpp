#pragma once
// Field tables: how an entity reads a record of the service.
//
// A table lists, per key, the JSON type the service sends and how the value is applied. A record
// is checked whole before anything is applied: a key of the wrong type refuses the record and
// leaves the entity as it was (the caller answers 202). Absent and null keys are skipped.

#include <cstddef>
#include <nlohmann/json.hpp>

namespace jov::detail {

enum class JsonType { String, Number, Boolean, Object, Array };

template <class E>
struct Field {
  const char* key;
  JsonType type;
  void (*apply)(E& entity, const nlohmann::json& value);
};

inline bool hasType(const nlohmann::json& value, JsonType type) {
  switch (type) {
    case JsonType::String:
      return value.is_string();
    case JsonType::Number:
      return value.is_number();
    case JsonType::Boolean:
      return value.is_boolean();
    case JsonType::Object:
      return value.is_object();
    case JsonType::Array:
      return value.is_array();
  }
  return false;
}

/// True when the record is an object whose listed keys all have their types.
template <class E, std::size_t N>
bool recordFits(const nlohmann::json& record, const Field<E> (&table)[N]) {
  if (!record.is_object()) return false;
  for (const Field<E>& field : table) {
    auto it = record.find(field.key);
    if (it != record.end() && !it->is_null() && !hasType(*it, field.type)) return false;
  }
  return true;
}

/// Applies a record through the table; false (and nothing applied) when it does not fit.
template <class E, std::size_t N>
bool loadFields(E& entity, const nlohmann::json& record, const Field<E> (&table)[N]) {
  if (!recordFits(record, table)) return false;
  for (const Field<E>& field : table) {
    auto it = record.find(field.key);
    if (it != record.end() && !it->is_null()) field.apply(entity, *it);
  }
  return true;
}

}  // namespace jov::detail
