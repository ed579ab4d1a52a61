// Identity changes of the logged-in user: a pseudo user's upgrade (putIdentityData) and the
// update of a full user's identifiers and attributes (updateWithIdentityData/UserFields).

#include "core/exchange.hpp"
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

constexpr detail::ErrorRule kIdentityErrors[] = {
    detail::onCode("USER_ALREADY_EXISTS", JovError::codeDuplicateEntry()),
    detail::onCode("USER_NOT_FOUND", JovError::codeUserNotFound()),
};
constexpr detail::Exchange kUpdateMe{
    JovMethodPost,
    "/users/me",
    {.contentType = detail::kUserUpdateRequest, .errors = kIdentityErrors}};

}  // namespace

detail::Routine<void> JovUser::putIdentityRoutine(JovIdentityData identityData,
                                                  JovUserFields userFields, std::string password) {
  JOV_CO_REQUIRE(isLoggedInUser(), JovError::codeNonLoggedInUserIsNotAllowed());
  // The pseudo user's country does not count: the upgrade must name it.
  if (auto invalid = checkIdentity(identityData, userFields, "")) co_return *invalid;
  JOV_CO_REQUIRE(passwordIsValid(password), JovError::codeInvalidPasswordFormat());

  if (auto refreshed = co_await refreshRoutine(); !refreshed) co_return refreshed.error();
  // Only a pseudo user can be given identifiers this way; others use updateWithIdentityData.
  JOV_CO_REQUIRE(isPseudoUser(), JovError::codeInvalidUserObject());

  nlohmann::json body = identityBody(uploadAttributes(), identityData, userFields);
  body["password"] = password;
  auto answer = co_await detail::send(kUpdateMe, detail::args().json(body));
  if (!answer) co_return answer.error();

  body.erase("password");
  body["_hasPassword"] = true;
  if (!loadFromJSON(body)) co_return detail::unreadableAnswer();
  co_return {};
}

detail::Routine<void> JovUser::updateIdentityRoutine(std::optional<JovIdentityData> identityData,
                                                     JovUserFields userFields) {
  JOV_CO_REQUIRE(isLoggedInUser(), JovError::codeNonLoggedInUserIsNotAllowed());
  if (auto invalid = checkIdentity(identityData, userFields, country_)) co_return *invalid;

  if (auto refreshed = co_await refreshRoutine(); !refreshed) co_return refreshed.error();
  JOV_CO_REQUIRE(!isPseudoUser(), JovError::codePseudoUserIsNotAllowed());

  nlohmann::json body = identityBody(uploadAttributes(), identityData, userFields);
  auto answer = co_await detail::send(kUpdateMe, detail::args().json(body));
  if (!answer) co_return answer.error();

  if (customInfo_.contains("_hasPassword")) body["_hasPassword"] = customInfo_["_hasPassword"];
  if (!loadFromJSON(body)) co_return detail::unreadableAnswer();
  co_return {};
}

}  // namespace jov
