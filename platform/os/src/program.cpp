#include <kivos/program.h>

#include <filesystem>

#ifdef __APPLE__
#include <mach-o/dyld.h>

#include <cerrno>
#include <system_error>
#endif

namespace kivos {

#ifdef __APPLE__

std::string program_file() {
    uint32_t size = 0;
    _NSGetExecutablePath(nullptr, &size);
    std::string path(size, '\0');
    if (_NSGetExecutablePath(path.data(), &size) != 0)
        throw std::filesystem::filesystem_error("own program",
                                                std::error_code(ENAMETOOLONG, std::generic_category()));
    path.resize(path.find('\0'));
    return std::filesystem::canonical(path).string();
}

#else

std::string program_file() {
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

#endif

}  // namespace kivos
