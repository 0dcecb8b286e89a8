#include "Options.h"

#include <orvane/OrvaneServerExt.h>

#include "Report.h"
#include "Text.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>

#ifndef ORVANE_PUBLISH_VERSION
#define ORVANE_PUBLISH_VERSION "unknown"
#endif

namespace orvpub {
namespace {

const char kHelp[] = "Usage: orvane-publish --server URL --user NAME --project NAME [options]\n"
                     "                      FILE.qrx...\n"
                     "\n"
                     "Publishes each extract file into a project of a data-publishing server as a\n"
                     "data source named after the file (sales.qrx -> \"sales\").\n"
                     "\n"
                     "Options:\n"
                     "  -s, --server URL      server base URL, e.g. https://publish.example.com\n"
                     "  -u, --user NAME       user to sign in as\n"
                     "      --site SITE       site content URL (default: the default site, \"\")\n"
                     "  -p, --project NAME    project to publish into (exact, case-sensitive)\n"
                     "  -n, --name NAME       data source name, once per file in the files' order\n"
                     "                        (default: the file's stem)\n"
                     "  -o, --overwrite       replace data sources that already exist\n"
                     "  -j, --jobs N          publish N files at once, one session each (1-64)\n"
                     "      --retry N         try again up to N times after a transient failure\n"
                     "                        (connection refused or reset, time-out, HTTP 5xx),\n"
                     "                        waiting 1, 2, 4... s; never after a refusal (401,\n"
                     "                        403, 404, 409). Default 0. When the answer to a\n"
                     "                        whole upload is lost, the file is sent again\n"
                     "                        (and said so); a conflict then means uncertain\n"
                     "      --connect-timeout S  give up connecting after S seconds\n"
                     "                        (default 30; 0: no limit)\n"
                     "      --stall-timeout S give up when nothing moved for S seconds\n"
                     "                        (default 120; 0: no limit)\n"
                     "      --reply-timeout S give up when the server has not answered S seconds\n"
                     "                        after the whole file was sent (default 1800; 0: none)\n"
                     "      --max-time S      give up any one request after S seconds\n"
                     "                        (default 0: no limit)\n"
                     "      --max-redirects N follow at most N redirects (default 10; 0: no limit)\n"
                     "      --redirects POLICY  which redirects to follow: same-origin (default),\n"
                     "                        no-downgrade (never https to http) or any\n"
                     "      --no-reuse        a new connection for every request, the project\n"
                     "                        looked up for every file, and a wait for\n"
                     "                        \"100 Continue\" before each upload\n"
                     "      --cacert FILE|DIR trust the CA certificates in a PEM file or a\n"
                     "                        hashed directory instead of the system's\n"
                     "      --proxy-user NAME user for the system proxy (its password:\n"
                     "                        ORVANE_PROXY_PASSWORD, else a prompt)\n"
                     "      --password-stdin  read the password from the first line of stdin\n"
                     "      --dry-run         check the files, sign in and look the project up,\n"
                     "                        then stop without uploading (an existing data\n"
                     "                        source of the same name is not looked for)\n"
                     "      --json            one JSON object on stdout instead of text lines,\n"
                     "                        whatever the exit status (see the man page)\n"
                     "  -q, --quiet           no progress meter, nothing on stdout; failures only\n"
                     "  -v, --verbose         also HTTP statuses, library codes, retries and\n"
                     "                        where the library's log is\n"
                     "  -h, --help            show this text\n"
                     "  -V, --version         show the tool's and the library's version\n"
                     "\n"
                     "Passwords never go on the command line: ORVANE_PASSWORD, --password-stdin,\n"
                     "or a prompt without echo on the terminal. The system proxy comes from\n"
                     "http_proxy, https_proxy and no_proxy. The library's log is\n"
                     "OrvaneSDKServer.log in $ORV_SDK_LOGDIR, else in $XDG_STATE_HOME/orvane\n"
                     "(~/.local/state/orvane), else in a temporary directory of the user's\n"
                     "own; never in the working directory.\n"
                     "On a terminal, a progress meter on stderr shows bytes, percent, rate and\n"
                     "time left (with -j one line for the whole batch).\n"
                     "\n"
                     "Exit status:\n"
                     "  0    every file published (with --dry-run: everything checked)\n"
                     "  1    another failure (an unreadable or oversized reply, a file that\n"
                     "       changed meanwhile, the library could not start)\n"
                     "  2    usage error or unusable file (missing, directory, not .qrx,\n"
                     "       two files under one name); nothing was sent\n"
                     "  3    sign-in refused: wrong user name or password, unknown or\n"
                     "       forbidden site\n"
                     "  4    the server refused some files (no such project, already exists)\n"
                     "  5    network, TLS or proxy failure, a redirect refused or too many,\n"
                     "       or HTTP 5xx\n"
                     "  6    timed out (--connect-timeout, --stall-timeout, --reply-timeout,\n"
                     "       --max-time)\n"
                     "  7    uncertain: the answer to a whole upload was lost; the file may\n"
                     "       or may not be published\n"
                     "  8    standard output could not be written; the results were lost\n"
                     "  130  interrupted by SIGINT (Ctrl-C), 143 by SIGTERM: running uploads\n"
                     "       are cancelled, the summary printed\n"
                     "When files fail for different reasons, the first failed file (in\n"
                     "command-line order) decides.\n";

enum LongOnly {
    kSite = 1000,
    kProxyUser,
    kRetry,
    kConnectTimeout,
    kStallTimeout,
    kMaxRedirects,
    kCacert,
    kPasswordStdin,
    kPassword,
    kDryRun,
    kJson,
    kReplyTimeout,
    kMaxTime,
    kRedirects,
    kNoReuse
};

const option kLongOptions[] = {{"server", required_argument, nullptr, 's'},
                               {"user", required_argument, nullptr, 'u'},
                               {"site", required_argument, nullptr, kSite},
                               {"project", required_argument, nullptr, 'p'},
                               {"name", required_argument, nullptr, 'n'},
                               {"overwrite", no_argument, nullptr, 'o'},
                               {"jobs", required_argument, nullptr, 'j'},
                               {"retry", required_argument, nullptr, kRetry},
                               {"connect-timeout", required_argument, nullptr, kConnectTimeout},
                               {"stall-timeout", required_argument, nullptr, kStallTimeout},
                               {"reply-timeout", required_argument, nullptr, kReplyTimeout},
                               {"max-time", required_argument, nullptr, kMaxTime},
                               {"max-redirects", required_argument, nullptr, kMaxRedirects},
                               {"redirects", required_argument, nullptr, kRedirects},
                               {"no-reuse", no_argument, nullptr, kNoReuse},
                               {"cacert", required_argument, nullptr, kCacert},
                               {"proxy-user", required_argument, nullptr, kProxyUser},
                               {"password-stdin", no_argument, nullptr, kPasswordStdin},
                               {"password", optional_argument, nullptr, kPassword},
                               {"dry-run", no_argument, nullptr, kDryRun},
                               {"json", no_argument, nullptr, kJson},
                               {"quiet", no_argument, nullptr, 'q'},
                               {"verbose", no_argument, nullptr, 'v'},
                               {"help", no_argument, nullptr, 'h'},
                               {"version", no_argument, nullptr, 'V'},
                               {nullptr, 0, nullptr, 0}};

// A whole decimal number in [low, high], or false.
bool Number(const char* text, long low, long high, long& value)
{
    errno = 0;
    char* end = nullptr;
    value = std::strtol(text, &end, 10);
    return errno == 0 && end != text && *end == '\0' && value >= low && value <= high;
}

bool s_json = false; // usage errors are told in JSON too

bool HasScheme(const std::string& url, const std::string& scheme)
{
    if (url.size() <= scheme.size())
        return false;
    for (size_t i = 0; i < scheme.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(url[i])) != scheme[i])
            return false;
    return true;
}

// The option getopt_long stopped at: "-x" out of a bundle, else the word.
std::string Culprit(char** argv)
{
    return optopt > 0 && optopt < 128 ? std::string("-") + static_cast<char>(optopt) : std::string(argv[optind - 1]);
}

} // namespace

