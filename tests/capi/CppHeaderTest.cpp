// orvane.hpp as a C++ program uses it: publishing to the reference server,
// failures as orvane::Error, cancelling from another thread, moved-from sessions, the log.
#include <orvane/orvane.hpp>

#include "tests/capi/CapiTestSupport.h"

namespace CapiTest {
namespace {

const char kUser[] = "demo";
const char kPassword[] = "demo-password";

class CppHeaderTest : public LibraryTest {
  protected:
    // Runs `call`, which must throw orvane::Error, and gives the error.
    static orvane::Error Thrown(const std::function<void()>& call)
    {
        try {
            call();
        } catch (const orvane::Error& error) {
            return error;
        }
        ADD_FAILURE() << "no orvane::Error thrown";
        return orvane::Error(orvane::ErrorCode::Success, "");
    }
};

// Text as UTF-8, as UTF-16 and as a path reaches the server intact, and the progress callback ends at
// the body's whole length; a session signs out when it ends and when it signs in again.
TEST_F(CppHeaderTest, PublishesWhateverFormTheTextTakes)
{
    const orvane::Library library;
    const ReferenceServer server;
    const std::string bytes = Bytes(300 * 1024, 5);
    const std::string path = Extract("sales.qrx", bytes);
    const struct {
        const char* name;
        orvane::Text path;
        orvane::Text project;
        orvane::Text dataSource;
        std::string stored; // the data source's name on the server, UTF-8
    } rows[] = {
        {"UTF-8", path, "Samples", "Ums\xc3\xa4tze \xe2\x82\xac", "Ums\xc3\xa4tze \xe2\x82\xac"},
        {"UTF-16", path, u"Samples", u"Ums\u00e4tze \U0001F4C8", "Ums\xc3\xa4tze \xf0\x9f\x93\x88"},
        {"path", std::filesystem::path(path), "Samples", "from a path", "from a path"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        orvane::Session session(server.Url(), kUser, kPassword);
        orvane::UploadProgress last;
        session.setProgress([&](std::uint64_t sent, std::uint64_t total) { last = {sent, total}; });
        session.publish(row.path, row.project, row.dataSource);
        EXPECT_EQ(bytes, server.Stored("Samples", row.stored).value_or("missing"));
        EXPECT_EQ(last.total, last.sent);
        EXPECT_EQ(last.total, session.uploadProgress().sent);
    }
    orvane::Session session(server.Url(), kUser, kPassword);
    session.connect(server.Url(), kUser, kPassword);
    EXPECT_EQ(1, server.Stat("sessions"));
    EXPECT_TRUE(session.hasProject("Samples"));
    EXPECT_FALSE(session.hasProject("Nowhere"));
}

// Each failure arrives as orvane::Error with what the library knows of it,
// the server's words in UTF-8.
TEST_F(CppHeaderTest, FailuresThrowErrorsThatSayWhy)
{
    const orvane::Library library;
    const ReferenceServer server;
    const std::string path = Extract("f.qrx", "extract");
    const std::string exists = "A data source named \"\xc3\x9c\" already exists in project \"Samples\".";
    const struct {
        const char* name;
        std::function<void()> call;
        orvane::ErrorCode code;
        orvane::Failure failure;
        long httpStatus;
        std::string message;
        std::string reason;
    } rows[] = {
        {"name taken",
         [&] {
             orvane::Session session(server.Url(), kUser, kPassword);
             session.publish(path, "Samples", "\xc3\x9c");
             session.publish(path, "Samples", "\xc3\x9c");
         },
         orvane::ErrorCode::ServerResponseError, orvane::Failure::AlreadyExists, 409, "Server Response Code: 409",
         "Resource Conflict: " + exists},
        {"wrong password", [&] { orvane::Session(server.Url(), kUser, "wrong"); },
         orvane::ErrorCode::ServerResponseError, orvane::Failure::SignInRefused, 401, "Server Response Code: 401",
         "Signin Error: Wrong user name, password or site."},
        {"no such project",
         [&] { orvane::Session(server.Url(), kUser, kPassword).publish(path, u"\u00c9t\u00e9", "n"); },
         orvane::ErrorCode::InvalidPublishInput, orvane::Failure::ProjectNotFound, 200,
         "Project \"\xc3\x89t\xc3\xa9\" doesn't exist on server", ""},
        {"invalid UTF-8", [&] { orvane::Session(server.Url(), "\xc3", kPassword); }, orvane::ErrorCode::InvalidArgument,
         orvane::Failure::None, 0, "Invalid UTF-8 in an argument", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const orvane::Error error = Thrown(row.call);
        EXPECT_EQ(static_cast<int>(row.code), static_cast<int>(error.code()));
        EXPECT_EQ(orvane::name(row.failure), orvane::name(error.failure()));
        EXPECT_EQ(row.httpStatus, error.httpStatus());
        EXPECT_EQ(row.message, error.message());
        EXPECT_EQ(row.reason, error.reason());
        const std::string what = row.reason.empty() ? row.message : row.message + " (" + row.reason + ")";
        EXPECT_EQ(what, error.what());
    }
}

// A publish stops with Cancelled when another thread cancels it or the
// progress callback says so; what the callback throws comes out of publish().
TEST_F(CppHeaderTest, CancelStopsAPublishFromAnotherThread)
{
    const orvane::Library library;
    const std::string path = Extract("big.qrx", Bytes(2 * 1024 * 1024, 7));
    const struct {
        const char* name;
        bool cancelOnHold;
        orvane::Session::Progress progress;
        std::string thrown; // the text of the callback's std::runtime_error; "": Error with Cancelled
    } rows[] = {
        {"cancel() on another thread", true, nullptr, ""},
        {"progress says stop", false, [](std::uint64_t sent, std::uint64_t) { return sent == 0; }, ""},
        {"progress throws", false,
         [](std::uint64_t sent, std::uint64_t) -> bool {
             if (sent > 0)
                 throw std::runtime_error("seen enough");
             return true;
         },
         "seen enough"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        // The hold ends after 10 s: a cancel that failed shows as a publish that succeeded.
        TestHttpServer server(PublishScript({Response(201).Body(kPublishReply).HoldBodyAt(256 * 1024, 10)}));
        orvane::Session session(server.BaseUrl(), "u", "p");
        session.setProgress(row.progress);
        std::thread canceller([&] {
            if (row.cancelOnHold && server.WaitForHold())
                session.cancel();
        });
        std::string outcome = "published";
        try {
            session.publish(path, "Sales", "d");
        } catch (const orvane::Error& error) {
            outcome = std::string(orvane::name(error.failure())) + ": " + error.what();
        } catch (const std::runtime_error& error) {
            outcome = error.what();
        }
        canceller.join();
        server.ReleaseHolds();
        EXPECT_EQ(row.thrown.empty() ? "Cancelled: Cancelled" : row.thrown, outcome);
    }
}

// A moved-from session holds no handle and throws BadHandle; the target
// publishes with the moved handle, and a move assignment closes the handle it replaces.
TEST_F(CppHeaderTest, MovedFromSessionIsEmpty)
{
    const orvane::Library library;
    const ReferenceServer server;
    const std::string bytes = Bytes(1000, 9);
    const std::string path = Extract("m.qrx", bytes);
    orvane::Session first(server.Url(), kUser, kPassword);
    orvane::Session second(std::move(first));
    orvane::Session third(server.Url(), kUser, kPassword);
    void* const replaced = third.handle();
    third = std::move(second);
    EXPECT_FALSE(first);
    EXPECT_EQ(ORV_RESULT_BadHandle, OrvServerConnectionClose(replaced));
    third.publish(path, "Samples", "moved");
    EXPECT_EQ(bytes, server.Stored("Samples", "moved").value_or("missing"));
    const orvane::Error error = Thrown([&] { first.publish(path, "Samples", "never"); });
    EXPECT_EQ(static_cast<int>(orvane::ErrorCode::BadHandle), static_cast<int>(error.code()));
}

// The log goes where the Library was told and its lines reach the listener; a directory without a
// usable log fails start-up, and the next Library logs where the library would by default.
TEST_F(CppHeaderTest, LibraryPlacesTheLogAndPassesItsLines)
{
    const std::string directory = m_dir.File("logs");
    std::filesystem::create_directories(directory);
    std::vector<std::string> heard; // by the writer thread; read once the Library is gone
    {
        orvane::Library library(directory);
        library.setLogListener([&](std::string_view line) { heard.emplace_back(line); });
        EXPECT_EQ(directory + "/OrvaneSDKServer.log", library.logPath());
    }
    ASSERT_FALSE(heard.empty());
    EXPECT_NE(std::string::npos, ReadFileBytes(directory + "/OrvaneSDKServer.log").find(heard.back() + "\n"));
    const orvane::Error error = Thrown([&] { orvane::Library(m_dir.File("missing")); });
    EXPECT_EQ(static_cast<int>(orvane::ErrorCode::LogUnavailable), static_cast<int>(error.code()));
    const orvane::Library usual;
    EXPECT_EQ(m_dir.File("OrvaneSDKServer.log"), usual.logPath());
}

} // namespace
} // namespace CapiTest
