/*
 * libOrvaneServer extensions: progress, cancellation, time limits, trusted
 * certificates, upload buffer size, the server's own reason for a refusal and
 * the library's version. Compiles as C99 and as C++.
 *
 * Everything here is opt-in per connection handle. A handle on which none of
 * these setters was called behaves exactly as OrvaneServer.h describes, byte
 * for byte, and its transfers use no option beyond the ones described there.
 * Settings are kept for every later call on the handle, survive Connect and
 * Disconnect, and go with the handle when it is closed.
 *
 * The conventions are OrvaneServer.h's: every function returns
 * ORV_RESULT_Success or an error code and leaves this thread's last-error
 * text on failure; a null handle or one not created (or already closed) gives
 * ORV_RESULT_BadHandle; a required null pointer gives
 * ORV_RESULT_InvalidArgument.
 *
 * Threads: as for OrvaneServer.h, a handle is used by one thread at a time,
 * with one exception: OrvServerConnectionCancel may be called from any thread
 * while another thread is inside a call on the same handle. It must not race
 * with OrvServerConnectionClose on that handle, nor with
 * OrvServerAPICleanup: close the handle only after the cancelled call has
 * returned.
 */
#ifndef ORVANE_SERVER_EXT_H
#define ORVANE_SERVER_EXT_H

#include <orvane/OrvaneServer.h>

#include <stdint.h>

#define ORV_VERSION_MAJOR 1
#define ORV_VERSION_MINOR 1
#define ORV_VERSION_PATCH 0

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes of the extensions; no function of OrvaneServer.h returns them
 * on a handle that never used an extension. */
enum {
    ORV_RESULT_Cancelled = 500, /* OrvServerConnectionCancel, or a progress callback's non-zero return */
    ORV_RESULT_TimedOut = 501   /* the connect or stall time-out set on the handle fired */
};

/* The library's version, "MAJOR.MINOR.PATCH"; a static string. Needs no
 * OrvServerAPIInitialize. */
ORV_SERVER_API const char* OrvServerAPIGetVersion(void);

/* Upload progress, called on the thread that called
 * OrvServerConnectionPublishExtract as the body is read for sending: once
 * with bytesSent 0, then after about every 64 KiB, and once with bytesSent
 * equal to bytesTotal, the length of the whole request body (the multipart
 * envelope included). Should the server ask for the body again (an
 * authentication answer), bytesSent starts from 0 again. A non-zero return
 * stops the publish with ORV_RESULT_Cancelled. The callback must not call
 * into the library with the same handle. */
typedef int (*ORV_PROGRESS_CALLBACK)(void* userData, uint64_t bytesSent, uint64_t bytesTotal);

/* Sets (or, with a null callback, removes) the progress callback. Setting one
 * also prepares the handle for OrvServerConnectionCancel. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionSetProgressCallback(void* handle, ORV_PROGRESS_CALLBACK callback,
                                                                 void* userData);

/* Prepares the handle so that OrvServerConnectionCancel stops a running call
 * within about a second, also while the server sends nothing. Without it (or
 * a progress callback, or a time limit) a cancel takes effect only when the
 * running call next reads its upload body or starts its next exchange with
 * the server. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionEnableCancel(void* handle);

/* Asks the call running on `handle` (in another thread) to stop; that call
 * returns ORV_RESULT_Cancelled with the text "Cancelled". A cancel made while
 * no call runs stops the next call on the handle at its start. Returns at
 * once; safe from any thread (see the thread rules above). */
ORV_SERVER_API ORV_RESULT OrvServerConnectionCancel(void* handle);

/* Gives up connecting to the server (or proxy) after `seconds`; 0 restores
 * libcurl's default. Returns ORV_RESULT_TimedOut when it fires. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionSetConnectTimeout(void* handle, long seconds);

/* Gives up an exchange when no byte has moved in either direction for
 * `seconds`; 0 means never. Returns ORV_RESULT_TimedOut when it fires. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionSetStallTimeout(void* handle, long seconds);

/* Follows at most `count` redirects per request (0: none); a negative count
 * means no limit, as without this call. Exceeding it fails the call with
 * ORV_SERVER_NetworkFailure (400). */
ORV_SERVER_API ORV_RESULT OrvServerConnectionSetMaxRedirects(void* handle, long count);

/* Refuses a server reply whose body is longer than `bytes` (0: no limit, as
 * without this call), with ORV_SERVER_NetworkFailure (400), as soon as the
 * limit is passed, so that an oversized reply is never held in memory. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionSetMaxReplySize(void* handle, uint64_t bytes);

/* Verifies the server against the CA certificates in `path`: a PEM bundle
 * file, or a directory prepared with `openssl rehash`. A null or empty path
 * goes back to the system's certificates. The path is checked when a call
 * connects; an unusable one fails that call with ORV_SERVER_NetworkFailure. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionSetCACertificates(void* handle, const unsigned short* path);

/* Size of the buffer the upload is read into, 16 KiB to 2 MiB (libcurl's
 * limits); 0 restores the default (64 KiB). Other values give
 * ORV_RESULT_InvalidArgument. Larger buffers move more bytes a second over
 * fast links. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionSetUploadBufferSize(void* handle, long bytes);

/* Looks the project up as OrvServerConnectionPublishExtract does, without
 * uploading anything: ORV_RESULT_Success when the signed-in site has a
 * project of that name, ORV_SERVER_InvalidPublishInput (303) when it has
 * none, ORV_SERVER_NotConnected (402) before Connect. For checking a publish
 * in advance ("dry run"). */
ORV_SERVER_API ORV_RESULT OrvServerConnectionFindProject(void* handle, const unsigned short* projectName);

/* The HTTP status of the last reply the handle received in its last call
 * (0 when that call received none). Works on every handle. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionGetHttpStatus(void* handle, long* status);

/* The server's own explanation of the last refused reply (a status outside
 * 2xx) in the handle's last call: the summary and detail of its error
 * document ("summary: detail"), else the reply's text, at most 4 KiB; ""
 * when the last call was not refused by the server. The pointer stays valid
 * until the next call on the handle. Works on every handle. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionGetServerReason(void* handle, const wchar_t** reason);

#ifdef __cplusplus
}
#endif

#endif /* ORVANE_SERVER_EXT_H */
