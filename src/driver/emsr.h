// The classic program's own estimator ("EMSR"): for g = 1..max fit EM from
// many starts, keep the best and append it to the parameter stream, one whole
// record and one flush per g, printing the established messages. The caller
// owns the stream (and the file behind it); paramfile only names it in the
// messages. A record that cannot be written (the stream goes bad) ends the
// fitting early; the caller reports it.
#pragma once

#include <mixrank/mixrank.h>

#include <ostream>
#include <string>

#include "common/matrix.h"

namespace mixrank {

void emsr(const Matrix& x, const std::string& paramfile, std::ostream& param, int max, int kmn, int rnd,
          char method, RandomStream& random);

}  // namespace mixrank
