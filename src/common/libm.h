// The C library's exponential and natural logarithm, entered past the
// wrapper that sets errno on overflow and underflow. The wrapper calls the
// very routine used here, so the values are those of std::exp and std::log
// bit for bit; only its cost (about half of each exp call on x86-64) is
// saved in the loops that make hundreds of millions of calls. Where the C
// library offers no such entry (the build checks), std::exp and std::log
// are called.
#pragma once

#include <cmath>

namespace mixrank {

#ifdef MIXRANK_DIRECT_LIBM
extern "C" double __exp_finite(double);
extern "C" double __log_finite(double);
__asm__(".symver __exp_finite,__exp_finite@GLIBC_2.15");
__asm__(".symver __log_finite,__log_finite@GLIBC_2.15");

inline double libm_exp(double v) { return __exp_finite(v); }
inline double libm_log(double v) { return __log_finite(v); }
#else
inline double libm_exp(double v) { return std::exp(v); }
inline double libm_log(double v) { return std::log(v); }
#endif

}  // namespace mixrank
