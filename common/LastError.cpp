#include <orvane/OrvaneCommon.h>

#include <string>

extern "C" {

const ORV_RESULT ORV_RESULT_Success = 0;
const ORV_RESULT ORV_RESULT_InvalidArgument = 1;
const ORV_RESULT ORV_RESULT_BadHandle = 2;
const ORV_RESULT ORV_RESULT_UnknownError = 3;
}

namespace {
// Per thread, so that sessions driven from different threads never read each
// other's errors.
thread_local std::wstring t_lastError;
} // namespace

extern "C" const wchar_t* OrvGetLastErrorMessage(void)
{
    return t_lastError.c_str();
}

extern "C" void OrvSetLastErrorMessage(const wchar_t* message)
{
    if (message == nullptr)
        t_lastError.clear();
    else
        t_lastError.assign(message);
}
