// The EM pass loop shared by the common- and component-covariance fits and by
// the fit from given starting parameters. A covariance model supplies the
// component densities of a pass and the covariance update; everything else
// (bookkeeping, E-step, mean and proportion update, Aitken test, size guard)
// is here, once.
//
// Every scaling by a scalar is done as the matrix library does it, by
// multiplying with the reciprocal, and every sum runs in observation order,
// so the results agree bit for bit with the same steps written as whole
// matrix operations. The working state lives in plain arrays and the
// covariances are inverted by our own routines: a fit never calls the matrix
// library, so fits can run side by side on worker threads.
#pragma once

#include <cstddef>
#include <vector>

#include "common/matrix.h"
#include "mixture/density.h"
#include "mixture/mixture.h"

namespace mixrank {

// The data of the fits in the layouts the passes read: by rows, by columns,
// every row behind a leading 1 (1, x_i, padded with a zero to an even
// length), and every row's products x_i^T x_i (the upper triangle row by
// row, (0,0), (0,1), ..., (1,1), ..., padded with a zero to an even length).
// Built once from the matrix on the calling thread; any number of fits may
// then read it at once.
class FitData {
public:
    explicit FitData(const Matrix& x);

    std::size_t n() const { return n_; }
    int p() const { return p_; }
    const Real* row(std::size_t i) const { return &rows_[i * static_cast<std::size_t>(p_)]; }
    const Real* column(int j) const { return &columns_[static_cast<std::size_t>(j) * n_]; }
    const Real* squares(std::size_t i) const { return &squares_[i * packed_length(p_)]; }
    const Real* with_one(std::size_t i) const { return &with_one_[i * with_one_length(p_)]; }

    // Entries of a row behind a leading 1, 1 + p padded to even.
    static std::size_t with_one_length(int p);

    // Entries of a packed upper triangle of a p x p matrix, padded to even.
    static std::size_t packed_length(int p);

private:
    std::size_t n_;
    int p_;
    std::vector<double> rows_, columns_, with_one_, squares_;
};

namespace em_pass {

// Passes are counted from 1; a fit of the classic program makes at most
// this many.
constexpr int kPassLimit = 99;

// When EM stops: after pass_limit passes at most, and with tolerance 0 by
// the classic signed Aitken test (the extrapolated limit less than 1e-6
// above the log-likelihood), otherwise when the extrapolated limit lies
// within tolerance times |log-likelihood| of it, on either side.
struct Stopping {
    int pass_limit = kPassLimit;
    double tolerance = 0.0;
};
// A component whose size falls below this ends the fit.
constexpr double kSmallestSize = 4.0;

// Working state of one fit.
struct State {
    int K, p;  // set by resize, as every array
    std::vector<double> mu;  // K x p current means, row-major
    std::vector<double> pi;  // K current proportions
    std::vector<double> nk;  // K sizes: label counts at the start, weight sums later
    std::vector<double> w;   // n x K posterior weights of the last E-step, row-major
    double l_i = 0.0, l_i1 = 0.0, l_i2 = 0.0;
    int iterations = 1;
    double last_density{};  // mixture density of observation n, last E-step
    bool converged = false;  // the stopping rule was met
    bool abandoned = false;  // the size guard ended the fit
    double abandoned_size{};  // the smallest size then

    // Sizes every array for n observations; contents are left to the caller.
    void resize(std::size_t n, int components, int dimension);
};

// E-step: fills s.w with the normalised weights, s.last_density, and returns
// the log-likelihood of the parameters in force.
double expectation(const FitData& x, const std::vector<NormalDensity>& dens, State& s);

// M-step for nk, mu and pi from s.w.
void update_means(const FitData& x, State& s);

// The Aitken stopping rule on l_i2, l_i1, l_i and the pass count.
bool converged(const State& s, const Stopping& stop);

// The smallest size, found as the matrix library finds a minimum: the first
// entry, replaced by every later one below it (so a NaN first entry stays).
double smallest_size(const State& s);

// True when the smallest size is below kSmallestSize (a NaN size is not).
bool too_small(const State& s);

// Runs passes until convergence, the pass limit or, with size_guard, a
// component smaller than kSmallestSize (its size kept in s.abandoned_size).
// Model needs: void densities(std::vector<NormalDensity>&) (inverts once)
// and void update(const FitData& x, const State& s) (covariance M-step).
template <class Model>
void run(const FitData& x, State& s, Model& model, bool size_guard, const Stopping& stop = {})
{
    std::vector<NormalDensity> dens;
    bool notconverged = true;
    while (notconverged && s.iterations <= stop.pass_limit) {
        if (size_guard && too_small(s)) {
            s.l_i = kAbandonedLoglik;
            s.abandoned = true;
            s.abandoned_size = smallest_size(s);
            break;
        }
        s.l_i2 = s.l_i1;
        s.l_i1 = s.l_i;
        s.iterations += 1;
        model.densities(dens);
        s.l_i = expectation(x, dens, s);
        update_means(x, s);
        model.update(x, s);
        if (converged(s, stop)) notconverged = false;
    }
    s.converged = !notconverged;
}

}  // namespace em_pass
}  // namespace mixrank
