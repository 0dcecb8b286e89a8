#include "Publisher.h"

#include <orvane/OrvaneServerExt.h>

#include <algorithm>
#include <chrono>

namespace orvpub {
namespace {

std::string LastError()
{
    return Narrow(OrvGetLastErrorMessage());
}

// libcurl's texts for the failures that may pass if tried again: refused,
// reset, cut or timed-out connections. Certificates, names and redirect
// limits fail the same way every time.
bool TransientNetworkText(const std::string& text)
{
    static const char* const kTransient[] = {"Couldn't connect",
                                             "Failure when receiving",
                                             "Failed sending",
                                             "Server returned nothing",
                                             "Timeout was reached",
                                             "refused",
                                             "reset"};
    return std::any_of(std::begin(kTransient), std::end(kTransient),
                       [&](const char* piece) { return text.find(piece) != std::string::npos; });
}

std::string NetworkHint(const std::string& text, const Options& o)
{
    if (text.find("SSL") != std::string::npos || text.find("certificate") != std::string::npos)
        return o.cacert.empty() ? "A server with a private CA needs --cacert FILE" : "Check --cacert " + o.cacert;
    if (text.find("redirects") != std::string::npos)
        return Printf("At most %ld are followed (--max-redirects)", o.maxRedirects);
    if (text.find("resolve") != std::string::npos || text.find("Couldn't connect") != std::string::npos)
        return "Check --server " + o.server;
    return "";
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

Session::Session(const Settings& settings, Cancels& cancels, Console& console)
    : m_settings(settings), m_cancels(cancels), m_console(console)
{
    const Options& o = *settings.options;
    int rc = OrvServerConnectionCreate(&m_handle);
    if (rc != ORV_RESULT_Success) {
        m_handle = nullptr;
        m_setupResult = rc;
        return;
    }
    m_cancels.Add(m_handle);
    // The library has no limits unless asked; a tool run by people and
    // scripts should not wait forever, so ours are on by default.
    if (rc == ORV_RESULT_Success)
        rc = OrvServerConnectionEnableCancel(m_handle);
    if (rc == ORV_RESULT_Success)
        rc = OrvServerConnectionSetProgressCallback(m_handle, &Session::OnProgress, this);
    if (rc == ORV_RESULT_Success)
        rc = OrvServerConnectionSetConnectTimeout(m_handle, o.connectTimeout);
    if (rc == ORV_RESULT_Success)
        rc = OrvServerConnectionSetStallTimeout(m_handle, o.stallTimeout);
    if (rc == ORV_RESULT_Success) // the library counts a negative limit as none
        rc = OrvServerConnectionSetMaxRedirects(m_handle, o.maxRedirects == 0 ? -1 : o.maxRedirects);
    if (rc == ORV_RESULT_Success && !o.cacert.empty())
        rc = OrvServerConnectionSetCACertificates(m_handle, settings.cacert.c_str());
    if (rc == ORV_RESULT_Success && !o.proxyUser.empty())
        rc = OrvServerConnectionSetProxyCredentials(m_handle, settings.proxyUser.c_str(),
                                                    settings.proxyPassword.c_str());
    m_setupResult = rc;
}

Session::~Session()
{
    if (m_handle == nullptr)
        return;
    m_cancels.Remove(m_handle);
    OrvServerConnectionDisconnect(m_handle);
    OrvServerConnectionClose(m_handle);
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
    if (m_handle != nullptr)
        OrvServerConnectionGetHttpStatus(m_handle, &out.status);
    if (code == ORV_RESULT_Success) {
        out.kind = Kind::Published;
        return out;
    }
    out.libraryText = LastError();
    const wchar_t* reason = nullptr;
    if (m_handle != nullptr && OrvServerConnectionGetServerReason(m_handle, &reason) == ORV_RESULT_Success)
        out.reason = Narrow(reason);
    const long s = out.status;
    switch (code) {
    case ORV_RESULT_Cancelled:
        out.kind = Kind::Interrupted;
        out.message = "cancelled";
        return out;
    case ORV_RESULT_TimedOut:
        out.kind = Kind::TimedOut;
        out.transient = true;
        out.message =
            Printf("timed out (--connect-timeout %ld s, --stall-timeout %ld s; 0 for no limit): ", o.connectTimeout,
                   o.stallTimeout) +
            out.libraryText;
        return out;
    case ORV_SERVER_NetworkFailure:
        out.kind = Kind::Network;
        out.transient = TransientNetworkText(out.libraryText);
        out.message = WithHint("cannot reach the server: " + out.libraryText, NetworkHint(out.libraryText, o));
        return out;
    case ORV_SERVER_InvalidPublishInput:
        // Files were checked before signing in: this is the project lookup.
        out.kind = out.libraryText.rfind("Project ", 0) == 0 ? Kind::Refused : Kind::Other;
        out.message = WithHint(out.libraryText, out.kind == Kind::Refused ? "Project names are case-sensitive" : "");
        return out;
    case ORV_SERVER_ServerResponseError:
        if (s >= 500) {
            out.kind = Kind::Network;
            out.transient = true;
            out.message = "the server failed " + StatusAndReason(out);
            return out;
        }
        if (s >= 400) {
            out.kind = signIn ? Kind::SignInRefused : Kind::Refused;
            std::string hint;
            if (signIn && s == 401)
                hint = "Check the user name, the password and --site";
            else if (signIn && s == 403)
                hint = Printf("User \"%s\" may not sign in to this site", o.user.c_str());
            else if (signIn && s == 404)
                hint = "Check --server and --site";
            else if (s == 409)
                hint = "Use --overwrite to replace it";
            out.message =
                WithHint((signIn ? "sign-in refused " : "refused by the server ") + StatusAndReason(out), hint);
            return out;
        }
        break;
    case ORV_SERVER_ResponseParseFailed:
    case ORV_SERVER_UnexpectedResponse:
        out.kind = Kind::Other;
        out.message =
            Printf("the reply (HTTP %ld) is not one a publishing server sends; check --server %s", s, o.server.c_str());
        return out;
    default:
        break;
    }
    out.kind = Kind::Other;
    out.message = Printf("failed (code %d): ", code) + out.libraryText;
    return out;
}

template <class Attempt> Outcome Session::Retrying(const std::string& label, bool signIn, Attempt attempt)
{
    const Options& o = *m_settings.options;
    const auto start = std::chrono::steady_clock::now();
    Outcome out;
    for (int tries = 1;; ++tries) {
        out = Classify(m_setupResult != ORV_RESULT_Success ? m_setupResult : attempt(), signIn);
        out.attempts = tries;
        if (!out.transient || tries > o.retries || m_cancels.Interrupted())
            break;
        const double wait = std::min(60.0, static_cast<double>(1L << std::min(tries - 1, 6)));
        if (!o.quiet)
            m_console.Err(
                label + ": " +
                WithHint(out.message, Printf("Trying again in %.0f s (retry %d of %ld)", wait, tries, o.retries)));
        if (!m_cancels.Sleep(wait)) {
            out.kind = Kind::Interrupted;
            out.message = "interrupted while waiting to try again";
            break;
        }
    }
    out.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return out;
}

Outcome Session::SignIn()
{
    const Settings& s = m_settings;
    return Retrying("sign-in", true, [&] {
        return OrvServerConnectionConnect(m_handle, s.server.c_str(), s.user.c_str(), s.password.c_str(),
                                          s.site.c_str());
    });
}

Outcome Session::Publish(const std::string& label, const Utf16& path, const Utf16& name, Transfer& transfer)
{
    m_transfer = &transfer;
    Outcome out = Retrying(label, false, [&] {
        return OrvServerConnectionPublishExtract(m_handle, path.c_str(), m_settings.project.c_str(), name.c_str(),
                                                 m_settings.options->overwrite ? 1 : 0);
    });
    m_transfer = nullptr;
    return out;
}

Outcome Session::FindProject()
{
    Outcome out = Retrying("project", false,
                           [&] { return OrvServerConnectionFindProject(m_handle, m_settings.project.c_str()); });
    if (out.kind == Kind::Published) {
        out.kind = Kind::Checked;
        out.message = "checked";
    }
    return out;
}

} // namespace orvpub
