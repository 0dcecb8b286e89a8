#include "sys/Path.h"

#include "sys/Unicode.h"

#include <sys/stat.h>
#include <unistd.h>

std::pair<std::wstring, std::wstring> Path::splitext(const std::wstring& path)
{
    const std::size_t slash = path.find_last_of(L'/');
    const std::size_t nameStart = slash == std::wstring::npos ? 0 : slash + 1;
    const std::size_t dot = path.find_last_of(L'.');
    if (dot == std::wstring::npos || dot < nameStart)
        return {path, std::wstring()};
    // Leading dots of the name do not start an extension.
    std::size_t firstNonDot = nameStart;
    while (firstNonDot < path.size() && path[firstNonDot] == L'.')
        ++firstNonDot;
    if (dot < firstNonDot)
        return {path, std::wstring()};
    return {path.substr(0, dot), path.substr(dot)};
}

std::wstring Path::join(const std::wstring& directory, const std::wstring& name)
{
    if (directory.empty())
        return name;
    if (!name.empty() && name[0] == L'/')
        return name;
    if (directory.back() == L'/')
        return directory + name;
    return directory + L"/" + name;
}

namespace {
bool Stat(const std::wstring& path, struct stat& st)
{
    try {
        return ::stat(Path::native(path).c_str(), &st) == 0;
    } catch (const std::exception&) {
        return false; // a path that is not valid text names nothing
    }
}
} // namespace

bool Path::isdir(const std::wstring& path)
{
    struct stat st {};
    return Stat(path, st) && S_ISDIR(st.st_mode);
}

bool Path::isfile(const std::wstring& path)
{
    struct stat st {};
    return Stat(path, st) && S_ISREG(st.st_mode);
}

bool Path::exists(const std::wstring& path)
{
    struct stat st {};
    return Stat(path, st);
}

std::string Path::native(const std::wstring& path)
{
    return Unicode::ToUTF8(path).str();
}
