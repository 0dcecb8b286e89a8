#include "sys/Errors.h"
#include "sys/File.h"
#include "sys/OS.h"
#include "sys/Path.h"
#include "sys/RefCntPtr.h"
#include "sys/Thread.h"
#include "sys/Unicode.h"
#include "sys/datetime.h"
#include "tests/support/ChildProcess.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <unistd.h>

namespace {

struct Counted : RefCntObject {
    explicit Counted(std::atomic<int>& destroyed) : m_destroyed(destroyed) {}
    ~Counted() override { ++m_destroyed; }
    std::atomic<int>& m_destroyed;
};

struct Recorder : Runnable {
    void Run() override { ran = true; }
    std::atomic<bool> ran{false};
};

}  // namespace

TEST(ErrorTypes, CarryStatusMessageAndBase)
{
    try {
        throw QRX_InvalidArgument(40463, "bad argument");
    } catch (const QRX_LogicError& e) {
        EXPECT_EQ(40463, e.GetStatus());
        EXPECT_STREQ("bad argument", e.what());
    }
    try {
        throw QRX_RangeError(7, "out of range");
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ("out of range", e.what());
        EXPECT_EQ(7, dynamic_cast<const QRX_RuntimeError&>(e).GetStatus());
    }
    EXPECT_THROW(ThrowLogicError(1, "x"), QRX_LogicError);
}

TEST(RefCntPtr, CountsReferencesAndDeletesAtZero)
{
    std::atomic<int> destroyed{0};
    {
        RefCntPtr<Counted> a(new Counted(destroyed));
        EXPECT_EQ(1, a->ReferenceCount());
        {
            RefCntPtr<Counted> b = a;
            EXPECT_EQ(2, a->ReferenceCount());
            b = a;  // self-share keeps the count
            EXPECT_EQ(2, a->ReferenceCount());
        }
        EXPECT_EQ(1, a->ReferenceCount());
        RefCntPtr<Counted> moved(std::move(a));
        EXPECT_FALSE(a);
        EXPECT_EQ(1, moved->ReferenceCount());
        moved = moved;  // self-assignment must not free the object
        EXPECT_EQ(0, destroyed);
    }
    EXPECT_EQ(1, destroyed);
    RefCntPtr<Counted> empty;
    EXPECT_THROW(empty.operator->(), QRX_LogicError);
    EXPECT_THROW(*empty, QRX_LogicError);
}

TEST(Thread, RunsTheRunnableAndJoins)
{
    RefCntPtr<Recorder> recorder(new Recorder());
    RefCntPtr<Thread> thread(new Thread(RefCntPtr<Runnable>(recorder)));
    thread->Start();
    thread->Join();
    EXPECT_TRUE(recorder->ran);
    EXPECT_FALSE(thread->Joinable());
}

TEST(Path, SplitJoinAndFileFacts)
{
    EXPECT_EQ(std::make_pair(std::wstring(L"dir/OrvaneSDKServer"), std::wstring(L".log")),
              Path::splitext(L"dir/OrvaneSDKServer.log"));
    EXPECT_EQ(std::make_pair(std::wstring(L"a.b/c"), std::wstring()), Path::splitext(L"a.b/c"));
    EXPECT_EQ(std::make_pair(std::wstring(L"/x/.profile"), std::wstring()), Path::splitext(L"/x/.profile"));
    EXPECT_EQ(L"a/b", Path::join(L"a", L"b"));
    EXPECT_EQ(L"a/b", Path::join(L"a/", L"b"));
    EXPECT_EQ(L"b", Path::join(L"", L"b"));

    OrvaneTest::TempDirectory dir("orvsys");
    const std::string file = dir.File("f\xC3\xA9.qrx");
    OrvaneTest::WriteFileBytes(file, "12345");
    const std::wstring wideDir = Unicode::ToWideChar(dir.Path());
    const std::wstring wideFile = wideDir + L"/f\u00E9.qrx";
    EXPECT_TRUE(Path::isdir(wideDir));
    EXPECT_FALSE(Path::isfile(wideDir));
    EXPECT_TRUE(Path::isfile(wideFile));
    EXPECT_TRUE(Path::exists(wideFile));
    EXPECT_FALSE(Path::exists(wideDir + L"/missing"));
    EXPECT_FALSE(Path::exists(std::wstring(1, static_cast<wchar_t>(0xD800))));  // not text: names nothing
    EXPECT_EQ(5, File::Size(file));
    EXPECT_EQ(-1, File::Size(file + ".missing"));
}

TEST(OS, PidAndClock)
{
    EXPECT_EQ(static_cast<long>(getpid()), OS::getpid());
    const datetime local = datetime::now();
    const datetime utc = datetime::utc();
    EXPECT_GE(utc.year, 2024);
    EXPECT_GE(local.month, 1);
    EXPECT_LE(local.month, 12);
    EXPECT_LT(utc.millisecond, 1000);
    EXPECT_LE(std::llabs(local.epochMilliseconds - utc.epochMilliseconds), 1000);
}
