#include "sparse/kernels.h"

#if defined(__GNUC__) && !defined(__clang__)
#if defined(__x86_64__) && defined(__linux__)
#define TARNEL_VECTORISE \
  __attribute__((optimize("O3"), target_clones("arch=x86-64-v3", "default")))
#else
#define TARNEL_VECTORISE __attribute__((optimize("O3")))
#endif
#else
#define TARNEL_VECTORISE
#endif

namespace tarnel {

TARNEL_VECTORISE void axpy4(double* __restrict y, const double* __restrict a0,
                            const double* __restrict a1, const double* __restrict a2,
                            const double* __restrict a3, double w0, double w1, double w2, double w3,
                            i64 lo, i64 hi) {
  for (i64 j = lo; j <= hi; ++j) y[j] -= w0 * a0[j] + w1 * a1[j] + w2 * a2[j] + w3 * a3[j];
}

TARNEL_VECTORISE void axpy1(double* __restrict y, const double* __restrict a0, double w0, i64 lo,
                            i64 hi) {
  for (i64 j = lo; j <= hi; ++j) y[j] -= w0 * a0[j];
}

// Four partial sums, so that the loop vectorises without reassociating
// floating-point additions on the compiler's own initiative.
TARNEL_VECTORISE double dot(const double* __restrict a, const double* __restrict b, i64 lo,
                            i64 hi) {
  double s0 = 0, s1 = 0, s2 = 0, s3 = 0;
  i64 j = lo;
  for (; j + 3 <= hi; j += 4) {
    s0 += a[j] * b[j];
    s1 += a[j + 1] * b[j + 1];
    s2 += a[j + 2] * b[j + 2];
    s3 += a[j + 3] * b[j + 3];
  }
  for (; j <= hi; ++j) s0 += a[j] * b[j];
  return (s0 + s1) + (s2 + s3);
}

}  // namespace tarnel
