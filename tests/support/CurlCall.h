#pragma once

#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace OrvaneTest {

// One libcurl easy transfer for the fixtures' own tests. Proxy use is always explicit: an
// empty `proxy` disables the environment's proxy unless `proxyFromEnvironment` is set.
struct CurlCall {
    std::string url;
    bool post = false;
    std::string body;          // POST body, streamed through a read callback with its size announced
    bool chunkedUpload = false; // stream the body without a size (chunked)
    std::vector<std::string> headers;
    std::string user;
    std::string password;
    long httpAuth = CURLAUTH_BASIC;
    bool follow = false;
    std::string proxy;
    bool proxyFromEnvironment = false;
    std::string proxyUser;
    std::string proxyPassword;
    long proxyAuth = CURLAUTH_BASIC;
    std::string caFile;
    long expectTimeoutMs = 0;
    long timeoutSeconds = 20; // bounds every transfer of these tests
};

struct CurlResult {
    CURLcode code = CURLE_OK;
    long status = 0;
    std::string body;
    std::vector<std::string> headerLines; // of the last response, without line ends
    std::vector<std::string> statusLines; // of every response, interim ones (100) included
    long authAvailable = 0;
    std::string effectiveUrl;
    std::string error;
};

namespace CurlCallDetail {

struct Upload {
    const std::string* body;
    std::size_t offset;
};

inline size_t Read(char* buffer, size_t size, size_t count, void* userdata)
{
    auto* upload = static_cast<Upload*>(userdata);
    size_t n = std::min(size * count, upload->body->size() - upload->offset);
    std::memcpy(buffer, upload->body->data() + upload->offset, n);
    upload->offset += n;
    return n;
}

inline int Seek(void* userdata, curl_off_t offset, int origin)
{
    auto* upload = static_cast<Upload*>(userdata);
    if (origin != SEEK_SET || offset < 0 || static_cast<size_t>(offset) > upload->body->size()) {
        return CURL_SEEKFUNC_FAIL;
    }
    upload->offset = static_cast<size_t>(offset);
    return CURL_SEEKFUNC_OK;
}

inline size_t Write(char* data, size_t size, size_t count, void* userdata)
{
    static_cast<std::string*>(userdata)->append(data, size * count);
    return size * count;
}

inline size_t Header(char* data, size_t size, size_t count, void* userdata)
{
    auto* result = static_cast<CurlResult*>(userdata);
    std::string line(data, size * count);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    if (line.rfind("HTTP/", 0) == 0) {
        result->statusLines.push_back(line);
        result->headerLines.clear(); // keep the last response's header block only
    }
    if (!line.empty()) {
        result->headerLines.push_back(line);
    }
    return size * count;
}

}  // namespace CurlCallDetail

inline CurlResult Perform(const CurlCall& call)
{
    static const CURLcode globalInit = curl_global_init(CURL_GLOBAL_ALL);
    CurlResult result;
    if (globalInit != CURLE_OK) {
        result.code = globalInit;
        return result;
    }
    CURL* curl = curl_easy_init();
    if (curl == nullptr) {
        result.code = CURLE_OUT_OF_MEMORY;
        return result;
    }
    char error[CURL_ERROR_SIZE] = {};
    CurlCallDetail::Upload upload{&call.body, 0};
    curl_slist* headers = nullptr;
    for (const auto& header : call.headers) {
        headers = curl_slist_append(headers, header.c_str());
    }
    if (call.chunkedUpload) {
        headers = curl_slist_append(headers, "Transfer-Encoding: chunked");
    }
    curl_easy_setopt(curl, CURLOPT_URL, call.url.c_str());
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, call.timeoutSeconds);
    if (call.post) {
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        if (!call.chunkedUpload) {
            curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(call.body.size()));
        }
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, CurlCallDetail::Read);
        curl_easy_setopt(curl, CURLOPT_READDATA, &upload);
        curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, CurlCallDetail::Seek);
        curl_easy_setopt(curl, CURLOPT_SEEKDATA, &upload);
        curl_easy_setopt(curl, CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_ALL));
    }
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, CurlCallDetail::Write);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &result.body);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, CurlCallDetail::Header);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &result);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, call.follow ? 1L : 0L);
    if (!call.user.empty()) {
        curl_easy_setopt(curl, CURLOPT_USERNAME, call.user.c_str());
        curl_easy_setopt(curl, CURLOPT_PASSWORD, call.password.c_str());
        curl_easy_setopt(curl, CURLOPT_HTTPAUTH, call.httpAuth);
    }
    if (!call.proxyFromEnvironment) {
        curl_easy_setopt(curl, CURLOPT_PROXY, call.proxy.c_str());
    }
    if (!call.proxyUser.empty()) {
        curl_easy_setopt(curl, CURLOPT_PROXYUSERNAME, call.proxyUser.c_str());
        curl_easy_setopt(curl, CURLOPT_PROXYPASSWORD, call.proxyPassword.c_str());
        curl_easy_setopt(curl, CURLOPT_PROXYAUTH, call.proxyAuth);
    }
    if (!call.caFile.empty()) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, call.caFile.c_str());
    }
    if (call.expectTimeoutMs > 0) {
        curl_easy_setopt(curl, CURLOPT_EXPECT_100_TIMEOUT_MS, call.expectTimeoutMs);
    }
    result.code = curl_easy_perform(curl);
    result.error = error;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &result.status);
    curl_easy_getinfo(curl, CURLINFO_HTTPAUTH_AVAIL, &result.authAvailable);
    char* effective = nullptr;
    if (curl_easy_getinfo(curl, CURLINFO_EFFECTIVE_URL, &effective) == CURLE_OK && effective != nullptr) {
        result.effectiveUrl = effective;
    }
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return result;
}

}  // namespace OrvaneTest
