// The groups a user belongs to or owns: JovUser operations that live with the groups because
// they read group records.

#include "core/async_forms.hpp"
#include "groups/group_support.hpp"
#include "jov/group.hpp"
#include "jov/user.hpp"

namespace jov {

using GroupList = std::vector<std::shared_ptr<JovGroup>>;

Result<GroupList> JovUser::memberOfGroupsSynchronous() {
  return detail::listGroupsOfUser("is_member", userID());
}
void JovUser::memberOfGroups(JovBlock<GroupList> block) {
  detail::runBlock(detail::bind(shared_from_this(), &JovUser::memberOfGroupsSynchronous),
                   std::move(block));
}
void JovUser::memberOfGroups(JovCallback callback) {
  detail::runCallback(detail::bind(shared_from_this(), &JovUser::memberOfGroupsSynchronous),
                      std::move(callback));
}
std::future<Result<GroupList>> JovUser::memberOfGroupsAsync() {
  return detail::runFuture(detail::bind(shared_from_this(), &JovUser::memberOfGroupsSynchronous));
}

Result<GroupList> JovUser::ownerOfGroupsSynchronous() {
  return detail::listGroupsOfUser("owner", userID());
}
void JovUser::ownerOfGroups(JovBlock<GroupList> block) {
  detail::runBlock(detail::bind(shared_from_this(), &JovUser::ownerOfGroupsSynchronous),
                   std::move(block));
}
void JovUser::ownerOfGroups(JovCallback callback) {
  detail::runCallback(detail::bind(shared_from_this(), &JovUser::ownerOfGroupsSynchronous),
                      std::move(callback));
}
std::future<Result<GroupList>> JovUser::ownerOfGroupsAsync() {
  return detail::runFuture(detail::bind(shared_from_this(), &JovUser::ownerOfGroupsSynchronous));
}

}  // namespace jov
