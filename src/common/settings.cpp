#include "common/settings.h"

namespace mixrank {

int obs = 0;
int dim = 0;
double h = 0.5;
unsigned seed = 12345;

const char BOLD[] = "\x1b[1m";
const char NORMAL[] = "\x1b[m";
const char whitespace[] = " \t\r";

}  // namespace mixrank
