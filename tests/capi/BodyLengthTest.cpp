// The upload body goes out with exactly the length it announces, at the
// sizes where buffers and 32-bit counts turn over.
#include <orvane/OrvaneServer.h>

#include "ScriptedPublishSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cstdint>
#include <memory>

using namespace CapiTest;
using OrvaneTest::RecordedRequest;
using OrvaneTest::Response;
using OrvaneTest::TestHttpServer;

namespace
{

using BodyLengthTest = StartedLibraryTest;

std::string BoundaryOf(const RecordedRequest& request)
{
    const std::string contentType = request.HeaderValue("Content-Type").value_or("");
    const std::string prefix = "multipart/mixed; boundary=";
    return contentType.compare(0, prefix.size(), prefix) == 0 ? contentType.substr(prefix.size()) : std::string();
}

// The body up to the file's bytes, and after them.
std::pair<std::string, std::string> Framing(const std::string& boundary, const std::string& payload,
                                            const std::string& path)
{
    const std::string head = "--" + boundary + "\r\n" +
                             "Content-Disposition: form-data; name=\"request_payload\"\r\n\r\n" + payload + "\r\n--" +
                             boundary + "\r\n" +
                             "Content-Disposition: form-data; name=\"orvane_datasource\"; filename=\"" + path +
                             "\"\r\nContent-Type: application/octet-stream\r\n\r\n";
    return {head, "\r\n--" + boundary + "--\r\n"};
}

class Sha256
{
  public:
    Sha256() : m_context(EVP_MD_CTX_new(), EVP_MD_CTX_free)
    {
        EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr);
    }
    void Add(const char* bytes, std::size_t size) { EVP_DigestUpdate(m_context.get(), bytes, size); }
    void Add(const std::string& bytes) { Add(bytes.data(), bytes.size()); }
    std::string Hex()
    {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        EVP_DigestFinal_ex(m_context.get(), digest, &length);
        static const char hex[] = "0123456789abcdef";
        std::string out;
        for (unsigned int i = 0; i < length; ++i) {
            out += hex[digest[i] >> 4];
            out += hex[digest[i] & 15];
        }
        return out;
    }

  private:
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> m_context;
};

} // namespace

TEST_F(BodyLengthTest, BodiesAroundBufferSizesArriveWhole)
{
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply)}));
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.BaseUrl(), "user", "pw")) << LastError();
    const std::vector<std::size_t> sizes{0, 1, 65535, 65536, 65537};
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        const std::string file = Bytes(sizes[i], static_cast<unsigned>(i));
        const std::string path = Extract("size" + std::to_string(sizes[i]) + ".qrx", file);
        ASSERT_EQ(ORV_RESULT_Success, connection.Publish(path, "Sales", "sized", 0)) << LastError();
    }

    const std::vector<RecordedRequest> uploads = Uploads(server.Requests());
    ASSERT_EQ(sizes.size(), uploads.size());
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        SCOPED_TRACE(sizes[i]);
        const std::string path = m_dir.File("size" + std::to_string(sizes[i]) + ".qrx");
        const std::string payload = PublishPayload("sized", "P1");
        const std::uint64_t length = MultipartLength(payload, path, sizes[i]);
        const RecordedRequest& upload = uploads[i];
        EXPECT_EQ(std::to_string(length), upload.HeaderValue("Content-Length").value_or(""));
        EXPECT_FALSE(upload.chunked);
        EXPECT_TRUE(upload.bodyComplete);
        EXPECT_EQ(length, upload.bodyLength);
        const std::string boundary = BoundaryOf(upload);
        ASSERT_EQ(40u, boundary.size());
        const auto framing = Framing(boundary, payload, path);
        EXPECT_TRUE(framing.first + Bytes(sizes[i], static_cast<unsigned>(i)) + framing.second == upload.body)
            << "the body differs from the expected multipart body";
    }
}

// A sparse file just over 4 GiB: no count may wrap at 32 bits. Bytes next to
// the turn-over points are marked, so that a body that skipped or repeated
// them would not have the expected digest. The server keeps only length and
// digest.
TEST_F(BodyLengthTest, BodyOver4GiBArrivesWithItsAnnouncedLength)
{
    const std::uint64_t size = (std::uint64_t(1) << 32) + 17;
    const std::string path = m_dir.File("huge.qrx");
    const std::vector<std::pair<std::uint64_t, char>> marks{
        {0, 'A'}, {(std::uint64_t(1) << 31) - 1, 'B'}, {std::uint64_t(1) << 31, 'C'},
        {(std::uint64_t(1) << 32) - 1, 'D'}, {std::uint64_t(1) << 32, 'E'}, {size - 1, 'F'}};
    {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(0, ::ftruncate(fd, static_cast<off_t>(size)));
        for (const auto& mark : marks)
            ASSERT_EQ(1, ::pwrite(fd, &mark.second, 1, static_cast<off_t>(mark.first)));
        ::close(fd);
    }

    OrvaneTest::ServerOptions options;
    options.storeBodies = false;
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply)}), options);
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.BaseUrl(), "user", "pw")) << LastError();
    ASSERT_EQ(ORV_RESULT_Success, connection.Publish(path, "Sales", "huge", 0)) << LastError();

    const std::vector<RecordedRequest> uploads = Uploads(server.Requests(false));
    ASSERT_EQ(1u, uploads.size());
    const RecordedRequest& upload = uploads[0];
    const std::string payload = PublishPayload("huge", "P1");
    const std::uint64_t length = MultipartLength(payload, path, size);
    EXPECT_EQ(std::to_string(length), upload.HeaderValue("Content-Length").value_or(""));
    EXPECT_TRUE(upload.bodyComplete);
    EXPECT_EQ(length, upload.bodyLength);

    const auto framing = Framing(BoundaryOf(upload), payload, path);
    Sha256 digest;
    digest.Add(framing.first);
    const std::string zeros(1 << 20, '\0');
    std::uint64_t offset = 0;
    for (const auto& mark : marks) {
        for (std::uint64_t gap = mark.first - offset; gap > 0;) {
            const std::size_t piece = static_cast<std::size_t>(std::min<std::uint64_t>(gap, zeros.size()));
            digest.Add(zeros.data(), piece);
            gap -= piece;
        }
        digest.Add(&mark.second, 1);
        offset = mark.first + 1;
    }
    ASSERT_EQ(size, offset);
    digest.Add(framing.second);
    EXPECT_EQ(digest.Hex(), upload.bodySha256);
}
