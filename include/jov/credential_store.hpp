#pragma once
/// @file
/// @brief The secure credential store: one opaque record per service name, and the wrapper that
/// keeps the logged-in user's credentials in it.

#include <filesystem>
#include <memory>
#include <string>

#include "jov/result.hpp"

namespace jov {

class JovUser;

/// @brief What a credential store operation came to.
enum class JovCredentialStoreStatus {
  Success,     ///< @brief Done.
  NotFound,    ///< @brief No record under the service name.
  Duplicate,   ///< @brief add: a record already exists under the service name.
  NotAllowed,  ///< @brief The store refused access (locked, permission denied).
  Failed,      ///< @brief Anything else.
};

/// @brief The outcome of a store operation: its status and the store's own code (errno, ...).
struct JovCredentialStoreOutcome {
  /// @brief What the operation came to; only Success makes ok() true.
  JovCredentialStoreStatus status = JovCredentialStoreStatus::Success;
  /// @brief The store's own code, reported as "keychain_error"; 0 on success.
  int code = 0;
  /// @brief A short text for logs.
  std::string detail;
  /// @brief True on success.
  bool ok() const { return status == JovCredentialStoreStatus::Success; }
};

/// @brief A store that keeps one opaque blob per service name. Implementations are thread-safe.
class JovCredentialStore {
 public:
  virtual ~JovCredentialStore() = default;
  /// @brief A name for logs ("file", "secret-service", "memory").
  virtual std::string name() const = 0;
  /// @brief Adds a record; Duplicate when one exists already (it is left unchanged).
  virtual JovCredentialStoreOutcome add(const std::string& service, const std::string& blob) = 0;
  /// @brief Replaces an existing record; NotFound when there is none.
  virtual JovCredentialStoreOutcome update(const std::string& service, const std::string& blob) = 0;
  /// @brief Reads a record into blob; NotFound when there is none.
  virtual JovCredentialStoreOutcome read(const std::string& service, std::string& blob) = 0;
  /// @brief Deletes a record; NotFound when there is none.
  virtual JovCredentialStoreOutcome remove(const std::string& service) = 0;
  /// @brief Deletes every record this store holds.
  virtual JovCredentialStoreOutcome removeAll() = 0;
};

/// @brief A store of files, one per service name, in directory/credentials (0700, files 0600).
///
/// An empty directory means Jov::dataDirectory() at the time of each call. Records are written
/// to a temporary file, flushed and renamed, so a crash leaves the old record or the new one.
std::shared_ptr<JovCredentialStore> makeFileCredentialStore(std::filesystem::path directory = {});
/// @brief A store in the Secret Service of the desktop session (libsecret), or nullptr when no
/// Secret Service answers on the session bus.
std::shared_ptr<JovCredentialStore> makeSecretServiceCredentialStore();
/// @brief A store in memory, for tests: records vanish with the process.
std::shared_ptr<JovCredentialStore> makeMemoryCredentialStore();

/// @brief Keeps the logged-in user's credentials in the credential store.
///
/// The store in use is the one the application chose; otherwise the Secret Service when one
/// answers on the session bus, else the file store. The choice is logged once at level 2.
class JovKeyChainWrapper {
 public:
  /// @brief The service name of the logged-in user's record.
  static constexpr const char* kUserCredentialsService = "JovSDK/user_credentials";

  /// @brief Uses this store from now on (nullptr: choose again on next use).
  static void setStore(std::shared_ptr<JovCredentialStore> store);
  /// @brief The store in use, chosen on first use when none was set.
  static std::shared_ptr<JovCredentialStore> store();
  /// @brief Uses the file store in Jov::dataDirectory().
  static void useFileStore();
  /// @brief Uses the Secret Service; false (store unchanged) when none answers.
  static bool useSecretServiceStore();
  /// @brief Uses a fresh memory store.
  static void useMemoryStore();

  /// @brief Stores the user's credential dictionary with "appID" and "baseURL"; an existing
  /// record is updated.
  static Result<void> createJovUser(const JovUser& user, const std::string& service);
  /// @brief Replaces the existing record with the user's credentials.
  static Result<void> updateJovUser(const JovUser& user, const std::string& service);
  /// @brief The raw record: 1204 when there is none, 1205 when access is refused, else 1201.
  static Result<std::string> searchFirstItemCopyMatchingService(const std::string& service);
  /// @brief The user of the record; 331 when it is incomplete or was written for another
  /// application ID or base URL, 1202 when it cannot be read.
  static Result<std::shared_ptr<JovUser>> jovUserFromMatchingService(const std::string& service);
  /// @brief Deletes the record. Fails with 1204 when there is none, 1205 when access is
  /// refused, 1201 on any other failure of the store; after it, succeeded or not, the next write
  /// of the record reaches the store even when the record did not change.
  static Result<void> deleteFromKeychainWithService(const std::string& service);
  /// @brief Deletes every record of the store in use.
  static Result<void> deleteAllKeychainItems();
};

}  // namespace jov
