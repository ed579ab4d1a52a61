// Identity changes of the logged-in user: a pseudo user's upgrade (putIdentityData) and the
// update of a full user's identifiers and attributes (updateWithIdentityData/UserFields).

#include "jov/user.hpp"
#include "jov/user_builder.hpp"
#include "jov/validation.hpp"
#include "users/user_internal.hpp"

namespace jov {

namespace {

// Checks what both exchanges send, before any request.
std::optional<JovError> checkIdentity(const std::optional<JovIdentityData>& identity,
                                      const JovUserFields& fields, const std::string& userCountry) {
  if (identity) {
    if (auto invalid = identity->validate()) return invalid;
  }
  if (auto invalid = fields.validate()) return invalid;
  // A local number means nothing without its country.
  if (identity && identity->hasLocalPhoneNumber() && fields.country().empty() &&
      userCountry.empty())
    return JovError::errorWithCode(JovError::codeLocalPhoneRequiresCountryCode());
  return std::nullopt;
}

nlohmann::json identityBody(const nlohmann::json& uploadAttributes,
                            const std::optional<JovIdentityData>& identity,
                            const JovUserFields& fields) {
  nlohmann::json body = uploadAttributes;
  if (identity) body.update(identity->toJSON());
  body.update(fields.toJSON());
  for (const auto& key : fields.removingKeys()) body.erase(key);
  return body;
}

JovError mapIdentityError(const JovError& error) {
  if (error.code() != 0) return error;
  const std::string code = detail::serverCodeOf(error);
  if (code == "USER_ALREADY_EXISTS")
    return detail::mappedError(JovError::codeDuplicateEntry(), error);
  if (code == "USER_NOT_FOUND") return detail::mappedError(JovError::codeUserNotFound(), error);
  return error;
}

}  // namespace

Result<void> JovUser::putIdentityRoutine(JovIdentityData identityData, JovUserFields userFields,
                                         std::string password) {
  if (!isLoggedInUser())
    return JovError::errorWithCode(JovError::codeNonLoggedInUserIsNotAllowed());
  // The pseudo user's country does not count: the upgrade must name it.
  if (auto invalid = checkIdentity(identityData, userFields, "")) return *invalid;
  if (!passwordIsValid(password))
    return JovError::errorWithCode(JovError::codeInvalidPasswordFormat());

  if (auto refreshed = detail::runSync(refreshRoutine()); !refreshed) return refreshed.error();
  // Only a pseudo user can be given identifiers this way; others use updateWithIdentityData.
  if (!isPseudoUser()) return JovError::errorWithCode(JovError::codeInvalidUserObject());

  nlohmann::json body = identityBody(uploadAttributes(), identityData, userFields);
  body["password"] = password;
  JovRequest request = detail::makeRequest("/users/me", JovMethodPost, detail::kUserUpdateRequest);
  request.postData = body;
  JovResponse response = request.makeSynchronousRequest();
  if (!response.ok()) return mapIdentityError(*response.error);

  body.erase("password");
  body["_hasPassword"] = true;
  loadFromJSON(body);
  return {};
}

Result<void> JovUser::updateIdentityRoutine(std::optional<JovIdentityData> identityData,
                                            JovUserFields userFields) {
  if (!isLoggedInUser())
    return JovError::errorWithCode(JovError::codeNonLoggedInUserIsNotAllowed());
  if (auto invalid = checkIdentity(identityData, userFields, country_)) return *invalid;

  if (auto refreshed = detail::runSync(refreshRoutine()); !refreshed) return refreshed.error();
  if (isPseudoUser()) return JovError::errorWithCode(JovError::codePseudoUserIsNotAllowed());

  nlohmann::json body = identityBody(uploadAttributes(), identityData, userFields);
  JovRequest request = detail::makeRequest("/users/me", JovMethodPost, detail::kUserUpdateRequest);
  request.postData = body;
  JovResponse response = request.makeSynchronousRequest();
  if (!response.ok()) return mapIdentityError(*response.error);

  if (customInfo_.contains("_hasPassword")) body["_hasPassword"] = customInfo_["_hasPassword"];
  loadFromJSON(body);
  return {};
}

Result<void> JovUser::updateIdentityDataRoutine(JovIdentityData identityData,
                                                JovUserFields userFields) {
  return updateIdentityRoutine(std::move(identityData), std::move(userFields));
}

Result<void> JovUser::updateUserFieldsRoutine(JovUserFields userFields) {
  return updateIdentityRoutine(std::nullopt, std::move(userFields));
}

// ------------------------------------------------------------------ forms

Result<void> JovUser::putIdentityDataSynchronous(const JovIdentityData& identityData,
                                                 const JovUserFields& userFields,
                                                 const std::string& password) {
  return putIdentityRoutine(identityData, userFields, password);
}
void JovUser::putIdentityData(const JovIdentityData& identityData, const JovUserFields& userFields,
                              const std::string& password, UserBlock block) {
  detail::runBlock(
      detail::withSelf(self(), &JovUser::putIdentityRoutine, identityData, userFields, password),
      std::move(block));
}
void JovUser::putIdentityData(const JovIdentityData& identityData, const JovUserFields& userFields,
                              const std::string& password, JovCallback callback) {
  detail::runCallback(
      detail::withSelf(self(), &JovUser::putIdentityRoutine, identityData, userFields, password),
      std::move(callback));
}
std::future<Result<void>> JovUser::putIdentityDataAsync(const JovIdentityData& identityData,
                                                        const JovUserFields& userFields,
                                                        const std::string& password) {
  return detail::runFuture(
      detail::bind(self(), &JovUser::putIdentityRoutine, identityData, userFields, password));
}

Result<void> JovUser::updateWithIdentityDataSynchronous(const JovIdentityData& identityData,
                                                        const JovUserFields& userFields) {
  return updateIdentityDataRoutine(identityData, userFields);
}
void JovUser::updateWithIdentityData(const JovIdentityData& identityData,
                                     const JovUserFields& userFields, UserBlock block) {
  detail::runBlock(
      detail::withSelf(self(), &JovUser::updateIdentityDataRoutine, identityData, userFields),
      std::move(block));
}
void JovUser::updateWithIdentityData(const JovIdentityData& identityData,
                                     const JovUserFields& userFields, JovCallback callback) {
  detail::runCallback(
      detail::withSelf(self(), &JovUser::updateIdentityDataRoutine, identityData, userFields),
      std::move(callback));
}
std::future<Result<void>> JovUser::updateWithIdentityDataAsync(const JovIdentityData& identityData,
                                                               const JovUserFields& userFields) {
  return detail::runFuture(
      detail::bind(self(), &JovUser::updateIdentityDataRoutine, identityData, userFields));
}

Result<void> JovUser::updateWithUserFieldsSynchronous(const JovUserFields& userFields) {
  return updateUserFieldsRoutine(userFields);
}
void JovUser::updateWithUserFields(const JovUserFields& userFields, UserBlock block) {
  detail::runBlock(detail::withSelf(self(), &JovUser::updateUserFieldsRoutine, userFields),
                   std::move(block));
}
void JovUser::updateWithUserFields(const JovUserFields& userFields, JovCallback callback) {
  detail::runCallback(detail::withSelf(self(), &JovUser::updateUserFieldsRoutine, userFields),
                      std::move(callback));
}
std::future<Result<void>> JovUser::updateWithUserFieldsAsync(const JovUserFields& userFields) {
  return detail::runFuture(detail::bind(self(), &JovUser::updateUserFieldsRoutine, userFields));
}

}  // namespace jov
