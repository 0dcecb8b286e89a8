// orvane-publish: publishes extract files to a data-publishing server from the
// command line. Built only on the exported C API, like any user program.
#include <orvane/OrvaneServer.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

const char kUsage[] =
    "Usage: orvane-publish --server URL --user NAME --project NAME [options] FILE.qrx...\n"
    "\n"
    "Publishes each extract file into a project of a data-publishing server as a\n"
    "data source named after the file (sales.qrx -> \"sales\").\n"
    "\n"
    "Options:\n"
    "  -s, --server URL        server base URL, e.g. https://publish.example.com\n"
    "  -u, --user NAME         user to sign in as\n"
    "      --site SITE         site content URL (default: the default site, \"\")\n"
    "  -p, --project NAME      project to publish into (exact, case-sensitive)\n"
    "  -n, --name NAME         data source name (one file only; default: the file's stem)\n"
    "  -o, --overwrite         replace data sources that already exist\n"
    "  -j, --jobs N            publish N files at once, one session each (default 1)\n"
    "      --proxy-user NAME   user for the system proxy\n"
    "  -h, --help              show this text\n"
    "\n"
    "Secrets never go on the command line:\n"
    "  ORVANE_PASSWORD         the user's password (else asked for without echo)\n"
    "  ORVANE_PROXY_PASSWORD   the proxy user's password (else asked for without echo)\n"
    "The system proxy comes from http_proxy / https_proxy / no_proxy. The library's\n"
    "log goes to OrvaneSDKServer.log in $ORV_SDK_LOGDIR (else the current directory).\n"
    "\n"
    "Exit status: 0 when every file was published, 1 when any failed, 2 on usage errors.\n";

using Utf16 = std::basic_string<unsigned short>;

// UTF-8 to UTF-16; false for bytes that are not UTF-8.
bool ToUtf16(const std::string& in, Utf16& out)
{
    out.clear();
    for (size_t i = 0; i < in.size();) {
        const unsigned char c = static_cast<unsigned char>(in[i]);
        unsigned long cp = 0;
        size_t extra = 0;
        if (c < 0x80) {
            cp = c;
        } else if ((c & 0xE0) == 0xC0) {
            cp = c & 0x1F;
            extra = 1;
        } else if ((c & 0xF0) == 0xE0) {
            cp = c & 0x0F;
            extra = 2;
        } else if ((c & 0xF8) == 0xF0) {
            cp = c & 0x07;
            extra = 3;
        } else {
            return false;
        }
        if (i + extra >= in.size() && extra > 0)
            return false;
        for (size_t k = 1; k <= extra; ++k) {
            const unsigned char next = static_cast<unsigned char>(in[i + k]);
            if ((next & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (next & 0x3F);
        }
        static const unsigned long kMin[] = {0, 0x80, 0x800, 0x10000};
        if (cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<unsigned short>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<unsigned short>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<unsigned short>(cp));
        }
        i += extra + 1;
    }
    return true;
}

std::string Narrow(const wchar_t* text)
{
    std::string out;
    for (; *text; ++text) {
        const unsigned long cp = static_cast<unsigned long>(*text);
        if (cp < 0x80) {
            out += static_cast<char>(cp);
        } else if (cp < 0x800) {
            out += static_cast<char>(0xC0 | (cp >> 6));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            out += static_cast<char>(0xE0 | (cp >> 12));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (cp >> 18));
            out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }
    return out;
}

std::string LastError()
{
    return Narrow(OrvGetLastErrorMessage());
}

// Reads a secret from the environment, else from the terminal without echo.
bool Secret(const char* variable, const std::string& prompt, std::string& value)
{
    if (const char* fromEnv = std::getenv(variable)) {
        value = fromEnv;
        return true;
    }
    FILE* tty = std::fopen("/dev/tty", "r+");
    if (tty == nullptr) {
        std::fprintf(stderr, "orvane-publish: no terminal to ask for the %s; set %s\n", prompt.c_str(), variable);
        return false;
    }
    termios saved{};
    const bool isTerminal = tcgetattr(fileno(tty), &saved) == 0;
    if (isTerminal) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(fileno(tty), TCSAFLUSH, &quiet);
    }
    std::fprintf(tty, "%s: ", prompt.c_str());
    std::fflush(tty);
    char line[1024];
    const bool got = std::fgets(line, sizeof line, tty) != nullptr;
    if (isTerminal)
        tcsetattr(fileno(tty), TCSAFLUSH, &saved);
    std::fprintf(tty, "\n");
    std::fclose(tty);
    if (!got)
        return false;
    value = line;
    while (!value.empty() && (value.back() == '\n' || value.back() == '\r'))
        value.pop_back();
    return true;
}

