#include "logging/SimpleLogger.h"

#include "logging/LogFileTestSupport.h"
#include "sys/Errors.h"
#include "sys/Thread.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <sstream>
#include <thread>

using namespace OrvaneInternal;
using namespace LogFileTest;

namespace {

datetime Make(int year, int month, int day, int hour, int minute, int second, int millisecond)
{
    datetime d;
    d.year = year;
    d.month = month;
    d.day = day;
    d.hour = hour;
    d.minute = minute;
    d.second = second;
    d.millisecond = millisecond;
    return d;
}

// Writes everything queued so far on this thread and returns.
void Drain(SimpleLogger& logger)
{
    logger.QueueStop();
    logger.Run();
}

unsigned long ThisThread() { return static_cast<unsigned long>(::gettid()); }

}  // namespace

TEST(SimpleLogger, FormatHeaderPadsEveryFieldButTheYear)
{
    struct Case {
        datetime time;
        unsigned long thread;
        const char* expected;
    };
    const Case cases[] = {
        {Make(2016, 5, 11, 22, 3, 9, 42), 140213, "2016-05-11 22:03:09.042 (140213): "},
        {Make(2024, 1, 2, 3, 4, 5, 6), 7, "2024-01-02 03:04:05.006 (0007): "},
        {Make(2030, 12, 31, 23, 59, 59, 999), 0, "2030-12-31 23:59:59.999 (0000): "},
        {Make(999, 10, 10, 0, 0, 0, 0), 12345, "999-10-10 00:00:00.000 (12345): "},
        {Make(2030, 1, 1, 0, 0, 0, 100), ULONG_MAX, "2030-01-01 00:00:00.100 (18446744073709551615): "},
        {Make(2030, 1, 1, 0, 0, 0, -1), 1, "2030-01-01 00:00:00.-01 (0001): "},  // no clock gives this
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected);
        EXPECT_EQ(c.expected, SimpleLogger::FormatHeader(c.time, c.thread));
        const std::string narrow = c.expected;
        EXPECT_EQ(std::wstring(narrow.begin(), narrow.end()), SimpleLogger::FormatHeaderW(c.time, c.thread));
    }
}

TEST(SimpleLogger, HeaderShowsTheClockAndTheThreadThatLogged)
{
    // An offset zone, so that local time and UTC differ and each mode is seen.
    std::optional<ScopedEnv> zone(std::in_place, "TZ", std::string("ORV-5:30"));
    ::tzset();
    for (bool utc : {false, true}) {
        SCOPED_TRACE(utc ? "UTC" : "local time");
        TempDir dir;
        SimpleLogger::s_utc = utc;
        RefCntPtr<SimpleLogger> logger(new SimpleLogger(dir.WideFile("h.log"), 0));
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

        const std::vector<std::string> lines = FileLines(dir.File("h.log"));
        ASSERT_EQ(1u, lines.size());
        const std::optional<Regex::Match> match = HeaderPattern().Search(lines[0]);
        ASSERT_TRUE(match) << lines[0];
        EXPECT_EQ("from a thread", match->suffix);
        EXPECT_EQ(caller, std::stoul(match->groups[8]));
        EXPECT_NE(ThisThread(), caller);
        // Fixed-width fields compare in time order as text.
        const std::string header = match->groups[0];
        EXPECT_LE(SimpleLogger::FormatHeader(before, caller), header);
        EXPECT_GE(SimpleLogger::FormatHeader(after, caller), header);
    }
    zone.reset();
    ::tzset();
}

