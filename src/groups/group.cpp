// JovGroup's data: factories, validation, the JSON record and the pending member changes.

#include "jov/group.hpp"

#include <stdexcept>
#include <string_view>

#include "core/fields.hpp"
#include "jov/application.hpp"
#include "jov/encoding.hpp"
#include "jov/logger.hpp"
#include "jov/user.hpp"

namespace jov {

namespace {

constexpr std::string_view kGroupURIPrefix = "jovcloud://groups/";

// Counts Unicode characters, not bytes: every byte that does not continue a UTF-8 sequence
// starts a character, so a name of 190 Japanese characters (570 bytes) is still valid.
std::size_t characterCount(std::string_view utf8) {
  std::size_t count = 0;
  for (unsigned char c : utf8) {
    if ((c & 0xC0) != 0x80) ++count;
  }
  return count;
}

std::vector<std::shared_ptr<JovUser>> valuesOf(
    const std::map<std::string, std::shared_ptr<JovUser>>& users) {
  std::vector<std::shared_ptr<JovUser>> out;
  out.reserve(users.size());
  for (const auto& [id, user] : users) out.push_back(user);
  return out;
}

bool hasID(const std::shared_ptr<JovUser>& user) {
  return user && !user->userID().empty();
}

}  // namespace

std::shared_ptr<JovGroup> JovGroup::groupWithURI(const std::string& uri) {
  std::string_view view(uri);
  if (!view.starts_with(kGroupURIPrefix)) return nullptr;
  const std::string_view id = view.substr(kGroupURIPrefix.size());
  if (id.empty() || id.find('/') != std::string_view::npos) return nullptr;
  return groupWithID(std::string(id));
}

std::shared_ptr<JovGroup> JovGroup::groupWithID(const std::string& groupID) {
  if (groupID.empty()) throw std::invalid_argument("groupID can not be nil or empty");
  auto group = std::make_shared<JovGroup>(Key{});
  group->uuid_ = groupID;
  return group;
}

std::shared_ptr<JovGroup> JovGroup::groupWithName(const std::string& name) {
  auto group = std::make_shared<JovGroup>(Key{});
  group->name_ = name;
  return group;
}

std::shared_ptr<JovGroup> JovGroup::groupWithName(const std::string& name, const Users& members) {
  auto group = groupWithName(name);
  for (const auto& user : members) group->addUser(user);
  return group;
}

std::shared_ptr<JovGroup> Jov::groupWithName(const std::string& name) {
  return JovGroup::groupWithName(name);
}

std::shared_ptr<JovGroup> Jov::groupWithName(const std::string& name,
                                             const std::vector<std::shared_ptr<JovUser>>& members) {
  return JovGroup::groupWithName(name, members);
}

bool JovGroup::isValidGroupID(const std::string& groupID) {
  if (groupID.empty() || groupID.size() > 30) return false;
  for (unsigned char c : groupID) {
    const bool allowed =
        (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
    if (!allowed) return false;
  }
  return true;
}

bool JovGroup::isValidGroupName(const std::string& name) {
  const std::size_t length = characterCount(name);
  return length > 0 && length < 191;
}

bool JovGroup::isValidMembers(const Users& members) {
  for (const auto& user : members) {
    if (!hasID(user)) return false;
  }
  return true;
}

JovGroup::Users JovGroup::addMembers() const {
  return valuesOf(addMembers_);
}

JovGroup::Users JovGroup::removeMembers() const {
  return valuesOf(removeMembers_);
}

std::string JovGroup::objectURI() const {
  if (uuid_.empty()) return {};
  return std::string(kGroupURIPrefix) + uuid_;
}

// The group record as the service sends it; "groupID" wins over the older "uuid".
struct GroupFields {
  static void setID(JovGroup& g, const nlohmann::json& v) {
    if (!v.get_ref<const std::string&>().empty()) g.uuid_ = v.get<std::string>();
  }
  static void setName(JovGroup& g, const nlohmann::json& v) { g.name_ = v.get<std::string>(); }
  static void setOwner(JovGroup& g, const nlohmann::json& v) {
    if (!v.get_ref<const std::string&>().empty())
      g.owner_ = JovUser::userWithID(v.get<std::string>());
  }
  static constexpr detail::Field<JovGroup> kTable[] = {
      {"uuid", detail::JsonType::String, setID},
      {"groupID", detail::JsonType::String, setID},
      {"name", detail::JsonType::String, setName},
      {"owner", detail::JsonType::String, setOwner},
  };
};

bool JovGroup::loadFromJSON(const nlohmann::json& json) {
  return detail::loadFields(*this, json, GroupFields::kTable);
}

bool JovGroup::addUser(const std::shared_ptr<JovUser>& user) {
  if (!hasID(user)) {
    JOV_LOG(JovLogError, "Unable to add user");
    return false;
  }
  removeMembers_.erase(user->userID());
  addMembers_[user->userID()] = user;
  return true;
}

bool JovGroup::removeUser(const std::shared_ptr<JovUser>& user) {
  if (!hasID(user)) {
    // One message for a refused member change, whichever the direction.
    JOV_LOG(JovLogError, "Unable to add user");
    return false;
  }
  addMembers_.erase(user->userID());
  removeMembers_[user->userID()] = user;
  return true;
}

std::string JovGroup::describe() const {
  std::string text = "JovGroup(id=" + (uuid_.empty() ? std::string("<unsaved>") : uuid_);
  text += ", name=\"" + name_ + "\"";
  text += ", owner=" + (owner_ ? owner_->userID() : std::string("<unknown>"));
  text += ", members=" + std::to_string(members_.size());
  text += ", pending +" + std::to_string(addMembers_.size()) + "/-" +
          std::to_string(removeMembers_.size()) + ")";
  return text;
}

}  // namespace jov
