// Server code: runs one entry of an application's script in a fresh JavaScript heap of its own,
// under a time limit and a memory cap, and counts the steps it took.
//
// The engine is Duktape (Debian duktape-dev), built from the source Debian ships with its
// interrupt counter switched on; see script_engine.h for what a step is. Duktape was chosen over
// MuJS because it has what this needs: an executor interrupt hook that both stops a runaway
// script and gives an exact count of executed instructions (MuJS has no hook of any kind: a
// script that loops forever cannot be stopped without killing the thread), a heap-wide custom
// allocator with a user pointer (the memory cap; MuJS has one too), built-in JSON encode and
// decode on its C API, compile-only checks (duk_pcompile), and a fatal-error hook that lets us
// leave without aborting. Both are maintained in Debian; Duktape's API is the better documented.
//
// An entry is a function declared at the top level of the script. It is called as
//   entry(argument, context, done)
// where `argument` is the request's JSON object, `context` is
//   { appID, userID (the caller, null when anonymous), accessToken (null when anonymous) }
// and `done(error, result)` is the callback form: an entry that calls done() before it returns
// answers with done's result (or fails with its error, when error is neither null nor
// undefined); an entry that does not call done answers with its return value. An entry that
// declares three parameters must call done. There is no event loop: done must be called before
// the entry returns.
//
// Scripts reach the application's data through the global `jov` object (ScriptDataApi).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>

namespace jovemu {

struct ScriptLimits {
  /// The top level of the script and the entry together must end within this time.
  std::chrono::milliseconds time{5000};
  /// The heap, built-ins included, may hold at most this many bytes at once.
  std::size_t memoryBytes = 64 * 1024 * 1024;
};

/// @brief Who runs an entry.
struct ScriptCaller {
  std::string appID;
  std::optional<std::string> userID;
  std::optional<std::string> accessToken;
};

/// @brief Thrown by a ScriptDataApi call: the script sees an Error with this message (and a
/// `status` property) that it may catch.
class ScriptApiError : public std::runtime_error {
 public:
  ScriptApiError(int status, const std::string& message)
      : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

/// @brief The data API scripts call, acting as the caller with its ACLs applied. Each function
/// takes the JavaScript arguments as a JSON array and returns a JSON value or throws
/// ScriptApiError.
class ScriptDataApi {
 public:
  virtual ~ScriptDataApi() = default;
  /// jov.getObject(bucketPath, objectID): the object, or null when there is none.
  virtual nlohmann::json getObject(const nlohmann::json& args) = 0;
  /// jov.saveObject(bucketPath, object): stores it (a new ID unless object._id is set) and
  /// returns the stored object.
  virtual nlohmann::json saveObject(const nlohmann::json& args) = 0;
  /// jov.query(bucketPath, clause): the objects the caller may read that match, at most one page.
  virtual nlohmann::json query(const nlohmann::json& args) = 0;
  /// jov.deleteObject(bucketPath, objectID): true when there was one.
  virtual nlohmann::json deleteObject(const nlohmann::json& args) = 0;
};

enum class ScriptOutcome {
  Returned,      ///< value holds the entry's result (null for undefined)
  Threw,         ///< the script threw, or called done with an error; message says what
  TimedOut,      ///< stopped at the time limit
  OutOfMemory,   ///< stopped at the memory cap
  NoSuchEntry,   ///< the script declares no function of that name
  EngineFailed,  ///< the engine could not start or failed fatally; message says what
};

struct ScriptResult {
  ScriptOutcome outcome = ScriptOutcome::EngineFailed;
  nlohmann::json value;
  std::string message;
  /// Instructions the entry executed (its top level excluded).
  std::uint64_t steps = 0;
};

/// @brief Compiles the script without running it: the syntax error's text, or nullopt.
std::optional<std::string> compileError(const std::string& source, const ScriptLimits& limits);

/// @brief Runs the script's top level, then the entry. `argument` must be a JSON object.
ScriptResult runEntry(const std::string& source, const std::string& entry,
                      const nlohmann::json& argument, const ScriptCaller& caller,
                      const ScriptLimits& limits, ScriptDataApi* data);

}  // namespace jovemu
