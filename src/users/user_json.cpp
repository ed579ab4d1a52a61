// The user's JSON forms: the service's user record, the attributes save sends, the persisted
// credential dictionary; and the date conversions they share.

#include <algorithm>
#include <cmath>
#include <limits>
#include <ranges>

#include "core/fields.hpp"
#include "jov/application.hpp"
#include "jov/encoding.hpp"
#include "jov/logger.hpp"
#include "jov/user.hpp"
#include "users/user_internal.hpp"

namespace jov {

namespace detail {

using std::chrono::duration;
using std::chrono::milliseconds;
using std::chrono::system_clock;

TimePoint distantFuture() {
  // 2200-01-01: the nanosecond clock of libstdc++ ends in 2262.
  return TimePoint(std::chrono::seconds(7258118400LL));
}

TimePoint fromMillis(double millis) {
  // Whole milliseconds in integers: a double of nanoseconds would not round-trip.
  if (std::isnan(millis)) return TimePoint();
  const std::int64_t limit = toMillis(distantFuture());
  if (millis >= static_cast<double>(limit)) return distantFuture();
  if (millis <= -static_cast<double>(limit)) return TimePoint(-milliseconds(limit));
  return TimePoint(milliseconds(std::llround(millis)));
}

std::int64_t toMillis(TimePoint t) {
  return std::chrono::duration_cast<milliseconds>(t.time_since_epoch()).count();
}

TimePoint expiryAfterSeconds(double seconds) {
  auto now = system_clock::now();
  const double left = duration<double>(distantFuture() - now).count();
  if (std::isnan(seconds) || seconds >= left) return distantFuture();
  if (seconds <= -left) return now;
  return now + std::chrono::duration_cast<system_clock::duration>(duration<double>(seconds));
}

std::optional<std::int64_t> requestedTokenExpiry() {
  // Before begin the request fails with 101; asking Jov for the setting would raise instead.
  if (Jov::appID().empty()) return std::nullopt;
  const std::int64_t seconds = Jov::accessTokenExpiration();
  if (seconds <= 0) return std::nullopt;
  return toMillis(expiryAfterSeconds(static_cast<double>(seconds)));
}

}  // namespace detail

namespace {

std::optional<JovUser::TimePoint> dateValue(const nlohmann::json& v) {
  if (!v.is_number()) return std::nullopt;
  return detail::fromMillis(v.get<double>());
}

std::optional<JovSocialAccountInfo> socialAccount(JovSocialNetwork provider,
                                                  const nlohmann::json& v) {
  if (!v.is_object()) return std::nullopt;
  std::string socialID;
  if (auto id = jsonString(v, "id")) {
    socialID = *id;
  } else if (auto number = jsonInt64(v, "id")) {
    socialID = std::to_string(*number);
  }
  auto createdAt = v.contains("createdAt") ? dateValue(v["createdAt"]) : std::nullopt;
  return JovSocialAccountInfo(provider, socialID, createdAt);
}

// Fields that took a new value in the record being loaded on this thread.
thread_local unsigned tChanges = 0;

template <class T, class V>
void setIfChanged(T& field, V&& value) {
  if constexpr (std::is_same_v<T, std::string> && std::is_same_v<std::decay_t<V>, nlohmann::json>) {
    // Compared where it stands: most loads bring the same text again.
    const auto& text = value.template get_ref<const std::string&>();
    if (field != text) {
      field = text;
      ++tChanges;
    }
  } else if constexpr (std::is_same_v<std::decay_t<V>, nlohmann::json>) {
    // Converted first: comparing a field with a json value is ambiguous under C++20's reversed
    // operators, which clang rejects.
    T converted = value.template get<T>();
    if (!(field == converted)) {
      field = std::move(converted);
      ++tChanges;
    }
  } else {
    if (!(field == value)) {
      field = std::forward<V>(value);
      ++tChanges;
    }
  }
}

}  // namespace

bool JovUser::loadFromJSON(const nlohmann::json& record) {
  bool changed = false;
  return loadRecord(record, changed);
}

bool JovUser::loadRecord(const nlohmann::json& record, bool& changed, bool whole) {
  using detail::JsonType;
  using F = detail::Field<JovUser>;
  static const F kFields[] = {
      {"userID", JsonType::String,
       [](JovUser& u, const nlohmann::json& v) { setIfChanged(u.uuid_, v); }},
      {"id", JsonType::String,
       [](JovUser& u, const nlohmann::json& v) { setIfChanged(u.uuid_, v); }},
      {"createdAt", JsonType::Number,
       [](JovUser& u, const nlohmann::json& v) { setIfChanged(u.created_, dateValue(v)); }},
      {"_created", JsonType::Number,
       [](JovUser& u, const nlohmann::json& v) { setIfChanged(u.created_, dateValue(v)); }},
      {"modifiedAt", JsonType::Number,
       [](JovUser& u, const nlohmann::json& v) { setIfChanged(u.modified_, dateValue(v)); }},
      {"_modified", JsonType::Number,
       [](JovUser& u, const nlohmann::json& v) { setIfChanged(u.modified_, dateValue(v)); }},
      {"loginName", JsonType::String,
       [](JovUser& u, const nlohmann::json& v) { setIfChanged(u.username_, v); }},
      {"displayName", JsonType::String,
       [](JovUser& u, const nlohmann::json& v) { setIfChanged(u.displayName_, v); }},
      {"country", JsonType::String,
       [](JovUser& u, const nlohmann::json& v) { setIfChanged(u.country_, v); }},
      {"emailAddress", JsonType::String,
       [](JovUser& u, const nlohmann::json& v) { setIfChanged(u.email_, v); }},
      {"_emailAddressPending", JsonType::String,
       [](JovUser& u, const nlohmann::json& v) { setIfChanged(u.pendingEmail_, v); }},
      {"phoneNumber", JsonType::String,
       [](JovUser& u, const nlohmann::json& v) { setIfChanged(u.phoneNumber_, v); }},
      {"_phoneNumberPending", JsonType::String,
       [](JovUser& u, const nlohmann::json& v) { setIfChanged(u.pendingPhoneNumber_, v); }},
      {"emailAddressVerified", JsonType::Boolean,
       [](JovUser& u, const nlohmann::json& v) { setIfChanged(u.emailVerified_, v); }},
      {"phoneNumberVerified", JsonType::Boolean,
       [](JovUser& u, const nlohmann::json& v) { setIfChanged(u.phoneVerified_, v); }},
      {"_disabled", JsonType::Boolean,
       [](JovUser& u, const nlohmann::json& v) { setIfChanged(u.disabled_, v); }},
      {"locale", JsonType::String,
       [](JovUser& u, const nlohmann::json& v) {
         std::string locale = v;
         std::replace(locale.begin(), locale.end(), '_', '-');
         setIfChanged(u.locale_, std::move(locale));
       }},
      {"_thirdPartyAccounts", JsonType::Object,
       [](JovUser& u, const nlohmann::json& v) {
         std::map<JovSocialNetwork, JovSocialAccountInfo> linked;
         for (const auto& [name, account] : v.items()) {
           auto provider = socialNetworkForProviderName(name);
           if (!provider) {
             JOV_LOG(JovLogWarning, "Invalid mapping : " + name);
             continue;
           }
           if (auto info = socialAccount(*provider, account))
             linked.insert_or_assign(*provider, *info);
         }
         setIfChanged(u.linkedSocialAccounts_, std::move(linked));
       }},
  };
  const nlohmann::json* values[std::size(kFields)];
  if (!detail::matchFields(record, kFields, values)) return false;
  // A token refresh on another thread may be storing this user's credentials meanwhile.
  std::lock_guard lock(mutex_);
  // Custom fields and linked accounts are replaced; other fields only when their key is there.
  // Only what changes is written: operations on the same user running at the same time (64
  // refreshes in flight) read its ID while each of them loads the same record again.
  tChanges = 0;
  static const std::size_t kLinked = detail::fieldIndex("_thirdPartyAccounts", kFields);
  if (values[kLinked] == nullptr)
    setIfChanged(linkedSocialAccounts_, decltype(linkedSocialAccounts_){});
  for (std::size_t i = 0; i < std::size(kFields); ++i)
    if (values[i] != nullptr) kFields[i].apply(*this, *values[i]);
  // A whole record names every pending address; one it leaves out was verified or dropped.
  if (whole && !record.contains("_emailAddressPending")) setIfChanged(pendingEmail_, std::string());
  if (whole && !record.contains("_phoneNumberPending"))
    setIfChanged(pendingPhoneNumber_, std::string());

  // The custom fields: a null value reads as an absent key, and "_hasPassword" is the one
  // reserved key kept (it tells full users from pseudo users). Both sides are sorted maps,
  // compared in one pass: a record that brings the same fields again builds none.
  auto custom = record.get_ref<const nlohmann::json::object_t&>() |
                std::views::filter([](const auto& entry) {
                  const auto& [key, value] = entry;
                  return !value.is_null() && !detail::listsKey(key, kFields) &&
                         (key.empty() || key.front() != '_' || key == "_hasPassword");
                });
  if (!customInfo_.is_object() ||
      !std::ranges::equal(custom, customInfo_.get_ref<const nlohmann::json::object_t&>())) {
    customInfo_ = nlohmann::json::object_t(custom.begin(), custom.end());
    ++tChanges;
  }
  changed = tChanges > 0;
  return true;
}

nlohmann::json JovUser::uploadAttributes() const {
  nlohmann::json attributes = nlohmann::json::object();
  // Keys the service reserves ("_hasPassword", "internalUserID") came from its own record and
  // are not sent back.
  for (const auto& [key, value] : customInfo_.items())
    if (validate(value, key)) attributes[key] = value;
  if (!country_.empty()) attributes["country"] = country_;
  if (!displayName_.empty()) attributes["displayName"] = displayName_;
  if (!locale_.empty()) attributes["locale"] = locale_;
  return attributes;
}

nlohmann::json JovUser::credentialDictionary() const {
  std::lock_guard lock(mutex_);
  nlohmann::json dict = nlohmann::json::object();
  dict["userID"] = uuid_;
  dict["accessToken"] = accessToken_;
  if (accessTokenExpiresAt_)
    dict["accesstokenExpiresAt"] = detail::toMillis(*accessTokenExpiresAt_);
  if (!refreshToken_.empty()) dict["refreshToken"] = refreshToken_;
  auto put = [&dict](const char* key, const std::string& value) {
    if (!value.empty()) dict[key] = value;
  };
  put("username", username_);
  put("displayName", displayName_);
  put("email", email_);
  put("pendingEmail", pendingEmail_);
  put("phoneNumber", phoneNumber_);
  put("pendingPhoneNumber", pendingPhoneNumber_);
  put("country", country_);
  put("locale", locale_);
  dict["phoneVerified"] = phoneVerified_;
  dict["emailVerified"] = emailVerified_;
  return dict;
}

JovUser::Ptr JovUser::userWithCredentialDictionary(const nlohmann::json& credentials) {
  auto userID = jsonString(credentials, "userID");
  auto token = jsonString(credentials, "accessToken");
  auto expiry = credentials.is_object() && credentials.contains("accesstokenExpiresAt")
                    ? dateValue(credentials["accesstokenExpiresAt"])
                    : std::nullopt;
  if (!userID || userID->empty() || !token || !expiry) return nullptr;

  auto user = detail::UserAccess::create();
  user->uuid_ = *userID;
  user->setTokens(*token, jsonString(credentials, "refreshToken").value_or(""), expiry);
  user->username_ = jsonString(credentials, "username").value_or("");
  user->displayName_ = jsonString(credentials, "displayName").value_or("");
  user->email_ = jsonString(credentials, "email").value_or("");
  user->pendingEmail_ = jsonString(credentials, "pendingEmail").value_or("");
  user->phoneNumber_ = jsonString(credentials, "phoneNumber").value_or("");
  user->pendingPhoneNumber_ = jsonString(credentials, "pendingPhoneNumber").value_or("");
  user->country_ = jsonString(credentials, "country").value_or("");
  user->setLocale(jsonString(credentials, "locale").value_or(""));
  user->phoneVerified_ = jsonBool(credentials, "phoneVerified").value_or(false);
  user->emailVerified_ = jsonBool(credentials, "emailVerified").value_or(false);
  return user;
}

}  // namespace jov
