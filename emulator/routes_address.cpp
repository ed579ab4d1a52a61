// E-mail addresses and phone numbers: change (pending until verified), verify, resend the code.
#include "api_error.hpp"
#include "outbox_store.hpp"
#include "service.hpp"
#include "user_fields.hpp"
#include "validation.hpp"

namespace jovemu {

namespace {

constexpr const char* kEmailChange = "application/vnd.jov.EmailAddressModificationRequest+json";
constexpr const char* kPhoneChange = "application/vnd.jov.PhoneNumberModificationRequest+json";
constexpr const char* kVerification = "application/vnd.jov.AddressVerificationRequest+json";

// The two kinds of address differ only in their fields, names and codes.
struct AddressKind {
  const char* segment;    // path segment
  const char* bodyKey;    // key of the modification request
  const char* mediaType;  // of the modification request
  const char* codeKind;   // outbox kind
  const char* channel;    // outbox channel
  std::optional<std::string> UserRow::*current;
  bool UserRow::*verified;
  std::optional<std::string> UserRow::*pending;
  bool (*valid)(const std::string&);
  const char* what;
};

const AddressKind kEmail{"email-address",         "emailAddress",         kEmailChange,
                         kEmailVerification,      kChannelEmail,          &UserRow::email,
                         &UserRow::emailVerified, &UserRow::emailPending, isValidEmail,
                         "e-mail address"};
const AddressKind kPhone{"phone-number",
                         "phoneNumber",
                         kPhoneChange,
                         kPhoneVerification,
                         kChannelSms,
                         &UserRow::phone,
                         &UserRow::phoneVerified,
                         &UserRow::phonePending,
                         isValidPhone,
                         "phone number"};

bool takenByOther(Connection& conn, const AddressKind& kind, const UserRow& user,
                  const std::string& value) {
  if (kind.current == &UserRow::email) return emailTaken(conn, user.appID, value, user.userID);
  return phoneTaken(conn, user.appID, value, user.country, user.userID);
}

void changeAddress(Service& service, Call& call, const std::string& appID,
                   const AddressKind& kind) {
  call.requireMediaType({kind.mediaType});
  auto body = call.jsonObject();
  auto value = requiredString(body, kind.bodyKey);
  if (!kind.valid(value)) {
    throw invalidInput(std::string("There are validation errors: ") + kind.bodyKey +
                       " - is not a valid " + kind.what);
  }
  service.db.transaction([&](Connection& conn) {
    auto caller = service.requireUser(call, conn, appID);
    auto user = requireSelf(conn, appID, call.param(1), caller);
    if (takenByOther(conn, kind, user, value)) throw userExists(std::string("The ") + kind.what);
    auto now = Service::now();
    if (user.*kind.current == value && user.*kind.verified) {
      // Back to the verified address: nothing is left to confirm.
      (user.*kind.pending).reset();
      dropCode(conn, appID, user.userID, kind.codeKind);
    } else {
      user.*kind.pending = value;
      sendCode(conn, appID, user.userID, kind.codeKind, kind.channel, value, now);
    }
    requireCountryForLocalPhone(user);
    user.modified = now;
    updateUser(conn, user);
  });
  call.replyNoContent();
}

void verifyAddress(Service& service, Call& call, const std::string& appID,
                   const AddressKind& kind) {
  call.requireMediaType({kVerification});
  auto body = call.jsonObject();
  auto code = requiredString(body, "verificationCode");
  service.db.transaction([&](Connection& conn) {
    auto caller = service.requireUser(call, conn, appID);
    auto user = requireSelf(conn, appID, call.param(1), caller);
    auto stored = findCode(conn, appID, user.userID, kind.codeKind);
    if (!stored) throw invalidStatus(std::string("There is no ") + kind.what + " to verify");
    // A code sent to an address the user has since replaced is no longer good.
    bool forPending = user.*kind.pending == stored->target;
    bool forCurrent = user.*kind.current == stored->target;
    if (stored->code != code || (!forPending && !forCurrent)) {
      throw ApiError(400, "INVALID_VERIFICATION_CODE", "The verification code is not correct");
    }
    if (forPending) {
      if (takenByOther(conn, kind, user, stored->target)) {
        throw userExists(std::string("The ") + kind.what);
      }
      user.*kind.current = stored->target;
      (user.*kind.pending).reset();
    }
    user.*kind.verified = true;
    dropCode(conn, appID, user.userID, kind.codeKind);
    user.modified = Service::now();
    updateUser(conn, user);
  });
  call.replyNoContent();
}

void resendVerification(Service& service, Call& call, const std::string& appID,
                        const AddressKind& kind) {
  service.db.transaction([&](Connection& conn) {
    auto caller = service.requireUser(call, conn, appID);
    auto user = requireSelf(conn, appID, call.param(1), caller);
    std::optional<std::string> target = user.*kind.pending;
    if (!target && user.*kind.current && !(user.*kind.verified)) target = user.*kind.current;
    if (!target) throw invalidStatus(std::string("There is no ") + kind.what + " to verify");
    sendCode(conn, appID, user.userID, kind.codeKind, kind.channel, *target, Service::now());
  });
  call.replyNoContent();
}

}  // namespace

void addAddressRoutes(Router& router, Service& service) {
  for (const AddressKind* kind : {&kEmail, &kPhone}) {
    std::string base = std::string("/users/{}/") + kind->segment;
    addApiRoute(router, service, "PUT", base, [&service, kind](Call& call, const std::string& app) {
      changeAddress(service, call, app, *kind);
    });
    addApiRoute(router, service, "POST", base + "/verify",
                [&service, kind](Call& call, const std::string& app) {
                  verifyAddress(service, call, app, *kind);
                });
    addApiRoute(router, service, "POST", base + "/resend-verification",
                [&service, kind](Call& call, const std::string& app) {
                  resendVerification(service, call, app, *kind);
                });
  }
}

}  // namespace jovemu
