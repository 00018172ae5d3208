#include "sparse/kernels.h"

#include <cstring>

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

// Four doubles in one value; on processors with AVX2 one register, on the
// baseline two.  Loads and stores go through memcpy: rows need not be
// aligned.
typedef double v4 __attribute__((vector_size(32)));
static inline void ld4(v4& v, const double* p) { std::memcpy(&v, p, sizeof v); }
static inline void sub4(double* p, const v4& a) {
  v4 v;
  std::memcpy(&v, p, sizeof v);
  v -= a;
  std::memcpy(p, &v, sizeof v);
}

TARNEL_VECTORISE void update4(double* __restrict y0, double* __restrict y1, double* __restrict y2,
                               double* __restrict y3, const double* __restrict w, i64 ldw,
                               const double* const* __restrict b, int nk, i64 lo, i64 hi) {
  const double *w0 = w, *w1 = w + ldw, *w2 = w + 2 * ldw, *w3 = w + 3 * ldw;
  i64 j = lo;
  for (; j + 7 <= hi; j += 8) {
    v4 a00 = {0, 0, 0, 0}, a01 = a00, a10 = a00, a11 = a00, a20 = a00, a21 = a00, a30 = a00,
       a31 = a00;
    for (int k = 0; k < nk; ++k) {
      const double* bk = b[k] + j;
      v4 b0, b1;
      ld4(b0, bk);
      ld4(b1, bk + 4);
      const double c0 = w0[k], c1 = w1[k], c2 = w2[k], c3 = w3[k];
      a00 += c0 * b0;
      a01 += c0 * b1;
      a10 += c1 * b0;
      a11 += c1 * b1;
      a20 += c2 * b0;
      a21 += c2 * b1;
      a30 += c3 * b0;
      a31 += c3 * b1;
    }
    sub4(y0 + j, a00);
    sub4(y0 + j + 4, a01);
    sub4(y1 + j, a10);
    sub4(y1 + j + 4, a11);
    sub4(y2 + j, a20);
    sub4(y2 + j + 4, a21);
    sub4(y3 + j, a30);
    sub4(y3 + j + 4, a31);
  }
  for (; j <= hi; ++j) {
    double a0 = 0, a1 = 0, a2 = 0, a3 = 0;
    for (int k = 0; k < nk; ++k) {
      const double bk = b[k][j];
      a0 += w0[k] * bk;
      a1 += w1[k] * bk;
      a2 += w2[k] * bk;
      a3 += w3[k] * bk;
    }
    y0[j] -= a0;
    y1[j] -= a1;
    y2[j] -= a2;
    y3[j] -= a3;
  }
}

TARNEL_VECTORISE void update1(double* __restrict y, const double* __restrict w,
                               const double* const* __restrict b, int nk, i64 lo, i64 hi) {
  i64 j = lo;
  for (; j + 7 <= hi; j += 8) {
    v4 a0 = {0, 0, 0, 0}, a1 = a0;
    for (int k = 0; k < nk; ++k) {
      const double* bk = b[k] + j;
      v4 b0, b1;
      ld4(b0, bk);
      ld4(b1, bk + 4);
      a0 += w[k] * b0;
      a1 += w[k] * b1;
    }
    sub4(y + j, a0);
    sub4(y + j + 4, a1);
  }
  for (; j <= hi; ++j) {
    double a = 0;
    for (int k = 0; k < nk; ++k) a += w[k] * b[k][j];
    y[j] -= a;
  }
}

}  // namespace tarnel
