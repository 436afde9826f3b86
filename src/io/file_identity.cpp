#include "io/file_identity.h"

#include <sys/stat.h>

#include <filesystem>
#include <system_error>

namespace mixrank {

namespace {

std::string normalised(const std::string& name)
{
    std::error_code ec;
    const std::filesystem::path p = std::filesystem::weakly_canonical(std::filesystem::absolute(name, ec), ec);
    return ec ? std::filesystem::absolute(name).lexically_normal().string() : p.string();
}

}  // namespace

bool same_file(const std::string& a, const std::string& b)
{
    struct stat sa, sb;
    if (::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0)
        return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
    return normalised(a) == normalised(b);
}

}  // namespace mixrank
