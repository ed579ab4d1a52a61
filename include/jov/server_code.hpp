#pragma once
/// @file
/// @brief Running the application's server code: JovServerCodeEntry, its argument and result.

#include <cstdint>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "jov/async.hpp"
#include "jov/cancellation.hpp"
#include "jov/detail/forms.hpp"
#include "jov/result.hpp"

namespace jov {

/// @brief The argument of an entry: a JSON object sent as the request's body.
///
/// Made only by argumentWithDictionary; there is no default constructor.
class JovServerCodeEntryArgument {
 public:
  /// @brief Lets the factory use std::make_shared; not usable outside the class.
  struct Key {
   private:
    friend class JovServerCodeEntryArgument;
    Key() = default;
  };
  /// @brief Made by argumentWithDictionary only.
  JovServerCodeEntryArgument(Key, nlohmann::json objectArgument)
      : objectArgument_(std::move(objectArgument)) {}

  /// @brief Wraps a JSON object. Raises std::invalid_argument with "objectArgument can not nil."
  /// for a null value (the absent dictionary) and with "objectArgument can not be converted to
  /// JSON object." for any value that is not a JSON object or cannot be serialised (a string that
  /// is not UTF-8, for instance).
  static std::shared_ptr<JovServerCodeEntryArgument> argumentWithDictionary(
      const nlohmann::json& dictionary);

  /// @brief The object the entry receives.
  const nlohmann::json& objectArgument() const { return objectArgument_; }

 private:
  nlohmann::json objectArgument_;
};

/// @brief What an execution gave back: the service's JSON answer and two counters.
struct JovServerCodeExecResult {
  /// @brief The whole JSON answer; the service puts the entry's value under "returnedValue".
  nlohmann::json returnedValue = nlohmann::json::object();
  /// @brief The steps the runtime executed ("X-Step-count"); 0 when the header is absent.
  std::int64_t executedSteps = 0;
  /// @brief The runtime that ran the entry ("X-Environment-version"): 0 or 6; -1 for a missing
  /// header or any other value.
  int environmentVersion = -1;
};

/// @brief A named entry of the application's server code, at a code version and optionally a
/// runtime-environment version. Made by Jov::serverCodeEntry; immutable and safe to share
/// between threads.
///
/// @code
/// auto entry = jov::Jov::serverCodeEntry("add");
/// auto argument = jov::JovServerCodeEntryArgument::argumentWithDictionary({{"a", 1}, {"b", 2}});
/// auto result = entry->executeSynchronous(argument);
/// if (result) std::cout << result.value()->returnedValue.dump() << "\n";
/// @endcode
class JovServerCodeEntry : public std::enable_shared_from_this<JovServerCodeEntry> {
 public:
  /// @brief The shared argument of an execution; nullptr sends the empty object.
  using Argument = std::shared_ptr<const JovServerCodeEntryArgument>;
  /// @brief The result of an execution.
  using ExecResult = std::shared_ptr<const JovServerCodeExecResult>;
  /// @brief Blocks of execute receive the entry, the argument, the result, then the error.
  using ExecuteBlock = JovBlock<std::shared_ptr<JovServerCodeEntry>, Argument, ExecResult>;

  /// @brief Lets the factories use std::make_shared; not usable outside the library.
  struct Key {
   private:
    friend class Jov;
    friend class JovServerCodeEntry;
    Key() = default;
  };
  /// @brief Made by Jov::serverCodeEntry only (initWithEntryName:version:environmentVersion:).
  JovServerCodeEntry(Key, std::string entryName, std::string version, int environmentVersion)
      : entryName_(std::move(entryName)),
        version_(std::move(version)),
        environmentVersion_(environmentVersion) {}
  JovServerCodeEntry(const JovServerCodeEntry&) = delete;
  JovServerCodeEntry& operator=(const JovServerCodeEntry&) = delete;

  /// @brief The entry's name: a letter, then letters, digits and "_".
  const std::string& entryName() const { return entryName_; }
  /// @brief The code version: "current" for the latest, or a version number.
  const std::string& version() const { return version_; }
  /// @brief The runtime-environment version asked for; -1 when none is given.
  int environmentVersion() const { return environmentVersion_; }

  /// @name execute
  /// @{

  /// Runs the entry: POST "/server-code/versions/VERSION/ENTRY", with "?environment-version=N"
  /// when an environment version is given, the argument's object as the body (the empty object
  /// without an argument). The result holds the JSON answer and the "X-Step-count" and
  /// "X-Environment-version" readings.
  /// Errors: 510 when the service knows no such version or entry (404); 203 when it refuses the
  /// caller (401); 509 when it refuses the input or the entry failed (400: it threw, ran past
  /// its time or memory); 202 when the answer is not a JSON object; and the errors of every
  /// exchange (101, 201, 0 with the service's "http_status", "server_code", "server_message").
  /// The block and delegate receive the entry, the argument, the result, then the error.
  Result<ExecResult> executeSynchronous(Argument argument = nullptr) {
    return detail::runSync(executeRoutine(std::move(argument)));
  }
  void execute(Argument argument, ExecuteBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), executeRoutine(argument),
                     detail::leading(std::move(block), self(), argument), cancel);
  }
  void execute(Argument argument, JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), executeRoutine(argument), std::move(callback), cancel, self(),
                        argument);
  }
  std::future<Result<ExecResult>> executeAsync(Argument argument = nullptr,
                                               JovCancellation cancel = {}) {
    return detail::runFuture(self(), executeRoutine(std::move(argument)), cancel);
  }
  /// @}

 private:
  std::shared_ptr<JovServerCodeEntry> self() { return shared_from_this(); }
  detail::Routine<ExecResult> executeRoutine(Argument argument) const;

  const std::string entryName_;
  const std::string version_;
  const int environmentVersion_;
};

}  // namespace jov
