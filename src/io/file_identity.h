// Whether two names lead to the same file: by identity (device and inode)
// where both exist, otherwise by their normalised absolute paths.
#pragma once

#include <string>

namespace mixrank {

bool same_file(const std::string& a, const std::string& b);

}  // namespace mixrank
