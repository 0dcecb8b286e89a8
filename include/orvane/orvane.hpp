/*
 * orvane.hpp: libOrvaneServer for C++17, header-only, over the exported C
 * functions (nothing more is exported for it).
 *
 *     orvane::Library library;                         // start-up and clean-up
 *     orvane::Session session(url, user, password);    // signs in
 *     session.publish("sales.qrx", "Samples", "sales");
 *
 * Text goes in as UTF-8 (std::string_view, std::string, const char*), as
 * UTF-16 (std::u16string_view, u"...") or as a std::filesystem::path, and
 * comes out as UTF-8. Every failure is thrown as orvane::Error, which carries
 * the result code, the failure kind, the HTTP status and the server's reason.
 *
 * A Session signs in with the safe options on (see SessionOptions): cancel
 * within a second, time limits, few redirects and to the same origin only, a
 * bounded reply, one kept-alive connection. A Session signs out on the server
 * when it lets go of a sign-in: on connect() again and in its destructor (at
 * most ten seconds, failures ignored); disconnect() sends nothing. Threads: a
 * Session is used by one thread at a time, except cancel(), which any thread
 * may call while another publishes; destroy a Session only after its calls
 * have returned.
 */
#ifndef ORVANE_HPP
#define ORVANE_HPP

#include <orvane/OrvaneServerExt.h>

#include <chrono>
#include <cstdint>
#include <cwchar>
#include <exception>
#include <filesystem>
#include <functional>
#include <locale>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace orvane {

// Every result code of the C functions, usable in switch.
enum class ErrorCode : std::int32_t {
    Success = 0,
    InvalidArgument = 1,
    BadHandle = 2,
    UnknownError = 3,
    ResponseParseFailed = ORV_SERVER_ResponseParseFailed,
    UnknownReplyType = ORV_SERVER_UnknownReplyType,
    InvalidPublishInput = ORV_SERVER_InvalidPublishInput,
    NetworkFailure = ORV_SERVER_NetworkFailure,
    ServerResponseError = ORV_SERVER_ServerResponseError,
    NotConnected = ORV_SERVER_NotConnected,
    UnexpectedResponse = ORV_SERVER_UnexpectedResponse,
    NotInitialized = ORV_SERVER_NotInitialized,
    Cancelled = ORV_RESULT_Cancelled,
    TimedOut = ORV_RESULT_TimedOut,
    LogUnavailable = ORV_RESULT_LogUnavailable
};

// What kind of failure ended a call; decide retries and reports from this.
enum class Failure : int {
    None = ORV_FAILURE_None,
    SignInRefused = ORV_FAILURE_SignInRefused,
    ProjectNotFound = ORV_FAILURE_ProjectNotFound,
    ExtractUnusable = ORV_FAILURE_ExtractUnusable,
    AlreadyExists = ORV_FAILURE_AlreadyExists,
    Refused = ORV_FAILURE_Refused,
    ServerError = ORV_FAILURE_ServerError,
    ReplyUnreadable = ORV_FAILURE_ReplyUnreadable,
    Resolve = ORV_FAILURE_Resolve,
    Connect = ORV_FAILURE_Connect,
    Tls = ORV_FAILURE_Tls,
    Proxy = ORV_FAILURE_Proxy,
    ConnectionLost = ORV_FAILURE_ConnectionLost,
    TooManyRedirects = ORV_FAILURE_TooManyRedirects,
    RedirectRefused = ORV_FAILURE_RedirectRefused,
    ReplyTooLarge = ORV_FAILURE_ReplyTooLarge,
    ConnectTimeout = ORV_FAILURE_ConnectTimeout,
    StallTimeout = ORV_FAILURE_StallTimeout,
    ReplyTimeout = ORV_FAILURE_ReplyTimeout,
    TotalTimeout = ORV_FAILURE_TotalTimeout,
    Cancelled = ORV_FAILURE_Cancelled,
    Other = ORV_FAILURE_Other
};

// The kind's name ("ProjectNotFound").
inline std::string_view name(Failure kind)
{
    return OrvFailureName(static_cast<ORV_FAILURE>(kind));
}

// True for the kinds worth another try: connect, connection lost, time-outs, 5xx.
inline bool isTransient(Failure kind)
{
    return OrvFailureIsTransient(static_cast<ORV_FAILURE>(kind)) != 0;
}

