// Path helpers over wide strings, on std::filesystem; the file system sees
// their UTF-8 form.
#pragma once

#include <string>
#include <utility>

class Path {
  public:
    // Splits at the extension of the last component: "dir/a.log" gives
    // ("dir/a", ".log"); a leading dot ("dir/.profile") is no extension.
    static std::pair<std::wstring, std::wstring> splitext(const std::wstring& path);
    // `name` under `directory`, or `name` itself when it is absolute or the
    // directory is empty.
    static std::wstring join(const std::wstring& directory, const std::wstring& name);
    // False for a path that is not valid text: it names nothing.
    static bool isdir(const std::wstring& path);
    static bool isfile(const std::wstring& path);
    static std::string native(const std::wstring& path); // UTF-8 bytes for the OS
};