int Usage(const std::string& problem)
{
    std::fprintf(stderr, "orvane-publish: %s\nTry 'orvane-publish --help'.\n", Printable(problem).c_str());
    return s_json ? ReportUsage(problem) : kExitUsage;
}

int ParseOptions(int argc, char** argv, Options& o)
{
    struct Limit {
        const char* name;
        long* target;
        long high;
    };
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i)
        s_json = s_json || std::strcmp(argv[i], "--json") == 0;
    opterr = 0; // our own messages, with the --help hint
    int c;
    int index = 0;
    while ((c = getopt_long(argc, argv, ":s:u:p:n:oj:qvhV", kLongOptions, &index)) != -1) {
        Limit limit{nullptr, nullptr, 0};
        switch (c) {
        case 's':
            o.server = optarg;
            break;
        case 'u':
            o.user = optarg;
            break;
        case kSite:
            o.site = optarg;
            break;
        case 'p':
            o.project = optarg;
            break;
        case 'n':
            o.names.emplace_back(optarg);
            break;
        case 'o':
            o.overwrite = true;
            break;
        case kProxyUser:
            o.proxyUser = optarg;
            break;
        case kCacert:
            o.cacert = optarg;
            break;
        case kPasswordStdin:
            o.passwordStdin = true;
            break;
        case kDryRun:
            o.dryRun = true;
            break;
        case kJson:
            o.json = true;
            break;
        case kNoReuse:
            o.reuse = false;
            break;
        case kRedirects:
            if (std::strcmp(optarg, "same-origin") == 0)
                o.redirects = Redirects::SameOrigin;
            else if (std::strcmp(optarg, "no-downgrade") == 0)
                o.redirects = Redirects::NoDowngrade;
            else if (std::strcmp(optarg, "any") == 0)
                o.redirects = Redirects::Any;
            else
                return Usage("--redirects takes same-origin, no-downgrade or any");
            break;
        case 'q':
            o.quiet = true;
            break;
        case 'v':
            o.verbose = true;
            break;
        case 'j':
            limit = {"--jobs takes a number from 1 to 64", &o.jobs, 64};
            break;
        case kRetry:
            limit = {"--retry takes a number from 0 to 100", &o.retries, 100};
            break;
        case kConnectTimeout:
            limit = {"--connect-timeout takes whole seconds, 0 for none", &o.connectTimeout, 1000000};
            break;
        case kStallTimeout:
            limit = {"--stall-timeout takes whole seconds, 0 for none", &o.stallTimeout, 1000000};
            break;
        case kReplyTimeout:
            limit = {"--reply-timeout takes whole seconds, 0 for none", &o.replyTimeout, 1000000};
            break;
        case kMaxTime:
            limit = {"--max-time takes whole seconds, 0 for none", &o.maxTime, 1000000};
            break;
        case kMaxRedirects:
            limit = {"--max-redirects takes a count, 0 for no limit", &o.maxRedirects, 1000000};
            break;
        case kPassword:
            return Usage("passwords are not taken from the command line, where other users can read them;\n"
                         "use ORVANE_PASSWORD, --password-stdin or the prompt");
        case 'h':
            std::fputs(kHelp, stdout);
            return kExitPublished;
        case 'V':
            std::printf("orvane-publish %s (libOrvaneServer %s)\n", ORVANE_PUBLISH_VERSION, OrvServerAPIGetVersion());
            return kExitPublished;
        case ':':
            return Usage(Culprit(argv) + " needs a value");
        default:
            return Usage("unknown option " + Culprit(argv));
        }
        if (limit.target != nullptr && !Number(optarg, c == 'j' ? 1 : 0, limit.high, *limit.target))
            return Usage(limit.name);
    }
    for (int i = optind; i < argc; ++i)
        o.files.emplace_back(argv[i]);
    if (o.server.empty() || o.user.empty() || o.project.empty())
        return Usage("--server, --user and --project are required");
    if (!HasScheme(o.server, "http://") && !HasScheme(o.server, "https://"))
        return Usage("--server takes an http:// or https:// URL, not " + o.server);
    if (o.files.empty())
        return Usage("no extract file given");
    if (!o.names.empty() && o.names.size() != o.files.size())
        return Usage(Printf("%zu --name for %zu files: give none, or one per file in the files' order", o.names.size(),
                            o.files.size()));
    if (o.quiet && o.verbose)
        return Usage("-q and -v do not go together");
    return -1;
}

} // namespace orvpub
