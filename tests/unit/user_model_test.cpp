// The user entity without exchanges: the service record, pseudo users, custom fields, the
// persisted form, builders and the device country.
#include <gtest/gtest.h>

#include "fake_transport.hpp"
#include "jov/social_account.hpp"
#include "jov/user.hpp"
#include "jov/user_builder.hpp"
#include "users/user_internal.hpp"

namespace jov {
namespace {

using nlohmann::json;

std::int64_t millis(std::optional<JovUser::TimePoint> t) {
  return t ? detail::toMillis(*t) : -1;
}

TEST(UserModelTest, LoadsTheServiceRecordByItsKeyTable) {
  auto user = JovUser::userWithID("old");
  user->setObject("stale", "gone");
  user->loadFromJSON(R"({
      "userID": "u1", "createdAt": 1500000000123, "_modified": 1600000000456,
      "loginName": "alice", "displayName": "Alice", "country": "JP", "locale": "ja_JP",
      "emailAddress": "a@example.com", "_emailAddressPending": "new@example.com",
      "phoneNumber": "+819012345678", "_phoneNumberPending": "+819099999999",
      "emailAddressVerified": true, "_disabled": true,
      "score": 42, "_internalThing": "dropped", "nickname": null,
      "_thirdPartyAccounts": {"facebook": {"id": "fb1", "createdAt": 1000},
          "google-oauth2": {"id": "g1"}, "hotmail": {"id": 77}, "myspace": {"id": "x"}}})"_json);
  EXPECT_EQ(user->userID(), "u1");
  EXPECT_EQ(millis(user->created()), 1500000000123LL);
  EXPECT_EQ(millis(user->modified()), 1600000000456LL);
  EXPECT_EQ(user->username(), "alice");
  EXPECT_EQ(user->displayName(), "Alice");
  EXPECT_EQ(user->country(), "JP");
  EXPECT_EQ(user->email(), "a@example.com");
  EXPECT_EQ(user->pendingEmail(), "new@example.com");
  EXPECT_EQ(user->phoneNumber(), "+819012345678");
  EXPECT_EQ(user->pendingPhoneNumber(), "+819099999999");
  EXPECT_TRUE(user->emailVerified());
  EXPECT_FALSE(user->phoneVerified());
  EXPECT_TRUE(user->disabled());
  EXPECT_EQ(user->locale(), "ja-JP");
  // Custom fields are replaced: unknown keys come in, reserved and null ones do not.
  EXPECT_EQ(user->customInfo(), json({{"score", 42}}));
  // Linked accounts by the provider table; "google", "live", "hotmail" match by prefix.
  const auto& linked = user->linkedSocialAccounts();
  EXPECT_EQ(linked.size(), 3u);
  EXPECT_EQ(linked.at(JovSocialNetworkFacebook).socialID(), "fb1");
  EXPECT_EQ(millis(linked.at(JovSocialNetworkFacebook).createdAt()), 1000);
  EXPECT_EQ(linked.at(JovSocialNetworkGoogle).socialID(), "g1");
  EXPECT_EQ(linked.at(JovSocialNetworkLive).socialID(), "77");
  EXPECT_FALSE(socialNetworkForProviderName("facebook2"));

