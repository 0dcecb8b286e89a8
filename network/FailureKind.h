// What ended a call, in the terms a program acts on: retry, report, give up.
// The values are the exported ORV_FAILURE's, one for one.
#pragma once

#include <cstdint>

namespace OrvaneInternal {

enum class FailureKind : int32_t {
    None = 0,
    SignInRefused,
    ProjectNotFound,
    ExtractUnusable,
    AlreadyExists,
    Refused,
    ServerError,
    ReplyUnreadable,
    Resolve,
    Connect,
    Tls,
    Proxy,
    ConnectionLost,
    TooManyRedirects,
    RedirectRefused,
    ReplyTooLarge,
    ConnectTimeout,
    StallTimeout,
    ReplyTimeout,
    TotalTimeout,
    Cancelled,
    Other,
};

} // namespace OrvaneInternal
