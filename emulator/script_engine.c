/* The engine compiled together with the hooks that need its internals (see script_engine.h).
 * duktape.c is the configured copy made by duktape.cmake. */
#include <stdlib.h>

int jov_duk_interrupt(void* udata);

#include "duktape.c"
#include "script_engine.h"

/* Every block carries a header linking it into the meter's list; the header keeps the payload
 * aligned as malloc's own result is. */
struct jov_duk_block {
  union {
    struct {
      jov_duk_block *prev, *next;
      size_t size;
    } h;
    max_align_t align;
  } u;
};

static void jov_link(jov_duk_meter* m, jov_duk_block* b) {
  b->u.h.prev = NULL;
  b->u.h.next = m->blocks;
  if (m->blocks) m->blocks->u.h.prev = b;
  m->blocks = b;
}

static void jov_unlink(jov_duk_meter* m, jov_duk_block* b) {
  if (b->u.h.prev) {
    b->u.h.prev->u.h.next = b->u.h.next;
  } else {
    m->blocks = b->u.h.next;
  }
  if (b->u.h.next) b->u.h.next->u.h.prev = b->u.h.prev;
}

static int jov_fits(jov_duk_meter* m, size_t old_size, size_t new_size) {
  if (new_size > old_size && new_size - old_size > m->memory_limit - m->used) {
    m->refused = 1;
    return 0;
  }
  return 1;
}

static void* jov_alloc(void* udata, duk_size_t size) {
  jov_duk_meter* m = (jov_duk_meter*)udata;
  jov_duk_block* b;
  if (size == 0 || !jov_fits(m, 0, size)) return NULL;
  b = (jov_duk_block*)malloc(sizeof(jov_duk_block) + size);
  if (!b) return NULL;
  b->u.h.size = size;
  m->used += size;
  jov_link(m, b);
  return b + 1;
}

static void jov_free(void* udata, void* ptr) {
  jov_duk_meter* m = (jov_duk_meter*)udata;
  jov_duk_block* b;
  if (!ptr) return;
  b = (jov_duk_block*)ptr - 1;
  jov_unlink(m, b);
  m->used -= b->u.h.size;
  free(b);
}

static void* jov_realloc(void* udata, void* ptr, duk_size_t size) {
  jov_duk_meter* m = (jov_duk_meter*)udata;
  jov_duk_block *b, *moved;
  if (!ptr) return jov_alloc(udata, size);
  if (size == 0) {
    jov_free(udata, ptr);
    return NULL;
  }
  b = (jov_duk_block*)ptr - 1;
  if (!jov_fits(m, b->u.h.size, size)) return NULL;
  jov_unlink(m, b);
  moved = (jov_duk_block*)realloc(b, sizeof(jov_duk_block) + size);
  if (!moved) {
    jov_link(m, b); /* the old block is still valid */
    return NULL;
  }
  m->used = m->used - moved->u.h.size + size;
  moved->u.h.size = size;
  jov_link(m, moved);
  return moved + 1;
}

static void jov_fatal(void* udata, const char* msg) {
  jov_duk_meter* m = (jov_duk_meter*)udata;
  m->fatal_message = msg;
  if (m->guard_armed) {
    m->guard_armed = 0;
    longjmp(m->guard, 1);
  }
  /* Only reached when the engine fails outside jov_duk_guarded_call, which the runtime never
   * lets happen. */
  abort();
}

int jov_duk_interrupt(void* udata) {
  jov_duk_meter* m = (jov_duk_meter*)udata;
  duk_hthread* thr = ((duk_hthread*)m->ctx)->heap->curr_thread;
  if (thr) m->steps += (unsigned long long)thr->interrupt_init;
  return m->must_stop ? m->must_stop(m) : 0;
}

int jov_duk_open(jov_duk_meter* m) {
  m->ctx = NULL;
  m->steps = 0;
  m->used = 0;
  m->refused = 0;
  m->blocks = NULL;
  m->fatal_message = NULL;
  m->guard_armed = 0;
  m->ctx = duk_create_heap(jov_alloc, jov_realloc, jov_free, m, jov_fatal);
  return m->ctx != NULL;
}

void jov_duk_close(jov_duk_meter* m, int after_fatal) {
  if (!m->ctx) return;
  if (after_fatal) {
    while (m->blocks) {
      jov_duk_block* b = m->blocks;
      m->blocks = b->u.h.next;
      free(b);
    }
    m->used = 0;
  } else {
    duk_destroy_heap(m->ctx);
  }
  m->ctx = NULL;
}

int jov_duk_guarded_call(jov_duk_meter* m, duk_safe_call_function fn, void* udata,
                         duk_idx_t nargs) {
  int rc;
  if (setjmp(m->guard) != 0) return -1;
  m->guard_armed = 1;
  rc = duk_safe_call(m->ctx, fn, udata, nargs, 1);
  m->guard_armed = 0;
  return rc;
}

unsigned long long jov_duk_steps(jov_duk_meter* m) {
  duk_hthread* thr = (duk_hthread*)m->ctx;
  /* The slice under way: init instructions were granted, counter of them are left. */
  return m->steps + (unsigned long long)(thr->interrupt_init - thr->interrupt_counter);
}

jov_duk_meter* jov_duk_meter_of(duk_context* ctx) {
  return (jov_duk_meter*)((duk_hthread*)ctx)->heap->heap_udata;
}
