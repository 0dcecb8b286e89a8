/*
 * libOrvaneServer: publish data-extract files (".qrx") to a data-publishing
 * server over its REST interface. Compiles as C99 and as C++.
 *
 * Typical use:
 *
 *     OrvServerAPIInitialize();
 *     void* connection;
 *     OrvServerConnectionCreate(&connection);
 *     OrvServerConnectionConnect(connection, host, user, password, site);
 *     OrvServerConnectionPublishExtract(connection, path, project, name, 1);
 *     OrvServerConnectionDisconnect(connection);
 *     OrvServerConnectionClose(connection);
 *     OrvServerAPICleanup();
 *
 * Strings are NUL-terminated UTF-16 (const unsigned short*). Every function
 * returns ORV_RESULT_Success (0) or an error code; on failure the text from
 * OrvGetLastErrorMessage() (this thread's) says what went wrong. Success
 * leaves the last error as it was. Every call blocks until the exchange with
 * the server ends; there are no time-outs (OrvaneServerExt.h has opt-in
 * time limits, progress and cancellation).
 *
 * Threads: a connection handle is used by one thread at a time and must not be
 * closed while another thread is inside a call on it. Different handles may be
 * used on different threads at once. OrvServerAPIInitialize and
 * OrvServerAPICleanup must not overlap any other call.
 *
 * Diagnostics go to "OrvaneSDKServer.log" in the directory named by the
 * environment variable ORV_SDK_LOGDIR (else the current directory).
 */
#ifndef ORVANE_SERVER_H
#define ORVANE_SERVER_H

#include <orvane/OrvaneCommon.h>

#if defined(__GNUC__)
#define ORV_SERVER_API __attribute__((visibility("default")))
#else
#define ORV_SERVER_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Server error codes, returned as they are besides the ORV_RESULT_* codes of
 * OrvaneCommon.h. */
enum {
    ORV_SERVER_ResponseParseFailed = 300, /* the server's reply is not XML (empty message) */
    ORV_SERVER_UnknownReplyType = 301,    /* internal: a request asked for an unknown reply type */
    ORV_SERVER_InvalidPublishInput = 303, /* the extract file is unusable, or the project is not on the server */
    ORV_SERVER_NetworkFailure = 400,      /* the transfer failed (connect, TLS, proxy...): libcurl's text */
    ORV_SERVER_ServerResponseError = 401, /* HTTP status outside 2xx ("Server Response Code: N"), or a bad page */
    ORV_SERVER_NotConnected = 402,        /* Connect must be called first */
    ORV_SERVER_UnexpectedResponse = 403,  /* the server's reply has an unexpected shape (empty message) */
    ORV_SERVER_NotInitialized = 404       /* OrvServerAPIInitialize was not called */
};

/* Starts the library: opens the log and brings up the HTTP stack. A second
 * call does nothing until OrvServerAPICleanup. */
ORV_SERVER_API ORV_RESULT OrvServerAPIInitialize(void);

/* Stops the library; returns once every log line is written. Open handles are
 * not closed: close each one yourself. */
ORV_SERVER_API ORV_RESULT OrvServerAPICleanup(void);

/* Creates a connection and stores its handle through `handle` (which must not
 * be null). Before OrvServerAPIInitialize it fails with 404 and leaves
 * *handle untouched. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionCreate(void** handle);

/* Signs in. `host` is the server's base URL ("https://server:8443"; trailing
 * slashes are dropped); `siteID` is the site's content URL ("" for the
 * default site). Signing in again first signs out. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionConnect(void* handle, const unsigned short* host,
                                                     const unsigned short* username, const unsigned short* password,
                                                     const unsigned short* siteID);

/* Uploads the extract at `path` (ending in ".qrx", case-sensitive) into the
 * project named `projectName` as data source `datasourceName`. Any non-zero
 * `overwrite` replaces a data source of that name. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionPublishExtract(void* handle, const unsigned short* path,
                                                            const unsigned short* projectName,
                                                            const unsigned short* datasourceName, int overwrite);

/* Forgets the sign-in on this side; nothing is sent to the server. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionDisconnect(void* handle);

/* Destroys the connection (forgetting its sign-in as Disconnect does; nothing
 * is sent to the server). Returns ORV_RESULT_BadHandle for an unknown handle,
 * without touching the last error. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionClose(void* handle);

/* Credentials for the system proxy; the same pair answers a server's one
 * request for HTTP authentication. Kept for all later calls on the handle. */
ORV_SERVER_API ORV_RESULT OrvServerConnectionSetProxyCredentials(void* handle, const unsigned short* username,
                                                                 const unsigned short* password);

#ifdef __cplusplus
}
#endif

#endif /* ORVANE_SERVER_H */
