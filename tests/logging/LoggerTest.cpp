// The logger facade, msec, and the file logger with real files.
#include "logging/Logger.h"
#include "logging/SimpleLogger.h"
#include "logging/msec.h"

#include "logging/LogFileTestSupport.h"
#include "sys/Errors.h"
#include "sys/Thread.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <sstream>

using namespace OrvaneInternal;
using namespace LogFileTest;
using Strings = std::vector<std::string>;

namespace {

class CountingLogger : public Logger {
public:
    void Run() override {}
    void QueueMessage(std::wistream&) override { ++messages; }
    void QueueMessage(std::istream&) override { ++messages; }
    void QueueMessage(const std::wstring&) override { ++messages; }
    void QueueMessage(const std::string&) override { ++messages; }
    void Flush() override {}
    void QueueStop() override {}
    const std::wstring& GetBaseFilePath() const override { return path; }
    int messages = 0;
    std::wstring path = L"counting.log";
};

datetime Make(int year, int month, int day, int hour, int minute, int second, int millisecond)
{
    datetime d;
    d.year = year, d.month = month, d.day = day, d.hour = hour, d.minute = minute, d.second = second;
    d.millisecond = millisecond;
    return d;
}

// A logger on `path`; Drain writes everything queued so far on this thread.
RefCntPtr<SimpleLogger> Open(const std::string& path, int rotation = 0)
{
    return RefCntPtr<SimpleLogger>(new SimpleLogger(Wide(path), rotation));
}
void Drain(SimpleLogger& logger)
{
    logger.QueueStop();
    logger.Run();
}
unsigned long ThisThread() { return static_cast<unsigned long>(::gettid()); }

}  // namespace

TEST(Logger, GetBeforeInitYieldsOneLoggerThatDiscardsEverything)
{
    RefCntPtr<Logger> first = Logger::Get();
    ASSERT_TRUE(first);
    std::wistringstream wide(L"x");
    std::istringstream narrow("x");
    first->QueueMessage(std::wstring(L"dropped"));
    first->QueueMessage(std::string("dropped"));
    first->QueueMessage(wide);
    first->QueueMessage(narrow);
    first->Flush();
    first->QueueStop();
    first->Run();
    EXPECT_TRUE(first->GetBaseFilePath().empty());
    EXPECT_EQ(first.get(), Logger::Get().get());
}

TEST(Logger, InitInstallsAndReinstallingKeepsTheCount)
{
    RefCntPtr<CountingLogger> logger(new CountingLogger());
    Logger::Init(RefCntPtr<Logger>(logger));
    EXPECT_EQ(2, logger->ReferenceCount());  // ours and the slot's
    Logger::Init(RefCntPtr<Logger>(logger));
    EXPECT_EQ(2, logger->ReferenceCount());
    Logger::Get()->QueueMessage(std::wstring(L"hello"));
    EXPECT_EQ(1, logger->messages);
    Logger::Init(RefCntPtr<Logger>());
    EXPECT_EQ(1, logger->ReferenceCount());
    EXPECT_TRUE(Logger::Get()->GetBaseFilePath().empty());
}

TEST(Logger, MsecPrintsThreeDecimalsAndRestoresTheStream)
{
    std::ostringstream out;
    out.setf(std::ios_base::scientific, std::ios_base::floatfield);
    out.precision(6);
    const auto flags = out.flags();
    out << msec(12.5) << ' ' << msec(0.1234) << ' ' << 1234.5;
    EXPECT_EQ("12.500 0.123 1.234500e+03", out.str());
    EXPECT_EQ(6, out.precision());
    EXPECT_EQ(flags, out.flags());
}

