// Any bytes as a sign-in, project-page or publish reply: each parser builds its message or throws
// ServerException 300 (not XML) or 403 (another shape); the page parser may also pass on
// std::invalid_argument or std::out_of_range from its numbers. Nothing else escapes, nothing crashes.
#include "server/ConnectRespMsg.h"
#include "server/PublishExtRespMsg.h"
#include "server/QueryProjRespMsg.h"
#include "server/ServerException.h"
#include "fuzz/FuzzCheck.h"

#include <stdexcept>
#include <string>

using namespace OrvaneInternal;

template <class Message>
void Parse(const std::string& reply, bool numbers)
{
    try {
        const Message message(reply);
        FUZZ_CHECK(message.m_depth == 0, "depth " + std::to_string(message.m_depth) + " after a whole document");
    } catch (const ServerException& e) {
        FUZZ_CHECK(e.getErrorCode() == 300 || e.getErrorCode() == 403, std::to_string(e.getErrorCode()));
    } catch (const std::invalid_argument&) {
        FUZZ_CHECK(numbers, "invalid_argument from a parser without numbers");
    } catch (const std::out_of_range&) {
        FUZZ_CHECK(numbers, "out_of_range from a parser without numbers");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string reply(reinterpret_cast<const char*>(data), size);
    Parse<ConnectRespMsg>(reply, false);
    Parse<QueryProjRespMsg>(reply, true);
    Parse<PublishExtRespMsg>(reply, false);
    return 0;
}
