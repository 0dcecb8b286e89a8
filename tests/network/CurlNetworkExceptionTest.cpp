#include "network/CurlNetworkException.h"
#include "network/CurlNetworkStatic.h"

#include <gtest/gtest.h>

using namespace OrvaneInternal;

TEST(CurlNetworkException, CarriesLibcurlTextOrItsOwnMessage)
{
    EXPECT_STREQ(curl_easy_strerror(CURLE_OUT_OF_MEMORY), CurlNetworkException(CURLE_OUT_OF_MEMORY).what());
    EXPECT_STREQ("Out of memory", CurlNetworkException(CURLE_OUT_OF_MEMORY).what());
    EXPECT_STREQ(curl_share_strerror(CURLSHE_IN_USE), CurlNetworkException(CURLSHE_IN_USE).what());
    EXPECT_STREQ("CurlNetwork error: Unknown proxy type.",
                 CurlNetworkException(std::string("CurlNetwork error: Unknown proxy type.")).what());
    try {
        throw CurlNetworkException(std::string("x"));
    } catch (const std::exception& e) {
        EXPECT_STREQ("x", e.what());
    }
}

TEST(CurlNetworkStatic, CleanupLeavesLibcurlReadyForANewStart)
{
    for (int round = 0; round < 2; ++round) {
        ASSERT_NO_THROW(CurlNetworkStatic::CurlInit());
        CURL* handle = curl_easy_init();
        EXPECT_NE(nullptr, handle);
        curl_easy_cleanup(handle);
        CurlNetworkStatic::CurlCleanup();
    }
}
