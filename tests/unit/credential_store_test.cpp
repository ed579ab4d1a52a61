// The credential stores and JovKeyChainWrapper: file permissions and atomic records, the
// mapping of store outcomes to error codes, and the rules of the stored record.
#include "jov/credential_store.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "fake_transport.hpp"

namespace jov {
namespace {

using Status = JovCredentialStoreStatus;
using jovtest::codeOf;
using nlohmann::json;
using namespace std::chrono_literals;

constexpr const char* kService = JovKeyChainWrapper::kUserCredentialsService;

mode_t modeOf(const std::filesystem::path& p) {
  struct stat st {};
  EXPECT_EQ(::stat(p.c_str(), &st), 0) << p;
  return st.st_mode & 0777;
}

// A store whose every operation answers a chosen outcome, to see how the wrapper maps it.
class ScriptedStore : public JovCredentialStore {
 public:
  std::string name() const override { return "scripted"; }
  JovCredentialStoreOutcome add(const std::string&, const std::string&) override {
    return addOutcome;
  }
  JovCredentialStoreOutcome update(const std::string&, const std::string& blob) override {
    ++updates;
    updated = blob;
    return outcome;
  }
  JovCredentialStoreOutcome read(const std::string&, std::string& blob) override {
    blob = record;
    return outcome;
  }
  JovCredentialStoreOutcome remove(const std::string&) override { return outcome; }
  JovCredentialStoreOutcome removeAll() override { return outcome; }

  JovCredentialStoreOutcome addOutcome, outcome;
  std::string record, updated;
  int updates = 0;
};

class CredentialStoreTest : public ::testing::Test {
 protected:
  void TearDown() override { JovKeyChainWrapper::useMemoryStore(); }
  jovtest::TestApp app;
  JovUser::Ptr user = jovtest::credentialUser({{"username", "alice"}});
};

TEST_F(CredentialStoreTest, FileStoreKeepsPrivateWholeRecords) {
  // A directory that exists too open is narrowed.
  const auto dir = app.dataDirectory / "credentials";
  std::filesystem::create_directories(dir);
  ::chmod(dir.c_str(), 0755);

  auto store = makeFileCredentialStore();
  std::string blob;
  EXPECT_EQ(store->read(kService, blob).status, Status::NotFound);
  EXPECT_EQ(store->update(kService, "x").status, Status::NotFound);
  ASSERT_TRUE(store->add(kService, "first").ok());
  EXPECT_EQ(modeOf(dir), 0700u);
  const auto file = dir / "JovSDK%2Fuser_credentials";
  EXPECT_EQ(modeOf(file), 0600u);

  EXPECT_EQ(store->add(kService, "second").status, Status::Duplicate);
  ASSERT_TRUE(store->read(kService, blob).ok());
  EXPECT_EQ(blob, "first") << "a duplicate add leaves the record";
  ASSERT_TRUE(store->update(kService, "second").ok());
  ASSERT_TRUE(store->read(kService, blob).ok());
  EXPECT_EQ(blob, "second");
  EXPECT_EQ(modeOf(file), 0600u);

  // What a crash mid-write leaves behind is never read, and nothing else is left over.
  std::ofstream(dir / ".JovSDK%2Fuser_credentials.tmp-abc123") << "{half a rec";
  ASSERT_TRUE(store->read(kService, blob).ok());
  EXPECT_EQ(blob, "second");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 2)
      << "the record and the planted temporary file only";

  // Service names are kept apart, whatever characters they hold.
  ASSERT_TRUE(store->add("../escape", "other").ok());
  EXPECT_FALSE(std::filesystem::exists(app.dataDirectory / "escape"));
  ASSERT_TRUE(store->read(kService, blob).ok());
  EXPECT_EQ(blob, "second");

  ASSERT_TRUE(store->remove(kService).ok());
  EXPECT_EQ(store->remove(kService).status, Status::NotFound);
  EXPECT_EQ(store->read(kService, blob).status, Status::NotFound);
  ASSERT_TRUE(store->removeAll().ok());
  EXPECT_TRUE(std::filesystem::is_empty(dir));

