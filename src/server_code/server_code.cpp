// Server code: the entry factories, the argument's checks and the one execution exchange.

#include "jov/server_code.hpp"

#include <charconv>
#include <stdexcept>

#include "core/exchange.hpp"
#include "jov/application.hpp"
#include "jov/transport.hpp"
#include "jov/validation.hpp"

namespace jov {

namespace {

using detail::args;
using detail::Exchange;
using detail::onStatus;

// The service answers 404 for a version or an entry it does not have, 401 for a caller it
// refuses and 400 for input the entry cannot take or an entry that failed while running.
constexpr detail::ErrorRule kExecuteErrors[] = {
    onStatus(404, JovError::codeObjectNotFound()),
    onStatus(401, JovError::codeUnauthorizedRequest()),
    onStatus(400, JovError::codeInvalidContainer()),
};
constexpr Exchange kExecute{
    JovMethodPost, "/server-code/versions/{}/{}", {.errors = kExecuteErrors}};

// The integer a header holds; nothing when it is absent or not an integer as a whole.
std::optional<std::int64_t> integerHeader(const JovHeaders& headers, const char* name) {
  std::optional<std::string> value = jovHeaderValue(headers, name);
  if (!value) return std::nullopt;
  const char* first = value->data();
  const char* last = first + value->size();
  while (first != last && (*first == ' ' || *first == '\t')) ++first;
  while (last != first && (last[-1] == ' ' || last[-1] == '\t')) --last;
  std::int64_t number = 0;
  auto [end, error] = std::from_chars(first, last, number);
  if (error != std::errc() || end != last || first == last) return std::nullopt;
  return number;
}

// Only the runtimes 0 and 6 are known; any other reading is reported as -1.
int environmentVersionIn(const JovHeaders& headers) {
  std::optional<std::int64_t> version = integerHeader(headers, "X-Environment-version");
  if (version == 0 || version == 6) return static_cast<int>(*version);
  return -1;
}

}  // namespace

std::shared_ptr<JovServerCodeEntryArgument> JovServerCodeEntryArgument::argumentWithDictionary(
    const nlohmann::json& dictionary) {
  if (dictionary.is_null() || dictionary.is_discarded()) {
    throw std::invalid_argument("objectArgument can not nil.");
  }
  bool serialisable = dictionary.is_object();
  if (serialisable) {
    try {
      (void)dictionary.dump();
    } catch (const nlohmann::json::exception&) {
      serialisable = false;
    }
  }
  if (!serialisable) {
    throw std::invalid_argument("objectArgument can not be converted to JSON object.");
  }
  return std::make_shared<JovServerCodeEntryArgument>(Key{}, dictionary);
}

std::shared_ptr<JovServerCodeEntry> Jov::serverCodeEntry(const std::optional<std::string>& name) {
  return serverCodeEntry(name, std::string("current"), -1);
}

std::shared_ptr<JovServerCodeEntry> Jov::serverCodeEntry(
    const std::optional<std::string>& name, const std::optional<std::string>& version) {
  return serverCodeEntry(name, version, -1);
}

std::shared_ptr<JovServerCodeEntry> Jov::serverCodeEntry(const std::optional<std::string>& name,
                                                         const std::optional<std::string>& version,
                                                         int environmentVersion) {
  if (!name) throw std::invalid_argument("entryName must not nil");
  if (!version || version->empty()) {
    throw std::invalid_argument("version must not nil or empty string");
  }
  if (!serverCodeEntryNameIsValid(*name)) {
    throw std::invalid_argument(
        "entryName is invalid. Valid entryName pattern is [a-zA-Z][_a-zA-Z0-9]*$");
  }
  return std::make_shared<JovServerCodeEntry>(JovServerCodeEntry::Key{}, *name, *version,
                                              environmentVersion);
}

detail::Routine<JovServerCodeEntry::ExecResult> JovServerCodeEntry::executeRoutine(
    Argument argument) const {
  nlohmann::json body =
      argument ? argument->objectArgument() : nlohmann::json(nlohmann::json::object());
  detail::SendArgs sendArgs = args(version_, entryName_).json(std::move(body));
  if (environmentVersion_ >= 0) {
    sendArgs.query_ = "environment-version=" + std::to_string(environmentVersion_);
  }
  auto answer = co_await detail::send(kExecute, std::move(sendArgs));
  if (!answer) co_return answer.error();
  if (!answer->json.is_object()) co_return detail::unreadableAnswer();
  auto result = std::make_shared<JovServerCodeExecResult>();
  result->returnedValue = std::move(answer->json);
  result->executedSteps = integerHeader(answer->headers, "X-Step-count").value_or(0);
  result->environmentVersion = environmentVersionIn(answer->headers);
  co_return ExecResult(std::move(result));
}

}  // namespace jov
