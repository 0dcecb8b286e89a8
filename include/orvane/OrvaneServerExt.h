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
 * with two exceptions: OrvServerConnectionCancel and OrvServerConnectionClose
 * may be called from any thread while another thread is inside a call on the
 * same handle. Close then asks that call to stop (as Cancel does) and returns
 * at once; the call returns ORV_RESULT_Cancelled, and the handle's memory is
 * freed when it has returned. Neither may race with OrvServerAPICleanup.
 * A thread that is cancelled or ends (pthread_exit) inside a call unwinds
 * through the library.
 */
#ifndef ORVANE_SERVER_EXT_H
#define ORVANE_SERVER_EXT_H

#include <orvane/OrvaneServer.h>

#include <stdint.h>

#define ORV_VERSION_MAJOR 1
#define ORV_VERSION_MINOR 2
#define ORV_VERSION_PATCH 0

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes of the extensions; no function of OrvaneServer.h returns them
 * on a handle that never used an extension. */
enum {
    ORV_RESULT_Cancelled = 500, /* OrvServerConnectionCancel, or a progress callback's non-zero return */
    ORV_RESULT_TimedOut = 501,  /* a time limit set on the handle fired (OrvServerConnectionGetFailure says which) */
    ORV_RESULT_LogUnavailable = 502 /* OrvServerAPIInitialize: no log can be opened in the directory set by
                                       OrvServerAPISetLogDirectory */
};

/* The library's version, "MAJOR.MINOR.PATCH"; a static string. Needs no
 * OrvServerAPIInitialize. */
ORV_SERVER_API const char* OrvServerAPIGetVersion(void);

/* Upload progress, called on the thread that called
 * OrvServerConnectionPublishExtract as the body is read for sending: once
 * with bytesSent 0, then each time at least 64 KiB more were read, and once
 * with bytesSent equal to bytesTotal, the length of the whole request body
 * (the multipart envelope included). The body is read one upload buffer at a
 * time (OrvServerConnectionSetUploadBufferSize), so with a buffer larger than
 * 64 KiB the calls come one buffer apart. Should the server ask for the body again (an
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
 * running call next reads its upload body, receives reply bytes or starts
 * its next exchange with the server. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionEnableCancel(void* handle);

/* Asks the call running on `handle` (in another thread) to stop; that call
 * returns ORV_RESULT_Cancelled with the text "Cancelled". A cancel made while
 * no call runs stops the next call on the handle at its start, unless that
 * call is OrvServerConnectionSignOut. Returns at once; safe from any thread
 * (see the thread rules above). */
ORV_SERVER_API ORV_RESULT OrvServerConnectionCancel(void* handle);

/* Gives up connecting to the server (or proxy) after `seconds`; 0 restores
 * libcurl's default. Returns ORV_RESULT_TimedOut (ORV_FAILURE_ConnectTimeout)
 * when it fires. Every time limit takes 0 to 2147483 seconds; other values
 * give ORV_RESULT_InvalidArgument and leave the setting as it was. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionSetConnectTimeout(void* handle, long seconds);

/* Gives up an exchange when no byte has moved in either direction for
 * `seconds`, header bytes included; 0 means never. It runs while a sign-in
 * or a page is awaited, but rests while the server works on a fully sent
 * upload (see OrvServerConnectionSetReplyTimeout). A server that keeps
 * sending, however slowly, moves bytes: OrvServerConnectionSetTotalTimeout
 * bounds that. Returns ORV_RESULT_TimedOut (ORV_FAILURE_StallTimeout). */
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

/* The HTTP status of the exchange the handle's last call ended on: the
 * refusal, the reply that was too large, 0 when that exchange received no
 * answer (a cancelled upload, a lost connection) even if earlier exchanges
 * of the call did. Works on every handle. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionGetHttpStatus(void* handle, long* status);

/* The server's own explanation of the last refused reply (a status outside
 * 2xx) in the handle's last call: the summary and detail of its error
 * document ("summary: detail"), else the reply's text, at most 4 KiB; ""
 * when the last call was not refused by the server. The pointer stays valid
 * until the next call on the handle. Works on every handle. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionGetServerReason(void* handle, const wchar_t** reason);

/* ---- Failures a program can act on ----------------------------------------
 * Every call on a handle that talks to the server (Connect, PublishExtract,
 * FindProject) records what kind of failure ended it (None after a success),
 * beside its result code and text; tools decide what to retry or how to
 * report from the kind, never from the text. */
