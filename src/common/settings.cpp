#include "common/settings.h"

namespace mixrank {

const char BOLD[] = "\x1b[1m";
const char NORMAL[] = "\x1b[m";
const char whitespace[] = " \t\r";

}  // namespace mixrank
