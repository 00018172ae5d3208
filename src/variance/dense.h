// Dense symmetric kernels of the variance code: pivoted LDL' factorisation
// and inversion of packed matrices, the generalised inverse, rebuilding a
// product from its factors, products and traces of packed matrices, and the
// debug prints.
//
// Packed storage: the lower triangle by rows, element (i,j), j <= i, 1-based
// at i(i-1)/2 + j, that is a[i(i-1)/2 + j - 1] in a 0-based span.
#ifndef TARNEL_VARIANCE_DENSE_H
#define TARNEL_VARIANCE_DENSE_H

#include <string_view>

#include "control/engine_types.h"

namespace tarnel {

// 0-based index of packed element (i,j), 1-based i, j in either order.
inline i64 packed_index(i64 i, i64 j) {
  return i >= j ? i * (i - 1) / 2 + j - 1 : j * (j - 1) / 2 + i - 1;
}
inline i64 packed_size(i64 n) { return n * (n + 1) / 2; }

// Pivoted LDL' factorisation and inversion of the packed matrix `a` of
// order `n`, in place.
//   scratch: at least n reals.   perm, perm2: at least n integers each.
//   mode in:  0 full inverse; -98 stop after the factorisation (L below the
//             diagonal, D on it, in pivoted order); -99 stop after L and D
//             have been inverted (L^-1 below the diagonal, 1/D on it);
//             -100 full inverse with n restored to the full order on return.
//   mode out: the number of singular pivots (0 for a regular matrix).
//   n out:    the rank (except in mode -100).
//   logdet:   sum of log|d| over the accepted pivots.
//   negcount: number of pivots that are not positive, or -1 minus that
//             count when rows had to be swapped.
//   perm out: perm[k-1] is the input row now at position k (identity after
//             a full inverse, which is returned in the input order).
// Rows and columns of a singular part are left zero in the inverse.
void g5vsmi(span<double> a, span<double> scratch, span<int> perm, span<int> perm2, int& mode,
            int& n, double& logdet, int& negcount);

// Swaps rows and columns i and j (1-based) of a packed symmetric matrix.
void g5vsmp(span<double> a, int i, int j, int n);

// Generalised inverse of a packed matrix, in place, without reordering.
// A pivot at or below max(|a(i,i)|*1e-10, 1e-12), a(i,i) as on entry, is
// singular: its row and column are zero in the result and its position is
// listed in `singlist` (1-based; up to singlist.size() entries kept).
//   scratch: at least 2n reals.
// logdet sums log|d| of the pivots used; nneg counts the negative ones.
void g5vsmige(span<double> a, int n, span<double> scratch, double& logdet, span<int> singlist,
              int& nsing, int& nneg);

// Rebuilds in place L D L' from a packed factor: unit lower L below the
// diagonal, D on it.
void g5vldl(span<double> a, int n);
// Turns a packed factor (unit lower L, D on the diagonal) into the inverse
// of L D L', in place.  logdet is that of L D L'; nsing counts zero D.
void g5vldi(span<double> a, int n, double& logdet, int& nsing);
// Rebuilds in place U D U' from a packed factor with unit upper U: the
// packed element (i,j), j < i, holds U(j,i); D is on the diagonal.
void g5vudu(span<double> a, int n);

// Trace of the product of two packed symmetric matrices.
double g5vvtr(span<const double> a, span<const double> b, int n);
// Full n x n product w = a*b of two packed symmetric matrices (w by rows).
void g5vvab(span<double> w, span<const double> a, span<const double> b, int n);
// c := a*b*a in packed form, for packed symmetric a and b; w: n*n scratch.
void g5vvaa(span<double> c, span<const double> b, span<const double> a, span<double> w, int n);
// c += s*(a*b + b*a)/2 for packed symmetric a and b (c packed).
void g5vvas(span<double> c, span<const double> a, span<const double> b, double s, int n);
// c += s*(A*b + b*A')/2 where A is a full n x n matrix by rows and b is
// packed symmetric (c packed).
void g5vvast(span<double> c, span<const double> afull, span<const double> b, double s, int n);
// Packed inverse of the symmetric tridiagonal Toeplitz matrix with diagonal
// r0 and off-diagonal r1 (v: packed, n(n+1)/2 reals).
void g5vvma(double r0, double r1, span<double> v, int n);

// Debug prints of a labelled vector: at most 91 values (g5vplt), 700
// (g5vpdpv), integers (g5vpiv); g5vpll prints a packed matrix by rows.
void g5vplt(std::string_view label, span<const double> v, int n, int unit);
void g5vpdpv(std::string_view label, span<const double> v, int n, int unit);
void g5vpiv(std::string_view label, span<const int> v, int n, int unit);
void g5vpll(std::string_view label, span<const double> a, int n, int unit);

}  // namespace tarnel

#endif