TEST(SimpleLogger, ForkedChildShowsItsOwnThreadId)
{
    TempDir dir;
    RefCntPtr<SimpleLogger> parentLogger(new SimpleLogger(dir.WideFile("parent.log"), 0));
    parentLogger->QueueMessage(std::string("parent"));
    Drain(*parentLogger);
    const pid_t child = ::fork();
    ASSERT_LE(0, child);
    if (child == 0) {
        // The only thread of the child, so its id is the child's pid.
        int code = 1;
        try {
            RefCntPtr<SimpleLogger> logger(new SimpleLogger(dir.WideFile("child.log"), 0));
            logger->QueueMessage(std::string("child"));
            Drain(*logger);
            code = 0;
        } catch (...) {
        }
        ::_exit(code);
    }
    int status = 0;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    for (const auto& [name, thread] : {std::pair<std::string, unsigned long>{"parent.log", ThisThread()},
                                       std::pair<std::string, unsigned long>{"child.log", child}}) {
        SCOPED_TRACE(name);
        const std::vector<std::string> lines = FileLines(dir.File(name));
        ASSERT_EQ(1u, lines.size());
        const std::optional<Regex::Match> match = HeaderPattern().Search(lines[0]);
        ASSERT_TRUE(match) << lines[0];
        EXPECT_EQ(thread, std::stoul(match->groups[8]));
    }
}

TEST(SimpleLogger, EveryLineOfAMessageGetsTheMessageHeader)
{
    struct Case {
        const char* text;
        std::vector<std::string> lines;
    };
    const Case cases[] = {
        {"first\nsecond", {"first", "second"}},
        {"trailing newline\n", {"trailing newline"}},
        {"a\n\nb", {"a", "", "b"}},
        {"\n", {""}},
        {"", {}},
    };
    enum Overload { WideString, NarrowString, WideStream, NarrowStream };
    const char* const names[] = {"wide string", "narrow string", "wide stream", "narrow stream"};
    TempDir dir;
    int file = 0;
    for (const Case& c : cases) {
        for (Overload overload : {WideString, NarrowString, WideStream, NarrowStream}) {
            SCOPED_TRACE(std::string(names[overload]) + ": \"" + c.text + "\"");
            const std::string name = std::to_string(file++) + ".log";
            RefCntPtr<SimpleLogger> logger(new SimpleLogger(dir.WideFile(name), 0));
            const std::string narrow = c.text;
            const std::wstring wide(narrow.begin(), narrow.end());
            std::wistringstream wideStream(wide);
            std::istringstream narrowStream(narrow);
            switch (overload) {
            case WideString: logger->QueueMessage(wide); break;
            case NarrowString: logger->QueueMessage(narrow); break;
            case WideStream: logger->QueueMessage(wideStream); break;
            case NarrowStream: logger->QueueMessage(narrowStream); break;
            }
            Drain(*logger);

            const std::string content = ReadFile(dir.File(name));
            const std::vector<std::string> lines = Lines(content);
            ASSERT_EQ(c.lines.size(), lines.size()) << content;
            if (lines.empty())
                continue;
            EXPECT_EQ('\n', content.back());
            const std::string header = HeaderOf(lines[0]);
            EXPECT_TRUE(HeaderPattern().FullMatch(header)) << header;
            for (std::size_t i = 0; i < lines.size(); ++i)
                EXPECT_EQ(header + c.lines[i], lines[i]);
        }
    }
}

