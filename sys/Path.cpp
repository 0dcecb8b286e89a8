#include "sys/Path.h"

#include "sys/Errors.h"
#include "sys/Unicode.h"

#include <filesystem>

namespace {

// Through our own converters: std::filesystem would convert wide text with
// the global locale, which is "C" in most hosts.
std::filesystem::path Native(const std::wstring& path)
{
    return std::filesystem::path(Path::native(path));
}

std::wstring Wide(const std::filesystem::path& path)
{
    return Unicode::ToWideChar(path.native()).str();
}

template <class Test> bool Is(const std::wstring& path, Test test)
{
    std::filesystem::path native;
    try {
        native = Native(path);
    } catch (const QRX_RuntimeError&) {
        return false;
    }
    std::error_code error;
    return test(native, error);
}

} // namespace

std::pair<std::wstring, std::wstring> Path::splitext(const std::wstring& path)
{
    const std::wstring extension = Wide(Native(path).extension());
    return {path.substr(0, path.size() - extension.size()), extension};
}

std::wstring Path::join(const std::wstring& directory, const std::wstring& name)
{
    return Wide(Native(directory) / Native(name));
}

bool Path::isdir(const std::wstring& path)
{
    return Is(path,
              [](const std::filesystem::path& p, std::error_code& e) { return std::filesystem::is_directory(p, e); });
}

bool Path::isfile(const std::wstring& path)
{
    return Is(path, [](const std::filesystem::path& p, std::error_code& e) {
        return std::filesystem::is_regular_file(p, e);
    });
}

std::string Path::native(const std::wstring& path)
{
    return Unicode::ToUTF8(path).str();
}
