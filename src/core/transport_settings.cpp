// The settings of the transport that are not part of the application's identity: the retry
// policy, the limit of an answer kept in memory and whether traces show secrets.

#include <atomic>
#include <mutex>

#include "jov/application.hpp"

namespace jov {

namespace {

struct TransportSettings {
  std::mutex mutex;  // guards retry
  std::optional<JovRetryPolicy> retry;
  // Whether a policy is set: every exchange asks, and without a policy it takes no lock.
  std::atomic<bool> hasRetry{false};
  std::atomic<std::size_t> maxAnswerSize{std::size_t{16} << 20};
  std::atomic<bool> traceSecrets{false};
};

// Leaked on purpose: exchanges still in flight read it while the process exits.
TransportSettings& settings() {
  static auto* s = new TransportSettings();
  return *s;
}

}  // namespace

void Jov::setRetryPolicy(std::optional<JovRetryPolicy> policy) {
  std::lock_guard lock(settings().mutex);
  settings().hasRetry = policy.has_value();
  settings().retry = std::move(policy);
}

std::optional<JovRetryPolicy> Jov::retryPolicy() {
  if (!settings().hasRetry) return std::nullopt;
  std::lock_guard lock(settings().mutex);
  return settings().retry;
}

void Jov::setMaxAnswerSize(std::size_t bytes) {
  settings().maxAnswerSize = bytes;
}

std::size_t Jov::maxAnswerSize() {
  return settings().maxAnswerSize;
}

void Jov::setTraceSecrets(bool show) {
  settings().traceSecrets = show;
}

bool Jov::traceSecrets() {
  return settings().traceSecrets;
}

}  // namespace jov
