#include "Publisher.h"

#include <orvane/OrvaneServerExt.h>

#include <algorithm>
#include <chrono>
#include <functional>

namespace orvpub {
namespace {

std::string LastError()
{
    return Narrow(OrvGetLastErrorMessage());
}

// libcurl's code for a TLS handshake that failed before any certificate was
// seen, as against a server that speaks plain HTTP on the port.
const long kHandshakeFailed = 35;

std::string NetworkHint(const Outcome& out, const Options& o)
{
    switch (out.failure) {
    case ORV_FAILURE_Tls:
        if (out.transportCode == kHandshakeFailed)
            return "The server did not complete a TLS handshake; if it serves plain HTTP on this port, use an "
                   "http:// URL";
        return o.cacert.empty() ? "A server with a private CA needs --cacert FILE" : "Check --cacert " + o.cacert;
    case ORV_FAILURE_TooManyRedirects:
        return Printf("At most %ld are followed (--max-redirects)", o.maxRedirects);
    case ORV_FAILURE_RedirectRefused:
        return "Redirects to another server are not followed unless --redirects allows them";
    case ORV_FAILURE_Resolve:
    case ORV_FAILURE_Connect:
        return "Check --server " + o.server;
    case ORV_FAILURE_Proxy:
        return "Check the proxy (http_proxy, https_proxy, no_proxy) and --proxy-user";
    default:
        return "";
    }
}

const char kMayHaveLanded[] = "The answer to a whole upload was lost, so the file may or may not be published";

// The limit that fired, as the option that sets it.
std::string TimeOut(ORV_FAILURE failure, const Options& o)
{
    switch (failure) {
    case ORV_FAILURE_ConnectTimeout:
        return Printf("timed out: no connection within %ld s (--connect-timeout)", o.connectTimeout);
    case ORV_FAILURE_StallTimeout:
        return Printf("timed out: nothing moved for %ld s (--stall-timeout)", o.stallTimeout);
    case ORV_FAILURE_ReplyTimeout:
        return Printf("timed out: no answer %ld s after the whole file was sent (--reply-timeout)", o.replyTimeout);
    default:
        return Printf("timed out: the request took more than %ld s (--max-time)", o.maxTime);
    }
}

// "(HTTP 409): Resource Conflict: A data source named ..." or "(HTTP 409)".
std::string StatusAndReason(const Outcome& out)
{
    return Printf("(HTTP %ld)", out.status) + (out.reason.empty() ? "" : ": " + out.reason);
}

} // namespace

const char* KindName(Kind kind)
{
    switch (kind) {
    case Kind::NotStarted:
        return "not-started";
    case Kind::Published:
        return "published";
    case Kind::Checked:
        return "checked";
    case Kind::Unusable:
        return "unusable";
    case Kind::Uncertain:
        return "uncertain";
    case Kind::SignInRefused:
        return "sign-in-refused";
    case Kind::Refused:
        return "refused";
    case Kind::Network:
        return "network-failure";
    case Kind::TimedOut:
        return "timed-out";
    case Kind::Interrupted:
        return "interrupted";
    case Kind::Other:
        break;
    }
    return "failed";
}

int ExitCodeOf(Kind kind)
{
    switch (kind) {
    case Kind::NotStarted:
    case Kind::Published:
    case Kind::Checked:
        return kExitPublished;
    case Kind::Unusable:
        return kExitUsage;
    case Kind::Uncertain:
        return kExitUncertain;
    case Kind::SignInRefused:
        return kExitSignIn;
    case Kind::Refused:
        return kExitRefused;
    case Kind::Network:
        return kExitNetwork;
    case Kind::TimedOut:
        return kExitTimedOut;
    case Kind::Interrupted:
        return kExitInterrupted;
    case Kind::Other:
        break;
    }
    return kExitOther;
}

void Cancels::Add(void* handle)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_handles.insert(handle);
    if (m_interrupted)
        OrvServerConnectionCancel(handle);
}

void Cancels::Remove(void* handle)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_handles.erase(handle);
}

void Cancels::CancelAll()
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_interrupted = true;
    // Safe from this thread while another is inside a call on the handle;
    // the handle is not closed meanwhile, since Remove waits for this lock.
    for (void* handle : m_handles)
        OrvServerConnectionCancel(handle);
    m_wake.notify_all();
}

bool Cancels::Interrupted()
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_interrupted;
}

bool Cancels::Sleep(double seconds)
{
    std::unique_lock<std::mutex> lock(m_lock);
    return !m_wake.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return m_interrupted; });
}

