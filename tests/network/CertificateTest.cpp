// Certificate trust: the Certificate type over real certificates made by the openssl tool,
// the SSL context callback against a real SSL_CTX, and TLS handshakes with the test server.
#include "network/Certificate.h"
#include "network/CurlNetwork.h"
#include "network/CurlNetworkException.h"
#include "rest/GetRequest.h"
#include "tests/network/TransportFixture.h"
#include "tests/server/CapturingLogger.h"
#include "sys/Unicode.h"
#include "tests/support/ChildProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#ifndef ORV_OPENSSL
#define ORV_OPENSSL "openssl"
#endif

using namespace OrvaneInternal;
using namespace OrvaneTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

std::vector<unsigned char> Bytes(const std::string& path)
{
    const std::string text = ReadFileBytes(path);
    if (text.empty())
        throw std::runtime_error("no certificate in " + path);
    return std::vector<unsigned char>(text.begin(), text.end());
}

// Certificates made once per test in a temporary directory: "ca" (PEM and DER), "root"
// (DER), "future" (valid from 2040) and "expired" (valid in 2000 only). The dated ones need
// the ca command, the only one of this openssl that takes explicit validity dates.
class Certificates {
public:
    Certificates() : m_dir("orv-certs")
    {
        const std::string openssl = ORV_OPENSSL;
        const std::string newKey = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
        Run(openssl + " req -x509" + newKey + " -days 30 -subj '/CN=orv-store-ca/O=Orvane Test' -keyout ca.key" +
            " -out ca.pem");
        Run(openssl + " x509 -in ca.pem -outform DER -out ca.der");
        Run(openssl + " req -x509" + newKey + " -days 30 -subj /CN=orv-store-root -keyout root.key -out root.pem");
        Run(openssl + " x509 -in root.pem -outform DER -out root.der");
        WriteFileBytes(m_dir.File("ca.cnf"), "[ca]\ndefault_ca = d\n[d]\ndatabase = index.txt\nnew_certs_dir = .\n"
                                             "serial = serial\ndefault_md = sha256\npolicy = p\n"
                                             "[p]\ncommonName = supplied\n");
        WriteFileBytes(m_dir.File("index.txt"), "");
        WriteFileBytes(m_dir.File("serial"), "01\n");
        struct Dated {
            const char* name;
            const char* notBefore;
            const char* notAfter;
        };
        for (const Dated& dated : {Dated{"future", "400101000000Z", "410101000000Z"},
                                   Dated{"expired", "000101000000Z", "010101000000Z"}}) {
            const std::string name = dated.name;
            Run(openssl + " req -new -key ca.key -subj /CN=orv-" + name + " -out " + name + ".csr");
            Run(openssl + " ca -batch -notext -config ca.cnf -selfsign -keyfile ca.key -in " + name + ".csr" +
                " -startdate " + dated.notBefore + " -enddate " + dated.notAfter + " -out " + name + ".pem");
        }
    }

    std::vector<unsigned char> Pem(const std::string& name) const { return Bytes(m_dir.File(name + ".pem")); }
    std::vector<unsigned char> Der(const std::string& name) const { return Bytes(m_dir.File(name + ".der")); }

private:
    void Run(const std::string& command)
    {
        const std::string full = "cd '" + m_dir.Path() + "' && " + command + " >>openssl.log 2>&1";
        if (std::system(full.c_str()) != 0)
            throw std::runtime_error(command + " failed:\n" + ReadFileBytes(m_dir.File("openssl.log")));
    }

    TempDirectory m_dir;
};

std::vector<X509*> StoreCertificates(SSL_CTX* context)
{
    std::vector<X509*> certificates;
    STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(SSL_CTX_get_cert_store(context));
    for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
        X509* certificate = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i));
        if (certificate != nullptr)
            certificates.push_back(certificate);
    }
    return certificates;
}

bool Holds(const std::vector<X509*>& store, X509* certificate)
{
    for (X509* held : store) {
        if (X509_cmp(held, certificate) == 0)
            return true;
    }
    return false;
}

struct SslContext {
    SslContext() : context(SSL_CTX_new(TLS_client_method())) {}
    ~SslContext() { SSL_CTX_free(context); }
    SSL_CTX* context;
};

}  // namespace

class CertificateTrust : public TransportTest {
protected:
    // A loader that hands out `stores` and records which names it was asked for.
    void InstallLoader(std::map<std::wstring, std::vector<Certificate>> stores)
    {
        Certificate::s_storeLoader = [this, stores](const std::wstring& name, std::vector<Certificate>& out) {
            m_asked.push_back(name);
            auto found = stores.find(name);
            if (found != stores.end())
                out.insert(out.end(), found->second.begin(), found->second.end());
            return true;
        };
    }

    std::vector<std::wstring> m_asked;
};