  // A record with one mistyped value is refused whole, as is a non-object: nothing changes.
  for (const json& bad : {json{{"loginName", 7}, {"displayName", "new"}},
                          json{{"createdAt", "yesterday"}}, json{{"_thirdPartyAccounts", 1}},
                          json{{"emailAddressVerified", "yes"}}, json::array({1, 2})}) {
    EXPECT_FALSE(user->loadFromJSON(bad)) << bad;
    EXPECT_EQ(user->username(), "alice");
    EXPECT_NE(user->displayName(), "new");
    EXPECT_EQ(millis(user->created()), 1500000000123LL);
    EXPECT_EQ(user->linkedSocialAccounts().size(), 3u);
    EXPECT_EQ(user->customInfo(), json({{"score", 42}}));
    EXPECT_EQ(user->userID(), "u1");
  }
  // "id" names the user too; no creation key, no creation date.
  auto other = JovUser::userWithID("");
  other->loadFromJSON({{"id", "u2"}});
  EXPECT_EQ(other->userID(), "u2");
  EXPECT_FALSE(other->created());
}

TEST(UserModelTest, PseudoUsersAndTheHasPasswordAsymmetry) {
  auto user = JovUser::userWithID("u1");
  EXPECT_TRUE(user->isPseudoUser());
  // Any "_hasPassword" entry makes a full user, even false.
  user->loadFromJSON({{"_hasPassword", false}});
  EXPECT_FALSE(user->isPseudoUser());
  user->loadFromJSON({{"displayName", "no identifiers"}});
  EXPECT_TRUE(user->isPseudoUser());
  EXPECT_FALSE(user->setObject(true, "_hasPassword")) << "nobody sets it by hand";
  for (const char* key : {"loginName", "emailAddress", "phoneNumber"}) {
    auto u = JovUser::userWithID("u");
    u->loadFromJSON({{key, "x@y"}});
    EXPECT_FALSE(u->isPseudoUser()) << key;
  }
}

TEST(UserModelTest, CustomFieldsAndWhatSaveSends) {
  auto user = JovUser::userWithID("u1");
  EXPECT_TRUE(user->setObject(json{{"a", 1}}, "prefs"));
  EXPECT_EQ(user->getObjectForKey("prefs"), json({{"a", 1}}));
  EXPECT_FALSE(user->setObject(1, "_secret"));
  EXPECT_FALSE(user->setObject(1, "internalUserID"));
  EXPECT_FALSE(user->setObject(std::string("\xff\xfe"), "bytes")) << "not valid JSON text";
  EXPECT_FALSE(user->hasObject("_secret") || user->hasObject("bytes"));
  user->removeObjectForKey("prefs");
  EXPECT_FALSE(user->hasObject("prefs"));

  // Custom fields and the settable attributes, never the service's reserved keys.
  user->loadFromJSON({{"_hasPassword", true}, {"internalUserID", 9}, {"level", 3}});
  user->setCountry("US");
  user->setDisplayName("Bob");
  user->setLocale("en_US");
  EXPECT_EQ(user->uploadAttributes(),
            json({{"level", 3}, {"country", "US"}, {"displayName", "Bob"}, {"locale", "en-US"}}));
}

TEST(UserModelTest, CredentialDictionaryRoundTrip) {
  const json dict = R"({"userID": "u1", "accessToken": "tok", "accesstokenExpiresAt": 4102444800000,
      "refreshToken": "ref", "username": "alice", "email": "a@example.com", "country": "JP",
      "locale": "ja-JP", "phoneVerified": true, "emailVerified": false})"_json;
  auto user = JovUser::userWithCredentialDictionary(dict);
  ASSERT_TRUE(user);
  user->setObject(1, "custom");
  EXPECT_EQ(user->credentialDictionary(), dict) << "no custom fields; booleans always";
  EXPECT_EQ(
      user->accessTokenDictionary(),
      json({{"access_token", "tok"}, {"expires_at", 4102444800000LL}, {"refresh_token", "ref"}}));
  for (const char* key : {"userID", "accessToken", "accesstokenExpiresAt"}) {
    json broken = dict;
    broken.erase(key);
    EXPECT_FALSE(JovUser::userWithCredentialDictionary(broken)) << key;
    broken[key] = json::array();
    EXPECT_FALSE(JovUser::userWithCredentialDictionary(broken)) << key;
  }
  auto secret = jovtest::credentialUser({{"accessToken", "SECRET"}});
  EXPECT_EQ(secret->describe().find("SECRET"), std::string::npos) << "no token in logs";

  // Identity: URIs and equality by user ID.
  EXPECT_EQ(JovUser::userWithURI("jovcloud://users/u1")->objectURI(), "jovcloud://users/u1");
  EXPECT_FALSE(JovUser::userWithURI("jovcloud://groups/u1"));
  EXPECT_TRUE(*JovUser::userWithURI("jovcloud://users/u1") == *user);
  EXPECT_EQ(std::hash<JovUser>()(*JovUser::userWithID("u1")), std::hash<JovUser>()(*user));
}