  // The default directory follows the data directory of the moment.
  JovKeyChainWrapper::useFileStore();
  ASSERT_TRUE(JovKeyChainWrapper::createJovUser(*user, kService).ok());
  EXPECT_TRUE(std::filesystem::exists(file));
}

TEST_F(CredentialStoreTest, RecordRoundTripAndWhatItHolds) {
  JovKeyChainWrapper::useFileStore();
  ASSERT_TRUE(JovKeyChainWrapper::createJovUser(*user, kService).ok());
  ASSERT_TRUE(JovKeyChainWrapper::createJovUser(*user, kService).ok())
      << "an existing record is updated";

  auto raw = JovKeyChainWrapper::searchFirstItemCopyMatchingService(kService);
  ASSERT_TRUE(raw.ok());
  json record = json::parse(raw.value());
  EXPECT_EQ(record["appID"], "app1");
  EXPECT_EQ(record["baseURL"], jovtest::TestApp::kBaseURL);
  EXPECT_FALSE(record.contains("password"));

  auto back = JovKeyChainWrapper::jovUserFromMatchingService(kService);
  ASSERT_TRUE(back.ok());
  EXPECT_EQ(back.value()->credentialDictionary(), user->credentialDictionary());

  ASSERT_TRUE(JovKeyChainWrapper::deleteFromKeychainWithService(kService).ok());
  EXPECT_EQ(codeOf(JovKeyChainWrapper::deleteFromKeychainWithService(kService)),
            JovError::codeNonKeychainItemFound());
}

TEST_F(CredentialStoreTest, StoreOutcomesBecomeErrorCodes) {
  auto store = std::make_shared<ScriptedStore>();
  JovKeyChainWrapper::setStore(store);
  auto unexpected = [](const std::string& doing) {
    return "Unexpected result happends when " + doing + " item to keychain," +
           std::string(40, ' ') + "please check Apple Document for detail with the code";
  };
  auto search = [] { return JovKeyChainWrapper::searchFirstItemCopyMatchingService(kService); };
  auto remove = [] { return JovKeyChainWrapper::deleteFromKeychainWithService(kService); };

  store->addOutcome = {Status::Duplicate, 0, ""};
  ASSERT_TRUE(JovKeyChainWrapper::createJovUser(*user, kService).ok());
  EXPECT_EQ(store->updates, 1) << "a duplicate is updated";
  EXPECT_EQ(json::parse(store->updated)["userID"], "u1");

  store->addOutcome = {Status::NotAllowed, 13, ""};
  auto denied = JovKeyChainWrapper::createJovUser(*user, kService);
  EXPECT_EQ(codeOf(denied), JovError::codeKeyChainAccessIsNotAllowed());
  EXPECT_EQ(denied.error().userInfo()["keychain_error"], 13);
  store->addOutcome = {Status::Failed, 28, ""};
  auto failed = JovKeyChainWrapper::createJovUser(*user, kService);
  EXPECT_EQ(codeOf(failed), JovError::codeUnexpectedKeyChainError());
  EXPECT_EQ(failed.error().userInfo()["keychain_error"], 28);
  EXPECT_EQ(failed.error().userInfo()["message"], unexpected("add"));

  store->outcome = {Status::NotFound, 2, ""};
  EXPECT_EQ(codeOf(search()), JovError::codeNonKeychainItemFound());
  store->outcome = {Status::NotAllowed, 13, ""};
  EXPECT_EQ(codeOf(search()), JovError::codeKeyChainAccessIsNotAllowed());
  EXPECT_EQ(codeOf(remove()), JovError::codeKeyChainAccessIsNotAllowed());
  store->outcome = {Status::Failed, 5, ""};
  EXPECT_EQ(codeOf(search()), JovError::codeUnexpectedKeyChainError());
  EXPECT_EQ(search().error().userInfo()["message"], unexpected("searching"));
  auto removal = remove();
  EXPECT_EQ(codeOf(removal), JovError::codeUnexpectedKeyChainError());
  EXPECT_EQ(removal.error().userInfo()["code"], 5);
  EXPECT_EQ(removal.error().userInfo()["details"], unexpected("deleting"));

  // A store failure never touches the current user.
  Jov::setCurrentUser(user);
  JovUser::logOut();
  EXPECT_FALSE(JovUser::loggedIn());
  Jov::setCurrentUser(user);
  EXPECT_FALSE(JovUser::authenticateWithStoredCredentialsSynchronous().ok());
  EXPECT_EQ(JovUser::currentUser(), user);
  Jov::setCurrentUser(nullptr);
}

TEST_F(CredentialStoreTest, UnusableRecordsAreRefused) {
  auto store = std::make_shared<ScriptedStore>();
  JovKeyChainWrapper::setStore(store);
  json good = user->credentialDictionary();
  good["appID"] = "app1";
  good["baseURL"] = jovtest::TestApp::kBaseURL;
  store->record = good.dump();
  EXPECT_TRUE(JovKeyChainWrapper::jovUserFromMatchingService(kService).ok());

  for (const char* unreadable : {"{not json", "[1]"}) {
    store->record = unreadable;
    EXPECT_EQ(codeOf(JovKeyChainWrapper::jovUserFromMatchingService(kService)),
              JovError::codeFailedToUnarchived());
  }

  const std::pair<const char*, json> stale[] = {
      {"appID", "other"}, {"baseURL", "https://other/api"},
      {"appID", nullptr}, {"accessToken", nullptr},
      {"userID", 5},      {"accesstokenExpiresAt", "soon"}};
  for (const auto& [key, value] : stale) {
    json record = good;
    if (value.is_null())
      record.erase(key);
    else
      record[key] = value;
    store->record = record.dump();
    EXPECT_EQ(codeOf(JovKeyChainWrapper::jovUserFromMatchingService(kService)),
              JovError::codeValidStoredUserNotFound())
        << key;
  }
}

TEST_F(CredentialStoreTest, NoSecretServiceWithoutASessionBus) {
  // No session bus address, and no "bus" socket in the runtime directory.
  jovtest::ScopedEnv env{{"DBUS_SESSION_BUS_ADDRESS", nullptr},
                         {"XDG_RUNTIME_DIR", app.dataDirectory.c_str()}};
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(makeSecretServiceCredentialStore());
  JovKeyChainWrapper::useMemoryStore();
  auto before = JovKeyChainWrapper::store();
  EXPECT_FALSE(JovKeyChainWrapper::useSecretServiceStore());
  EXPECT_EQ(JovKeyChainWrapper::store(), before) << "the store in use stays";
  // Without a choice, the file store is used.
  JovKeyChainWrapper::setStore(nullptr);
  EXPECT_EQ(JovKeyChainWrapper::store()->name().rfind("file", 0), 0u);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s) << "the probe does not wait";
}

}  // namespace
}  // namespace jov
