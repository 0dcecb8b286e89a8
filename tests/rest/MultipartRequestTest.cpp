#include "rest/MultipartRequest.h"
#include "rest/RestIOPartBuffer.h"

#include "tests/rest/RestTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unordered_set>

using namespace OrvaneInternal;
using namespace OrvaneTest;

namespace {

const std::string kHyphens(28, '-');
const std::string kCrlf = "\r\n";
const std::string kPayloadHeader = "Content-Disposition: form-data; name=\"request_payload\"\r\n\r\n";
const std::string kName = "orvane_datasource";

// The boundary as the request announces it in its content type.
std::string BoundaryOf(const MultipartRequest& request)
{
    const std::string prefix = "multipart/mixed; boundary=";
    return request.m_contentType.substr(0, prefix.size()) == prefix ? request.m_contentType.substr(prefix.size())
                                                                     : std::string();
}

std::string FileHeader(const std::string& name, const std::string& path)
{
    return "Content-Disposition: form-data; name=\"" + name + "\"; filename=\"" + path + "\"" + kCrlf +
           "Content-Type: application/octet-stream" + kCrlf + kCrlf;
}

const std::shared_ptr<RestIOPartBuffer> BufferPart(const MultipartRequest& request, size_t index)
{
    return std::dynamic_pointer_cast<RestIOPartBuffer>(request.m_body.m_parts.at(index));
}

// Puts `boundary` in place of the request's own, so that tests control it.
// The delimiter strings are shared with the parts made from them, so rewriting
// them in place rewrites the body.
void Rebound(MultipartRequest& request, const std::string& boundary)
{
    const std::string old = BoundaryOf(request);
    ASSERT_EQ(old.size(), boundary.size());
    for (auto* text : {&request.m_contentType, request.m_firstBoundary.get(), request.m_nextBoundary.get(),
                       request.m_endBoundary.get()}) {
        text->replace(text->find(old), old.size(), boundary);
    }
}

}  // namespace

TEST(MultipartRequest, ContentTypeCarriesA40CharacterBoundary)
{
    for (int i = 0; i < 20; ++i) {
        MultipartRequest request(RestRequest::Post, "u", "t");
        const std::string b = BoundaryOf(request);
        ASSERT_EQ(40u, b.size()) << request.m_contentType;
        EXPECT_EQ(kHyphens, b.substr(0, 28));
        EXPECT_EQ(std::string::npos, b.find_first_not_of("0123456789abcdef", 28)) << b;
        EXPECT_EQ("--" + b + kCrlf, *request.m_firstBoundary);
        EXPECT_EQ(kCrlf + "--" + b + kCrlf, *request.m_nextBoundary);
        EXPECT_EQ(kCrlf + "--" + b + "--" + kCrlf, *request.m_endBoundary);
    }
}

TEST(MultipartRequest, BoundaryDrawIsUniformOver48BitsFromMt19937_64)
{
    // 14514284786278117030 is mt19937_64's first output for seed 5489; divided by 65535.
    EXPECT_EQ(kHyphens + "c96de28ad981", MultipartRequest::MakeBoundary(5489));
    // Seed 117342's first output lies above 2^48 * 65535 - 1 and is rejected; the
    // second is used.
    EXPECT_EQ(kHyphens + "fe21652520f2", MultipartRequest::MakeBoundary(117342));
}

TEST(MultipartRequest, BoundaryIsSeededWithAShortDuration)
{
    // The seed is the time one string assignment takes: nanoseconds, far below
    // 2^16. A thread descheduled in between can stretch it, hence a few tries.
    std::unordered_set<std::string> small;
    for (uint64_t seed = 0; seed < 65536; ++seed) {
        small.insert(MultipartRequest::MakeBoundary(seed));
    }
    std::vector<std::string> seen;
    for (int attempt = 0; attempt < 5; ++attempt) {
        const std::string b = BoundaryOf(MultipartRequest(RestRequest::Post, "u", "t"));
        if (small.count(b) != 0) {
            return;
        }
        seen.push_back(b);
    }
    ADD_FAILURE() << "no boundary came from a small seed, last " << seen.back();
}

