// Inverse and determinant of a small square matrix without the matrix
// library, for code that runs on worker threads (the library keeps
// process-wide state and may only be used from the main thread).
//
// The steps are the matrix library's own, in its order: its Crout (LU)
// decomposition with the same partial pivoting, its forward and back
// substitution for each column of the identity, and its sum of the logs of
// the pivots. Results therefore agree with the library bit for bit. Where
// the library would throw (an exactly zero pivot on inversion, a
// determinant too large for a double), these routines say so instead, and
// the caller repeats that one operation with the library on the main thread
// so that the library's own message is printed.
#pragma once

#include <vector>

namespace mixrank {

// The matrix library's log-determinant: log |det| and its sign (0 for a
// singular matrix, or where a pivot is not a number).
struct LogAndSign {
    double log_value = 0.0;
    int sign = 1;

    // sign * exp(log_value), as the library forms the determinant; false
    // where the library throws instead (log_value >= log of the largest
    // double).
    bool value(double& out) const;
};

// The LU factors of an n x n matrix (row-major), row swaps recorded as the
// library records them.
class CroutFactor {
public:
    CroutFactor(const double* a, int n);

    // An exactly zero pivot: the library refuses to solve with this matrix.
    bool singular() const { return singular_; }
    // The inverse (row-major n x n) into out; false (out untouched) when
    // singular.
    bool inverse(std::vector<double>& out) const;
    LogAndSign log_determinant() const;

    // Solves in place for one right-hand side b (length n), as the
    // library's substitution does; only when not singular.
    void substitute(double* b) const;

private:
    int n_;
    std::vector<double> lu_;
    std::vector<int> pivot_;
    bool even_ = true;  // an even number of row swaps
    bool singular_ = false;
};

}  // namespace mixrank