TEST(UserModelTest, BuildersIdentityDataAndUserFields) {
  auto user = JovUserBuilder::builderWithLocalPhoneNumber("09012345678", "JP", "pass1234")
                  .setUsername("alice")
                  .build();
  EXPECT_TRUE(user->validateFields());
  EXPECT_EQ(user->phoneNumber(), "09012345678");
  EXPECT_EQ(user->country(), "JP");
  EXPECT_EQ(user->username(), "alice");
  EXPECT_EQ(JovUserBuilder::builderWithIdentifier("+819012345678", "pass1234").phoneNumber(),
            "+819012345678");
  EXPECT_THROW(JovUserBuilder::builderWithEmail("nope", "pass1234"), std::invalid_argument);
  EXPECT_THROW(JovUserBuilder::builderWithUsername("alice", "abc"), std::invalid_argument);

  EXPECT_EQ(JovIdentityData().validate()->code(), JovError::codeInvalidUserObject());
  EXPECT_EQ(JovIdentityDataBuilder().setUserName("a").build().validate()->code(),
            JovError::codeInvalidUsername());
  EXPECT_EQ(JovIdentityDataBuilder().setEmail("x").build().validate()->code(),
            JovError::codeInvalidEmailFormat());
  EXPECT_EQ(JovIdentityDataBuilder().setPhoneNumber("12-34").build().validate()->code(),
            JovError::codeInvalidPhoneFormat());

  JovUserFields fields;
  fields.setDisplayName(std::string(51, 'x'));
  EXPECT_EQ(fields.validate()->code(), JovError::codeInvalidDisplayName());
  fields.setDisplayName("Al");
  fields.setCountry("Japan");
  EXPECT_EQ(fields.validate()->code(), JovError::codeInvalidCountryCode());
  EXPECT_FALSE(fields.setObject(1, "loginName")) << "identifiers go through JovIdentityData";
}

TEST(UserModelTest, DeviceCountryComesFromTheProcessLocale) {
  jovtest::ScopedEnv clean{{"LC_ALL", nullptr}, {"LC_MESSAGES", nullptr}, {"LANG", nullptr}};
  auto countryWith = [](const char* lcAll, const char* lang) {
    jovtest::ScopedEnv::set("LC_ALL", lcAll);
    jovtest::ScopedEnv::set("LANG", lang);
    return detail::deviceCountryCode().value_or("(none)");
  };
  EXPECT_EQ(countryWith(nullptr, "ja_JP.UTF-8"), "JP");
  EXPECT_EQ(countryWith("de_DE@euro", "ja_JP.UTF-8"), "DE") << "LC_ALL wins";
  EXPECT_EQ(countryWith("", "en-GB"), "GB") << "an empty variable does not count";
  EXPECT_EQ(countryWith(nullptr, "zh_Hant_TW.UTF-8"), "TW");
  for (const char* none : {"C.UTF-8", "POSIX", "fr"})
    EXPECT_EQ(countryWith(nullptr, none), "(none)");
}

// Each load leaves exactly the record's custom fields, whatever the user held before: fewer,
// more, other values, the same keys again, none at all.
TEST(UserModelTest, EachLoadLeavesExactlyTheRecordsCustomFields) {
  auto user = JovUser::userWithID("u1");
  const json deep = {{"deep", true}}, shallow = {{"deep", false}};
  // Each record, and the custom fields it leaves.
  const std::pair<json, json> loads[] = {
      {{{"a", 1}, {"b", 2}}, {{"a", 1}, {"b", 2}}},
      {{{"a", 1}}, {{"a", 1}}},
      {{{"a", 1}, {"b", 2}, {"c", deep}}, {{"a", 1}, {"b", 2}, {"c", deep}}},
      {{{"a", 1}, {"b", 3}, {"c", deep}}, {{"a", 1}, {"b", 3}, {"c", deep}}},
      {{{"a", 1}, {"b", 3}, {"c", shallow}}, {{"a", 1}, {"b", 3}, {"c", shallow}}},
      {{{"_hasPassword", true}, {"a", 1}}, {{"_hasPassword", true}, {"a", 1}}},
      {{{"b", 3}, {"displayName", "only listed"}, {"_internal", 1}}, {{"b", 3}}},
      {{{"loginName", "x"}}, json::object()},
      {{{"z", nullptr}, {"y", 0}}, {{"y", 0}}},
  };
  for (const auto& [record, custom] : loads) {
    ASSERT_TRUE(user->loadFromJSON(record)) << record;
    EXPECT_EQ(user->customInfo(), custom) << record;
    ASSERT_TRUE(user->loadFromJSON(record)) << record;
    EXPECT_EQ(user->customInfo(), custom) << "the same record again: " << record;
  }
}

}  // namespace
}  // namespace jov
