// The user entity: factories, attributes, custom fields and the description for logs.

#include "jov/user.hpp"

#include <algorithm>
#include <sstream>

#include "jov/application.hpp"
#include "jov/encoding.hpp"
#include "users/user_internal.hpp"

namespace jov {

namespace {

constexpr const char* kURIPrefix = "jovcloud://users/";

JovUser::Ptr withIdentifiers(const std::string& username, const std::string& email,
                             const std::string& phone, const std::string& password) {
  auto user = detail::UserAccess::create();
  detail::UserAccess::username(*user) = username;
  detail::UserAccess::email(*user) = email;
  detail::UserAccess::phoneNumber(*user) = phone;
  detail::UserAccess::password(*user) = password;
  // Users built to register are checked before the request.
  user->setValidateFields(true);
  return user;
}

std::string formatTime(const std::optional<JovUser::TimePoint>& t) {
  if (!t) return "(none)";
  return std::to_string(detail::toMillis(*t)) + " ms";
}

}  // namespace

JovUser::JovUser(Key) : accessTokenExpiresAt_(detail::distantFuture()) {}

JovUser::Ptr JovUser::userWithUsername(const std::string& username, const std::string& password) {
  return withIdentifiers(username, "", "", password);
}
JovUser::Ptr JovUser::userWithEmailAddress(const std::string& emailAddress,
                                           const std::string& password) {
  return withIdentifiers("", emailAddress, "", password);
}
JovUser::Ptr JovUser::userWithPhoneNumber(const std::string& phoneNumber,
                                          const std::string& password) {
  return withIdentifiers("", "", phoneNumber, password);
}
JovUser::Ptr JovUser::userWithUsernameAndEmailAddress(const std::string& username,
                                                      const std::string& emailAddress,
                                                      const std::string& password) {
  return withIdentifiers(username, emailAddress, "", password);
}
JovUser::Ptr JovUser::userWithUsernameAndPhoneNumber(const std::string& username,
                                                     const std::string& phoneNumber,
                                                     const std::string& password) {
  return withIdentifiers(username, "", phoneNumber, password);
}
JovUser::Ptr JovUser::userWithEmailAddressAndPhoneNumber(const std::string& emailAddress,
                                                         const std::string& phoneNumber,
                                                         const std::string& password) {
  return withIdentifiers("", emailAddress, phoneNumber, password);
}
JovUser::Ptr JovUser::userWithUsernameAndEmailAddressAndPhoneNumber(const std::string& username,
                                                                    const std::string& emailAddress,
                                                                    const std::string& phoneNumber,
                                                                    const std::string& password) {
  return withIdentifiers(username, emailAddress, phoneNumber, password);
}

JovUser::Ptr JovUser::userWithID(const std::string& userID) {
  auto user = detail::UserAccess::create();
  user->uuid_ = userID;
  return user;
}

JovUser::Ptr JovUser::userWithURI(const std::string& uri) {
  if (uri.rfind(kURIPrefix, 0) != 0) return nullptr;
  std::string id = uri.substr(std::string(kURIPrefix).size());
  while (!id.empty() && id.back() == '/') id.pop_back();
  if (auto slash = id.rfind('/'); slash != std::string::npos) id.erase(0, slash + 1);
  if (id.empty()) return nullptr;
  return userWithID(id);
}

bool JovUser::isLinkedWithSocialProvider(JovSocialNetwork provider) const {
  return linkedSocialAccounts_.contains(provider);
}

void JovUser::setLocale(const std::string& locale) {
  locale_ = locale;
  std::replace(locale_.begin(), locale_.end(), '_', '-');
}

std::string JovUser::accessToken() const {
  std::lock_guard lock(mutex_);
  return accessToken_;
}
std::string JovUser::refreshToken() const {
  std::lock_guard lock(mutex_);
  return refreshToken_;
}
std::optional<JovUser::TimePoint> JovUser::accessTokenExpiresAt() const {
  std::lock_guard lock(mutex_);
  return accessTokenExpiresAt_;
}

void JovUser::setTokens(std::string accessToken, std::string refreshToken,
                        std::optional<TimePoint> expiresAt) {
  std::lock_guard lock(mutex_);
  accessToken_ = std::move(accessToken);
  refreshToken_ = std::move(refreshToken);
  accessTokenExpiresAt_ = expiresAt;
}
void JovUser::setAccessToken(std::string accessToken) {
  std::lock_guard lock(mutex_);
  accessToken_ = std::move(accessToken);
}

nlohmann::json JovUser::accessTokenDictionary() const {
  std::lock_guard lock(mutex_);
  nlohmann::json dict = nlohmann::json::object();
  dict["access_token"] = accessToken_;
  if (accessTokenExpiresAt_) dict["expires_at"] = detail::toMillis(*accessTokenExpiresAt_);
  if (!refreshToken_.empty()) dict["refresh_token"] = refreshToken_;
  return dict;
}

std::string JovUser::objectURI() const {
  return kURIPrefix + uuid_;
}
std::string JovUser::thingOwnerID() const {
  return "UserID:" + uuid_;
}
std::string JovUser::topicBaseURI() const {
  return "/users/" + uuid_ + "/topics";
}

bool JovUser::isPseudoUser() const {
  // Any "_hasPassword" entry, even false, marks a full user: the service only reports it for
  // users that have one, and an upgraded user keeps it until its next refresh.
  return username_.empty() && phoneNumber_.empty() && email_.empty() &&
         !customInfo_.contains("_hasPassword");
}

bool JovUser::isLoggedInUser() const {
  auto current = Jov::currentUser();
  return current && !uuid_.empty() && current->userID() == uuid_;
}

bool JovUser::validate(const nlohmann::json& value, const std::string& key) const {
  if (key.empty() || key.front() == '_' || key == "internalUserID") return false;
  return JSONRepresentation(nlohmann::json::array({value})).has_value();
}

bool JovUser::setObject(const nlohmann::json& value, const std::string& key) {
  if (!validate(value, key)) return false;
  customInfo_[key] = value;
  return true;
}

std::optional<nlohmann::json> JovUser::getObjectForKey(const std::string& key) const {
  auto it = customInfo_.find(key);
  if (it == customInfo_.end()) return std::nullopt;
  return *it;
}

bool JovUser::hasObject(const std::string& key) const {
  return customInfo_.contains(key);
}

void JovUser::removeObjectForKey(const std::string& key) {
  customInfo_.erase(key);
}

std::string JovUser::describe() const {
  std::ostringstream out;
  auto line = [&out](const char* name, const std::string& value) {
    out << "  " << name << ": " << (value.empty() ? "(none)" : value) << "\n";
  };
  out << "JovUser {\n";
  line("userID", uuid_);
  line("username", username_);
  line("displayName", displayName_);
  line("email", email_);
  line("pendingEmail", pendingEmail_);
  line("phoneNumber", phoneNumber_);
  line("pendingPhoneNumber", pendingPhoneNumber_);
  line("country", country_);
  line("locale", locale_);
  line("created", formatTime(created_));
  line("modified", formatTime(modified_));
  line("emailVerified", emailVerified_ ? "true" : "false");
  line("phoneVerified", phoneVerified_ ? "true" : "false");
  line("disabled", disabled_ ? "true" : "false");
  line("pseudoUser", isPseudoUser() ? "true" : "false");
  line("accessToken", accessToken().empty() ? "" : "(set)");
  line("refreshToken", refreshToken().empty() ? "" : "(set)");
  line("accessTokenExpiresAt", formatTime(accessTokenExpiresAt()));
  line("linkedSocialAccounts", std::to_string(linkedSocialAccounts_.size()));
  line("customInfo", customInfo_.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  out << "}";
  return out.str();
}

}  // namespace jov