enum class RedirectPolicy : int {
    Follow = ORV_REDIRECT_Follow,
    NoDowngrade = ORV_REDIRECT_NoDowngrade,
    SameOrigin = ORV_REDIRECT_SameOrigin
};

// A failed call. what() is the library's text, followed by the server's reason
// in parentheses when the server refused; all texts are UTF-8. Copies share
// their texts, so copying never throws.
class Error : public std::runtime_error {
  public:
    Error(ErrorCode code, std::string message, Failure failure = Failure::None, long httpStatus = 0,
          std::string reason = {}, long transportCode = 0)
        : std::runtime_error(reason.empty() ? message : message + " (" + reason + ")"), m_code(code),
          m_failure(failure), m_httpStatus(httpStatus), m_transportCode(transportCode),
          m_texts(std::make_shared<const Texts>(Texts{std::move(message), std::move(reason)}))
    {
    }
    ErrorCode code() const noexcept { return m_code; }
    Failure failure() const noexcept { return m_failure; }
    // The HTTP status of the last reply of the failed call; 0 when none came.
    long httpStatus() const noexcept { return m_httpStatus; }
    // The server's own explanation of a refusal ("summary: detail"); "" otherwise.
    const std::string& reason() const noexcept { return m_texts->reason; }
    // The library's text alone, as OrvGetLastErrorMessage gives it.
    const std::string& message() const noexcept { return m_texts->message; }
    // libcurl's code for a transport failure; 0 otherwise.
    long transportCode() const noexcept { return m_transportCode; }

  private:
    struct Texts {
        std::string message, reason;
    };
    ErrorCode m_code;
    Failure m_failure;
    long m_httpStatus;
    long m_transportCode;
    std::shared_ptr<const Texts> m_texts;
};

namespace detail {

// The standard library's UTF-8 <-> UTF-16/UTF-32 conversions (locale independent).
template <class Unit> const std::codecvt<Unit, char, std::mbstate_t>& Codec()
{
    return std::use_facet<std::codecvt<Unit, char, std::mbstate_t>>(std::locale::classic());
}

inline std::u16string FromUtf8(std::string_view utf8)
{
    std::u16string out(utf8.size(), u'\0');
    std::mbstate_t state{};
    const char* read = nullptr;
    char16_t* written = nullptr;
    const auto result = Codec<char16_t>().in(state, utf8.data(), utf8.data() + utf8.size(), read, out.data(),
                                             out.data() + out.size(), written);
    if (result != std::codecvt_base::ok && result != std::codecvt_base::noconv)
        throw Error(ErrorCode::InvalidArgument, "Invalid UTF-8 in an argument");
    out.resize(static_cast<std::size_t>(written - out.data()));
    return out;
}

// wchar_t is UTF-32 on Linux and UTF-16 on Windows; a sequence that does not
// convert ends the text there rather than losing the whole message.
inline std::string ToUtf8(const wchar_t* text)
{
    if (text == nullptr)
        return {};
    using Unit = std::conditional_t<sizeof(wchar_t) == 4, char32_t, char16_t>;
    const std::basic_string<Unit> units(text, text + std::wcslen(text));
    std::string out(units.size() * 4, '\0');
    std::mbstate_t state{};
    const Unit* read = nullptr;
    char* written = nullptr;
    Codec<Unit>().out(state, units.data(), units.data() + units.size(), read, out.data(), out.data() + out.size(),
                      written);
    out.resize(static_cast<std::size_t>(written - out.data()));
    return out;
}

} // namespace detail

// An argument of text: UTF-8 or UTF-16, held as the NUL-terminated UTF-16 the
// C functions take. Invalid UTF-8 throws Error with ErrorCode::InvalidArgument.
class Text {
  public:
    template <class S, std::enable_if_t<std::is_convertible_v<const S&, std::string_view>, int> = 0> Text(const S& utf8)
    {
        Assign(detail::FromUtf8(std::string_view(utf8)));
    }
    template <class S, std::enable_if_t<std::is_convertible_v<const S&, std::u16string_view>, int> = 0>
    Text(const S& utf16)
    {
        Assign(std::u16string_view(utf16));
    }
    Text(const std::filesystem::path& path) { Assign(path.u16string()); }
    const unsigned short* c_str() const noexcept { return m_units.data(); }

