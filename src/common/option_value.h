// The value of a classic-style option: the argument after it, which it
// consumes. RunError when the option is the last argument.
#pragma once

#include <string>

#include "common/settings.h"

namespace mixrank {

inline const char* option_value(int& i, int argc, char** argv)
{
    if (i + 1 >= argc) throw RunError(std::string("option ") + argv[i] + " needs a value");
    return argv[++i];
}

}  // namespace mixrank