std::string Stem(const std::string& path)
{
    const size_t slash = path.find_last_of('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const size_t dot = name.find_last_of('.');
    if (dot != std::string::npos && dot > 0)
        name.erase(dot);
    return name;
}

double Seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

struct Options {
    std::string server, user, site, project, name, proxyUser;
    bool overwrite = false;
    unsigned jobs = 1;
    std::vector<std::string> files;
};

struct Job {
    std::string path;
    Utf16 path16, name16, display;
};

class Publisher {
public:
    Publisher(const Options& options, std::vector<Job>& jobs) : m_options(options), m_jobs(jobs) {}

    // One session per worker; workers take the next file until none is left.
    void Worker(const Utf16& server, const Utf16& user, const Utf16& password, const Utf16& site,
                const Utf16& project, const Utf16* proxyUser, const Utf16* proxyPassword)
    {
        void* session = nullptr;
        ORV_RESULT rc = OrvServerConnectionCreate(&session);
        if (rc == ORV_RESULT_Success && proxyUser != nullptr)
            rc = OrvServerConnectionSetProxyCredentials(session, proxyUser->c_str(), proxyPassword->c_str());
        if (rc == ORV_RESULT_Success)
            rc = OrvServerConnectionConnect(session, server.c_str(), user.c_str(), password.c_str(), site.c_str());
        if (rc != ORV_RESULT_Success) {
            Print("sign-in failed (code %d): %s\n", rc, LastError().c_str());
            if (session != nullptr)
                OrvServerConnectionClose(session);
            return;
        }
        for (size_t i; (i = m_next++) < m_jobs.size();) {
            const Job& job = m_jobs[i];
            const auto start = std::chrono::steady_clock::now();
            rc = OrvServerConnectionPublishExtract(session, job.path16.c_str(), project.c_str(), job.name16.c_str(),
                                                   m_options.overwrite ? 1 : 0);
            const double elapsed = Seconds(start);
            if (rc == ORV_RESULT_Success) {
                ++m_published;
                struct stat st {};
                const double mib = stat(job.path.c_str(), &st) == 0 ? st.st_size / 1048576.0 : 0.0;
                Print("[%zu/%zu] %s -> %s/%s: published, %.1f MiB in %.2f s\n", i + 1, m_jobs.size(),
                      job.path.c_str(), m_options.project.c_str(), Narrow16(job.name16).c_str(), mib, elapsed);
            } else {
                Print("[%zu/%zu] %s: FAILED after %.2f s (code %d): %s\n", i + 1, m_jobs.size(), job.path.c_str(),
                      elapsed, rc, LastError().c_str());
            }
        }
        OrvServerConnectionDisconnect(session);
        OrvServerConnectionClose(session);
    }

    size_t Published() const { return m_published; }

private:
    template <class... Args>
    void Print(const char* format, Args... args)
    {
        std::lock_guard<std::mutex> lock(m_printLock);
        std::printf(format, args...);
        std::fflush(stdout);
    }

    static std::string Narrow16(const Utf16& text)
    {
        std::wstring wide;
        for (size_t i = 0; i < text.size(); ++i) {
            unsigned long cp = text[i];
            if (cp >= 0xD800 && cp < 0xDC00 && i + 1 < text.size())
                cp = 0x10000 + ((cp - 0xD800) << 10) + (text[++i] - 0xDC00);
            wide += static_cast<wchar_t>(cp);
        }
        return Narrow(wide.c_str());
    }

    const Options& m_options;
    std::vector<Job>& m_jobs;
    std::atomic<size_t> m_next{0};
    std::atomic<size_t> m_published{0};
    std::mutex m_printLock;
};

int Usage(const char* problem)
{
    std::fprintf(stderr, "orvane-publish: %s\nTry 'orvane-publish --help'.\n", problem);
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string& target) {
            if (i + 1 >= argc)
                return false;
            target = argv[++i];
            return true;
        };
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (arg == "-s" || arg == "--server") {
            if (!value(options.server))
                return Usage("--server needs a URL");
        } else if (arg == "-u" || arg == "--user") {
            if (!value(options.user))
                return Usage("--user needs a name");
        } else if (arg == "--site") {
            if (!value(options.site))
                return Usage("--site needs a value");
        } else if (arg == "-p" || arg == "--project") {
            if (!value(options.project))
                return Usage("--project needs a name");
        } else if (arg == "-n" || arg == "--name") {
            if (!value(options.name))
                return Usage("--name needs a value");
        } else if (arg == "--proxy-user") {
            if (!value(options.proxyUser))
                return Usage("--proxy-user needs a name");
        } else if (arg == "-o" || arg == "--overwrite") {
            options.overwrite = true;
        } else if (arg == "-j" || arg == "--jobs") {
            std::string jobs;
            if (!value(jobs))
                return Usage("--jobs needs a number");
            char* end = nullptr;
            const long n = std::strtol(jobs.c_str(), &end, 10);
            if (*end != '\0' || n < 1 || n > 64)
                return Usage("--jobs takes a number from 1 to 64");
            options.jobs = static_cast<unsigned>(n);
        } else if (arg == "--password" || arg.rfind("--password=", 0) == 0) {
            return Usage("passwords are not taken from the command line; set ORVANE_PASSWORD");
        } else if (arg.size() > 1 && arg[0] == '-') {
            return Usage(("unknown option " + arg).c_str());
        } else {
            options.files.push_back(arg);
        }
    }
    if (options.server.empty() || options.user.empty() || options.project.empty())
        return Usage("--server, --user and --project are required");
    if (options.files.empty())
        return Usage("no extract file given");
    if (!options.name.empty() && options.files.size() > 1)
        return Usage("--name applies to a single file");

    Utf16 server, user, site, project, password16, proxyUser16, proxyPassword16;
    if (!ToUtf16(options.server, server) || !ToUtf16(options.user, user) || !ToUtf16(options.site, site) ||
        !ToUtf16(options.project, project) || !ToUtf16(options.proxyUser, proxyUser16))
        return Usage("arguments must be UTF-8 text");
    std::vector<Job> jobs;
    for (const std::string& file : options.files) {
        Job job;
        job.path = file;
        if (!ToUtf16(file, job.path16) || !ToUtf16(options.name.empty() ? Stem(file) : options.name, job.name16))
            return Usage(("not UTF-8 text: " + file).c_str());
        jobs.push_back(job);
    }

    std::string password, proxyPassword;
    if (!Secret("ORVANE_PASSWORD", "Password for " + options.user, password))
        return 2;
    if (!options.proxyUser.empty() &&
        !Secret("ORVANE_PROXY_PASSWORD", "Proxy password for " + options.proxyUser, proxyPassword))
        return 2;
    if (!ToUtf16(password, password16) || !ToUtf16(proxyPassword, proxyPassword16))
        return Usage("passwords must be UTF-8 text");

    ORV_RESULT rc = OrvServerAPIInitialize();
    if (rc != ORV_RESULT_Success) {
        std::fprintf(stderr, "orvane-publish: library start-up failed (code %d): %s\n", rc, LastError().c_str());
        return 1;
    }
    const auto start = std::chrono::steady_clock::now();
    Publisher publisher(options, jobs);
    const unsigned workers = std::min<unsigned>(options.jobs, static_cast<unsigned>(jobs.size()));
    const Utf16* proxyUser = options.proxyUser.empty() ? nullptr : &proxyUser16;
    std::vector<std::thread> threads;
    for (unsigned w = 0; w < workers; ++w)
        threads.emplace_back([&] {
            publisher.Worker(server, user, password16, site, project, proxyUser, &proxyPassword16);
        });
    for (auto& thread : threads)
        thread.join();
    OrvServerAPICleanup();

    const size_t failed = jobs.size() - publisher.Published();
    std::printf("%zu of %zu file%s published to %s, project \"%s\", in %.2f s%s\n", publisher.Published(),
                jobs.size(), jobs.size() == 1 ? "" : "s", options.server.c_str(), options.project.c_str(),
                Seconds(start), failed ? "; some failed (see above)" : "");
    return failed == 0 ? 0 : 1;
}
