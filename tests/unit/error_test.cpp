#include "jov/error.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>

namespace jov {
namespace {

using nlohmann::json;
using std::string;

// Compared as text: gtest would print a json as a container and recurse into scalars.
string info(const JovError& error) {
  return error.userInfo().dump();
}

TEST(ErrorTest, DescriptionsAreTheTableTextsExactly) {
  // Texts copied by hand, trailing and doubled blanks included.
  const std::pair<int, const char*> samples[] = {
      {101,
       "The application received invalid credentials and was not initialized. Make sure you have "
       "called [Jov begin...] with the proper app id and key before making any requests"},
      {201, "Unable to connect to the internet"},
      {302, "Unable to authenticate user"},
      {307,
       "Invalid username format. The username must be 3-64 alphanumeric or accepted symbols ( "
       "'.', '_', '-') characters."},
      {324,
       "User not found. The User object that is processed by the request is not available on "
       "the cloud. "},
      {325,
       "Group not found. The Group object that is processed by the request is not available on "
       "the cloud. "},
      {504, "Invalid remote path set for JovFile. Must be of form:  /root/path/subpath   "},
      {506,
       "Invalid JovObject type - the type does not match the regex "
       "[A-Za-z]{1}[A-Za-z0-9-_]{4,49}"},
      {512,
       "The object you are saving is older than what is on the server. Use one of the "
       "JovObject#save:forced: methods to forcibly override data on the server"},
      {1205, "Accessing Keychain item is not allowed."},
  };
  for (const auto& [code, text] : samples)
    EXPECT_EQ(JovError::getDescription(code), std::optional<string>(text)) << code;
  for (const int code : {321, 406, 602, 0, 100, 9999})
    EXPECT_EQ(JovError::getDescription(code), std::nullopt) << code;

  int described = 0;
  for (int code = -1; code < 10000; ++code) described += JovError::getDescription(code) ? 1 : 0;
  EXPECT_EQ(described, 127);  // 130 codes, of which 321, 406 and 602 have none
}

TEST(ErrorTest, OperationsNameTheirCodes) {
  EXPECT_EQ(JovError::codeInvalidApplication(), 101);
  EXPECT_EQ(JovError::codeUndefinedError(), 103);
  EXPECT_EQ(JovError::codeUnableToConnectToInternet(), 201);
  EXPECT_EQ(JovError::codeServerSideLoginFailed(), 321);
  EXPECT_EQ(JovError::codePINCodeIsExpired(), 344);
  EXPECT_EQ(JovError::codeInsufficientSpaceInCloud(), 406);
  EXPECT_EQ(JovError::codeObjectNotFound(), 510);
  EXPECT_EQ(JovError::codeGroupAlreadyExists(), 526);
  EXPECT_EQ(JovError::codeSingleQueryLimitExceeded(), 602);
  EXPECT_EQ(JovError::codeInvalidTopicID(), 711);
  EXPECT_EQ(JovError::codeObjectBodyRangeNotSatisfiable(), 813);
  EXPECT_EQ(JovError::codeThingInvalidData(), 1106);
  EXPECT_EQ(JovError::codeKeyChainAccessIsNotAllowed(), 1205);
}

TEST(ErrorTest, ErrorWithCodeAddsTheDescription) {
  const auto plain = JovError::errorWithCode(201);
  EXPECT_EQ(plain.domain(), "JovSDK");
  EXPECT_EQ(plain.code(), 201);
  EXPECT_EQ(info(plain), R"({"description":"Unable to connect to the internet"})");

  EXPECT_EQ(info(JovError::errorWithCode(321, nullptr)), "{}");

  const auto kept = JovError::errorWithCode(302, {{"http_status", 400}, {"server_code", "x"}});
  EXPECT_EQ(info(kept),
            R"({"description":"Unable to authenticate user","http_status":400,"server_code":"x"})");
  // The table's text wins over a caller's "description"; without one the caller's stays.
  EXPECT_EQ(info(JovError::errorWithCode(302, {{"description", "mine"}})),
            R"({"description":"Unable to authenticate user"})");
  EXPECT_EQ(info(JovError::errorWithCode(602, {{"description", "mine"}})),
            R"({"description":"mine"})");

  const auto unknown = JovError::errorWithCode(9999);
  EXPECT_EQ(unknown.code(), 9999);
  EXPECT_EQ(unknown.domain(), "JovSDK");
  EXPECT_EQ(info(unknown), "{}");

  // The constructor takes the user info as it is.
  EXPECT_EQ(info(JovError(201)), "{}");
  EXPECT_EQ(JovError(5, json::object(), "Other").domain(), "Other");

  const string line = plain.describe();
  EXPECT_NE(line.find("JovSDK"), string::npos) << line;
  EXPECT_NE(line.find("201"), string::npos) << line;
  EXPECT_NE(line.find("Unable to connect to the internet"), string::npos) << line;
  EXPECT_EQ(line.find('\n'), string::npos) << line;
}

TEST(ErrorTest, ServerAccessors) {
  const auto full = JovError::errorWithCode(
      0, {{"server_code", "USER_NOT_FOUND"}, {"server_message", "m"}, {"http_status", 404}});
  EXPECT_EQ(full.jovErrorSummary(), "USER_NOT_FOUND");
  EXPECT_EQ(full.jovErrorMessage(), "m");
  EXPECT_EQ(full.jovHttpStatus(), 404);

  for (const auto& none :
       {JovError::errorWithCode(0, {{"server_code", ""}, {"server_message", ""}}),
        JovError::errorWithCode(201)}) {
    EXPECT_EQ(none.jovErrorSummary(), std::nullopt);
    EXPECT_EQ(none.jovErrorMessage(), std::nullopt);
    EXPECT_EQ(none.jovHttpStatus(), 0);
  }
}

string raisedMessage(void (*raise)(const string&), const string& text) {
  try {
    raise(text);
  } catch (const std::logic_error& e) {
    return dynamic_cast<const JovIllegalStateException*>(&e) ? e.what() : "other logic_error";
  }
  return "not raised";
}

TEST(ErrorTest, IllegalStateExceptionMessages) {
  EXPECT_STREQ(JovIllegalStateException::name(), "JovIllegalStateException");
  EXPECT_EQ(raisedMessage(&JovIllegalStateException::raiseUserNotLoggedIn, "no user"),
            "Exception : no user");
  EXPECT_EQ(raisedMessage(&JovIllegalStateException::raiseSocialNetworkIsNotSet, "none"),
            "JovSocialNetwork Exception : none");
  EXPECT_EQ(raisedMessage(&JovIllegalStateException::raiseJovInitializationIsNotCalled, "x %@"),
            "Jov Exception : x %@");
}

class ConflictHandler : public JovErrorHandlerBase {
 public:
  ConflictHandler() {
    on(409, JovError::codeDuplicateEntry());
    on(404, JovError::codeObjectNotFound());
    on(400, [] { return JovError::errorWithCode(JovError::codeInvalidContainer()); });
    on(401, kNoError);
  }
};

TEST(ErrorTest, ErrorHandlerMapsStatuses) {
  auto code = [](const JovErrorHandlerBase& handler, int status) {
    const auto error = handler.errorParser(status);
    if (error) {
      EXPECT_EQ(error->domain(), "JovSDK");
    }
    return error ? error->code() : -1;
  };
  const JovErrorHandlerBase base;
  const ConflictHandler handler;
  // status, then the base's and the subclass's code (-1: no error); the base stays as it was.
  const std::tuple<int, int, int> rows[] = {{400, -1, 509},  {401, -1, -1},   {404, -1, 510},
                                            {409, 103, 503}, {403, 103, 103}, {500, 103, 103},
                                            {200, 103, 103}};
  for (const auto& [status, baseCode, handlerCode] : rows) {
    EXPECT_EQ(code(base, status), baseCode) << status;
    EXPECT_EQ(code(handler, status), handlerCode) << status;
  }
}

}  // namespace
}  // namespace jov