TEST_F(CertificateTrust, PemAndDerGiveTheSameCertificateValidOnlyBetweenItsDates)
{
    Certificates made;
    Certificate pem(made.Pem("ca"), Certificate::Pem);
    Certificate der(made.Der("ca"), Certificate::Der);
    ASSERT_NE(nullptr, pem.AsX509());
    EXPECT_EQ(0, X509_cmp(pem.AsX509(), der.AsX509()));
    EXPECT_EQ(L"orv-store-ca", der.GetSubjectInfo(Certificate::CommonName));
    EXPECT_EQ(L"Orvane Test", pem.GetSubjectInfo(Certificate::Organization));
    EXPECT_EQ(L"", pem.GetSubjectInfo(Certificate::CountryName));
    EXPECT_TRUE(pem.IsValid());
    for (const char* name : {"future", "expired"}) {
        Certificate dated(made.Pem(name), Certificate::Pem);
        ASSERT_EQ(L"orv-" + Unicode::ToWideChar(std::string(name)).str(), dated.GetSubjectInfo(Certificate::CommonName));
        EXPECT_FALSE(dated.IsValid()) << name;
    }
    // DER read as PEM does not parse: a null certificate, no exception.
    Certificate wrong(made.Der("ca"), Certificate::Pem);
    EXPECT_EQ(nullptr, wrong.AsX509());
    EXPECT_EQ(L"", wrong.GetSubjectInfo(Certificate::CommonName));
}

TEST_F(CertificateTrust, EmptyStoresAddNothingAndLogNothing)
{
    CapturingLoggerScope log;
    CurlNetwork network;
    SslContext ssl;
    EXPECT_EQ(CURLE_OK, SslCtxCallback(nullptr, ssl.context, &network));
    EXPECT_THAT(StoreCertificates(ssl.context), IsEmpty());
    EXPECT_THAT(log.logger->Take(), IsEmpty());
    const auto& cache = network.GetCACertficates();
    ASSERT_EQ(3u, cache.size());
    for (const auto& store : cache)
        EXPECT_TRUE(store.second.empty());
}

// The cache is filled once ("My", "Root", "CA" asked in that order) and walked in name order;
// each call offers every certificate to its own context. The unparsable certificate is
// refused by the store, logged with its (empty) common name, and the next one still goes in.
TEST_F(CertificateTrust, CallbackAddsEveryCachedCertificateAndLogsRefusals)
{
    Certificates made;
    Certificate ca(made.Pem("ca"), Certificate::Pem);
    Certificate root(made.Der("root"), Certificate::Der);
    Certificate expired(made.Pem("expired"), Certificate::Pem);
    Certificate broken(std::vector<unsigned char>{'n', 'o', 't'}, Certificate::Der);
    ASSERT_EQ(nullptr, broken.AsX509());
    InstallLoader({{L"My", {broken, ca}}, {L"Root", {root}}, {L"CA", {expired}}});
    CapturingLoggerScope log;
    CurlNetwork network;

    for (int handshake = 0; handshake < 2; ++handshake) {
        SslContext ssl;
        EXPECT_EQ(CURLE_OK, SslCtxCallback(nullptr, ssl.context, &network));
        const auto store = StoreCertificates(ssl.context);
        EXPECT_EQ(3u, store.size());
        EXPECT_TRUE(Holds(store, ca.AsX509()));
        EXPECT_TRUE(Holds(store, root.AsX509()));
        EXPECT_TRUE(Holds(store, expired.AsX509()));  // dates are judged by verification, not here
        EXPECT_THAT(log.logger->Take(),
                    ElementsAre("W NetworkReply::sslCtxCallback: failed to add certificate  from store My"));
    }
    EXPECT_THAT(m_asked, ElementsAre(L"My", L"Root", L"CA"));
    std::vector<std::wstring> names;
    for (const auto& store : network.GetCACertficates())
        names.push_back(store.first);
    EXPECT_THAT(names, ElementsAre(L"CA", L"My", L"Root"));
}

// Verification stays on: the test server's self-signed certificate is refused at every
// handshake, while the stores are read only once. Once its certificate sits in a platform
// store it is accepted: the callback really widens the trust anchors of the handshake.
TEST_F(CertificateTrust, SelfSignedServerIsRejectedUnlessTrustedThroughAStore)
{
    TestHttpServer server(Script().On("/x", Response(200).Body("secure")), Tls());
    InstallLoader({});
    CurlNetwork untrusting;
    for (int attempt = 0; attempt < 2; ++attempt) {
        GetRequest request(server.Url("/x"), "tok");
        BufferReply reply;
        try {
            untrusting.Send(request, reply);
            ADD_FAILURE() << "no exception";
        } catch (const CurlNetworkException& e) {
            EXPECT_STREQ(curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION), e.what());
        }
    }
    EXPECT_EQ(3u, m_asked.size());
    EXPECT_EQ(0u, server.RequestCount());
    // The server records a refused handshake on its own thread, after the
    // client has already given up: poll, within a bound, for both records.
    size_t refusedHandshakes = 0;
    for (int poll = 0; poll < 200 && refusedHandshakes < 2; ++poll) {
        if (poll > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        refusedHandshakes = 0;
        for (const std::string& event : server.Events())
            refusedHandshakes += event.rfind("tls-failed ", 0) == 0 ? 1 : 0;
    }
    EXPECT_EQ(2u, refusedHandshakes);

    InstallLoader({{L"Root", {Certificate(Bytes(server.CertificateFile()), Certificate::Pem)}}});
    CurlNetwork trusting;
    for (int attempt = 0; attempt < 2; ++attempt) {
        GetRequest request(server.Url("/x"), "tok");
        CountingReply reply;
        trusting.Send(request, reply);
        EXPECT_EQ(200, reply.m_status);
        EXPECT_EQ("secure", reply.Text());
    }
    EXPECT_EQ(6u, m_asked.size());
    const auto requests = server.Requests();
    ASSERT_EQ(2u, requests.size());
    EXPECT_TRUE(requests[0].tls && requests[1].tls);
}
