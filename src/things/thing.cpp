// Things: the fields a maker registers, the thing record and its paths, and thing queries'
// bodies.

#include "jov/thing.hpp"

#include <stdexcept>

#include "jov/application.hpp"
#include "jov/encoding.hpp"
#include "jov/group.hpp"
#include "jov/user.hpp"

namespace jov {

namespace {

// The predefined string and number fields, by record name, for reading and writing alike.
struct StringField {
  const char* key;
  std::optional<std::string> JovThingFields::*member;
};
struct NumberField {
  const char* key;
  std::optional<double> JovThingFields::*member;
};
constexpr StringField kStringFields[] = {
    {"_vendor", &JovThingFields::vendor},
    {"_firmwareVersion", &JovThingFields::firmwareVersion},
    {"_productName", &JovThingFields::productName},
    {"_lot", &JovThingFields::lot},
    {"_stringField1", &JovThingFields::stringField1},
    {"_stringField2", &JovThingFields::stringField2},
    {"_stringField3", &JovThingFields::stringField3},
    {"_stringField4", &JovThingFields::stringField4},
    {"_stringField5", &JovThingFields::stringField5},
};
constexpr NumberField kNumberFields[] = {
    {"_numberField1", &JovThingFields::numberField1},
    {"_numberField2", &JovThingFields::numberField2},
    {"_numberField3", &JovThingFields::numberField3},
    {"_numberField4", &JovThingFields::numberField4},
    {"_numberField5", &JovThingFields::numberField5},
};

// A key of a record: absent or null is "not given"; a value of another type refuses the record.
template <class T>
bool readKey(const nlohmann::json& record, const char* key, std::optional<T>& out) {
  const auto it = record.find(key);
  if (it == record.end() || it->is_null()) return true;
  if constexpr (std::is_same_v<T, std::string>) {
    if (!it->is_string()) return false;
  } else if constexpr (std::is_same_v<T, bool>) {
    if (!it->is_boolean()) return false;
  } else {
    if (!it->is_number()) return false;
  }
  out = it->get<T>();
  return true;
}

}  // namespace

// ------------------------------------------------------------------ fields

const std::vector<std::string>& JovThingFields::reservedFields() {
  static const std::vector<std::string> fields = {
      "_thingID",      "_vendorThingID", "_thingType",    "_vendor",       "_firmwareVersion",
      "_productName",  "_lot",           "_created",      "_stringField1", "_stringField2",
      "_stringField3", "_stringField4",  "_stringField5", "_numberField1", "_numberField2",
      "_numberField3", "_numberField4",  "_numberField5", "_accessToken"};
  return fields;
}

bool JovThingFields::setCustomField(const std::string& key, nlohmann::json value) {
  if (key.empty() || key.front() == '_') return false;
  custom_[key] = std::move(value);
  return true;
}

std::optional<JovThingFields> JovThingFields::fromJSON(const nlohmann::json& json) {
  if (!json.is_object()) return std::nullopt;
  JovThingFields fields;
  for (const auto& field : kStringFields) {
    if (!readKey(json, field.key, fields.*field.member)) return std::nullopt;
  }
  for (const auto& field : kNumberFields) {
    if (!readKey(json, field.key, fields.*field.member)) return std::nullopt;
  }
  for (const auto& [key, value] : json.items()) {
    if (!key.empty() && key.front() != '_') fields.custom_[key] = value;
  }
  return fields;
}

nlohmann::json JovThingFields::toJSON() const {
  nlohmann::json out = custom_;
  for (const auto& field : kStringFields) {
    if (const auto& value = this->*field.member) out[field.key] = *value;
  }
  for (const auto& field : kNumberFields) {
    if (const auto& value = this->*field.member) out[field.key] = *value;
  }
  return out;
}

// ------------------------------------------------------------------ the thing

JovThing::Ptr JovThing::thingWithID(const std::string& thingID) {
  if (thingID.empty()) throw std::invalid_argument("thingID can not be nil or empty");
  auto thing = std::make_shared<JovThing>(Key{});
  thing->thingID_ = thingID;
  return thing;
}

std::string JovThing::thingID() const {
  std::lock_guard lock(mutex_);
  return thingID_;
}
std::string JovThing::vendorThingID() const {
  std::lock_guard lock(mutex_);
  return vendorThingID_;
}
std::string JovThing::thingType() const {
  std::lock_guard lock(mutex_);
  return thingType_;
}
std::int64_t JovThing::created() const {
  std::lock_guard lock(mutex_);
  return created_;
}
std::string JovThing::accessToken() const {
  std::lock_guard lock(mutex_);
  return accessToken_;
}
bool JovThing::disabled() const {
  std::lock_guard lock(mutex_);
  return disabled_;
}
bool JovThing::online() const {
  std::lock_guard lock(mutex_);
  return online_;
}
std::int64_t JovThing::onlineStatusModifiedAt() const {
  std::lock_guard lock(mutex_);
  return onlineModified_;
}
JovThingFields JovThing::fields() const {
  std::lock_guard lock(mutex_);
  return fields_;
}
void JovThing::setFields(JovThingFields fields) {
  std::lock_guard lock(mutex_);
  fields_ = std::move(fields);
}

std::string JovThing::pathOf(const std::string& id, bool vendor) {
  if (id.empty()) return "";
  return "/things/" + (vendor ? "VENDOR_THING_ID:" + urlEncode(id) : urlEncode(id));
}

std::string JovThing::thingPath() const {
  std::lock_guard lock(mutex_);
  return thingID_.empty() ? pathOf(vendorThingID_, true) : pathOf(thingID_, false);
}

bool JovThing::loadFromJSON(const nlohmann::json& record) {
  std::optional<JovThingFields> fields = JovThingFields::fromJSON(record);
  if (!fields) return false;
  std::optional<std::string> id, vendorID, type, token;
  std::optional<std::int64_t> created, onlineModified;
  std::optional<bool> disabled, online;
  const bool ok = readKey(record, "_thingID", id) && readKey(record, "_vendorThingID", vendorID) &&
                  readKey(record, "_thingType", type) && readKey(record, "_accessToken", token) &&
                  readKey(record, "_created", created) && readKey(record, "_disabled", disabled) &&
                  readKey(record, "_online", online) &&
                  readKey(record, "_onlineStatusModifiedAt", onlineModified);
  if (!ok) return false;
  // The record replaces what the thing held, but keeps a token the record does not carry (a
  // load answers without it).
  std::lock_guard lock(mutex_);
  if (id) thingID_ = *id;
  if (vendorID) vendorThingID_ = *vendorID;
  if (type) thingType_ = *type;
  if (token) accessToken_ = *token;
  created_ = created.value_or(created_);
  disabled_ = disabled.value_or(false);
  online_ = online.value_or(false);
  onlineModified_ = onlineModified.value_or(0);
  fields_ = std::move(*fields);
  return true;
}

// ------------------------------------------------------------------ acting as a thing

namespace {
std::mutex& currentThingMutex() {
  static std::mutex mutex;
  return mutex;
}
std::shared_ptr<JovThing>& currentThingSlot() {
  static std::shared_ptr<JovThing> thing;
  return thing;
}
}  // namespace

void Jov::setCurrentThing(std::shared_ptr<JovThing> thing) {
  std::lock_guard lock(currentThingMutex());
  currentThingSlot() = std::move(thing);
}

std::shared_ptr<JovThing> Jov::currentThing() {
  std::lock_guard lock(currentThingMutex());
  return currentThingSlot();
}

// ------------------------------------------------------------------ queries

JovThingQuery JovThingQuery::thingQuery(
    const std::shared_ptr<JovUser>& user,
    const std::optional<std::vector<std::shared_ptr<JovGroup>>>& groups) {
  if (!user && !groups) throw std::invalid_argument("Invalid argument : user and groups is nil");
  if (user && user->userID().empty()) {
    throw std::invalid_argument("Invalid argument : user does not have valid userID");
  }
  if (groups) {
    for (const auto& group : *groups) {
      if (!group || group->groupID().empty()) {
        throw std::invalid_argument("Invalid argument : groups is invalid");
      }
    }
  }
  if (!user && groups->empty()) {
    throw std::invalid_argument("Invalid argument : groups is empty while user is nil");
  }
  JovThingQuery query;
  if (user) {
    query.ownerClause_ =
        nlohmann::json{{"type", "contains"}, {"field", "userOwners"}, {"value", user->userID()}};
  }
  if (groups) {
    for (const auto& group : *groups) {
      query.groupClauses_.push_back(
          {{"type", "contains"}, {"field", "groupOwners"}, {"value", group->groupID()}});
    }
  }
  return query;
}

nlohmann::json JovThingQuery::generateQueryDict() const {
  nlohmann::json clauses = nlohmann::json::array();
  if (ownerClause_) clauses.push_back(*ownerClause_);
  for (const auto& clause : groupClauses_) clauses.push_back(clause);
  nlohmann::json owner =
      clauses.size() == 1 ? clauses[0] : nlohmann::json{{"type", "or"}, {"clauses", clauses}};
  nlohmann::json clause = std::move(owner);
  if (thingType && !thingType->empty()) {
    nlohmann::json typeClause = {{"type", "eq"}, {"field", "_thingType"}, {"value", *thingType}};
    clause = {{"type", "and"}, {"clauses", {std::move(clause), std::move(typeClause)}}};
  }
  nlohmann::json body = {{"thingQuery", {{"clause", std::move(clause)}}}};
  if (limit != 0) body["bestEffortLimit"] = limit;
  if (nextPaginationKey) body["paginationKey"] = *nextPaginationKey;
  return body;
}

}  // namespace jov
