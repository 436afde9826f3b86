#pragma once

#include <string>

namespace mixrank {

// printf-style formatting into a string of whatever length the text needs.
std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

}  // namespace mixrank
