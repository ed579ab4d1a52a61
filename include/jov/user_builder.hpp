#pragma once
/// @file
/// @brief Building users to register (JovUserBuilder), identity data for a pseudo user's upgrade
/// (JovIdentityData) and user attributes to send (JovUserFields).

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>

#include "jov/error.hpp"

namespace jov {

class JovUser;

/// @brief Builds a user to register; every setter checks its value and raises
/// std::invalid_argument when it is not valid.
class JovUserBuilder {
 public:
  /// @brief A user with a login name.
  static JovUserBuilder builderWithUsername(const std::string& username,
                                            const std::string& password);
  /// @brief A user with an e-mail address.
  static JovUserBuilder builderWithEmail(const std::string& email, const std::string& password);
  /// @brief A user with an international phone number ("+" and 7 to 20 digits).
  static JovUserBuilder builderWithGlobalPhoneNumber(const std::string& phoneNumber,
                                                     const std::string& password);
  /// @brief A user with a local phone number and its two-letter country code.
  static JovUserBuilder builderWithLocalPhoneNumber(const std::string& phoneNumber,
                                                    const std::string& country,
                                                    const std::string& password);
  /// @brief A user whose identifier is read as an e-mail address, a login name or an
  /// international phone number, in that order.
  static JovUserBuilder builderWithIdentifier(const std::string& identifier,
                                              const std::string& password);

  /// @brief Sets the login name.
  JovUserBuilder& setUsername(const std::string& username);
  /// @brief Sets the e-mail address.
  JovUserBuilder& setEmail(const std::string& email);
  /// @brief Sets an international phone number.
  JovUserBuilder& setGlobalPhoneNumber(const std::string& phoneNumber);
  /// @brief Sets a local phone number and its country.
  JovUserBuilder& setLocalPhoneNumber(const std::string& phoneNumber, const std::string& country);

  /// @brief A new user with field validation on and the identifiers and password set.
  std::shared_ptr<JovUser> build() const;

  /// @brief The login name set, or empty.
  const std::string& username() const { return username_; }
  /// @brief The e-mail address set, or empty.
  const std::string& email() const { return email_; }
  /// @brief The phone number set, or empty.
  const std::string& phoneNumber() const { return phoneNumber_; }
  /// @brief The country set with a local phone number, or empty.
  const std::string& country() const { return country_; }

 private:
  explicit JovUserBuilder(const std::string& password);
  std::string password_, username_, email_, phoneNumber_, country_;
};

/// @brief The identifiers a pseudo user gains (putIdentityData) or a user changes
/// (updateWithIdentityData). Unset identifiers are empty.
class JovIdentityData {
 public:
  /// @brief No identifier.
  JovIdentityData() = default;
  /// @brief The login name, or empty.
  const std::string& userName() const { return userName_; }
  /// @brief The e-mail address, or empty.
  const std::string& email() const { return email_; }
  /// @brief The phone number (international, or local with a country in the user fields).
  const std::string& phoneNumber() const { return phoneNumber_; }
  /// @brief True when the phone number is local (no leading "+").
  bool hasLocalPhoneNumber() const;

  /// @brief 306 when no identifier is set; 307, 305 or 308 for an invalid one.
  std::optional<JovError> validate() const;
  /// @brief "loginName", "emailAddress" and "phoneNumber", those that are set.
  nlohmann::json toJSON() const;

 private:
  friend class JovIdentityDataBuilder;
  std::string userName_, email_, phoneNumber_;
};

/// @brief Builds JovIdentityData.
class JovIdentityDataBuilder {
 public:
  /// @brief Sets the login name.
  JovIdentityDataBuilder& setUserName(const std::string& userName);
  /// @brief Sets the e-mail address.
  JovIdentityDataBuilder& setEmail(const std::string& email);
  /// @brief Sets the phone number.
  JovIdentityDataBuilder& setPhoneNumber(const std::string& phoneNumber);
  /// @brief The identity data (validated when used).
  JovIdentityData build() const { return data_; }

 private:
  JovIdentityData data_;
};

/// @brief User attributes to send: display name, country, locale, custom fields, and keys to
/// leave out of the request.
class JovUserFields {
 public:
  /// @brief No fields.
  JovUserFields() = default;

  /// @brief The display name, or empty.
  const std::string& displayName() const { return displayName_; }
  /// @brief Sets the display name.
  void setDisplayName(const std::string& displayName) { displayName_ = displayName; }
  /// @brief The two-letter country code, or empty.
  const std::string& country() const { return country_; }
  /// @brief Sets the country code.
  void setCountry(const std::string& country) { country_ = country; }
  /// @brief The locale as a BCP 47 tag, or empty.
  const std::string& locale() const { return locale_; }
  /// @brief Sets the locale (a BCP 47 tag such as "ja-JP").
  void setLocale(const std::string& locale) { locale_ = locale; }

  /// @brief Sets a custom field; false (nothing stored) for a reserved key or a value that is
  /// not valid JSON.
  bool setObject(const nlohmann::json& value, const std::string& key);
  /// @brief A custom field, or nothing.
  std::optional<nlohmann::json> getObjectForKey(const std::string& key) const;
  /// @brief Whether a custom field is set.
  bool hasObject(const std::string& key) const;
  /// @brief Removes a custom field.
  void removeObjectForKey(const std::string& key);
  /// @brief The custom fields (a JSON object).
  const nlohmann::json& customFields() const { return custom_; }

  /// @brief Leaves a key out of the request body (the user loses it locally as well).
  void removeFromServer(const std::string& key) { removingKeys_.insert(key); }
  /// @brief The keys left out of the request body.
  const std::set<std::string>& removingKeys() const { return removingKeys_; }

  /// @brief 310 for an invalid display name, 315 for an invalid country code.
  std::optional<JovError> validate() const;
  /// @brief "displayName", "country", "locale" (those set) and the custom fields.
  nlohmann::json toJSON() const;

 private:
  std::string displayName_, country_, locale_;
  nlohmann::json custom_ = nlohmann::json::object();
  std::set<std::string> removingKeys_;
};

}  // namespace jov
