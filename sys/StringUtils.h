// String helpers of the portable layer.
#pragma once

#include <string>

class StringUtils {
  public:
    // NUL-terminated UTF-16 to a wide string; throws QRX_RuntimeError on
    // ill-formed input (see Unicode.h).
    static std::wstring ToStdString(const unsigned short* utf16);
};
