// The Secret Service credential store against a real keyring. tests/run-with-keyring starts a
// private D-Bus session whose gnome-keyring has a throw-away unlocked "login" keyring, and sets
// JOV_TEST_KEYRING; anywhere else these tests skip, so that they never write into the keyring of
// the desktop session they happen to run in.
#include <gtest/gtest.h>
#include <libsecret/secret.h>

#include <cstdlib>
#include <fstream>
#include <optional>

#include "fake_transport.hpp"
#include "jov/credential_store.hpp"

namespace jov {
namespace {

using Status = JovCredentialStoreStatus;
using jovtest::codeOf;
using nlohmann::json;

constexpr const char* kService = JovKeyChainWrapper::kUserCredentialsService;
constexpr const char* kChildOutput = "JOV_KEYRING_CHILD_OUTPUT";

// The record under a service name as any libsecret client sees it (schema "org.jov.Credentials",
// attribute "service"), read without going through the library's store.
std::optional<std::string> keyringRecord(const std::string& service) {
  static const SecretSchema schema = {
      "org.jov.Credentials",
      SECRET_SCHEMA_NONE,
      {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING}, {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}}};
  GError* error = nullptr;
  gchar* secret =
      secret_password_lookup_sync(&schema, nullptr, &error, "service", service.c_str(), nullptr);
  if (error) {
    ADD_FAILURE() << "keyring lookup: " << error->message;
    g_error_free(error);
    return std::nullopt;
  }
  if (!secret) return std::nullopt;
  std::string record = secret;
  secret_password_free(secret);
  return record;
}

class SecretServiceStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store = makeSecretServiceCredentialStore();
    if (!std::getenv("JOV_TEST_KEYRING")) {
      GTEST_SKIP() << (store ? "a Secret Service answers, but it is not the private keyring of "
                               "tests/run-with-keyring: not touching it"
                             : "no Secret Service answers on the session bus");
    }
    ASSERT_TRUE(store) << "run-with-keyring started a keyring, yet the probe finds none";
    // The second process leaves the record to the test that started it.
    if (std::getenv(kChildOutput)) return;
    active = true;
    JovUser::logOut();
  }
  void TearDown() override {
    if (!active) return;
    JovKeyChainWrapper::setStore(store);
    JovKeyChainWrapper::deleteAllKeychainItems();
    JovKeyChainWrapper::useMemoryStore();
    Jov::setCurrentUser(nullptr);
  }

  jovtest::TestApp app{"keyring-app", "keyring-key"};
  std::shared_ptr<JovCredentialStore> store;
  bool active = false;
};

TEST_F(SecretServiceStoreTest, StoreOperationsOnARealKeyring) {
  const std::string service = "JovSDK/keyring-test";
  std::string blob;
  EXPECT_EQ(store->read(service, blob).status, Status::NotFound);
  EXPECT_EQ(store->update(service, "x").status, Status::NotFound);
  EXPECT_EQ(store->remove(service).status, Status::NotFound);

  ASSERT_TRUE(store->add(service, "first").ok());
  EXPECT_EQ(keyringRecord(service), "first");
  EXPECT_EQ(store->add(service, "second").status, Status::Duplicate);
  EXPECT_EQ(keyringRecord(service), "first") << "a duplicate add leaves the record";
  ASSERT_TRUE(store->update(service, "second").ok());
  ASSERT_TRUE(store->read(service, blob).ok());
  EXPECT_EQ(blob, "second");
  EXPECT_EQ(keyringRecord(service), "second") << "an update replaces, never adds a second item";

  ASSERT_TRUE(store->add("JovSDK/keyring-test-2", "other").ok());
  ASSERT_TRUE(store->remove(service).ok());
  EXPECT_EQ(keyringRecord(service), std::nullopt);
  EXPECT_EQ(keyringRecord("JovSDK/keyring-test-2"), "other") << "remove takes only its record";
  ASSERT_TRUE(store->removeAll().ok());
  EXPECT_EQ(keyringRecord("JovSDK/keyring-test-2"), std::nullopt);
}

TEST_F(SecretServiceStoreTest, StoredSessionLivesInTheKeyringUntilLogOut) {
  // With no store chosen, the library picks the Secret Service that answers.
  JovKeyChainWrapper::setStore(nullptr);
  ASSERT_EQ(JovKeyChainWrapper::store()->name(), "secret-service");

  auto user = jovtest::credentialUser({{"username", "alice"}});
  ASSERT_TRUE(JovKeyChainWrapper::createJovUser(*user, kService).ok());
  auto raw = keyringRecord(kService);
  ASSERT_TRUE(raw) << "the record is in the keyring";
  json record = json::parse(*raw);
  EXPECT_EQ(record["userID"], "u1");
  EXPECT_EQ(record["appID"], "keyring-app");
  EXPECT_FALSE(record.contains("password"));
  EXPECT_FALSE(std::filesystem::exists(app.dataDirectory / "credentials"))
      << "nothing is written to the file store";

  // A new process restores the session from the keyring alone.
  const auto output = app.dataDirectory / "child-output";
  const std::string command = std::string(kChildOutput) + "='" + output.string() + "' '" +
                              std::filesystem::read_symlink("/proc/self/exe").string() +
                              "' --gtest_filter=SecretServiceStoreTest.RestoresInAnotherProcess"
                              " >'" +
                              (app.dataDirectory / "child-log").string() + "' 2>&1";
  if (std::system(command.c_str()) != 0) {
    std::ifstream log(app.dataDirectory / "child-log");
    ADD_FAILURE() << "the second process failed:\n" << log.rdbuf();
  }
  std::ifstream in(output);
  std::string restored((std::istreambuf_iterator<char>(in)), {});
  EXPECT_EQ(restored, "u1") << "the other process restored the stored user";

  // Logging out removes the record from the keyring.
  Jov::setCurrentUser(user);
  JovUser::logOut();
  EXPECT_FALSE(JovUser::loggedIn());
  EXPECT_EQ(keyringRecord(kService), std::nullopt);
  EXPECT_EQ(codeOf(JovKeyChainWrapper::searchFirstItemCopyMatchingService(kService)),
            JovError::codeNonKeychainItemFound());
  EXPECT_FALSE(JovUser::authenticateWithStoredCredentialsSynchronous().ok());
}

// The second process of the test above; it runs only when that test starts it.
TEST_F(SecretServiceStoreTest, RestoresInAnotherProcess) {
  const char* output = std::getenv(kChildOutput);
  if (!output) GTEST_SKIP() << "started by StoredSessionLivesInTheKeyringUntilLogOut";
  auto restored = JovUser::authenticateWithStoredCredentialsSynchronous();
  ASSERT_TRUE(restored.ok()) << restored.error().describe();
  EXPECT_EQ(JovKeyChainWrapper::store()->name(), "secret-service");
  std::ofstream(output) << restored.value()->userID();
}

}  // namespace
}  // namespace jov
