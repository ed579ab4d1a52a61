#pragma once
// Field tables: how an entity reads a record of the service.
//
// A table lists, per key, the JSON type the service sends and how the value is applied. A record
// is checked whole before anything is applied: a key of the wrong type refuses the record and
// leaves the entity as it was (the caller answers 202). Absent and null keys are skipped.

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string_view>

namespace jov::detail {

enum class JsonType { String, Number, Boolean, Object, Array };

template <class E>
struct Field {
  std::string_view key;
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

/// The position of a key in a table, or N. Tables are short and keys differ mostly in length, so
/// a scan that compares lengths first beats a lookup structure.
template <class E, std::size_t N>
std::size_t fieldIndex(std::string_view key, const Field<E> (&table)[N]) {
  for (std::size_t i = 0; i < N; ++i)
    if (table[i].key.size() == key.size() && table[i].key == key) return i;
  return N;
}

/// True when the table lists the key.
template <class E, std::size_t N>
bool listsKey(std::string_view key, const Field<E> (&table)[N]) {
  return fieldIndex(key, table) < N;
}

/// The record's values of the table's fields, in table order (nullptr where absent or null);
/// false when the record is not an object or a listed key has another type. The record is read
/// once, key by key.
template <class E, std::size_t N>
bool matchFields(const nlohmann::json& record, const Field<E> (&table)[N],
                 const nlohmann::json* (&values)[N]) {
  if (!record.is_object()) return false;
  for (auto& value : values) value = nullptr;
  for (const auto& [key, value] : record.get_ref<const nlohmann::json::object_t&>()) {
    if (value.is_null()) continue;
    const std::size_t i = fieldIndex(key, table);
    if (i == N) continue;
    if (!hasType(value, table[i].type)) return false;
    values[i] = &value;
  }
  return true;
}

/// True when the record is an object whose listed keys all have their types.
template <class E, std::size_t N>
bool recordFits(const nlohmann::json& record, const Field<E> (&table)[N]) {
  const nlohmann::json* values[N];
  return matchFields(record, table, values);
}

/// Applies a record through the table, in table order; false (and nothing applied) when it does
/// not fit.
template <class E, std::size_t N>
bool loadFields(E& entity, const nlohmann::json& record, const Field<E> (&table)[N]) {
  const nlohmann::json* values[N];
  if (!matchFields(record, table, values)) return false;
  for (std::size_t i = 0; i < N; ++i)
    if (values[i] != nullptr) table[i].apply(entity, *values[i]);
  return true;
}

}  // namespace jov::detail
