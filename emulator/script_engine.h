/* The engine-side half of the script runtime, in C next to the engine itself: a heap whose
 * memory comes from a capped, tracked allocator, an execution counter, a stop hook and a
 * fatal-error exit that never aborts the process.
 *
 * A step is one bytecode instruction dispatched by the engine's executor. The executor calls
 * the interrupt hook before the first instruction of a call from C and then every 256K
 * instructions; the hook adds the slice that just ended, and jov_duk_steps() adds the slice
 * under way. Work done inside one native call (a sort, a JSON.parse, a data-API call) is the
 * one instruction that called it. */
#ifndef JOV_SCRIPT_ENGINE_H
#define JOV_SCRIPT_ENGINE_H

#include <setjmp.h>
#include <stddef.h>

#include "duktape.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct jov_duk_block jov_duk_block;

typedef struct jov_duk_meter {
  /* Set by the owner before jov_duk_open. */
  size_t memory_limit;                           /* bytes the heap may hold at once */
  int (*must_stop)(struct jov_duk_meter* meter); /* non-zero: stop the script now */
  void* owner;

  /* Kept here. */
  duk_context* ctx;
  unsigned long long steps; /* instructions of the slices already ended */
  size_t used;              /* bytes held by the heap */
  int refused;              /* an allocation was refused for the limit */
  jov_duk_block* blocks;    /* every block the heap holds, to release them after a fatal error */
  const char* fatal_message;
  int guard_armed;
  jmp_buf guard;
} jov_duk_meter;

/* Creates the heap; 0 when even that fails. */
int jov_duk_open(jov_duk_meter* meter);
/* Destroys the heap after a normal end, or releases its blocks after a fatal error. */
void jov_duk_close(jov_duk_meter* meter, int after_fatal);

/* Runs fn in a protected call that takes the nargs values on the stack top. Returns
 * DUK_EXEC_SUCCESS or DUK_EXEC_ERROR (the result or the error is then on the stack top), or -1
 * after a fatal error: the heap is unusable and must be closed with after_fatal set. fn's frame,
 * and those of the native functions it reaches, must hold nothing that needs destroying: errors
 * unwind with longjmp. */
int jov_duk_guarded_call(jov_duk_meter* meter, duk_safe_call_function fn, void* udata,
                         duk_idx_t nargs);

/* Instructions executed so far on the heap's main thread. */
unsigned long long jov_duk_steps(jov_duk_meter* meter);

/* The meter of a heap made by jov_duk_open, from any of its contexts. */
jov_duk_meter* jov_duk_meter_of(duk_context* ctx);

#ifdef __cplusplus
}
#endif

#endif
