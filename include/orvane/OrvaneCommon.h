/*
 * libOrvaneCommon: result codes and the caller's last-error text, shared by
 * the Orvane client libraries. Compiles as C99 and as C++.
 */
#ifndef ORVANE_COMMON_H
#define ORVANE_COMMON_H

#include <stdint.h>
#include <wchar.h>

#if defined(__GNUC__)
#define ORV_COMMON_API __attribute__((visibility("default")))
#else
#define ORV_COMMON_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Every exported function returns one of these codes, or one of the server
 * error codes 300, 301, 303 and 400 to 404 documented in OrvaneServer.h. */
typedef int32_t ORV_RESULT;

extern ORV_COMMON_API const ORV_RESULT ORV_RESULT_Success;         /* 0: the call did what it was asked */
extern ORV_COMMON_API const ORV_RESULT ORV_RESULT_InvalidArgument; /* 1: a required pointer argument was null */
extern ORV_COMMON_API const ORV_RESULT ORV_RESULT_BadHandle;       /* 2: the handle is null, closed or never created */
extern ORV_COMMON_API const ORV_RESULT ORV_RESULT_UnknownError;    /* 3: an unexpected failure; see the log file */

/* The text left by the last failing call on this thread; "" when none has
 * failed. Successful calls leave it as it is. The pointer stays valid until
 * the next failing call on the same thread. */
ORV_COMMON_API const wchar_t* OrvGetLastErrorMessage(void);

/* Replaces this thread's last-error text; a null message empties it. */
ORV_COMMON_API void OrvSetLastErrorMessage(const wchar_t* message);

#ifdef __cplusplus
}
#endif

#endif /* ORVANE_COMMON_H */
