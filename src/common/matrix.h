// One place that pulls in the matrix library; every source includes this
// instead of the library headers (the I/O header must come first).
#pragma once

#include <newmat/newmatio.h>
#include <newmat/newmat.h>
#include <newmat/newmatap.h>

namespace mixrank {
using NEWMAT::BaseException;
using NEWMAT::ColumnVector;
using NEWMAT::IdentityMatrix;
using NEWMAT::LowerTriangularMatrix;
using NEWMAT::Matrix;
using NEWMAT::Real;
using NEWMAT::RowVector;
}  // namespace mixrank
