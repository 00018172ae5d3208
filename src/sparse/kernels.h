// Dense inner loops of the block absorption when its square copy has no
// room (the BLAS does the block otherwise), and short sums of the sparse
// inverse.  They are compiled at GCC's higher optimisation level,
// which vectorises them (R's default flags do not), and on x86-64 Linux
// with a second version for processors with AVX2 and FMA, chosen when the
// library loads.
#ifndef TARNEL_SPARSE_KERNELS_H
#define TARNEL_SPARSE_KERNELS_H

#include "control/engine_types.h"

namespace tarnel {

// y[j] -= w0 a0[j] + w1 a1[j] + w2 a2[j] + w3 a3[j] for j in [lo, hi].
void axpy4(double* __restrict y, const double* __restrict a0, const double* __restrict a1,
           const double* __restrict a2, const double* __restrict a3, double w0, double w1,
           double w2, double w3, i64 lo, i64 hi);
// y[j] -= w0 a0[j] for j in [lo, hi].
void axpy1(double* __restrict y, const double* __restrict a0, double w0, i64 lo, i64 hi);
// Sum of a[j] b[j] for j in [lo, hi].
double dot(const double* __restrict a, const double* __restrict b, i64 lo, i64 hi);

// Rank-nk updates of rows: y_r[j] -= sum over k < nk of w[r*ldw + k] b[k][j]
// for j in [lo, hi].  update4 takes four rows y0..y3 at once, so that each
// element of the b rows is loaded once for the four; the sums over k are
// formed in registers before they are subtracted.  The y rows must not
// overlap the b rows.
void update4(double* y0, double* y1, double* y2, double* y3, const double* w, i64 ldw,
             const double* const* b, int nk, i64 lo, i64 hi);
void update1(double* y, const double* w, const double* const* b, int nk, i64 lo, i64 hi);

}  // namespace tarnel

#endif