TEST(SimpleLogger, TextReachesTheFileAsUtf8)
{
    // Narrow text that is not UTF-8 is widened byte by byte as signed chars
    // (0xFF becomes the unit -1); the UTF-8 write turns such units back into
    // their bytes, so that line reaches the file exactly as it was logged.
    // Other units that no encoder accepts become U+FFFD (EF BF BD); the rest of
    // the message is kept.
    struct Case {
        const char* name;
        std::wstring wide;  // used when `narrow` is null
        const char* narrow;
        std::string expected;  // the file's lines without headers, newline-separated
    };
    const Case cases[] = {
        {"wide BMP and astral", L"caf\u00e9 \U0001F600", nullptr, "caf\xC3\xA9 \xF0\x9F\x98\x80"},
        {"narrow UTF-8", L"", "caf\xC3\xA9 \xF0\x9F\x98\x80", "caf\xC3\xA9 \xF0\x9F\x98\x80"},
        {"narrow invalid bytes", L"", "bad \xFF\xC3 end", "bad \xFF\xC3 end"},
        {"narrow Latin-1 line after a UTF-8 line", L"", "ok \xC3\xA9\nlatin \xE9t\xE9", "ok \xC3\xA9\nlatin \xE9t\xE9"},
        {"wide lone surrogate", std::wstring(L"a") + wchar_t(0xD800) + L"b\nnext", nullptr, "a\xEF\xBF\xBD" "b\nnext"},
        {"wide beyond U+10FFFF", std::wstring(L"x") + wchar_t(0x110000), nullptr, "x\xEF\xBF\xBD"},
        {"wide signed-char unit", std::wstring(L"y") + wchar_t(-1), nullptr, "y\xFF"},
    };
    TempDir dir;
    int file = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string name = std::to_string(file++) + ".log";
        RefCntPtr<SimpleLogger> logger(new SimpleLogger(dir.WideFile(name), 0));
        if (c.narrow)
            logger->QueueMessage(std::string(c.narrow));
        else
            logger->QueueMessage(c.wide);
        Drain(*logger);

        std::string payloads;
        for (const std::string& line : FileLines(dir.File(name)))
            payloads += (payloads.empty() ? "" : "\n") + PayloadOf(line);
        EXPECT_EQ(c.expected, payloads);
    }
}

