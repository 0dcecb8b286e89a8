// Any bytes as a sign-in, project-page or publish reply: each parser builds its message, with its
// depth back at 0, or throws ServerException 300 (not XML) or 403 (another shape); the page parser
// may also pass on std::invalid_argument or std::out_of_range from its numbers. Nothing else escapes.
#include "fuzz/FuzzCheck.h"
#include "server/ConnectRespMsg.h"
#include "server/PublishExtRespMsg.h"
#include "server/QueryProjRespMsg.h"
#include "server/ServerException.h"

#include <stdexcept>

using namespace OrvaneInternal;

template <class Message> void Parse(const std::string& reply, bool numbers)
{
    try {
        FUZZ_CHECK(Message(reply).m_depth == 0, "depth after a whole document");
    } catch (const ServerException& e) {
        FUZZ_CHECK(e.getErrorCode() == 300 || e.getErrorCode() == 403, std::to_string(e.getErrorCode()));
    } catch (const std::logic_error& e) { // std::invalid_argument and std::out_of_range
        FUZZ_CHECK(numbers &&
                       (dynamic_cast<const std::invalid_argument*>(&e) || dynamic_cast<const std::out_of_range*>(&e)),
                   e.what());
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