  private:
    void Assign(std::u16string_view units)
    {
        m_units.assign(units.begin(), units.end());
        m_units.push_back(0);
    }
    std::vector<unsigned short> m_units;
};

// Starts the library for its lifetime; one at a time per process, before any
// Session and outliving them all.
class Library {
  public:
    Library() { Check(OrvServerAPIInitialize()); }
    // The log goes to `logDirectory` (which must exist) instead of ORV_SDK_LOGDIR
    // or the working directory, for this Library's lifetime; ErrorCode::LogUnavailable
    // when no log can be opened there.
    explicit Library(const Text& logDirectory)
    {
        Check(OrvServerAPISetLogDirectory(logDirectory.c_str()));
        const ORV_RESULT rc = OrvServerAPIInitialize();
        if (rc != ORV_RESULT_Success) {
            const Error error = Failed(rc);
            OrvServerAPISetLogDirectory(nullptr);
            throw error;
        }
        m_ownDirectory = true;
    }
    ~Library()
    {
        OrvServerAPICleanup();
        if (m_listener)
            OrvServerAPISetLogListener(nullptr, nullptr); // it outlives start-ups otherwise
        if (m_ownDirectory)
            OrvServerAPISetLogDirectory(nullptr); // later start-ups follow the usual rule again
    }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    // "MAJOR.MINOR.PATCH" of the library loaded.
    static std::string_view version() { return OrvServerAPIGetVersion(); }
    // The log file in use; "" when none could be opened.
    std::string logPath() const
    {
        const char* path = OrvServerAPIGetLogPath();
        return path == nullptr ? std::string() : std::string(path);
    }
    // Receives every log line (UTF-8, no line end) on the log's writer thread
    // until the Library goes; nullptr removes it. What the listener throws is
    // dropped; it must not call setLogListener.
    void setLogListener(std::function<void(std::string_view line)> listener)
    {
        auto next = listener ? std::make_unique<Listener>(std::move(listener)) : nullptr;
        Check(next ? OrvServerAPISetLogListener(&OnLine, next.get()) : OrvServerAPISetLogListener(nullptr, nullptr));
        m_listener = std::move(next); // the library no longer runs the one replaced
    }

  private:
    using Listener = std::function<void(std::string_view)>;
    static void OnLine(void* listener, const char* line) noexcept
    {
        try {
            (*static_cast<Listener*>(listener))(line);
        } catch (...) {
        }
    }
    static Error Failed(ORV_RESULT rc)
    {
        return Error(static_cast<ErrorCode>(rc), detail::ToUtf8(OrvGetLastErrorMessage()));
    }
    static void Check(ORV_RESULT rc)
    {
        if (rc != ORV_RESULT_Success)
            throw Failed(rc);
    }
    std::unique_ptr<Listener> m_listener;
    bool m_ownDirectory = false;
};

// What a Session sets before it signs in; the defaults are the safe ones.
// A zero time limit means none.
struct SessionOptions {
    std::chrono::seconds connectTimeout{30};
    std::chrono::seconds stallTimeout{120};
    long maxRedirects = 10; // negative: no limit
    RedirectPolicy redirects = RedirectPolicy::SameOrigin;
    std::uint64_t maxReplySize = 16 << 20; // bytes; 0: no limit
    std::string caCertificates;            // PEM bundle or hashed directory; "": the system's
    bool connectionReuse = true;           // one kept-alive connection for all requests
    std::chrono::seconds projectCache{300};
    bool expectContinue = false; // no idle round trip before an upload's body
};

struct UploadProgress {
    std::uint64_t sent = 0;
    std::uint64_t total = 0;
};

// One connection handle, signed in by its constructor, signed out and closed
// by its destructor. Movable, not copyable; a moved-from Session throws Error
// with ErrorCode::BadHandle from every call.
class Session {
  public:
    // Called as the upload body is read: return false to stop the publish
    // (Error with ErrorCode::Cancelled). What it throws is rethrown by publish().
    // It runs on the publishing thread and must not call into this Session.
    using Progress = std::function<bool(std::uint64_t sent, std::uint64_t total)>;