TEST(SimpleLogger, ExistingFileIsAppendedUpTo1MiBAndStartedAfreshBeyond)
{
    struct Case {
        std::size_t size;
        bool kept;
    };
    const Case cases[] = {{0, true}, {1048576, true}, {1048577, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE("existing size " + std::to_string(c.size));
        TempDir dir;
        const std::string old(c.size, 'x');
        WriteFile(dir.File("s.log"), old);
        RefCntPtr<SimpleLogger> logger(new SimpleLogger(dir.WideFile("s.log"), 0));
        logger->QueueMessage(std::string("new line"));
        Drain(*logger);

        const std::string content = ReadFile(dir.File("s.log"));
        const std::string expectedOld = c.kept ? old : std::string();
        ASSERT_GE(content.size(), expectedOld.size());
        EXPECT_TRUE(content.compare(0, expectedOld.size(), expectedOld) == 0);
        const std::vector<std::string> added = Lines(content.substr(expectedOld.size()));
        ASSERT_EQ(1u, added.size());
        EXPECT_EQ("new line", PayloadOf(added[0]));
    }
}

TEST(SimpleLogger, TakenNamesFallBackToNinePlacesThenConstructionFails)
{
    TempDir dir;
    const std::vector<std::string> names = {
        "OrvaneSDKServer.log",   "OrvaneSDKServer_1.log", "OrvaneSDKServer_2.log", "OrvaneSDKServer_3.log",
        "OrvaneSDKServer_4.log", "OrvaneSDKServer_5.log", "OrvaneSDKServer_6.log", "OrvaneSDKServer_7.log",
        "OrvaneSDKServer_8.log", "OrvaneSDKServer_9.log"};
    // flock conflicts between two open files of one process as between two
    // processes, so each logger here finds the earlier names taken.
    std::vector<RefCntPtr<SimpleLogger>> loggers;
    for (std::size_t i = 0; i < names.size(); ++i) {
        loggers.emplace_back(new SimpleLogger(dir.WideFile("OrvaneSDKServer.log"), 0));
        loggers.back()->QueueMessage(std::string("logger ") + std::to_string(i));
        Drain(*loggers.back());
    }
    for (std::size_t i = 0; i < names.size(); ++i) {
        SCOPED_TRACE(names[i]);
        EXPECT_EQ(std::vector<std::string>{"logger " + std::to_string(i)}, Payloads(FileLines(dir.File(names[i]))));
        EXPECT_EQ(dir.WideFile("OrvaneSDKServer.log"), loggers[i]->GetBaseFilePath());
    }

    try {
        SimpleLogger eleventh(dir.WideFile("OrvaneSDKServer.log"), 0);
        ADD_FAILURE() << "an eleventh logger found a file";
    } catch (const QRX_InvalidArgument& e) {
        EXPECT_EQ(40463, e.GetStatus());
        EXPECT_EQ("SimpleLogger constructor failed. Couldn't open: '" + dir.File("OrvaneSDKServer.log") + "'",
                  std::string(e.what()));
    }
    EXPECT_FALSE(std::filesystem::exists(dir.File("OrvaneSDKServer_10.log")));

    // Releasing a logger releases its name.
    loggers[0].reset();
    RefCntPtr<SimpleLogger> again(new SimpleLogger(dir.WideFile("OrvaneSDKServer.log"), 0));
    again->QueueMessage(std::string("again"));
    Drain(*again);
    EXPECT_EQ((std::vector<std::string>{"logger 0", "again"}), Payloads(FileLines(dir.File("OrvaneSDKServer.log"))));
}

TEST(SimpleLogger, UnopenablePathFailsWithThePathInUtf8)
{
    TempDir dir;
    const std::wstring path = dir.WideFile("missing") + L"/\u00e9t\u00e9.log";
    try {
        SimpleLogger logger(path, 0);
        ADD_FAILURE() << "a log in a missing directory was opened";
    } catch (const QRX_LogicError& e) {
        EXPECT_NE(nullptr, dynamic_cast<const QRX_InvalidArgument*>(&e));
        EXPECT_EQ(40463, e.GetStatus());
        EXPECT_EQ("SimpleLogger constructor failed. Couldn't open: '" + dir.File("missing") + "/\xC3\xA9t\xC3\xA9.log'",
                  std::string(e.what()));
    }
}

TEST(SimpleLogger, SecondProcessWritesTheFirstNumberedSibling)
{
    TempDir dir;
    ScopedEnv logDir("ORV_SDK_LOGDIR", dir.Path());
    {
        RefCntPtr<SimpleLogger> holder(new SimpleLogger(dir.WideFile("OrvaneSDKServer.log"), 0));
        const ChildResult child = RunChild(ORV_LOG_CHILD, {"log", "from the second process"});
        ASSERT_TRUE(child.exited) << child.output;
        ASSERT_EQ(0, child.exitCode) << child.output;

        const std::vector<std::string> lines = Payloads(FileLines(dir.File("OrvaneSDKServer_1.log")));
        ASSERT_EQ(4u, lines.size());
        EXPECT_EQ(PidLine(child.pid), lines[0]);
        EXPECT_EQ("from the second process", lines[2]);
        EXPECT_EQ("", ReadFile(dir.File("OrvaneSDKServer.log")));  // still ours, untouched
    }
    // Our lock went with our logger: the next process takes the plain name.
    const ChildResult child = RunChild(ORV_LOG_CHILD, {"log", "after the holder"});
    ASSERT_TRUE(child.exited) << child.output;
    ASSERT_EQ(0, child.exitCode) << child.output;
    const std::vector<std::string> lines = Payloads(FileLines(dir.File("OrvaneSDKServer.log")));
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ(PidLine(child.pid), lines[0]);
    EXPECT_EQ("after the holder", lines[2]);
    EXPECT_EQ(4u, FileLines(dir.File("OrvaneSDKServer_1.log")).size());
}

TEST(SimpleLogger, MessagesQueuedAfterStopNeverAppear)
{
    TempDir dir;
    {
        RefCntPtr<SimpleLogger> logger(new SimpleLogger(dir.WideFile("q.log"), 0));
        RefCntPtr<Thread> writer(new Thread(RefCntPtr<Runnable>(logger)));
        writer->Start();
        logger->QueueMessage(std::string("before the stop"));
        logger->QueueStop();
        logger->QueueMessage(std::string("after the stop"));
        logger->QueueMessage(std::wstring(L"also after the stop"));
        writer->Join();
        EXPECT_EQ(std::vector<std::string>{"before the stop"}, Payloads(FileLines(dir.File("q.log"))));
    }
    // Destroying the logger discards what was left in its queue.
    EXPECT_EQ(std::vector<std::string>{"before the stop"}, Payloads(FileLines(dir.File("q.log"))));
}

TEST(SimpleLogger, WriterThreadKeepsEachMessageWholeAndInOrder)
{
    // Producers race the writer; every message has two lines that must stay
    // adjacent, and each producer's messages must keep their order.
    constexpr int kThreads = 4;
    constexpr int kMessages = 2000;
    TempDir dir;
    RefCntPtr<SimpleLogger> logger(new SimpleLogger(dir.WideFile("c.log"), 0));
    RefCntPtr<Thread> writer(new Thread(RefCntPtr<Runnable>(logger)));
    writer->Start();
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t) {
        producers.emplace_back([&logger, t] {
            for (int i = 0; i < kMessages; ++i) {
                const std::string text = std::to_string(t) + ":" + std::to_string(i);
                if (i % 2)
                    logger->QueueMessage(text + " a\n" + text + " b");
                else
                    logger->QueueMessage(std::wstring(L"") + std::wstring(text.begin(), text.end()) + L" a\n" +
                                         std::wstring(text.begin(), text.end()) + L" b");
            }
        });
    }
    for (std::thread& producer : producers)
        producer.join();
    logger->QueueStop();
    writer->Join();

    const std::vector<std::string> lines = FileLines(dir.File("c.log"));
    ASSERT_EQ(static_cast<std::size_t>(kThreads * kMessages * 2), lines.size());
    std::vector<int> next(kThreads, 0);
    for (std::size_t i = 0; i + 1 < lines.size(); i += 2) {
        const std::string header = HeaderOf(lines[i]);
        ASSERT_FALSE(header.empty()) << lines[i];
        ASSERT_EQ(header, HeaderOf(lines[i + 1])) << lines[i + 1];
        int t = -1, n = -1;
        char tail[2] = {};
        ASSERT_EQ(3, std::sscanf(PayloadOf(lines[i]).c_str(), "%d:%d %1s", &t, &n, tail)) << lines[i];
        ASSERT_TRUE(t >= 0 && t < kThreads) << lines[i];
        ASSERT_EQ(next[t], n) << lines[i];
        ASSERT_EQ(std::to_string(t) + ":" + std::to_string(n) + " a", PayloadOf(lines[i]));
        ASSERT_EQ(std::to_string(t) + ":" + std::to_string(n) + " b", PayloadOf(lines[i + 1]));
        ++next[t];
    }
    EXPECT_EQ(std::vector<int>(kThreads, kMessages), next);
}

