// Finding a user by login name, e-mail address or phone number.

#include "core/exchange.hpp"
#include "jov/user.hpp"
#include "jov/validation.hpp"
#include "users/user_internal.hpp"

namespace jov {

namespace {

constexpr detail::Exchange kFindByUsername{JovMethodGet, "/users/LOGIN_NAME:{}"};
constexpr detail::Exchange kFindByEmail{JovMethodGet, "/users/EMAIL:{}"};
constexpr detail::Exchange kFindByPhone{JovMethodGet, "/users/PHONE:{}"};

}  // namespace

detail::Routine<JovUser::Ptr> JovUser::findUserRoutine(FindBy kind, std::string value) {
  static constexpr struct {
    const detail::Exchange* exchange;
    bool (*valid)(std::string_view);
    int invalidCode;
  } kKinds[] = {
      {&kFindByUsername, usernameIsValid, JovError::codeInvalidUsername()},
      {&kFindByEmail, emailIsValid, JovError::codeInvalidEmailFormat()},
      {&kFindByPhone, phoneNumberIsValid, JovError::codeInvalidPhoneFormat()},
  };
  const auto& by = kKinds[static_cast<int>(kind)];
  JOV_CO_REQUIRE(by.valid(value), by.invalidCode);
  auto answer = co_await detail::send(*by.exchange, detail::args(value));
  if (!answer) co_return answer.error();
  auto user = detail::UserAccess::create();
  if (!user->loadFromJSON(answer->json)) co_return detail::unreadableAnswer();
  co_return user;
}

}  // namespace jov