typedef enum {
    ORV_FAILURE_None = 0,
    ORV_FAILURE_SignInRefused = 1,   /* credentials or site refused at sign-in */
    ORV_FAILURE_ProjectNotFound = 2, /* no project of that name on the site */
    ORV_FAILURE_ExtractUnusable = 3, /* missing, not a regular file, wrong suffix, unreadable, changed while sent */
    ORV_FAILURE_AlreadyExists = 4,   /* 409 on publish without overwrite */
    ORV_FAILURE_Refused = 5,         /* any other 4xx */
    ORV_FAILURE_ServerError = 6,     /* 5xx */
    ORV_FAILURE_ReplyUnreadable = 7, /* a reply the library cannot read */
    ORV_FAILURE_Resolve = 8,         /* the server's or proxy's name does not resolve */
    ORV_FAILURE_Connect = 9,         /* no connection to the server or proxy */
    ORV_FAILURE_Tls = 10,            /* TLS handshake or certificate check failed */
    ORV_FAILURE_Proxy = 11,          /* the proxy refused or failed the tunnel */
    ORV_FAILURE_ConnectionLost = 12, /* reset or closed mid-exchange */
    ORV_FAILURE_TooManyRedirects = 13,
    ORV_FAILURE_RedirectRefused = 14, /* a redirect the handle's redirect policy forbids */
    ORV_FAILURE_ReplyTooLarge = 15,   /* the reply passed OrvServerConnectionSetMaxReplySize */
    ORV_FAILURE_ConnectTimeout = 16,
    ORV_FAILURE_StallTimeout = 17,
    ORV_FAILURE_ReplyTimeout = 18, /* the server took too long to answer a fully sent upload */
    ORV_FAILURE_TotalTimeout = 19,
    ORV_FAILURE_Cancelled = 20,
    ORV_FAILURE_Other = 21 /* anything else: a local failure, out of memory, ... */
} ORV_FAILURE;

/* The failure kind of the handle's last call and libcurl's code for it
 * (0 when none); `transportCode` may be null. Reset at the start of each
 * call. Works on every handle and changes nothing on the wire. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionGetFailure(void* handle, ORV_FAILURE* kind, long* transportCode);

/* Non-zero for the kinds worth another try: connect, connection lost,
 * time-outs and 5xx. */
ORV_SERVER_API int OrvFailureIsTransient(ORV_FAILURE kind);

/* The kind's name without its prefix ("ProjectNotFound"); "Unknown" for a
 * value outside the enumeration. A static string. */
ORV_SERVER_API const char* OrvFailureName(ORV_FAILURE kind);

/* How much of the last call's upload body libcurl took for sending (`sent`)
 * and its length (`total`); both 0 when the last call uploaded nothing. A
 * failure with sent == total may have reached the server whole. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionGetUploadProgress(void* handle, uint64_t* sent, uint64_t* total);

/* ---- Time limits and redirects -------------------------------------------- */

/* Gives up when the server has not begun its answer `seconds` after the whole
 * upload body was sent (a large extract may take the server a while to
 * commit); 0 means never. The stall limit does not run during that wait.
 * Returns ORV_RESULT_TimedOut (ORV_FAILURE_ReplyTimeout). */
ORV_SERVER_API ORV_RESULT OrvServerConnectionSetReplyTimeout(void* handle, long seconds);

/* Bounds each call as a whole, whatever it is doing, to within about a
 * second; 0 means no limit. Returns ORV_RESULT_TimedOut
 * (ORV_FAILURE_TotalTimeout). */
ORV_SERVER_API ORV_RESULT OrvServerConnectionSetTotalTimeout(void* handle, long seconds);

typedef enum {
    ORV_REDIRECT_Follow = 0,      /* every redirect, as without the call */
    ORV_REDIRECT_NoDowngrade = 1, /* never from https to http */
    ORV_REDIRECT_SameOrigin = 2   /* same scheme, host and port only */
} ORV_REDIRECT_POLICY;