TEST(SimpleLogger, RotationMovesToANewTimeStampedFile)
{
    TempDir dir;
    const auto start = std::chrono::steady_clock::now();
    RefCntPtr<SimpleLogger> logger(new SimpleLogger(dir.WideFile("r.log"), 1));
    EXPECT_EQ(dir.WideFile("r.log"), logger->GetBaseFilePath());
    auto files = [&] {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir.Path()))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    };
    const Regex stamped("^r_[0-9]{4}(_[0-9]{1,2}){5}(_1)?[.]log$");
    const std::vector<std::string> first = files();
    ASSERT_EQ(1u, first.size());
    EXPECT_TRUE(stamped.FullMatch(first[0])) << first[0];

    logger->QueueMessage(std::string("in the first file"));
    Drain(*logger);
    // The interval has to pass on the clock; nothing else is awaited here.
    std::this_thread::sleep_until(start + std::chrono::milliseconds(1100));
    logger->QueueMessage(std::string("in the second file"));
    Drain(*logger);

    const std::vector<std::string> now = files();
    ASSERT_EQ(2u, now.size());
    const std::string second = now[0] == first[0] ? now[1] : now[0];
    EXPECT_TRUE(stamped.FullMatch(second)) << second;
    EXPECT_EQ((std::vector<std::string>{"in the first file", "logfile_rotation: closing this log"}),
              Payloads(FileLines(dir.File(first[0]))));
    EXPECT_EQ((std::vector<std::string>{"logfile_rotation: opening new log", "in the second file"}),
              Payloads(FileLines(dir.File(second))));
}
