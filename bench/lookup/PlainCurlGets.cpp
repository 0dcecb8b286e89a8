// The reference for the project lookup: the page GETs the library makes while it looks a project up (same URLs,
// same two header lines, a fresh easy handle each) with plain libcurl, the reply bodies counted and dropped,
// nothing parsed. Reports wall and CPU time per round of PAGES GETs.
//
// Usage: lookup_plain_curl URL-PREFIX PAGES TOKEN [ROUNDS]   (the page number is appended to URL-PREFIX)
#include "bench/common/BenchSupport.h"

#include <curl/curl.h>

using namespace OrvaneBench;

namespace {

size_t Discard(char*, size_t size, size_t nmemb, void* userdata)
{
    *static_cast<size_t*>(userdata) += size * nmemb;
    return size * nmemb;
}

void Check(CURLcode code, const char* what)
{
    if (code != CURLE_OK)
        Fail(std::string(what) + ": " + curl_easy_strerror(code));
}

size_t Get(const std::string& url, curl_slist* headers)
{
    CURL* handle = curl_easy_init();
    if (handle == nullptr)
        Fail("curl_easy_init failed");
    size_t bytes = 0;
    long status = 0;
    Check(curl_easy_setopt(handle, CURLOPT_URL, url.c_str()), "CURLOPT_URL");
    Check(curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L), "CURLOPT_HTTPGET");
    Check(curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Discard), "CURLOPT_WRITEFUNCTION");
    Check(curl_easy_setopt(handle, CURLOPT_WRITEDATA, static_cast<void*>(&bytes)), "CURLOPT_WRITEDATA");
    Check(curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers), "CURLOPT_HTTPHEADER");
    Check(curl_easy_perform(handle), "curl_easy_perform");
    Check(curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status), "CURLINFO_RESPONSE_CODE");
    curl_easy_cleanup(handle);
    if (status != 200 || bytes == 0)
        Fail("GET " + url + " answered " + std::to_string(status));
    return bytes;
}

} // namespace

// One round of GETs; named and not inlined, so that a profiler can collect
// exactly this (callgrind --toggle-collect=RunPages*).
__attribute__((noinline)) size_t RunPages(const std::string& prefix, int pages, curl_slist* headers)
{
    size_t bytes = 0;
    for (int page = 1; page <= pages; ++page)
        bytes += Get(prefix + std::to_string(page), headers);
    return bytes;
}

int main(int argc, char** argv)
{
    if (argc < 4)
        Fail("usage: lookup_plain_curl URL-PREFIX PAGES TOKEN [ROUNDS]");
    const int pages = Number(argc, argv, 2, 0, 1, 100000);
    const int rounds = Number(argc, argv, 4, 1, 1, 1000);
    Check(curl_global_init(CURL_GLOBAL_ALL), "curl_global_init");
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: ");
    headers = curl_slist_append(headers, (std::string("X-Orvane-Auth: ") + argv[3]).c_str());
    if (headers == nullptr)
        Fail("curl_slist_append failed");
    for (int round = 0; round < rounds; ++round) {
        const double wall = Seconds(CLOCK_MONOTONIC);
        const double cpu = Seconds(CLOCK_PROCESS_CPUTIME_ID);
        const size_t bytes = RunPages(argv[1], pages, headers);
        const std::string suffix = "_" + std::to_string(round);
        Report("gets_wall_s" + suffix, Seconds(CLOCK_MONOTONIC) - wall);
        Report("gets_cpu_s" + suffix, Seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu);
        Report("gets_bytes" + suffix, static_cast<double>(bytes));
    }
    curl_slist_free_all(headers);
    curl_global_cleanup();
    return 0;
}
