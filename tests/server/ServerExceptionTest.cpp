#include "server/ServerException.h"

#include <gtest/gtest.h>

#include <exception>

using OrvaneInternal::ServerException;

TEST(ServerException, CodesMessagesAndNarrowText)
{
    const ServerException bare(ServerException::ResponseParseFailed);
    EXPECT_EQ(300, bare.getErrorCode());
    EXPECT_TRUE(bare.getMessage().empty());
    EXPECT_EQ("", bare.getCharMessage());

    const ServerException named(ServerException::InvalidPublishInput,
                                L"Project \"Caf\u00E9 \U0001F600\" doesn't exist on server");
    EXPECT_EQ(303, named.getErrorCode());
    EXPECT_EQ(L"Project \"Caf\u00E9 \U0001F600\" doesn't exist on server", named.getMessage());
    EXPECT_EQ("Project \"Caf\xC3\xA9 \xF0\x9F\x98\x80\" doesn't exist on server", named.getCharMessage());

    const int codes[] = {ServerException::ResponseParseFailed, ServerException::UnknownReplyType,
                         ServerException::InvalidPublishInput, ServerException::NetworkFailure,
                         ServerException::ServerResponseError, ServerException::NotConnected,
                         ServerException::UnexpectedResponse, ServerException::NotInitialized};
    const int expected[] = {300, 301, 303, 400, 401, 402, 403, 404};
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(expected[i], codes[i]);
}

TEST(ServerException, NotCaughtByStdExceptionHandler)
{
    bool caughtAsStd = false;
    bool caughtAsServer = false;
    try {
        try {
            throw ServerException(ServerException::NotConnected, L"Connect must be called first");
        } catch (const std::exception&) {
            caughtAsStd = true;
        }
    } catch (const ServerException& e) {
        caughtAsServer = true;
        EXPECT_EQ(L"Connect must be called first", e.getMessage());
    }
    EXPECT_FALSE(caughtAsStd);
    EXPECT_TRUE(caughtAsServer);
}