TEST(MultipartRequest, BodiesMatchTheWireLayoutByteForByte)
{
    TempDirectory dir("orv-multipart");
    const std::string xml = "<tsRequest><datasource name=\"sales\"><project id=\"p1\"/></datasource></tsRequest>";
    const std::string file = PatternBytes(3000) + "\r\n--" + kHyphens;  // payload bytes that look like framing
    const std::string path = WriteFile(dir, "sales.qrx", file);

    MultipartRequest empty(RestRequest::Post, "u", "t");
    empty.Finish();
    MultipartRequest xmlOnly(RestRequest::Post, "u", "t");
    xmlOnly.AddBufferPayload(Text(xml));
    xmlOnly.Finish();
    MultipartRequest upload(RestRequest::Post, "u", "t");
    upload.AddBufferPayload(Text(xml));
    upload.AddFilePayload(kName, path);
    upload.Finish();

    struct Case {
        const char* name;
        MultipartRequest* request;
        std::string (*layout)(const std::string& b, const std::string& xml, const std::string& path,
                              const std::string& file);
        size_t size;
    };
    const Case cases[] = {
        {"empty", &empty,
         [](const std::string& b, const std::string&, const std::string&, const std::string&) {
             return "\r\n--" + b + "--\r\n";
         },
         48},
        {"xml only", &xmlOnly,
         [](const std::string& b, const std::string& x, const std::string&, const std::string&) {
             return "--" + b + "\r\n" + kPayloadHeader + x + "\r\n--" + b + "--\r\n";
         },
         44 + 58 + xml.size() + 48},
        {"xml and file", &upload,
         [](const std::string& b, const std::string& x, const std::string& p, const std::string& f) {
             return "--" + b + "\r\n" + kPayloadHeader + x + "\r\n--" + b + "\r\n" + FileHeader(kName, p) + f +
                    "\r\n--" + b + "--\r\n";
         },
         44 + 58 + xml.size() + 46 + (96 + kName.size() + path.size()) + file.size() + 48},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string expected = c.layout(BoundaryOf(*c.request), xml, path, file);
        EXPECT_EQ(c.size, expected.size());
        EXPECT_EQ(expected.size(), c.request->m_body.GetSize());
        EXPECT_EQ(expected, ReadAll(c.request->m_body, {1, 37, 4096}));
    }
}

TEST(MultipartRequest, AnnouncedSizeIsWhatTheBodyYields)
{
    TempDirectory dir("orv-multipart");
    const std::string big = PatternBytes(5 * 1024 * 1024 + 321);
    const std::string bigPath = WriteFile(dir, "big.qrx", big);
    const std::string emptyPath = WriteFile(dir, "empty.qrx", "");
    const std::string smallPath = WriteFile(dir, "small.qrx", "qrx");

    struct Payload {
        const char* xml;   // a buffer payload when set
        std::string path;  // otherwise a file payload
    };
    struct Layout {
        const char* name;
        std::vector<Payload> payloads;
        bool rewindable;
    };
    const std::vector<Layout> layouts = {
        {"nothing", {}, true},
        {"xml", {{"<a/>", ""}}, true},
        // An empty in-memory part refuses every seek, rewinding included.
        {"empty xml", {{"", ""}}, false},
        {"xml and empty file", {{"<a/>", ""}, {nullptr, emptyPath}}, true},
        {"xml and small file", {{"<a/>", ""}, {nullptr, smallPath}}, true},
        {"xml and big file", {{"<a/>", ""}, {nullptr, bigPath}}, true},
        {"file only", {{nullptr, bigPath}}, true},
        {"two xml and two files", {{"<a/>", ""}, {"<b/>", ""}, {nullptr, smallPath}, {nullptr, emptyPath}}, true},
    };
    const std::vector<size_t> chunks = {65536, 1, 16384 + 7, 3, 100000, 511};
    for (const auto& layout : layouts) {
        SCOPED_TRACE(layout.name);
        MultipartRequest request(RestRequest::Post, "u", "t");
        for (const auto& payload : layout.payloads) {
            if (payload.xml != nullptr) {
                request.AddBufferPayload(Text(payload.xml));
            } else {
                request.AddFilePayload(kName, payload.path);
            }
        }
        request.Finish();
        const size_t size = request.m_body.GetSize();
        const std::string first = ReadAll(request.m_body, chunks);
        EXPECT_EQ(size, first.size());
        if (!layout.rewindable) {
            EXPECT_EQ(1, request.m_body.Seek(0));
            continue;
        }

        // Rewound, as libcurl does to resend, the same bytes come out again.
        ASSERT_EQ(0, request.m_body.Seek(0));
        EXPECT_EQ(first, ReadAll(request.m_body, {4096, 7}));

        // Back into the middle after reading past it.
        const size_t middle = size / 2 + 1;
        ASSERT_EQ(0, request.m_body.Seek(middle));
        EXPECT_EQ(first.substr(middle), ReadAll(request.m_body, {8191, 13}));
    }
}

