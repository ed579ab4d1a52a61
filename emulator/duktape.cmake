# Duktape for the emulator's server code, compiled here from the amalgamated source that Debian
# ships in duktape-dev. The prebuilt libduktape has no interrupt counter, and without it there
# is no way to count executed instructions or to stop a script that runs too long; so the
# configuration header is copied with those options switched on, and script_engine.c (which
# includes duktape.c) reaches the counters the runtime reads.
set(JOV_DUKTAPE_SOURCE_DIR /usr/share/duktape CACHE PATH
    "Directory of duktape.c, duktape.h and duk_config.h (Debian: duktape-dev)")
foreach(file IN ITEMS duktape.c duktape.h duk_config.h)
  if(NOT EXISTS ${JOV_DUKTAPE_SOURCE_DIR}/${file})
    message(FATAL_ERROR "${JOV_DUKTAPE_SOURCE_DIR}/${file} is missing: install duktape-dev "
                        "(scripts/install-deps) or set JOV_DUKTAPE_SOURCE_DIR")
  endif()
endforeach()

set(JOV_DUKTAPE_DIR ${CMAKE_CURRENT_BINARY_DIR}/duktape)
configure_file(${JOV_DUKTAPE_SOURCE_DIR}/duktape.c ${JOV_DUKTAPE_DIR}/duktape.c COPYONLY)
configure_file(${JOV_DUKTAPE_SOURCE_DIR}/duktape.h ${JOV_DUKTAPE_DIR}/duktape.h COPYONLY)
file(READ ${JOV_DUKTAPE_SOURCE_DIR}/duk_config.h jov_duk_config)
set(jov_duk_marker "/* __OVERRIDE_DEFINES__ */")
string(FIND "${jov_duk_config}" "${jov_duk_marker}" jov_duk_marker_at)
if(jov_duk_marker_at LESS 0)
  message(FATAL_ERROR "${JOV_DUKTAPE_SOURCE_DIR}/duk_config.h has no override section")
endif()
string(REPLACE "${jov_duk_marker}" "${jov_duk_marker}
#define DUK_USE_INTERRUPT_COUNTER
#define DUK_USE_EXEC_TIMEOUT_CHECK(udata) jov_duk_interrupt(udata)
" jov_duk_config "${jov_duk_config}")
# Written through configure_file so that an unchanged header does not rebuild the engine.
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/duk_config.h.in "${jov_duk_config}")
configure_file(${CMAKE_CURRENT_BINARY_DIR}/duk_config.h.in ${JOV_DUKTAPE_DIR}/duk_config.h
               COPYONLY)

add_library(jov_duktape STATIC script_engine.c)
target_include_directories(jov_duktape PUBLIC ${JOV_DUKTAPE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
# Third-party source: its warnings are not ours to fix. Optimised in every build type: a debug
# build of the interpreter runs scripts several times slower, and time limits are real time.
target_compile_options(jov_duktape PRIVATE -w -O2)
# strptime and the other POSIX calls its date functions use (clang 16 refuses implicit declarations).
target_compile_definitions(jov_duktape PRIVATE _GNU_SOURCE)
target_link_libraries(jov_duktape PUBLIC m)