Session::Session(const Settings& s, Cancels& cancels, Console& console)
    : m_settings(s), m_cancels(cancels), m_console(console)
{
    const Options& o = *s.options;
    ORV_RESULT rc = OrvServerConnectionCreate(&m_handle);
    if (rc != ORV_RESULT_Success) {
        m_handle = nullptr;
        m_setupResult = rc;
        return;
    }
    m_cancels.Add(m_handle);
    void* const h = m_handle;
    const ORV_REDIRECT_POLICY policy = o.redirects == Redirects::Any           ? ORV_REDIRECT_Follow
                                       : o.redirects == Redirects::NoDowngrade ? ORV_REDIRECT_NoDowngrade
                                                                               : ORV_REDIRECT_SameOrigin;
    // The library has no limits and makes every round trip unless asked; a
    // tool run by people and scripts should neither wait forever nor idle,
    // so ours are on by default.
    const std::function<ORV_RESULT()> steps[] = {
        [&] { return OrvServerConnectionEnableCancel(h); },
        [&] { return OrvServerConnectionSetProgressCallback(h, &Session::OnProgress, this); },
        [&] { return OrvServerConnectionSetConnectTimeout(h, o.connectTimeout); },
        [&] { return OrvServerConnectionSetStallTimeout(h, o.stallTimeout); },
        [&] { return OrvServerConnectionSetReplyTimeout(h, o.replyTimeout); },
        [&] { return OrvServerConnectionSetTotalTimeout(h, o.maxTime); },
        // The library counts a negative limit as none.
        [&] { return OrvServerConnectionSetMaxRedirects(h, o.maxRedirects == 0 ? -1 : o.maxRedirects); },
        [&] { return OrvServerConnectionSetRedirectPolicy(h, policy); },
        [&] { return OrvServerConnectionSetMaxReplySize(h, kMaxReplyBytes); },
        [&] { return OrvServerConnectionSetConnectionReuse(h, o.reuse ? 1 : 0); },
        [&] { return OrvServerConnectionSetProjectCache(h, o.reuse ? kProjectCacheSeconds : 0); },
        [&] { return OrvServerConnectionSetExpectContinue(h, o.reuse ? 0 : 1); },
        [&] {
            return o.cacert.empty() ? ORV_RESULT_Success : OrvServerConnectionSetCACertificates(h, s.cacert.c_str());
        },
        [&] {
            return o.proxyUser.empty()
                       ? ORV_RESULT_Success
                       : OrvServerConnectionSetProxyCredentials(h, s.proxyUser.c_str(), s.proxyPassword.c_str());
        }};
    for (const auto& step : steps)
        if ((rc = step()) != ORV_RESULT_Success)
            break;
    m_setupResult = rc;
}

Session::~Session()
{
    if (m_handle == nullptr)
        return;
    m_cancels.Remove(m_handle);
    if (m_signedIn) {
        // Bounded, also after a signal: a server that does not answer costs
        // seconds, not the run.
        OrvServerConnectionSetTotalTimeout(m_handle, kSignOutSeconds);
        OrvServerConnectionSignOut(m_handle);
    }
    OrvServerConnectionClose(m_handle); // disconnects whatever sign-out left connected
}

int Session::OnProgress(void* self, uint64_t sent, uint64_t total)
{
    Session& session = *static_cast<Session*>(self);
    if (session.m_transfer != nullptr) {
        session.m_transfer->sent = sent;
        session.m_transfer->total = total;
    }
    return 0;
}

Outcome Session::Classify(int code, bool signIn)
{
    const Options& o = *m_settings.options;
    Outcome out;
    out.code = code;
    if (m_handle != nullptr) {
        OrvServerConnectionGetHttpStatus(m_handle, &out.status);
        OrvServerConnectionGetFailure(m_handle, &out.failure, &out.transportCode);
    }
    if (code == ORV_RESULT_Success) {
        out.kind = Kind::Published;
        return out;
    }
    if (out.failure == ORV_FAILURE_None) // the handle could not be made or set up
        out.failure = ORV_FAILURE_Other;
    out.error = OrvFailureName(out.failure);
    out.libraryText = LastError();
    out.transient = OrvFailureIsTransient(out.failure) != 0;
    const wchar_t* reason = nullptr;
    if (m_handle != nullptr && OrvServerConnectionGetServerReason(m_handle, &reason) == ORV_RESULT_Success)
        out.reason = Narrow(reason);
    const long s = out.status;
    switch (out.failure) {
    case ORV_FAILURE_Cancelled:
        out.kind = Kind::Interrupted;
        out.message = "cancelled";
        return out;
    case ORV_FAILURE_ConnectTimeout:
    case ORV_FAILURE_StallTimeout:
    case ORV_FAILURE_ReplyTimeout:
    case ORV_FAILURE_TotalTimeout:
        out.kind = Kind::TimedOut;
        out.message = TimeOut(out.failure, o);
        return out;
    case ORV_FAILURE_Resolve:
    case ORV_FAILURE_Connect:
    case ORV_FAILURE_Tls:
    case ORV_FAILURE_Proxy:
    case ORV_FAILURE_ConnectionLost:
    case ORV_FAILURE_TooManyRedirects:
    case ORV_FAILURE_RedirectRefused:
        out.kind = Kind::Network;
        out.message = WithHint("cannot reach the server: " + out.libraryText, NetworkHint(out, o));
        return out;
    case ORV_FAILURE_ServerError:
        out.kind = Kind::Network;
        out.message = "the server failed " + StatusAndReason(out);
        return out;
    case ORV_FAILURE_ProjectNotFound:
        out.kind = Kind::Refused;
        out.message = WithHint(out.libraryText, "Project names are case-sensitive");
        return out;
    case ORV_FAILURE_SignInRefused: {
        out.kind = Kind::SignInRefused;
        std::string hint = "Check the user name, the password and --site";
        if (s == 403)
            hint = Printf("User \"%s\" may not sign in to this site", o.user.c_str());
        else if (s == 404)
            hint = "Check --server and --site";
        out.message = WithHint("sign-in refused " + StatusAndReason(out), hint);
        return out;
    }
    case ORV_FAILURE_AlreadyExists:
    case ORV_FAILURE_Refused:
        out.kind = signIn ? Kind::SignInRefused : Kind::Refused;
        out.message = WithHint((signIn ? "sign-in refused " : "refused by the server ") + StatusAndReason(out),
                               out.failure == ORV_FAILURE_AlreadyExists ? "Use --overwrite to replace it" : "");
        return out;
    case ORV_FAILURE_ReplyUnreadable:
        out.kind = Kind::Other;
        out.message =
            Printf("the reply (HTTP %ld) is not one a publishing server sends; check --server %s", s, o.server.c_str());
        return out;
    case ORV_FAILURE_ReplyTooLarge:
        out.kind = Kind::Other;
        out.message = Printf("the reply is larger than a publishing server sends (over %s); check --server %s",
                             FormatBytes(static_cast<double>(kMaxReplyBytes)).c_str(), o.server.c_str());
        return out;
    default:
        out.kind = Kind::Other;
        out.message = out.libraryText;
        return out;
    }
}