// The delimiters and the payload header are shared by every part made from them; a missing
// file fails after its boundary and header went in.
TEST(MultipartRequest, DelimitersAndHeadersAreSharedAndAMissingFileFailsLast)
{
    TempDirectory dir("orv-multipart");
    const std::string path = dir.File("missing.qrx");
    MultipartRequest request(RestRequest::Post, "u", "t");
    auto one = Text("<a/>");
    request.AddBufferPayload(one);
    request.AddBufferPayload(Text("<b/>"));
    try {
        request.AddFilePayload(kName, path);
        ADD_FAILURE() << "added a missing file";
    } catch (RestIO::RestIOException& e) {
        EXPECT_STREQ(("Failed to open file: " + path).c_str(), e.what());
    }
    request.Finish();
    ASSERT_EQ(9u, request.m_body.m_parts.size());
    EXPECT_EQ(request.m_firstBoundary, BufferPart(request, 0)->m_data);
    EXPECT_EQ(request.m_payloadHeader, BufferPart(request, 1)->m_data);
    EXPECT_EQ(one, BufferPart(request, 2)->m_data);
    EXPECT_EQ(request.m_nextBoundary, BufferPart(request, 3)->m_data);
    EXPECT_EQ(request.m_payloadHeader, BufferPart(request, 4)->m_data);
    EXPECT_EQ(request.m_nextBoundary, BufferPart(request, 6)->m_data);
    EXPECT_EQ(FileHeader(kName, path), *BufferPart(request, 7)->m_data);
    EXPECT_EQ(request.m_endBoundary, BufferPart(request, 8)->m_data);
}

TEST(MultipartRequest, EqualInputsCompareEqualAcrossBoundaries)
{
    TempDirectory dir("orv-multipart");
    const std::string path = WriteFile(dir, "a.qrx", "abc");
    const std::string other = WriteFile(dir, "b.qrx", "abc");
    struct Inputs {
        std::string xml;
        std::string name;
        std::string path;
        bool finished;
    };
    auto build = [](const Inputs& in, const std::string& boundary) {
        auto request = std::make_shared<MultipartRequest>(RestRequest::Post, "u", "t");
        request->AddBufferPayload(Text(in.xml));
        request->AddFilePayload(in.name, in.path);
        if (in.finished) {
            request->Finish();
        }
        Rebound(*request, boundary);
        return request;
    };
    const std::string b1 = kHyphens + "00000000abcd";
    const std::string b2 = kHyphens + "fedcba987654";
    const Inputs base{"<x/>", kName, path, true};
    const auto reference = build(base, b1);

    EXPECT_THAT(*build(base, b2), ::testing::Truly([&](const MultipartRequest& r) { return reference->gmock_equal(r); }));
    EXPECT_TRUE(build(base, b2)->gmock_equal(*reference));
    EXPECT_TRUE(reference->gmock_equal(*build(base, b1)));

    const Inputs differing[] = {
        {"<y/>", kName, path, true},
        {"<x/>", "other_name", path, true},
        {"<x/>", kName, other, true},
        {"<x/>", kName, path, false},
    };
    for (const auto& in : differing) {
        SCOPED_TRACE(in.xml + " " + in.name + " " + in.path + (in.finished ? "" : " unfinished"));
        EXPECT_FALSE(reference->gmock_equal(*build(in, b2)));
        EXPECT_FALSE(build(in, b2)->gmock_equal(*reference));
    }

    // The content type must agree too, boundary aside.
    const auto plain = build(base, b2);
    plain->m_contentType = "multipart/form-data; boundary=" + b2;
    EXPECT_FALSE(reference->gmock_equal(*plain));
}
