// JovKeyChainWrapper: the logged-in user's record in the credential store, and the choice of
// the store.

#include "jov/credential_store.hpp"

#include <map>
#include <mutex>
#include <optional>

#include "jov/application.hpp"
#include "jov/encoding.hpp"
#include "jov/logger.hpp"
#include "jov/user.hpp"
#include "platform/credential_write.hpp"

namespace jov {

namespace {

// The store's messages keep the wide gap they have always had.
const std::string kGap(40, ' ');
const std::string kAddMessage = "Unexpected result happends when add item to keychain," + kGap +
                                "please check Apple Document for detail with the code";
const std::string kSearchMessage = "Unexpected result happends when searching item to keychain," +
                                   kGap + "please check Apple Document for detail with the code";
const std::string kDeleteMessage = "Unexpected result happends when deleting item to keychain," +
                                   kGap + "please check Apple Document for detail with the code";

struct Selection {
  std::mutex mutex;
  std::shared_ptr<JovCredentialStore> store;
};

Selection& selection() {
  static auto* s = new Selection();  // leaked: logOut may run while the process exits
  return *s;
}

void announce(const JovCredentialStore& store) {
  JOV_LOG(JovLogInfo, "Credential store: " + store.name());
}

// The error of a failed store call: 1205 when access is not allowed, 1204 for a missing record
// where the caller looks for one (read, delete), else 1201 with the call's own details.
JovError storeError(const JovCredentialStoreOutcome& outcome, bool missingIsNotFound,
                    nlohmann::json unexpectedInfo) {
  if (missingIsNotFound && outcome.status == JovCredentialStoreStatus::NotFound)
    return JovError::errorWithCode(JovError::codeNonKeychainItemFound());
  if (outcome.status == JovCredentialStoreStatus::NotAllowed)
    return JovError::errorWithCode(JovError::codeKeyChainAccessIsNotAllowed(),
                                   {{"keychain_error", outcome.code}});
  return JovError::errorWithCode(JovError::codeUnexpectedKeyChainError(),
                                 std::move(unexpectedInfo));
}

JovError writeError(const JovCredentialStoreOutcome& outcome) {
  return storeError(outcome, false, {{"keychain_error", outcome.code}, {"message", kAddMessage}});
}

Result<std::string> recordOf(const JovUser& user) {
  nlohmann::json record = user.credentialDictionary();
  record["appID"] = Jov::appID();
  record["baseURL"] = Jov::baseURL();
  auto text = JSONRepresentation(record);
  if (!text)
    return JovError::errorWithCode(JovError::codeFailedToArchived(),
                                   {{"details", "the credentials are not valid UTF-8"}});
  return *text;
}

// The record last written per service, and the store it went to: a record that did not change is
// not written again (every token refresh and user refresh would otherwise cost two fsyncs and a
// rename, or a round trip to the keyring).
struct Written {
  std::mutex mutex;
  std::map<std::string, std::string> records;
  std::weak_ptr<JovCredentialStore> store;
};
Written& written() {
  static auto* w = new Written();
  return *w;
}
bool alreadyWritten(const std::shared_ptr<JovCredentialStore>& store, const std::string& service,
                    const std::string& record) {
  Written& w = written();
  std::lock_guard lock(w.mutex);
  if (w.store.lock() != store) return false;
  auto it = w.records.find(service);
  return it != w.records.end() && it->second == record;
}
void remember(const std::shared_ptr<JovCredentialStore>& store, const std::string& service,
              std::optional<std::string> record) {
  Written& w = written();
  std::lock_guard lock(w.mutex);
  if (w.store.lock() != store) {
    w.records.clear();
    w.store = store;
  }
  if (record) {
    w.records[service] = std::move(*record);
  } else {
    w.records.erase(service);
  }
}

}  // namespace

void JovKeyChainWrapper::setStore(std::shared_ptr<JovCredentialStore> store) {
  Selection& s = selection();
  std::lock_guard lock(s.mutex);
  s.store = std::move(store);
  if (s.store) announce(*s.store);
}

std::shared_ptr<JovCredentialStore> JovKeyChainWrapper::store() {
  Selection& s = selection();
  std::lock_guard lock(s.mutex);
  if (!s.store) {
    s.store = makeSecretServiceCredentialStore();
    if (!s.store) s.store = makeFileCredentialStore();
    announce(*s.store);
  }
  return s.store;
}

void JovKeyChainWrapper::useFileStore() {
  setStore(makeFileCredentialStore());
}

bool JovKeyChainWrapper::useSecretServiceStore() {
  auto secret = makeSecretServiceCredentialStore();
  if (!secret) return false;
  setStore(std::move(secret));
  return true;
}

void JovKeyChainWrapper::useMemoryStore() {
  setStore(makeMemoryCredentialStore());
}

Result<void> JovKeyChainWrapper::createJovUser(const JovUser& user, const std::string& service) {
  auto record = recordOf(user);
  if (!record) return record.error();
  auto target = store();
  auto outcome = target->add(service, record.value());
  if (outcome.status == JovCredentialStoreStatus::Duplicate) return updateJovUser(user, service);
  if (!outcome.ok()) return writeError(outcome);
  remember(target, service, record.value());
  return {};
}

Result<void> detail::storeCredentialsIfChanged(const JovUser& user, const std::string& service) {
  auto record = recordOf(user);
  if (!record) return record.error();
  if (alreadyWritten(JovKeyChainWrapper::store(), service, record.value())) return {};
  return JovKeyChainWrapper::createJovUser(user, service);
}

Result<void> JovKeyChainWrapper::updateJovUser(const JovUser& user, const std::string& service) {
  auto record = recordOf(user);
  if (!record) return record.error();
  auto target = store();
  auto outcome = target->update(service, record.value());
  if (!outcome.ok()) return writeError(outcome);
  remember(target, service, record.value());
  return {};
}

Result<std::string> JovKeyChainWrapper::searchFirstItemCopyMatchingService(
    const std::string& service) {
  std::string blob;
  auto outcome = store()->read(service, blob);
  if (!outcome.ok())
    return storeError(outcome, true,
                      {{"keychain_error", outcome.code}, {"message", kSearchMessage}});
  return blob;
}

Result<std::shared_ptr<JovUser>> JovKeyChainWrapper::jovUserFromMatchingService(
    const std::string& service) {
  auto blob = searchFirstItemCopyMatchingService(service);
  if (!blob) return blob.error();
  auto record = JSONValue(blob.value());
  if (!record || !record->is_object())
    return JovError::errorWithCode(JovError::codeFailedToUnarchived());

  // A record of another application or server would log in a user that does not exist there.
  auto appID = jsonString(*record, "appID");
  auto baseURL = jsonString(*record, "baseURL");
  const JovError stale = JovError::errorWithCode(JovError::codeValidStoredUserNotFound());
  if (!appID || *appID != Jov::appID() || !baseURL || *baseURL != Jov::baseURL()) return stale;
  record->erase("appID");
  record->erase("baseURL");
  auto user = JovUser::userWithCredentialDictionary(*record);
  if (!user) return stale;
  return user;
}

Result<void> JovKeyChainWrapper::deleteFromKeychainWithService(const std::string& service) {
  auto target = store();
  remember(target, service, std::nullopt);
  auto outcome = target->remove(service);
  if (!outcome.ok())
    return storeError(outcome, true, {{"code", outcome.code}, {"details", kDeleteMessage}});
  return {};
}

Result<void> JovKeyChainWrapper::deleteAllKeychainItems() {
  auto target = store();
  {
    Written& w = written();
    std::lock_guard lock(w.mutex);
    w.records.clear();
  }
  auto outcome = target->removeAll();
  if (outcome.ok() || outcome.status == JovCredentialStoreStatus::NotFound) return {};
  return storeError(outcome, false, {{"code", outcome.code}, {"details", kDeleteMessage}});
}

}  // namespace jov