bool Session::WholeBodySent()
{
    uint64_t sent = 0;
    uint64_t total = 0;
    return m_handle != nullptr && OrvServerConnectionGetUploadProgress(m_handle, &sent, &total) == ORV_RESULT_Success &&
           total > 0 && sent == total;
}

template <class Attempt> Outcome Session::Retrying(const std::string& label, Call call, Attempt attempt)
{
    const bool upload = call == Call::Upload;
    const Options& o = *m_settings.options;
    const auto start = std::chrono::steady_clock::now();
    Outcome out;
    int uploads = 0;
    bool mayHaveLanded = false; // an earlier answer to a whole upload was lost
    for (int tries = 1;; ++tries) {
        out = Classify(m_setupResult != ORV_RESULT_Success ? m_setupResult : attempt(), call == Call::SignIn);
        out.attempts = tries;
        const bool whole = upload && m_setupResult == ORV_RESULT_Success && WholeBodySent();
        uploads += whole ? 1 : 0;
        out.uploads = uploads;
        const bool lost = whole && out.transient; // stored, perhaps, with the answer lost
        mayHaveLanded = mayHaveLanded || lost;
        if (!out.transient || tries > o.retries || m_cancels.Interrupted()) {
            // Whatever the last attempt met (after a lost answer most likely a
            // conflict: with the data source that attempt stored, or with one
            // that was there before), nobody can tell whether the file landed.
            if (mayHaveLanded && out.kind != Kind::Published) {
                out.kind = Kind::Uncertain;
                out.message = WithHint(out.message, kMayHaveLanded);
            }
            break;
        }
        const double wait = std::min(60.0, static_cast<double>(1L << std::min(tries - 1, 6)));
        const std::string again =
            lost ? Printf("The whole file was sent before the answer was lost, so it may have landed; sending it "
                          "again in %.0f s (retry %d of %ld)",
                          wait, tries, o.retries)
                 : Printf("Trying again in %.0f s (retry %d of %ld)", wait, tries, o.retries);
        if (!o.quiet || lost)
            m_console.Err(label + ": " + WithHint(out.message, again));
        if (!m_cancels.Sleep(wait)) {
            out.kind = mayHaveLanded ? Kind::Uncertain : Kind::Interrupted;
            out.message = WithHint("interrupted while waiting to try again", mayHaveLanded ? kMayHaveLanded : "");
            break;
        }
    }
    out.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return out;
}

Outcome Session::SignIn()
{
    const Settings& s = m_settings;
    const Outcome out = Retrying("sign-in", Call::SignIn, [&] {
        return OrvServerConnectionConnect(m_handle, s.server.c_str(), s.user.c_str(), s.password.c_str(),
                                          s.site.c_str());
    });
    m_signedIn = out.kind == Kind::Published;
    return out;
}

Outcome Session::Publish(const std::string& label, const Utf16& path, const Utf16& name, Transfer& transfer)
{
    m_transfer = &transfer;
    Outcome out = Retrying(label, Call::Upload, [&] {
        return OrvServerConnectionPublishExtract(m_handle, path.c_str(), m_settings.project.c_str(), name.c_str(),
                                                 m_settings.options->overwrite ? 1 : 0);
    });
    m_transfer = nullptr;
    return out;
}

Outcome Session::FindProject()
{
    Outcome out = Retrying("project", Call::Lookup,
                           [&] { return OrvServerConnectionFindProject(m_handle, m_settings.project.c_str()); });
    if (out.kind == Kind::Published) {
        out.kind = Kind::Checked;
        out.message = "checked";
    }
    return out;
}

} // namespace orvpub
