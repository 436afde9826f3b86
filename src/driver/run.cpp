#include "driver/run.h"

namespace mixrank {

int run(int, char**) { return 0; }

}  // namespace mixrank
