// The exchanges of an access control list, the reading of a listing, and the routines behind
// every form of listing and saving.

#include <future>

#include "core/exchange.hpp"
#include "jov/acl.hpp"
#include "jov/encoding.hpp"
#include "jov/group.hpp"
#include "jov/logger.hpp"
#include "jov/thing.hpp"
#include "jov/user.hpp"

namespace jov {

namespace {

using detail::args;
using detail::Exchange;
using detail::onStatus;

constexpr const char* kAnonymous = "ANONYMOUS_USER";
constexpr const char* kAuthenticated = "ANY_AUTHENTICATED_USER";

// The service answers 401 to a caller whose token it does not accept here; every other refusal
// (403 for a caller who does not manage the list, 404 "ACL_NOT_FOUND" for revoking what is not
// granted, "USER_NOT_FOUND" / "GROUP_NOT_FOUND" for a subject it does not know) stays as it is.
constexpr detail::ErrorRule kACLErrors[] = {
    onStatus(401, JovError::codeUnauthorizedRequest()),
};
constexpr Exchange kList{JovMethodGet, "{+}", {.errors = kACLErrors}};
constexpr Exchange kGrant{JovMethodPut, "{+}/{}/{+}", {.errors = kACLErrors}};
constexpr Exchange kRevoke{JovMethodDelete, "{+}/{}/{+}", {.errors = kACLErrors}};

// The action a name stands for (the first of the duplicated pairs).
std::optional<JovACLAction> actionNamed(const std::string& name) {
  for (int i = 0; i <= JovACLActionSendMessageToTopic; ++i) {
    const auto action = static_cast<JovACLAction>(i);
    if (name == JovACLEntry::actionName(action)) return action;
  }
  return std::nullopt;
}

enum class Subject { Read, Unreadable };

// A subject of a listing: {"userID": ...}, {"groupID": ...} or {"thingID": ...}.
Subject readSubject(const nlohmann::json& record, std::optional<JovACLSubject>& subject) {
  if (!record.is_object()) return Subject::Unreadable;
  if (auto user = jsonString(record, "userID"); user && !user->empty()) {
    if (*user == kAnonymous) {
      subject = JovAnonymousUser{};
    } else if (*user == kAuthenticated) {
      subject = JovAnyAuthenticatedUser{};
    } else {
      subject = JovUser::userWithID(*user);
    }
    return Subject::Read;
  }
  if (auto group = jsonString(record, "groupID"); group && !group->empty()) {
    subject = JovGroup::groupWithID(*group);
    return Subject::Read;
  }
  if (auto thing = jsonString(record, "thingID"); thing && !thing->empty()) {
    subject = JovThing::thingWithID(*thing);
    return Subject::Read;
  }
  return Subject::Unreadable;
}

// The subject as a path segment: "UserID:ID" with the ID percent-encoded, the colon as it is.
std::string pathToken(const std::string& entity) {
  auto colon = entity.find(':');
  return entity.substr(0, colon + 1) + urlEncode(entity.substr(colon + 1));
}

bool isCancellation(const JovError& error) {
  return error.code() == JovError::codeOperationCancelled() ||
         error.code() == JovError::codeDeadlineExceeded();
}

}  // namespace

detail::Routine<JovACL::Entries> JovACL::listRoutine() {
  auto path = aclPath();
  JOV_CO_REQUIRE(path, JovError::codeInvalidObjects());
  auto answer = co_await detail::send(kList, args(*path));
  if (!answer) co_return answer.error();
  const nlohmann::json& list = answer->json;
  if (!list.is_object()) co_return detail::unreadableAnswer();
  Entries entries;
  for (const auto& [name, subjects] : list.items()) {
    auto action = actionNamed(name);
    if (!action || !subjects.is_array()) co_return detail::unreadableAnswer();
    for (const nlohmann::json& record : subjects) {
      std::optional<JovACLSubject> subject;
      const Subject read = readSubject(record, subject);
      if (read == Subject::Unreadable) co_return detail::unreadableAnswer();
      if (read == Subject::Read)
        entries.push_back(JovACLEntry::entryWithSubject(*subject, *action));
    }
  }
  co_return entries;
}

detail::Routine<JovACL::SaveReport> JovACL::saveRoutine() {
  SaveReport report;
  auto path = aclPath();
  if (!path) {
    report.error = JovError::errorWithCode(JovError::codeInvalidObjects());
    co_return report;
  }
  // The entries this save sends; a save running at the same time leaves them alone, so that
  // each pending entry goes out once. They are given back however this routine ends.
  Entries pending = claimPending();
  struct Release {
    JovACL* acl;
    Entries* claimed;
    ~Release() { acl->releaseClaimed(*claimed); }
  } release{this, &pending};

  // Every pending entry is tried, in order; each one that succeeds leaves the list. A
  // cancellation stops the save: what is left stays pending and is reported as failed.
  for (std::size_t i = 0; i < pending.size(); ++i) {
    const JovACLEntry::Ptr& entry = pending[i];
    const std::string token = entry->entityString();
    if (token.ends_with(':')) {
      // A user or group that has no ID yet: nothing the service could be asked.
      report.failed.push_back(entry);
      continue;
    }
    const bool grant = entry->grant();
    auto sent = co_await detail::send(
        grant ? kGrant : kRevoke,
        args(*path, JovACLEntry::actionName(entry->action()), pathToken(token)));
    if (!sent) {
      if (isCancellation(sent.error())) {
        report.failed.insert(report.failed.end(), pending.begin() + i, pending.end());
        report.error = sent.error();
        co_return report;
      }
      report.failed.push_back(entry);
      continue;
    }
    markSaved(entry);
    report.succeeded.push_back(entry);
  }
  if (!report.failed.empty())
    report.error = JovError::errorWithCode(JovError::codePartialACLFailure());
  co_return report;
}

Result<void> JovACL::saveSynchronous(Entries& succeeded, Entries& failed) {
  auto report = detail::runSync(saveRoutine());
  if (!report) return report.error();  // a routine that threw
  succeeded = std::move(report.value().succeeded);
  failed = std::move(report.value().failed);
  if (report.value().error) return *report.value().error;
  return {};
}

Result<void> JovACL::saveSynchronous(Entries& failed) {
  Entries succeeded;
  return saveSynchronous(succeeded, failed);
}

void JovACL::save(SaveBlock block, JovCancellation cancel) {
  if (!block) block = [](Ptr, Entries, Entries, std::optional<JovError>) {};
  JovBlock<SaveReport> adapted = [block = std::move(block), acl = self()](
                                     SaveReport report, std::optional<JovError> error) {
    block(acl, std::move(report.succeeded), std::move(report.failed), error ? error : report.error);
  };
  detail::runBlock(self(), saveRoutine(), std::move(adapted), cancel);
}

void JovACL::save(JovCallback callback, JovCancellation cancel) {
  JovBlock<SaveReport> adapted = [callback = std::move(callback), acl = self()](
                                     SaveReport report, std::optional<JovError> error) {
    JovUtilities::callMethod(callback, acl, std::move(report.succeeded), std::move(report.failed),
                             error ? error : report.error);
  };
  detail::runBlock(self(), saveRoutine(), std::move(adapted), cancel);
}

std::future<JovACL::SaveReport> JovACL::saveAsync(JovCancellation cancel) {
  auto promise = std::make_shared<std::promise<SaveReport>>();
  auto future = promise->get_future();
  detail::start(saveRoutine(), cancel.state(),
                [acl = self(), promise](Result<SaveReport> result) mutable {
                  SaveReport report;
                  if (result.ok()) {
                    report = std::move(result.value());
                  } else {
                    report.error = result.error();
                  }
                  promise->set_value(std::move(report));
                  acl = nullptr;
                });
  return future;
}

}  // namespace jov
