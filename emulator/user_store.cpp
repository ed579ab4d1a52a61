#include "user_store.hpp"

#include <cctype>

namespace jovemu {

namespace {

#define USER_COLUMNS                                                                               \
  "SELECT app_id, user_id, login_name, display_name, email, email_verified, email_pending, "       \
  "phone, phone_verified, phone_pending, country, locale, password_hash, disabled, custom, "       \
  "created, modified, "                                                                            \
  "(SELECT json_group_object(s.provider, json_object('id', s.social_id, 'createdAt', s.created)) " \
  "FROM social_links s WHERE s.app_id = users.app_id AND s.user_id = users.user_id) "              \
  "FROM users "

UserRow readRow(const Statement& row) {
  UserRow user;
  user.appID = row.textOr(0);
  user.userID = row.textOr(1);
  user.loginName = row.text(2);
  user.displayName = row.text(3);
  user.email = row.text(4);
  user.emailVerified = row.integer(5) != 0;
  user.emailPending = row.text(6);
  user.phone = row.text(7);
  user.phoneVerified = row.integer(8) != 0;
  user.phonePending = row.text(9);
  user.country = row.text(10);
  user.locale = row.text(11);
  user.passwordHash = row.text(12);
  user.disabled = row.integer(13) != 0;
  user.custom = nlohmann::json::parse(row.textOr(14, "{}"), nullptr, false);
  if (!user.custom.is_object()) user.custom = nlohmann::json::object();
  user.created = row.integer(15);
  user.modified = row.integer(16);
  user.thirdPartyAccounts = nlohmann::json::parse(row.textOr(17, "{}"), nullptr, false);
  if (!user.thirdPartyAccounts.is_object()) user.thirdPartyAccounts = nlohmann::json::object();
  return user;
}

std::optional<UserRow> first(Statement& stmt) {
  if (!stmt.step()) return std::nullopt;
  return readRow(stmt);
}

// "JP-0312345678": a local number with its country.
bool splitLocalPhone(const std::string& text, std::string& country, std::string& number) {
  if (text.size() < 4 || text[2] != '-' || !std::isalpha(static_cast<unsigned char>(text[0])) ||
      !std::isalpha(static_cast<unsigned char>(text[1]))) {
    return false;
  }
  country = text.substr(0, 2);
  number = text.substr(3);
  return true;
}

std::optional<UserRow> findPhoneIdentifier(Connection& conn, const std::string& appID,
                                           const std::string& value) {
  std::string country, number;
  if (splitLocalPhone(value, country, number)) return findByPhone(conn, appID, number, country);
  return findByPhone(conn, appID, value);
}

bool startsWith(const std::string& text, std::string_view prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

void bindColumns(Statement& stmt, const UserRow& user) {
  stmt.bind(1, user.appID)
      .bind(2, user.userID)
      .bind(3, user.loginName)
      .bind(4, user.displayName)
      .bind(5, user.email)
      .bind(6, user.emailVerified)
      .bind(7, user.emailPending)
      .bind(8, user.phone)
      .bind(9, user.phoneVerified)
      .bind(10, user.phonePending)
      .bind(11, user.country)
      .bind(12, user.locale)
      .bind(13, user.passwordHash)
      .bind(14, user.disabled)
      .bind(15, user.custom.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace))
      .bind(16, user.created)
      .bind(17, user.modified);
}

}  // namespace

std::optional<UserRow> findUser(Connection& conn, const std::string& appID,
                                const std::string& userID) {
  auto stmt = conn.prepare(USER_COLUMNS "WHERE app_id = ?1 AND user_id = ?2");
  stmt.bind(1, appID).bind(2, userID);
  return first(stmt);
}

std::optional<UserRow> findByLoginName(Connection& conn, const std::string& appID,
                                       const std::string& loginName) {
  auto stmt =
      conn.prepare(USER_COLUMNS "WHERE app_id = ?1 AND login_name = ?2 COLLATE NOCASE LIMIT 1");
  stmt.bind(1, appID).bind(2, loginName);
  return first(stmt);
}

std::optional<UserRow> findByEmail(Connection& conn, const std::string& appID,
                                   const std::string& email) {
  auto stmt = conn.prepare(USER_COLUMNS "WHERE app_id = ?1 AND email = ?2 COLLATE NOCASE LIMIT 1");
  stmt.bind(1, appID).bind(2, email);
  return first(stmt);
}

std::optional<UserRow> findByPhone(Connection& conn, const std::string& appID,
                                   const std::string& phone,
                                   const std::optional<std::string>& country) {
  if (!country) {
    auto stmt = conn.prepare(USER_COLUMNS "WHERE app_id = ?1 AND phone = ?2 LIMIT 1");
    stmt.bind(1, appID).bind(2, phone);
    return first(stmt);
  }
  auto stmt = conn.prepare(USER_COLUMNS
                           "WHERE app_id = ?1 AND phone = ?2 AND "
                           "upper(ifnull(country, '')) = upper(?3) LIMIT 1");
  stmt.bind(1, appID).bind(2, phone).bind(3, *country);
  return first(stmt);
}

std::optional<UserRow> findByIdentifier(Connection& conn, const std::string& appID,
                                        const std::string& identifier) {
  if (startsWith(identifier, "LOGIN_NAME:")) {
    return findByLoginName(conn, appID, identifier.substr(11));
  }
  if (startsWith(identifier, "EMAIL:")) return findByEmail(conn, appID, identifier.substr(6));
  if (startsWith(identifier, "PHONE:")) {
    return findPhoneIdentifier(conn, appID, identifier.substr(6));
  }
  return findUser(conn, appID, identifier);
}

std::optional<UserRow> findByLoginIdentifier(Connection& conn, const std::string& appID,
                                             const std::string& identifier) {
  if (startsWith(identifier, "PHONE:")) {
    return findPhoneIdentifier(conn, appID, identifier.substr(6));
  }
  if (auto user = findByLoginName(conn, appID, identifier)) return user;
  if (auto user = findByEmail(conn, appID, identifier)) return user;
  return findByPhone(conn, appID, identifier);
}

bool loginNameTaken(Connection& conn, const std::string& appID, const std::string& loginName,
                    const std::string& exceptUserID) {
  auto stmt = conn.prepare(
      "SELECT 1 FROM users WHERE app_id = ?1 AND login_name = ?2 COLLATE NOCASE "
      "AND user_id <> ?3 LIMIT 1");
  stmt.bind(1, appID).bind(2, loginName).bind(3, exceptUserID);
  return stmt.step();
}

bool emailTaken(Connection& conn, const std::string& appID, const std::string& email,
                const std::string& exceptUserID) {
  auto stmt = conn.prepare(
      "SELECT 1 FROM users WHERE app_id = ?1 AND email = ?2 COLLATE NOCASE "
      "AND user_id <> ?3 LIMIT 1");
  stmt.bind(1, appID).bind(2, email).bind(3, exceptUserID);
  return stmt.step();
}

bool phoneTaken(Connection& conn, const std::string& appID, const std::string& phone,
                const std::optional<std::string>& country, const std::string& exceptUserID) {
  // An international number is unique as it is; a local one only within its country.
  auto stmt = conn.prepare(
      "SELECT 1 FROM users WHERE app_id = ?1 AND phone = ?2 AND user_id <> ?3 AND "
      "(substr(?2, 1, 1) = '+' OR upper(ifnull(country, '')) = upper(ifnull(?4, ''))) LIMIT 1");
  stmt.bind(1, appID).bind(2, phone).bind(3, exceptUserID).bind(4, country);
  return stmt.step();
}

void insertUser(Connection& conn, const UserRow& user) {
  auto stmt = conn.prepare(
      "INSERT INTO users (app_id, user_id, login_name, display_name, email, email_verified, "
      "email_pending, phone, phone_verified, phone_pending, country, locale, password_hash, "
      "disabled, custom, created, modified) "
      "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15, ?16, ?17)");
  bindColumns(stmt, user);
  stmt.run();
}

void updateUser(Connection& conn, const UserRow& user) {
  auto stmt = conn.prepare(
      "UPDATE users SET login_name = ?3, display_name = ?4, email = ?5, email_verified = ?6, "
      "email_pending = ?7, phone = ?8, phone_verified = ?9, phone_pending = ?10, country = ?11, "
      "locale = ?12, password_hash = ?13, disabled = ?14, custom = ?15, created = ?16, "
      "modified = ?17 WHERE app_id = ?1 AND user_id = ?2");
  bindColumns(stmt, user);
  stmt.run();
}

void deleteUserRow(Connection& conn, const std::string& appID, const std::string& userID) {
  auto stmt = conn.prepare("DELETE FROM users WHERE app_id = ?1 AND user_id = ?2");
  stmt.bind(1, appID).bind(2, userID);
  stmt.run();
}

nlohmann::json userRecord(const UserRow& user) {
  nlohmann::json record = user.custom;
  record["userID"] = user.userID;
  auto put = [&record](const char* key, const std::optional<std::string>& value) {
    if (value) record[key] = *value;
  };
  put("loginName", user.loginName);
  put("displayName", user.displayName);
  put("emailAddress", user.email);
  record["emailAddressVerified"] = user.emailVerified;
  put("phoneNumber", user.phone);
  record["phoneNumberVerified"] = user.phoneVerified;
  put("country", user.country);
  put("locale", user.locale);
  put("_emailAddressPending", user.emailPending);
  put("_phoneNumberPending", user.phonePending);
  record["_created"] = user.created;
  record["_modified"] = user.modified;
  // A pseudo user's record has no "_hasPassword" at all: clients tell pseudo users by it.
  if (user.passwordHash) record["_hasPassword"] = true;
  record["_disabled"] = user.disabled;
  record["_thirdPartyAccounts"] = user.thirdPartyAccounts;
  return record;
}

}  // namespace jovemu