TEST(SimpleLogger, FormatHeaderPadsEveryFieldButTheYear)
{
    const struct {
        datetime time;
        unsigned long thread;
        const char* expected;
    } cases[] = {
        {Make(2016, 5, 11, 22, 3, 9, 42), 140213, "2016-05-11 22:03:09.042 (140213): "},
        {Make(2024, 1, 2, 3, 4, 5, 6), 7, "2024-01-02 03:04:05.006 (0007): "},
        {Make(999, 10, 10, 0, 0, 0, 0), 12345, "999-10-10 00:00:00.000 (12345): "},
        {Make(2030, 1, 1, 0, 0, 0, 100), ULONG_MAX, "2030-01-01 00:00:00.100 (18446744073709551615): "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        EXPECT_EQ(c.expected, SimpleLogger::FormatHeader(c.time, c.thread));
        EXPECT_EQ(Wide(c.expected), SimpleLogger::FormatHeaderW(c.time, c.thread));
    }
}

TEST(SimpleLogger, HeaderShowsTheClockAndTheThreadThatLogged)
{
    // An offset zone, so that local time and UTC differ and each mode is seen.
    SetEnv("TZ", std::string("ORV-5:30"));
    ::tzset();
    for (bool utc : {false, true}) {
        SCOPED_TRACE(utc ? "UTC" : "local time");
        TempDirectory dir("orv-log");
        SimpleLogger::s_utc = utc;
        RefCntPtr<SimpleLogger> logger = Open(dir.File("h.log"));
        datetime before, after;
        unsigned long caller = 0;
        std::thread thread([&] {
            caller = ThisThread();
            before = utc ? datetime::utc() : datetime::now();
            logger->QueueMessage(std::string("from a thread"));
            after = utc ? datetime::utc() : datetime::now();
        });
        thread.join();
        Drain(*logger);  // written by this thread, not the one that logged
        SimpleLogger::s_utc = false;

        const Strings lines = FileLines(dir.File("h.log"));
        ASSERT_EQ(1u, lines.size());
        const std::string header = HeaderOf(lines[0]);
        EXPECT_TRUE(IsHeader(header)) << lines[0];
        EXPECT_EQ("from a thread", PayloadOf(lines[0]));
        EXPECT_EQ(caller, ThreadOf(lines[0]));
        EXPECT_NE(ThisThread(), caller);
        // Fixed-width fields compare in time order as text.
        EXPECT_LE(SimpleLogger::FormatHeader(before, caller), header);
        EXPECT_GE(SimpleLogger::FormatHeader(after, caller), header);
    }
}

TEST(SimpleLogger, ForkedChildShowsItsOwnThreadId)
{
    TempDirectory dir("orv-log");
    RefCntPtr<SimpleLogger> parent = Open(dir.File("parent.log"));
    parent->QueueMessage(std::string("parent"));
    Drain(*parent);
    const pid_t child = ::fork();
    ASSERT_LE(0, child);
    if (child == 0) {
        RefCntPtr<SimpleLogger> logger = Open(dir.File("child.log"));  // the child's only thread: id = pid
        logger->QueueMessage(std::string("child"));
        Drain(*logger);
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(ThisThread(), ThreadOf(FileLines(dir.File("parent.log")).at(0)));
    EXPECT_EQ(static_cast<unsigned long>(child), ThreadOf(FileLines(dir.File("child.log")).at(0)));
}

TEST(SimpleLogger, EveryLineOfAMessageGetsTheMessageHeaderThroughEveryOverload)
{
    const struct {
        const char* text;
        Strings lines;
    } cases[] = {
        {"first\nsecond", {"first", "second"}}, {"trailing newline\n", {"trailing newline"}},
        {"a\n\nb", {"a", "", "b"}},             {"\n", {""}},
        {"", {}},
    };
    TempDirectory dir("orv-log");
    int file = 0;
    for (const auto& c : cases) {
        for (int overload = 0; overload < 4; ++overload) {
            SCOPED_TRACE(std::to_string(overload) + ": \"" + c.text + "\"");
            const std::string path = dir.File(std::to_string(file++) + ".log");
            RefCntPtr<SimpleLogger> logger = Open(path);
            std::wistringstream wideStream(Wide(c.text));
            std::istringstream narrowStream(c.text);
            switch (overload) {
            case 0: logger->QueueMessage(Wide(c.text)); break;
            case 1: logger->QueueMessage(std::string(c.text)); break;
            case 2: logger->QueueMessage(wideStream); break;
            default: logger->QueueMessage(narrowStream); break;
            }
            Drain(*logger);
            const std::string content = ReadFileBytes(path);
            const Strings lines = Lines(content);
            ASSERT_EQ(c.lines.size(), lines.size()) << content;
            if (lines.empty())
                continue;
            EXPECT_EQ('\n', content.back());
            const std::string header = HeaderOf(lines[0]);
            EXPECT_TRUE(IsHeader(header)) << header;
            for (std::size_t i = 0; i < lines.size(); ++i)
                EXPECT_EQ(header + c.lines[i], lines[i]);
        }
    }
}

TEST(SimpleLogger, TextReachesTheFileAsUtf8)
{
    // Narrow text that is not UTF-8 is widened as signed chars (0xFF becomes the
    // unit -1), which the UTF-8 write turns back into its byte; other units no
    // encoder accepts become U+FFFD and the rest of the message is kept.
    const struct {
        const char* name;
        std::wstring wide;  // used when `narrow` is null
        const char* narrow;
        std::string expected;  // the payloads, newline-separated
    } cases[] = {
        {"wide BMP and astral", L"caf\u00e9 \U0001F600", nullptr, "caf\xC3\xA9 \xF0\x9F\x98\x80"},
        {"narrow UTF-8", L"", "caf\xC3\xA9 \xF0\x9F\x98\x80", "caf\xC3\xA9 \xF0\x9F\x98\x80"},
        {"narrow invalid bytes", L"", "bad \xFF\xC3 end", "bad \xFF\xC3 end"},
        {"narrow Latin-1 after UTF-8", L"", "ok \xC3\xA9\nlatin \xE9t\xE9", "ok \xC3\xA9\nlatin \xE9t\xE9"},
        {"wide lone surrogate", std::wstring(L"a") + wchar_t(0xD800) + L"b\nnext", nullptr, "a\xEF\xBF\xBD" "b\nnext"},
        {"wide beyond U+10FFFF", std::wstring(L"x") + wchar_t(0x110000), nullptr, "x\xEF\xBF\xBD"},
        {"wide signed-char unit", std::wstring(L"y") + wchar_t(-1), nullptr, "y\xFF"},
    };
    TempDirectory dir("orv-log");
    int file = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = dir.File(std::to_string(file++) + ".log");
        RefCntPtr<SimpleLogger> logger = Open(path);
        if (c.narrow)
            logger->QueueMessage(std::string(c.narrow));
        else
            logger->QueueMessage(c.wide);
        Drain(*logger);
        std::string payloads;
        for (const std::string& line : FileLines(path))
            payloads += (payloads.empty() ? "" : "\n") + PayloadOf(line);
        EXPECT_EQ(c.expected, payloads);
    }
}

TEST(SimpleLogger, ExistingFileIsAppendedUpTo1MiBAndStartedAfreshBeyond)
{
    for (const std::size_t size : {std::size_t(0), std::size_t(1048576), std::size_t(1048577)}) {
        SCOPED_TRACE(size);
        TempDirectory dir("orv-log");
        const std::string old(size, 'x');
        OrvaneTest::WriteFileBytes(dir.File("s.log"), old);
        RefCntPtr<SimpleLogger> logger = Open(dir.File("s.log"));
        logger->QueueMessage(std::string("new line"));
        Drain(*logger);
        const std::string content = ReadFileBytes(dir.File("s.log"));
        const std::size_t kept = size <= 1048576 ? size : 0;
        ASSERT_GE(content.size(), kept);
        EXPECT_TRUE(content.compare(0, kept, old, 0, kept) == 0);
        EXPECT_EQ(Strings{"new line"}, Payloads(Lines(content.substr(kept))));
    }
}

TEST(SimpleLogger, TakenNamesFallBackToNinePlacesThenConstructionFailsWithThePath)
{
    TempDirectory dir("orv-log");
    const std::string base = dir.File("OrvaneSDKServer.log");
    // flock conflicts between two open files of one process as between two
    // processes, so each logger here finds the earlier names taken.
    std::vector<RefCntPtr<SimpleLogger>> loggers;
    for (int i = 0; i < 10; ++i) {
        loggers.push_back(Open(base));
        loggers.back()->QueueMessage("logger " + std::to_string(i));
        Drain(*loggers.back());
        EXPECT_EQ(Wide(base), loggers.back()->GetBaseFilePath());
        const std::string name = i == 0 ? base : dir.File("OrvaneSDKServer_" + std::to_string(i) + ".log");
        EXPECT_EQ(Strings{"logger " + std::to_string(i)}, FilePayloads(name)) << name;
    }
    const auto expectRefused = [](const std::wstring& path, const std::string& shown) {
        try {
            SimpleLogger logger(path, 0);
            ADD_FAILURE() << "opened " << shown;
        } catch (const QRX_InvalidArgument& e) {
            EXPECT_EQ(40463, e.GetStatus());
            EXPECT_EQ("SimpleLogger constructor failed. Couldn't open: '" + shown + "'", std::string(e.what()));
        }
    };
    expectRefused(Wide(base), base);
    EXPECT_FALSE(std::filesystem::exists(dir.File("OrvaneSDKServer_10.log")));
    expectRefused(Wide(dir.File("missing")) + L"/\u00e9t\u00e9.log", dir.File("missing") + "/\xC3\xA9t\xC3\xA9.log");

    // Releasing a logger releases its name.
    loggers[0].reset();
    RefCntPtr<SimpleLogger> again = Open(base);
    again->QueueMessage(std::string("again"));
    Drain(*again);
    EXPECT_EQ((Strings{"logger 0", "again"}), FilePayloads(base));
}

TEST(SimpleLogger, MessagesQueuedAfterStopNeverAppear)
{
    TempDirectory dir("orv-log");
    {
        RefCntPtr<SimpleLogger> logger = Open(dir.File("q.log"));
        RefCntPtr<Thread> writer(new Thread(RefCntPtr<Runnable>(logger)));
        writer->Start();
        logger->QueueMessage(std::string("before the stop"));
        logger->QueueStop();
        logger->QueueMessage(std::string("after the stop"));
        logger->QueueMessage(std::wstring(L"also after the stop"));
        writer->Join();
        EXPECT_EQ(Strings{"before the stop"}, FilePayloads(dir.File("q.log")));
    }
    // Destroying the logger discards what was left in its queue.
    EXPECT_EQ(Strings{"before the stop"}, FilePayloads(dir.File("q.log")));
}

TEST(SimpleLogger, RotationMovesToANewTimeStampedFile)
{
    TempDirectory dir("orv-log");
    const auto start = std::chrono::steady_clock::now();
    RefCntPtr<SimpleLogger> logger = Open(dir.File("r.log"), 1);
    EXPECT_EQ(Wide(dir.File("r.log")), logger->GetBaseFilePath());
    const auto files = [&] {
        Strings names;
        for (const auto& entry : std::filesystem::directory_iterator(dir.Path())) {
            // "r_" then the time stamp's six numbers (and perhaps "_1"), joined by "_".
            const std::string name = entry.path().filename().string();
            const std::string stamp = name.substr(2, name.size() - 6);
            EXPECT_TRUE(name.rfind("r_", 0) == 0 && name.size() > 16 && name.substr(name.size() - 4) == ".log" &&
                        stamp.find_first_not_of("0123456789_") == std::string::npos &&
                        std::count(stamp.begin(), stamp.end(), '_') >= 5)
                << name;
            names.push_back(name);
        }
        std::sort(names.begin(), names.end());
        return names;
    };
    const Strings first = files();
    ASSERT_EQ(1u, first.size());
    logger->QueueMessage(std::string("in the first file"));
    Drain(*logger);
    // The interval has to pass on the clock; nothing else is awaited here.
    std::this_thread::sleep_until(start + std::chrono::milliseconds(1100));
    logger->QueueMessage(std::string("in the second file"));
    Drain(*logger);

    const Strings now = files();
    ASSERT_EQ(2u, now.size());
    const std::string second = now[0] == first[0] ? now[1] : now[0];
    EXPECT_EQ((Strings{"in the first file", "logfile_rotation: closing this log"}), FilePayloads(dir.File(first[0])));
    EXPECT_EQ((Strings{"logfile_rotation: opening new log", "in the second file"}), FilePayloads(dir.File(second)));
}