/* Which redirects the handle follows. A refused one fails the call with
 * ORV_SERVER_NetworkFailure (400) and ORV_FAILURE_RedirectRefused, the text
 * "Redirect refused: " and the target. A policy other than Follow checks
 * each redirect before following it (a POST stays a POST with its body); then
 * a handle without OrvServerConnectionSetMaxRedirects follows at most 50 per
 * request. Another value gives ORV_RESULT_InvalidArgument. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionSetRedirectPolicy(void* handle, ORV_REDIRECT_POLICY policy);

/* ---- Fewer round trips ---------------------------------------------------- */

/* Non-zero: every request of the handle goes over one kept-alive connection
 * and TLS session, replaced without notice when the server closes it; a
 * request lost on the kept connection before any byte of the answer came is
 * sent once more on a fresh one, except an upload whose whole body went out:
 * it may have landed, so the call fails with ORV_FAILURE_ConnectionLost and
 * OrvServerConnectionGetUploadProgress shows sent == total. Disconnect (and
 * Connect, SignOut) close it.
 * 0 (the default): a new connection for every request. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionSetConnectionReuse(void* handle, int enable);

/* Remembers a project's id for `seconds` (0: never, the default) until the
 * next Connect or Disconnect, so a publish to a known project skips the page
 * walk; an upload to a remembered id that the server answers with 404 walks
 * the pages again and uploads once more. A negative value gives
 * ORV_RESULT_InvalidArgument. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionSetProjectCache(void* handle, long seconds);

/* 0: uploads go out without "Expect: 100-continue" (no idle round trip
 * before the body). Non-zero (the default) restores libcurl's behaviour. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionSetExpectContinue(void* handle, int enable);

/* ---- Sign-out --------------------------------------------------------------- */

/* Signs the session out on the server (POST .../auth/signout with the token)
 * and then disconnects, also when the server's answer is a failure or a
 * cancel stops it. A cancel made before it does not stop it. Result
 * codes as for the other calls: ORV_SERVER_NotConnected before Connect,
 * ORV_SERVER_ServerResponseError for a refusal, ORV_SERVER_NetworkFailure
 * when the exchange fails. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionSignOut(void* handle);

/* ---- The log ------------------------------------------------------------------ */

/* Where OrvServerAPIInitialize puts the log: this directory (UTF-16, not
 * empty) instead of ORV_SDK_LOGDIR or the working directory; null restores
 * that rule. Takes effect at the next OrvServerAPIInitialize that starts the
 * library; a running library keeps its log. The directory must exist. When
 * no log can be opened there (not a directory, not writable, every name taken
 * or not a regular file), OrvServerAPIInitialize returns
 * ORV_RESULT_LogUnavailable with a text naming the directory, and the library
 * stays stopped: a host can choose another directory and start again. Under
 * the default rule a log that cannot be opened fails start-up with
 * ORV_RESULT_UnknownError, as OrvaneServer.h describes. An empty path (not a
 * null one) starts the library with no log file at all: every line is
 * dropped, the listener gets none, and OrvServerAPIGetLogPath gives null.
 * ORV_RESULT_InvalidArgument for an ill-formed path. */
ORV_SERVER_API ORV_RESULT OrvServerAPISetLogDirectory(const unsigned short* path);

/* The absolute path of the log file in use (UTF-8), valid until
 * OrvServerAPICleanup; null when the library is not started (no log could be
 * opened, or start-up has not run or failed). Needs no lock, but must not
 * overlap OrvServerAPIInitialize or OrvServerAPICleanup. */
ORV_SERVER_API const char* OrvServerAPIGetLogPath(void);

/* Called with every line the log writes, header included, without the line
 * end, as the file gets it (UTF-8, save for bytes a caller logged that were
 * not), from the log's writer thread, never from the caller's. The line is
 * valid during the call only. A listener may log, but must not call
 * OrvServerAPISetLogListener (such a call does nothing), nor wait for a
 * thread that is inside OrvServerAPISetLogListener. */
typedef void (*ORV_LOG_LISTENER)(void* userData, const char* line);

/* Sets (or, with a null listener, removes) the log listener, for the process
 * and for every later start-up; allowed at any time. Once it returns, the
 * previous listener is not running and is never called again, so its
 * userData may be freed. */
ORV_SERVER_API ORV_RESULT OrvServerAPISetLogListener(ORV_LOG_LISTENER listener, void* userData);

#ifdef __cplusplus
}
#endif

#endif /* ORVANE_SERVER_EXT_H */
