/**
 * @file tokenfill.h
 * libtokenfill — expands date, time and host modifiers in overlay texts.
 *
 * Stand-in for the camera's own library with the same interface, installed
 * with the stand-ins (`cmake --install BUILD --component standins`: this
 * header, libtokenfill.so and tokenfill.pc). An encoder of its own makes one
 * context with tokenfill_init() and hands it, with each frame's time, to
 * overlay_setup_in_encreq() in an overlay_expansion_params record, so that
 * its texts read as the camera's encoder draws them. Link with
 * `pkg-config --libs tokenfill`.
 */
#ifndef TOKENFILL_H
#define TOKENFILL_H

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define TOKENFILL_API __attribute__((visibility("default")))
#else
#define TOKENFILL_API
#endif

/* C++ callers see the functions as noexcept; the C signatures are unchanged. */
#ifdef __cplusplus
#define TOKENFILL_NOEXCEPT noexcept
#else
#define TOKENFILL_NOEXCEPT
#endif

/** An expansion context (64 bytes). Callers may set use_local_time after
 * tokenfill_init(); the other fields belong to the library. A context is not
 * locked: use it from one thread at a time. */
typedef struct tokenfill_context {
  uint32_t magic;         /* TOKENFILL_MAGIC while the context is alive */
  char hostname[56];      /* cached at init, NUL-terminated */
  int32_t use_local_time; /* byte offset 60: 1 local time, 0 UTC */
} tokenfill_context;

#define TOKENFILL_MAGIC 0x7466696cu

/** A new context (UTC by default), or NULL when out of memory. */
TOKENFILL_API tokenfill_context* tokenfill_init(void) TOKENFILL_NOEXCEPT;

/** Writes template with its modifiers expanded for time into out, at most size
 * bytes including the NUL; the output is always NUL-terminated (when size is
 * at least 1) and never ends in a cut UTF-8 character. A NULL time means now.
 * Returns the number of bytes written before the NUL, or -1 (errno EINVAL)
 * for a NULL out, template or context, a context that tokenfill_init did not
 * give or that was released, or a size of 0; nothing is written then. A time
 * that has no calendar date gives -1 and an empty output when the template
 * needs the date or time: with a 64-bit time_t, seconds whose year is beyond
 * int; with a 32-bit time_t (the camera), every time_t has a date, from
 * 1901-12-13 20:45:52 to 2038-01-19 03:14:07 UTC, and it is "now" from
 * 2038-01-19 03:14:08 UTC on, which the clock cannot give in a time_t, that has
 * none. use_local_time other than 0 means local.
 *
 * @verbatim
   %x   as strftime gives it ("%%" is a "%")
   #D   date, YYYY-MM-DD       #T   time, HH:MM:SS
   #n   host name              #i   first non-loopback IPv4 address
   ##   a "#"                  #x   any other: kept as written
   @endverbatim
 *
 * A "%" or "#" ending the template is kept, as is a "%" conversion asking for
 * a width above 4096. #i is "0.0.0.0" when the host has no such address. */
TOKENFILL_API int tokenfill_expand(char* out, size_t size, const char* template_text,
                                   tokenfill_context* context,
                                   const struct timeval* time) TOKENFILL_NOEXCEPT;

/** Releases the context; NULL, or a context not alive (errno EINVAL), does
 * nothing. */
TOKENFILL_API void tokenfill_exit(tokenfill_context* context) TOKENFILL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* TOKENFILL_H */
