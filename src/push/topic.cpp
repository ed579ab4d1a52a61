// JovTopic's data: the factories of the three scopes, the name rule and the topic's path; and
// the subscriber made for a user.

#include "jov/topic.hpp"

#include <stdexcept>

#include "jov/application.hpp"
#include "jov/encoding.hpp"
#include "jov/group.hpp"
#include "jov/logger.hpp"
#include "jov/thing.hpp"
#include "jov/user.hpp"
#include "jov/validation.hpp"

namespace jov {

JovTopic::Ptr JovTopic::topicWithName(const std::string& name) {
  return std::make_shared<JovTopic>(Key{}, name, nullptr, nullptr);
}

JovTopic::Ptr JovTopic::topicWithName(const std::shared_ptr<JovUser>& user,
                                      const std::string& name) {
  if (!user) throw std::invalid_argument("user can not be nil");
  return std::make_shared<JovTopic>(Key{}, name, user, nullptr);
}

JovTopic::Ptr JovTopic::topicWithName(const std::shared_ptr<JovGroup>& group,
                                      const std::string& name) {
  if (!group) throw std::invalid_argument("group can not be nil");
  return std::make_shared<JovTopic>(Key{}, name, nullptr, group);
}

JovTopic::Ptr JovTopic::topicWithName(const std::shared_ptr<JovThing>& thing,
                                      const std::string& name) {
  if (!thing) throw std::invalid_argument("thing can not be nil");
  return std::make_shared<JovTopic>(Key{}, name, nullptr, nullptr, thing);
}

bool JovTopic::isValidName(const std::string& name) {
  return topicIdIsValid(name);
}

std::string JovTopic::generatePath() const {
  if (user_) return "/users/" + urlEncode(user_->userID()) + "/topics/" + urlEncode(name_);
  if (group_) return "/groups/" + urlEncode(group_->groupID()) + "/topics/" + urlEncode(name_);
  if (thing_) return "/things/" + urlEncode(thing_->thingID()) + "/topics/" + urlEncode(name_);
  return "/topics/" + urlEncode(name_);
}

std::optional<JovError> JovTopic::validateFields() const {
  JOV_LOG(JovLogDebug, "Validate topicID: " + name_);
  if (!isValidName(name_)) return JovError::errorWithCode(JovError::codeInvalidTopicID());
  return std::nullopt;
}

std::optional<JovError> JovTopic::validateOperations() const {
  if (auto invalid = validateFields()) return invalid;
  auto user = Jov::currentUser();
  if (!user || user->userID().empty()) {
    return JovError::errorWithCode(JovError::codeLoginRequired());
  }
  return std::nullopt;
}

// ------------------------------------------------------------------ the owners' forms

std::shared_ptr<JovTopic> JovThing::topicWithName(const std::string& name) {
  return JovTopic::topicWithName(self(), name);
}

Result<JovListResult<std::shared_ptr<JovTopic>>> JovThing::listTopicsSynchronous(
    std::optional<std::string> paginationKey) {
  return JovTopic::listTopicsSynchronous(self(), std::move(paginationKey));
}

std::shared_ptr<JovTopic> Jov::topicWithName(const std::string& name) {
  return JovTopic::topicWithName(name);
}

Result<JovTopic::Page> Jov::listTopicsSynchronous(std::optional<std::string> paginationKey) {
  return JovTopic::listTopicsSynchronous(std::move(paginationKey));
}

std::shared_ptr<JovTopic> JovUser::topicWithName(const std::string& name) {
  return JovTopic::topicWithName(self(), name);
}

Result<JovTopic::Page> JovUser::listTopicsSynchronous(std::optional<std::string> paginationKey) {
  return JovTopic::listTopicsSynchronous(self(), std::move(paginationKey));
}

void JovUser::listTopics(std::optional<std::string> paginationKey, JovBlock<JovTopic::Page> block,
                         JovCancellation cancel) {
  JovTopic::listTopics(self(), nullptr, std::move(paginationKey), std::move(block), cancel);
}

std::shared_ptr<JovTopic> JovGroup::topicWithName(const std::string& name) {
  return JovTopic::topicWithName(self(), name);
}

Result<JovTopic::Page> JovGroup::listTopicsSynchronous(std::optional<std::string> paginationKey) {
  return JovTopic::listTopicsSynchronous(self(), std::move(paginationKey));
}

void JovGroup::listTopics(std::optional<std::string> paginationKey, JovBlock<JovTopic::Page> block,
                          JovCancellation cancel) {
  JovTopic::listTopics(nullptr, self(), std::move(paginationKey), std::move(block), cancel);
}

JovPushSubscription::Ptr JovPushSubscription::subscriptionWithUser(
    const std::shared_ptr<JovUser>& user) {
  if (!user) throw std::invalid_argument("user can not be nil");
  if (user->userID().empty()) throw std::invalid_argument("user must have an ID");
  return std::make_shared<JovPushSubscription>(Key{}, "users/" + urlEncode(user->userID()));
}

JovPushSubscription::Ptr JovPushSubscription::subscriptionWithThing(
    const std::shared_ptr<JovThing>& thing) {
  if (!thing) throw std::invalid_argument("thing can not be nil");
  const std::string id = thing->thingID();
  if (id.empty()) throw std::invalid_argument("thing must have an ID");
  return std::make_shared<JovPushSubscription>(Key{}, "things/" + urlEncode(id));
}

}  // namespace jov
