// The memory credential store: records live as long as the store (tests, throw-away sessions).

#include <map>
#include <mutex>

#include "jov/credential_store.hpp"

namespace jov {

namespace {

using Status = JovCredentialStoreStatus;

class MemoryCredentialStore final : public JovCredentialStore {
 public:
  std::string name() const override { return "memory"; }

  JovCredentialStoreOutcome add(const std::string& service, const std::string& blob) override {
    std::lock_guard lock(mutex_);
    if (!records_.emplace(service, blob).second) return {Status::Duplicate, 0, "exists"};
    return {};
  }

  JovCredentialStoreOutcome update(const std::string& service, const std::string& blob) override {
    std::lock_guard lock(mutex_);
    auto it = records_.find(service);
    if (it == records_.end()) return {Status::NotFound, 0, "no record"};
    it->second = blob;
    return {};
  }

  JovCredentialStoreOutcome read(const std::string& service, std::string& blob) override {
    std::lock_guard lock(mutex_);
    auto it = records_.find(service);
    if (it == records_.end()) return {Status::NotFound, 0, "no record"};
    blob = it->second;
    return {};
  }

  JovCredentialStoreOutcome remove(const std::string& service) override {
    std::lock_guard lock(mutex_);
    if (records_.erase(service) == 0) return {Status::NotFound, 0, "no record"};
    return {};
  }

  JovCredentialStoreOutcome removeAll() override {
    std::lock_guard lock(mutex_);
    records_.clear();
    return {};
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::string> records_;
};

}  // namespace

std::shared_ptr<JovCredentialStore> makeMemoryCredentialStore() {
  return std::make_shared<MemoryCredentialStore>();
}

}  // namespace jov
