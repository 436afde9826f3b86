// The EM pass loop shared by the common- and component-covariance fits and by
// the fit from given starting parameters. A covariance model supplies the
// component densities of a pass and the covariance update; everything else
// (bookkeeping, E-step, mean and proportion update, Aitken test, size guard)
// is here, once.
//
// Every scaling by a scalar is done as the matrix library does it, by
// multiplying with the reciprocal, and every sum runs in observation order,
// so the results agree bit for bit with the same steps written as whole
// matrix operations.
#pragma once

#include <vector>

#include "common/matrix.h"
#include "mixture/density.h"
#include "mixture/records.h"

namespace mixrank {
namespace em_pass {

// Passes are counted from 1; a fit makes at most this many.
constexpr int kPassLimit = 99;
// A component whose size falls below this ends the fit.
constexpr double kSmallestSize = 4.0;

// Working state of one fit.
struct State {
    Matrix mu;        // K x p current means
    ColumnVector pi;  // K current proportions
    ColumnVector nk;  // K sizes: label counts at the start, weight sums later
    Matrix w;         // n x K posterior weights of the last E-step
    double l_i = 0.0, l_i1 = 0.0, l_i2 = 0.0;
    int iterations = 1;
    double last_density = 0.0;  // mixture density of observation n, last E-step
};

// What happens when the smallest component size is below kSmallestSize.
enum class SizeGuard {
    none,    // not checked at all
    silent,  // abandon the fit without a word
    report,  // abandon the fit and say so on standard output
};

// E-step: fills s.w with the normalised weights, s.last_density, and returns
// the log-likelihood of the parameters in force.
double expectation(const Matrix& x, const std::vector<NormalDensity>& dens, State& s);

// M-step for nk, mu and pi from s.w.
void update_means(const Matrix& x, State& s);

// The Aitken stopping rule on l_i2, l_i1, l_i and the pass count.
bool converged(const State& s);

// True (after printing the message if asked) when the fit must be abandoned.
bool too_small(const State& s, SizeGuard guard);

// Runs passes until convergence, the pass limit or the size guard.
// Model needs: void densities(std::vector<NormalDensity>&) (inverts once)
// and void update(const Matrix& x, const State& s) (covariance M-step).
template <class Model>
void run(const Matrix& x, State& s, Model& model, SizeGuard guard)
{
    std::vector<NormalDensity> dens;
    bool notconverged = true;
    while (notconverged && s.iterations <= kPassLimit) {
        if (too_small(s, guard)) {
            s.l_i = kAbandonedLoglik;
            break;
        }
        s.l_i2 = s.l_i1;
        s.l_i1 = s.l_i;
        s.iterations += 1;
        model.densities(dens);
        s.l_i = expectation(x, dens, s);
        update_means(x, s);
        model.update(x, s);
        if (converged(s)) notconverged = false;
    }
}

}  // namespace em_pass
}  // namespace mixrank
