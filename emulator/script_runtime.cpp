#include "script_runtime.hpp"

#include <exception>
#include <new>

#include "script_engine.h"

namespace jovemu {

namespace {

// Everything one execution keeps outside the JavaScript heap. The functions the engine calls
// (the protected bodies and the native functions below) may be left by a longjmp at any engine
// call, so they keep no object that needs destroying in their own frames: whatever C++ work
// they need is done in helpers that return before the next engine call.
struct Run {
  jov_duk_meter meter{};
  std::chrono::steady_clock::time_point deadline;
  bool stopped = false;

  const std::string* source = nullptr;
  const std::string* entry = nullptr;
  std::string argumentJson, contextJson;
  ScriptDataApi* data = nullptr;

  bool entryMissing = false;
  bool entryStarted = false;
  bool doneCalled = false;
  bool failed = false;  // done(error) or an entry that owed a done() call
  std::string resultJson = "null";
  std::string message;
  std::string scratch;  // a data-API answer on its way into the heap
  unsigned long long stepsAtEntry = 0;
};

Run& runOf(duk_context* ctx) {
  return *static_cast<Run*>(jov_duk_meter_of(ctx)->owner);
}

// Once past the deadline, the answer stays "stop" until the script has unwound completely.
int mustStop(jov_duk_meter* meter) {
  auto& run = *static_cast<Run*>(meter->owner);
  if (!run.stopped && std::chrono::steady_clock::now() >= run.deadline) run.stopped = true;
  return run.stopped ? 1 : 0;
}

void keep(std::string& into, const char* text, duk_size_t size) {
  into.assign(text ? text : "", text ? size : 0);
}

// Encodes the value at idx as JSON into `into` (undefined and functions become null).
void encodeInto(duk_context* ctx, duk_idx_t idx, std::string& into) {
  duk_dup(ctx, idx);
  if (duk_is_undefined(ctx, -1)) {
    into.assign("null");
  } else {
    duk_json_encode(ctx, -1);
    duk_size_t size = 0;
    const char* text = duk_get_lstring(ctx, -1, &size);
    if (text) {
      keep(into, text, size);
    } else {
      into.assign("null");
    }
  }
  duk_pop(ctx);
}

// done(error, result)
duk_ret_t doneFunction(duk_context* ctx) {
  Run& run = runOf(ctx);
  if (run.doneCalled) return duk_error(ctx, DUK_ERR_ERROR, "done() was already called");
  run.doneCalled = true;
  if (!duk_is_null_or_undefined(ctx, 0)) {
    run.failed = true;
    duk_size_t size = 0;
    const char* text = duk_safe_to_lstring(ctx, 0, &size);
    keep(run.message, text, size);
    return 0;
  }
  encodeInto(ctx, 1, run.resultJson);
  return 0;
}

enum DataOperation { kGetObject, kSaveObject, kQuery, kDeleteObject };

// Runs one data-API call: 0 and the answer's JSON in run.scratch, or a status and the message.
int callData(Run& run, int operation, const char* argsText, duk_size_t argsSize) {
  try {
    if (!run.data) throw ScriptApiError(501, "The data API is not available");
    auto args = nlohmann::json::parse(argsText, argsText + argsSize);
    nlohmann::json answer;
    switch (operation) {
      case kGetObject:
        answer = run.data->getObject(args);
        break;
      case kSaveObject:
        answer = run.data->saveObject(args);
        break;
      case kQuery:
        answer = run.data->query(args);
        break;
      default:
        answer = run.data->deleteObject(args);
        break;
    }
    run.scratch = answer.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return 0;
  } catch (const ScriptApiError& error) {
    run.scratch = error.what();
    return error.status();
  } catch (const std::exception& error) {
    run.scratch = std::string("The data API failed: ") + error.what();
    return 500;
  }
}

// jov.getObject and the others: the arguments go out as one JSON array.
duk_ret_t dataFunction(duk_context* ctx) {
  Run& run = runOf(ctx);
  duk_idx_t count = duk_get_top(ctx);
  duk_push_array(ctx);
  for (duk_idx_t i = 0; i < count; ++i) {
    duk_dup(ctx, i);
    duk_put_prop_index(ctx, -2, static_cast<duk_uarridx_t>(i));
  }
  duk_json_encode(ctx, -1);
  duk_size_t size = 0;
  const char* text = duk_get_lstring(ctx, -1, &size);
  int status = callData(run, duk_get_current_magic(ctx), text, size);
  if (status != 0) {
    duk_push_error_object(ctx, DUK_ERR_ERROR, "%s", run.scratch.c_str());
    duk_push_int(ctx, status);
    duk_put_prop_string(ctx, -2, "status");
    return duk_throw(ctx);
  }
  duk_push_lstring(ctx, run.scratch.data(), run.scratch.size());
  duk_json_decode(ctx, -1);
  return 1;
}

void installDataApi(duk_context* ctx) {
  static const struct {
    const char* name;
    int operation;
  } functions[] = {{"getObject", kGetObject},
                   {"saveObject", kSaveObject},
                   {"query", kQuery},
                   {"deleteObject", kDeleteObject}};
  duk_push_object(ctx);
  for (const auto& function : functions) {
    duk_push_c_function(ctx, dataFunction, DUK_VARARGS);
    duk_set_magic(ctx, -1, function.operation);
    duk_put_prop_string(ctx, -2, function.name);
  }
  duk_put_global_string(ctx, "jov");
}

void compileScript(duk_context* ctx, const std::string& source) {
  duk_push_lstring(ctx, source.data(), source.size());
  duk_push_string(ctx, "server-code.js");
  duk_compile(ctx, 0);
}

duk_ret_t compileOnly(duk_context* ctx, void* udata) {
  compileScript(ctx, *static_cast<Run*>(udata)->source);
  return 0;
}

duk_ret_t runScript(duk_context* ctx, void* udata) {
  Run& run = *static_cast<Run*>(udata);
  installDataApi(ctx);
  // A global of that name before the script ran is a built-in, not an entry.
  duk_get_global_lstring(ctx, run.entry->data(), run.entry->size());  // 0
  compileScript(ctx, *run.source);
  duk_call(ctx, 0);
  duk_pop(ctx);
  duk_get_global_lstring(ctx, run.entry->data(), run.entry->size());  // 1
  if (!duk_is_ecmascript_function(ctx, 1) || duk_strict_equals(ctx, 0, 1)) {
    run.entryMissing = true;
    return 0;
  }
  duk_get_prop_string(ctx, 1, "length");
  bool owesDone = duk_get_int(ctx, -1) >= 3;
  duk_pop(ctx);

  duk_dup(ctx, 1);
  duk_push_lstring(ctx, run.argumentJson.data(), run.argumentJson.size());
  duk_json_decode(ctx, -1);
  duk_push_lstring(ctx, run.contextJson.data(), run.contextJson.size());
  duk_json_decode(ctx, -1);
  duk_push_c_function(ctx, doneFunction, 2);
  run.entryStarted = true;
  run.stepsAtEntry = jov_duk_steps(&run.meter);
  duk_call(ctx, 3);
  if (!run.doneCalled) {
    if (owesDone) {
      run.failed = true;
      run.message.assign("The entry declares done(error, result) but returned without calling it");
    } else {
      encodeInto(ctx, -1, run.resultJson);
    }
  }
  return 0;
}

duk_ret_t describeError(duk_context* ctx, void* udata) {
  duk_size_t size = 0;
  const char* text = duk_safe_to_lstring(ctx, -1, &size);
  keep(static_cast<Run*>(udata)->message, text, size);
  return 0;
}

// Opens the heap, runs body, and reads the outcome; the heap is gone when this returns.
ScriptResult execute(Run& run, const ScriptLimits& limits, duk_safe_call_function body) {
  ScriptResult result;
  run.deadline = std::chrono::steady_clock::now() + limits.time;
  run.meter.memory_limit = limits.memoryBytes;
  run.meter.must_stop = mustStop;
  run.meter.owner = &run;
  if (!jov_duk_open(&run.meter)) {
    result.message = "The script engine could not start";
    return result;
  }
  int rc = jov_duk_guarded_call(&run.meter, body, &run, 0);
  // Read before anything else enters the engine: a new entry restarts the counter.
  if (run.entryStarted) result.steps = jov_duk_steps(&run.meter) - run.stepsAtEntry;
  if (rc < 0) {
    result.message = std::string("The script engine failed: ") +
                     (run.meter.fatal_message ? run.meter.fatal_message : "unknown error");
    jov_duk_close(&run.meter, 1);
    return result;
  }
  if (rc != DUK_EXEC_SUCCESS) {
    if (run.stopped) {
      result.outcome = ScriptOutcome::TimedOut;
      result.message =
          "The script ran past its time limit of " + std::to_string(limits.time.count()) + " ms";
    } else if (run.meter.refused) {
      result.outcome = ScriptOutcome::OutOfMemory;
      result.message = "The script ran past its memory limit of " +
                       std::to_string(limits.memoryBytes) + " bytes";
    } else {
      result.outcome = ScriptOutcome::Threw;
      if (jov_duk_guarded_call(&run.meter, describeError, &run, 1) < 0) {
        jov_duk_close(&run.meter, 1);
        result.message = "The script threw an error that cannot be shown";
        return result;
      }
      result.message = run.message;
    }
  } else if (run.entryMissing) {
    result.outcome = ScriptOutcome::NoSuchEntry;
  } else if (run.failed) {
    result.outcome = ScriptOutcome::Threw;
    result.message = run.message;
  } else {
    result.outcome = ScriptOutcome::Returned;
    result.value = nlohmann::json::parse(run.resultJson, nullptr, false);
    if (result.value.is_discarded()) result.value = nullptr;
  }
  jov_duk_close(&run.meter, 0);
  return result;
}

}  // namespace

std::optional<std::string> compileError(const std::string& source, const ScriptLimits& limits) {
  Run run;
  run.source = &source;
  auto result = execute(run, limits, compileOnly);
  if (result.outcome == ScriptOutcome::Returned || result.outcome == ScriptOutcome::NoSuchEntry)
    return std::nullopt;
  return result.message;
}

ScriptResult runEntry(const std::string& source, const std::string& entry,
                      const nlohmann::json& argument, const ScriptCaller& caller,
                      const ScriptLimits& limits, ScriptDataApi* data) {
  Run run;
  run.source = &source;
  run.entry = &entry;
  run.data = data;
  run.argumentJson = argument.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  nlohmann::json context = {{"appID", caller.appID},
                            {"userID", caller.userID ? nlohmann::json(*caller.userID) : nullptr},
                            {"accessToken", caller.accessToken ? nlohmann::json(*caller.accessToken)
                                                               : nlohmann::json(nullptr)}};
  run.contextJson = context.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  return execute(run, limits, runScript);
}

}  // namespace jovemu
