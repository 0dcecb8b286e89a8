#include "logging/Logger.h"
#include "logging/msec.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace OrvaneInternal;

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

}  // namespace

TEST(Logger, GetBeforeInitYieldsOneLoggerThatDiscardsEverything)
{
    RefCntPtr<Logger> first = Logger::Get();
    ASSERT_TRUE(first);
    first->QueueMessage(std::wstring(L"dropped"));
    first->QueueMessage(std::string("dropped"));
    std::wistringstream wide(L"x");
    std::istringstream narrow("x");
    first->QueueMessage(wide);
    first->QueueMessage(narrow);
    first->Flush();
    first->QueueStop();
    first->Run();
    EXPECT_TRUE(first->GetBaseFilePath().empty());
    EXPECT_EQ(first.get(), Logger::Get().get());  // the stand-in stays installed
    EXPECT_EQ(&first->GetBaseFilePath(), &Logger::Get()->GetBaseFilePath());
}

TEST(Logger, InitInstallsAndReinstallingKeepsTheCount)
{
    RefCntPtr<CountingLogger> logger(new CountingLogger());
    Logger::Init(RefCntPtr<Logger>(logger));
    const long installed = logger->ReferenceCount();
    EXPECT_EQ(2, installed);  // ours and the slot's
    Logger::Init(RefCntPtr<Logger>(logger));
    EXPECT_EQ(installed, logger->ReferenceCount());
    Logger::Get()->QueueMessage(std::wstring(L"hello"));
    EXPECT_EQ(1, logger->messages);
    EXPECT_EQ(L"counting.log", Logger::Get()->GetBaseFilePath());

    Logger::Init(RefCntPtr<Logger>());  // empty the slot
    EXPECT_EQ(1, logger->ReferenceCount());
    EXPECT_TRUE(Logger::Get()->GetBaseFilePath().empty());
}

TEST(Logger, MsecPrintsThreeDecimalsAndRestoresTheStream)
{
    std::ostringstream out;
    out << msec(12.5) << ' ' << msec(0.1234);
    EXPECT_EQ("12.500 0.123", out.str());

    std::ostringstream sci;
    sci.setf(std::ios_base::scientific, std::ios_base::floatfield);
    sci.precision(6);
    const auto flags = sci.flags();
    sci << msec(0.1234) << ' ' << 1234.5;
    EXPECT_EQ("0.123 1.234500e+03", sci.str());
    EXPECT_EQ(6, sci.precision());
    EXPECT_EQ(flags, sci.flags());
}