    Session(const Text& url, const Text& user, const Text& password, const Text& site = Text(""),
            const SessionOptions& options = SessionOptions())
        : m_state(std::make_unique<State>())
    {
        Check(OrvServerConnectionCreate(&m_state->handle));
        Check(OrvServerConnectionEnableCancel(m_state->handle));
        setConnectTimeout(options.connectTimeout);
        setStallTimeout(options.stallTimeout);
        setMaxRedirects(options.maxRedirects);
        setMaxReplySize(options.maxReplySize);
        setRedirectPolicy(options.redirects);
        setConnectionReuse(options.connectionReuse);
        setProjectCache(options.projectCache);
        setExpectContinue(options.expectContinue);
        if (!options.caCertificates.empty())
            setCACertificates(options.caCertificates);
        connect(url, user, password, site);
    }
    Session(Session&&) noexcept = default;
    Session& operator=(Session&&) noexcept = default;
    ~Session() = default;

    // False once moved from.
    explicit operator bool() const noexcept { return m_state != nullptr; }
    // For the C functions; null once moved from.
    void* handle() const noexcept { return m_state ? m_state->handle : nullptr; }

    // Signs in again, signing the earlier sign-in out on the server first.
    void connect(const Text& url, const Text& user, const Text& password, const Text& site = Text(""))
    {
        if (m_state && m_state->signedIn)
            m_state->SignOut();
        Check(OrvServerConnectionConnect(handle(), url.c_str(), user.c_str(), password.c_str(), site.c_str()));
        m_state->signedIn = true;
    }
    // Uploads the ".qrx" file at `path` into `project` as data source `name`.
    void publish(const Text& path, const Text& project, const Text& name, bool overwrite = false)
    {
        Check(OrvServerConnectionPublishExtract(handle(), path.c_str(), project.c_str(), name.c_str(), overwrite));
    }
    // Whether the signed-in site has the project; uploads nothing.
    bool hasProject(const Text& project)
    {
        const ORV_RESULT rc = OrvServerConnectionFindProject(handle(), project.c_str());
        if (rc == ORV_SERVER_InvalidPublishInput)
            return false;
        Check(rc);
        return true;
    }
    // Stops the call running on another thread (it throws Error with
    // ErrorCode::Cancelled), or the next call when none runs.
    void cancel() const
    {
        // Nothing else of the handle may be read while another thread is inside a call on it.
        const ORV_RESULT rc = OrvServerConnectionCancel(handle());
        if (rc != ORV_RESULT_Success)
            throw Error(static_cast<ErrorCode>(rc), detail::ToUtf8(OrvGetLastErrorMessage()));
    }
    // Forgets the sign-in here; nothing is sent.
    void disconnect()
    {
        Check(OrvServerConnectionDisconnect(handle()));
        m_state->signedIn = false;
    }
    // Signs out on the server, then disconnects.
    void signOut()
    {
        if (m_state)
            m_state->signedIn = false;
        Check(OrvServerConnectionSignOut(handle()));
    }

    // A callable taking (sent, total) and returning bool (false stops) or
    // nothing; nullptr removes it.
    template <class F> void setProgress(F progress)
    {
        if constexpr (std::is_void_v<std::invoke_result_t<F&, std::uint64_t, std::uint64_t>>)
            SetProgress([f = std::move(progress)](std::uint64_t sent, std::uint64_t total) mutable {
                f(sent, total);
                return true;
            });
        else
            SetProgress(Progress(std::move(progress)));
    }
    void setProgress(std::nullptr_t) { SetProgress(Progress()); }

