// Path helpers over wide strings; the file system sees their UTF-8 form.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

class Path {
  public:
    // Splits at the extension of the last component: "dir/a.log" gives
    // ("dir/a", ".log"); a leading dot ("dir/.profile") is no extension.
    static std::pair<std::wstring, std::wstring> splitext(const std::wstring& path);
    static std::wstring join(const std::wstring& directory, const std::wstring& name);
    static bool isdir(const std::wstring& path);
    static bool isfile(const std::wstring& path);
    static bool exists(const std::wstring& path);
    static std::string native(const std::wstring& path); // UTF-8 bytes for the OS
};
