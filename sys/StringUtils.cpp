#include "sys/StringUtils.h"

#include "sys/Unicode.h"

std::wstring StringUtils::ToStdString(const unsigned short* utf16)
{
    return Unicode::ToWideChar(utf16).str();
}
