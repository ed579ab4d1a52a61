// The public forms of JovGroup's operations: blocking, block, delegate and future, each a line
// over the routine in group_requests.cpp.

#include <stdexcept>

#include "core/async_forms.hpp"
#include "jov/group.hpp"

namespace jov {

Result<void> JovGroup::saveSynchronous() {
  return saveRoutine();
}
void JovGroup::save(GroupBlock block) {
  detail::runBlock(detail::withSelf(self(), &JovGroup::saveRoutine), std::move(block));
}
void JovGroup::save(JovCallback callback) {
  detail::runCallback(detail::withSelf(self(), &JovGroup::saveRoutine), std::move(callback));
}
std::future<Result<void>> JovGroup::saveAsync() {
  return detail::runFuture(detail::bind(self(), &JovGroup::saveRoutine));
}

Result<void> JovGroup::refreshSynchronous() {
  return refreshRoutine();
}
void JovGroup::refresh(GroupBlock block) {
  detail::runBlock(detail::withSelf(self(), &JovGroup::refreshRoutine), std::move(block));
}
void JovGroup::refresh(JovCallback callback) {
  detail::runCallback(detail::withSelf(self(), &JovGroup::refreshRoutine), std::move(callback));
}
std::future<Result<void>> JovGroup::refreshAsync() {
  return detail::runFuture(detail::bind(self(), &JovGroup::refreshRoutine));
}

Result<void> JovGroup::changeGroupNameSynchronous(const std::string& name) {
  return changeGroupNameRoutine(name);
}
void JovGroup::changeGroupName(const std::string& name, GroupBlock block) {
  detail::runBlock(detail::withSelf(self(), &JovGroup::changeGroupNameRoutine, name),
                   std::move(block));
}
void JovGroup::changeGroupName(const std::string& name, JovCallback callback) {
  detail::runCallback(detail::withSelf(self(), &JovGroup::changeGroupNameRoutine, name),
                      std::move(callback));
}
std::future<Result<void>> JovGroup::changeGroupNameAsync(const std::string& name) {
  return detail::runFuture(detail::bind(self(), &JovGroup::changeGroupNameRoutine, name));
}

Result<JovGroup::Users> JovGroup::getMemberListSynchronous() {
  return getMemberListRoutine();
}
void JovGroup::getMemberList(JovBlock<Users> block) {
  detail::runBlock(detail::bind(self(), &JovGroup::getMemberListRoutine), std::move(block));
}
void JovGroup::getMemberList(JovCallback callback) {
  detail::runCallback(detail::bind(self(), &JovGroup::getMemberListRoutine), std::move(callback));
}
std::future<Result<JovGroup::Users>> JovGroup::getMemberListAsync() {
  return detail::runFuture(detail::bind(self(), &JovGroup::getMemberListRoutine));
}

Result<std::shared_ptr<JovUser>> JovGroup::getOwnerSynchronous() {
  return getOwnerRoutine();
}
void JovGroup::getOwner(JovBlock<std::shared_ptr<JovUser>> block) {
  detail::runBlock(detail::bind(self(), &JovGroup::getOwnerRoutine), std::move(block));
}
void JovGroup::getOwner(JovCallback callback) {
  detail::runCallback(detail::bind(self(), &JovGroup::getOwnerRoutine), std::move(callback));
}
std::future<Result<std::shared_ptr<JovUser>>> JovGroup::getOwnerAsync() {
  return detail::runFuture(detail::bind(self(), &JovGroup::getOwnerRoutine));
}

Result<void> JovGroup::deleteSynchronous() {
  return deleteRoutine();
}
void JovGroup::deleteWithBlock(GroupBlock block) {
  detail::runBlock(detail::withSelf(self(), &JovGroup::deleteRoutine), std::move(block));
}
void JovGroup::deleteWithCallback(JovCallback callback) {
  detail::runCallback(detail::withSelf(self(), &JovGroup::deleteRoutine), std::move(callback));
}
std::future<Result<void>> JovGroup::deleteAsync() {
  return detail::runFuture(detail::bind(self(), &JovGroup::deleteRoutine));
}

namespace {
// The class operation has no entity to hold: the work keeps copies of its arguments.
auto registerWork(const std::string& groupID, const std::string& name,
                  const JovGroup::Users& members) {
  return [groupID, name, members]() {
    return JovGroup::registerGroupSynchronousWithID(groupID, name, members);
  };
}
}  // namespace

void JovGroup::registerGroupWithID(const std::string& groupID, const std::string& name,
                                   const Users& members,
                                   JovBlock<std::shared_ptr<JovGroup>> block) {
  if (!block) throw std::invalid_argument("completion can not be nil");
  detail::runBlock(registerWork(groupID, name, members), std::move(block));
}
void JovGroup::registerGroupWithID(const std::string& groupID, const std::string& name,
                                   const Users& members, JovCallback callback) {
  detail::runCallback(registerWork(groupID, name, members), std::move(callback));
}
std::future<Result<std::shared_ptr<JovGroup>>> JovGroup::registerGroupWithIDAsync(
    const std::string& groupID, const std::string& name, const Users& members) {
  return detail::runFuture(registerWork(groupID, name, members));
}

}  // namespace jov
