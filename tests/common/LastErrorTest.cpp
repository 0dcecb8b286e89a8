#include <orvane/OrvaneCommon.h>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

TEST(LastError, ResultCodesAreDistinctAndClearOfServerCodes)
{
    const std::set<ORV_RESULT> codes = {ORV_RESULT_Success, ORV_RESULT_InvalidArgument, ORV_RESULT_BadHandle,
                                        ORV_RESULT_UnknownError};
    EXPECT_EQ(4u, codes.size());
    EXPECT_EQ(0, ORV_RESULT_Success);
    for (ORV_RESULT serverCode : {300, 301, 302, 303, 400, 401, 402, 403, 404})
        EXPECT_EQ(0u, codes.count(serverCode));
}

TEST(LastError, KeptPerThread)
{
    OrvSetLastErrorMessage(L"main thread");
    std::vector<std::thread> threads;
    std::vector<std::wstring> seen(4);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &seen] {
            seen[t] = OrvGetLastErrorMessage();  // a fresh thread starts empty
            const std::wstring mine = L"thread " + std::to_wstring(t);
            for (int i = 0; i < 1000; ++i)
                OrvSetLastErrorMessage(mine.c_str());
            seen[t] += L"|";
            seen[t] += OrvGetLastErrorMessage();
        });
    }
    for (auto& thread : threads)
        thread.join();
    for (int t = 0; t < 4; ++t)
        EXPECT_EQ(L"|thread " + std::to_wstring(t), seen[t]);
    EXPECT_STREQ(L"main thread", OrvGetLastErrorMessage());
    OrvSetLastErrorMessage(nullptr);
    EXPECT_STREQ(L"", OrvGetLastErrorMessage());
}