    void setProxyCredentials(const Text& user, const Text& password)
    {
        Check(OrvServerConnectionSetProxyCredentials(handle(), user.c_str(), password.c_str()));
    }
    void setConnectTimeout(std::chrono::seconds limit)
    {
        Check(OrvServerConnectionSetConnectTimeout(handle(), static_cast<long>(limit.count())));
    }
    void setStallTimeout(std::chrono::seconds limit)
    {
        Check(OrvServerConnectionSetStallTimeout(handle(), static_cast<long>(limit.count())));
    }
    void setReplyTimeout(std::chrono::seconds limit)
    {
        Check(OrvServerConnectionSetReplyTimeout(handle(), static_cast<long>(limit.count())));
    }
    void setTotalTimeout(std::chrono::seconds limit)
    {
        Check(OrvServerConnectionSetTotalTimeout(handle(), static_cast<long>(limit.count())));
    }
    void setMaxRedirects(long count) { Check(OrvServerConnectionSetMaxRedirects(handle(), count)); }
    void setRedirectPolicy(RedirectPolicy policy)
    {
        Check(OrvServerConnectionSetRedirectPolicy(handle(), static_cast<ORV_REDIRECT_POLICY>(policy)));
    }
    void setMaxReplySize(std::uint64_t bytes) { Check(OrvServerConnectionSetMaxReplySize(handle(), bytes)); }
    void setCACertificates(const Text& path) { Check(OrvServerConnectionSetCACertificates(handle(), path.c_str())); }
    void setUploadBufferSize(long bytes) { Check(OrvServerConnectionSetUploadBufferSize(handle(), bytes)); }
    void setConnectionReuse(bool enable) { Check(OrvServerConnectionSetConnectionReuse(handle(), enable)); }
    void setProjectCache(std::chrono::seconds lifetime)
    {
        Check(OrvServerConnectionSetProjectCache(handle(), static_cast<long>(lifetime.count())));
    }
    void setExpectContinue(bool enable) { Check(OrvServerConnectionSetExpectContinue(handle(), enable)); }

    // About the last call on this session.
    long httpStatus() const
    {
        long status = 0;
        Check(OrvServerConnectionGetHttpStatus(handle(), &status));
        return status;
    }
    std::string serverReason() const
    {
        const wchar_t* reason = nullptr;
        Check(OrvServerConnectionGetServerReason(handle(), &reason));
        return detail::ToUtf8(reason);
    }
    Failure failure() const
    {
        ORV_FAILURE kind = ORV_FAILURE_None;
        Check(OrvServerConnectionGetFailure(handle(), &kind, nullptr));
        return static_cast<Failure>(kind);
    }
    UploadProgress uploadProgress() const
    {
        UploadProgress progress;
        Check(OrvServerConnectionGetUploadProgress(handle(), &progress.sent, &progress.total));
        return progress;
    }

  private:
    // On the heap, so that the progress callback's user data survives a move.
    struct State {
        State() = default;
        State(const State&) = delete;
        State& operator=(const State&) = delete;
        ~State()
        {
            if (handle == nullptr)
                return;
            if (signedIn) {
                OrvServerConnectionSetTotalTimeout(handle, 10);
                SignOut();
            }
            OrvServerConnectionClose(handle);
        }
        // Whatever the answer, the sign-in is gone from this side.
        void SignOut() noexcept
        {
            signedIn = false;
            (void)OrvServerConnectionSignOut(handle);
        }
        void* handle = nullptr;
        bool signedIn = false; // ends with a sign-out sent to the server
        Progress progress;
        std::exception_ptr thrown; // by the progress callback, rethrown when the call returns
    };

    static int OnProgress(void* state, std::uint64_t sent, std::uint64_t total) noexcept
    {
        auto* s = static_cast<State*>(state);
        try {
            return s->progress(sent, total) ? 0 : 1;
        } catch (...) {
            s->thrown = std::current_exception();
            return 1;
        }
    }
    void SetProgress(Progress progress)
    {
        void* h = handle();
        Check(progress ? OrvServerConnectionSetProgressCallback(h, &OnProgress, m_state.get())
                       : OrvServerConnectionSetProgressCallback(h, nullptr, nullptr));
        m_state->progress = std::move(progress);
    }
    // Gathers what the library knows of the failure; the last error first,
    // before another call can replace it.
    void Check(ORV_RESULT rc) const
    {
        if (m_state && m_state->thrown)
            std::rethrow_exception(std::exchange(m_state->thrown, nullptr));
        if (rc == ORV_RESULT_Success)
            return;
        std::string message = detail::ToUtf8(OrvGetLastErrorMessage());
        void* h = handle();
        long status = 0;
        const wchar_t* reason = nullptr;
        ORV_FAILURE kind = ORV_FAILURE_None;
        long transportCode = 0;
        if (h != nullptr) {
            OrvServerConnectionGetHttpStatus(h, &status);
            OrvServerConnectionGetServerReason(h, &reason);
            OrvServerConnectionGetFailure(h, &kind, &transportCode);
        }
        throw Error(static_cast<ErrorCode>(rc), std::move(message), static_cast<Failure>(kind), status,
                    detail::ToUtf8(reason), transportCode);
    }

    std::unique_ptr<State> m_state;
};

} // namespace orvane

#endif // ORVANE_HPP
