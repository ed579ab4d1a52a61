// JovGroup without the network: factories, validation limits, the JSON record and the rules of
// the pending member changes.
#include <gtest/gtest.h>

#include "jov/application.hpp"
#include "jov/group.hpp"
#include "jov/logger.hpp"
#include "jov/user.hpp"

namespace jov {
namespace {

using nlohmann::json;

std::vector<std::string> idsOf(const JovGroup::Users& users) {
  std::vector<std::string> ids;
  for (const auto& u : users) ids.push_back(u->userID());
  return ids;
}

TEST(GroupModelTest, FactoriesAndURIs) {
  auto byURI = JovGroup::groupWithURI("jovcloud://groups/g1");
  ASSERT_NE(byURI, nullptr);
  EXPECT_EQ(byURI->objectURI(), "jovcloud://groups/g1");
  for (const char* uri : {"jovcloud://users/g1", "jovcloud://groups/", "jovcloud://groups/g/x"})
    EXPECT_EQ(JovGroup::groupWithURI(uri), nullptr) << uri;
  EXPECT_THROW(JovGroup::groupWithID(""), std::invalid_argument);

  // Unsaved, so no URI; members without ID are left out of the pending additions.
  auto fresh = Jov::groupWithName("team", {JovUser::userWithID("u1"), nullptr});
  EXPECT_EQ(fresh->name(), "team");
  EXPECT_TRUE(fresh->objectURI().empty());
  EXPECT_EQ(idsOf(fresh->addMembers()), std::vector<std::string>{"u1"});
}

TEST(GroupModelTest, ValidationLimits) {
  EXPECT_TRUE(JovGroup::isValidGroupID(std::string(30, 'a')));
  EXPECT_FALSE(JovGroup::isValidGroupID(std::string(31, 'a')));
  EXPECT_TRUE(JovGroup::isValidGroupID("a.b_c-9"));
  EXPECT_FALSE(JovGroup::isValidGroupID("Abc"));
  EXPECT_FALSE(JovGroup::isValidGroupID("a b"));
  EXPECT_FALSE(JovGroup::isValidGroupID(""));

  EXPECT_TRUE(JovGroup::isValidGroupName(std::string(190, 'n')));
  EXPECT_FALSE(JovGroup::isValidGroupName(std::string(191, 'n')));
  EXPECT_FALSE(JovGroup::isValidGroupName(""));
  // Characters, not bytes: 190 three-byte characters are accepted, 191 are not.
  std::string kana;
  for (int i = 0; i < 190; ++i) kana += "\xE3\x81\x82";
  EXPECT_TRUE(JovGroup::isValidGroupName(kana));
  EXPECT_FALSE(JovGroup::isValidGroupName(kana + "\xE3\x81\x82"));

  EXPECT_TRUE(JovGroup::isValidMembers({}));
  EXPECT_TRUE(JovGroup::isValidMembers({JovUser::userWithID("u1")}));
  EXPECT_FALSE(JovGroup::isValidMembers({JovUser::userWithID("u1"), nullptr}));
  EXPECT_FALSE(JovGroup::isValidMembers({JovUser::userWithUsername("bob", "pass1234")}));
}

TEST(GroupModelTest, PendingMemberChanges) {
  std::vector<std::string> logged;
  JovLogger::setSink([&](int, const std::string& line) { logged.push_back(line); });
  auto group = JovGroup::groupWithID("g1");
  auto u1 = JovUser::userWithID("u1");
  auto u2 = JovUser::userWithID("u2");

  EXPECT_TRUE(group->addUser(u1));
  EXPECT_TRUE(group->addUser(JovUser::userWithID("u1")));  // the same user once
  EXPECT_TRUE(group->removeUser(u1));                      // moves, never both
  EXPECT_TRUE(group->removeUser(u2));
  EXPECT_TRUE(group->addUser(u2));
  EXPECT_EQ(idsOf(group->addMembers()), std::vector<std::string>{"u2"});
  EXPECT_EQ(idsOf(group->removeMembers()), std::vector<std::string>{"u1"});

  EXPECT_FALSE(group->addUser(nullptr));
  EXPECT_FALSE(group->removeUser(JovUser::userWithUsername("bob", "pass1234")));
  JovLogger::setSink({});
  EXPECT_EQ(idsOf(group->addMembers()), std::vector<std::string>{"u2"});
  ASSERT_EQ(logged.size(), 2u);
  EXPECT_NE(logged[0].find("Unable to add user"), std::string::npos);
}

TEST(GroupModelTest, LoadFromJSONSkipsWhatItCannotRead) {
  auto group = JovGroup::groupWithName("old");
  EXPECT_TRUE(group->loadFromJSON({{"uuid", "g9"}, {"name", "new"}, {"owner", "u7"}}));
  EXPECT_EQ(group->groupID(), "g9");
  EXPECT_EQ(group->name(), "new");
  EXPECT_EQ(group->owner()->userID(), "u7");
  // "groupID" wins over "uuid"; nulls leave the fields as they were.
  EXPECT_TRUE(group->loadFromJSON({{"groupID", "g2"}, {"uuid", "g3"}, {"owner", nullptr}}));
  EXPECT_EQ(group->groupID(), "g2");
  // A key of the wrong type refuses the whole record: nothing of it is applied.
  EXPECT_FALSE(group->loadFromJSON({{"groupID", "g4"}, {"name", 5}}));
  EXPECT_FALSE(group->loadFromJSON({{"groupID", json::array()}, {"name", "other"}}));
  EXPECT_EQ(group->groupID(), "g2");
  EXPECT_EQ(group->name(), "new");
  EXPECT_EQ(group->owner()->userID(), "u7");
  EXPECT_FALSE(group->loadFromJSON(json::array({1, 2})));
  EXPECT_FALSE(group->loadFromJSON(nullptr));
}

}  // namespace
}  // namespace jov
