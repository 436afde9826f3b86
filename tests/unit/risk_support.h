// Helpers shared by the kernel, distance, score, projection and risk tests.
#pragma once

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

#include "common/matrix.h"
#include "common/settings.h"

namespace risk_support {

using mixrank::Matrix;

// Sets obs, dim and h for one test and restores them afterwards.
class Settings {
public:
    Settings(int n, int d, double bandwidth) : obs_(mixrank::obs), dim_(mixrank::dim), h_(mixrank::h)
    {
        mixrank::obs = n;
        mixrank::dim = d;
        mixrank::h = bandwidth;
    }
    ~Settings()
    {
        mixrank::obs = obs_;
        mixrank::dim = dim_;
        mixrank::h = h_;
    }

private:
    int obs_, dim_;
    double h_;
};

// Numbers from a fixed erand48 stream.
class Numbers {
public:
    explicit Numbers(unsigned short seed) : state_{seed, 7, 11} {}
    double next() { return erand48(state_); }
    // Entries spread * U(0,1) plus (row % groups) * gap, so rows form groups.
    Matrix points(int n, int d, double spread, int groups = 1, double gap = 0.0)
    {
        Matrix x(n, d);
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= d; ++j) x(i, j) = spread * next() + (i % groups) * gap;
        return x;
    }
    // A random symmetric positive definite d x d matrix.
    Matrix spd(int d)
    {
        const Matrix a = points(d, d, 1.0) - 0.5;
        Matrix s = a * a.t();
        for (int i = 1; i <= d; ++i) s(i, i) += 0.3;
        return s;
    }

private:
    unsigned short state_[3];
};

// Collects what is written to a standard stream while alive.
class Capture {
public:
    explicit Capture(std::ostream& stream) : stream_(stream), old_(stream.rdbuf(buf_.rdbuf())) {}
    ~Capture() { stream_.rdbuf(old_); }
    std::string str() const { return buf_.str(); }

private:
    std::ostream& stream_;
    std::ostringstream buf_;
    std::streambuf* old_;
};

}  // namespace risk_support
