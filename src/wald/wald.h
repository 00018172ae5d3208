// Wald tests of the fixed terms.
//
// The fixed part of the mixed model equations, with the random effects
// absorbed, is kept as a packed symmetric triangle of order m (element
// (i, j), j <= i, at i(i-1)/2 + j, 1-based).  Row and column 1 carry the
// response side: element (r, 1) is the right-hand side of equation r and
// element (1, 1) the value by which a statistic is divided.  Rows 2..m are
// the fixed equations in model order.
//
// Incremental statistics test each term after the terms before it in model
// order (the intercept first); conditional statistics test a term after
// every other term that does not contain it (a term contains another when
// the other's factors are a proper subset of its own).  Both are F ratios:
// the Wald statistic divided by its degrees of freedom.
#ifndef TARNEL_WALD_WALD_H
#define TARNEL_WALD_WALD_H

#include "control/engine_types.h"

namespace tarnel {

struct AiControlArgs;
struct AiTerms;

// Codes of the conditional column, as indices into ".I-*Cc".
enum WaldCode : int {
  kWaldNone = 0,         // '.': no conditional test (the intercept)
  kWaldIncremental = 1,  // 'I': conditioned on the same terms as the incremental test
  kWaldDfChanged = 2,    // '-': the conditional test would change the degrees of freedom
  kWaldConditional = 4,  // 'C': conditioned on every term that does not contain it
};

// g5vkds: element (1, 1) of the triangle of order n takes b, element (i, 1)
// takes c(i) (1-based, i = 2..n).
void g5vkds(span<double> a, int n, double b, span<const double> c);

// g5vkdr: sweeps rows first..last out of the triangle `a` (n values, order
// m): the Schur complement on each row, its row and column then cleared.
// The m doubles after position n serve as scratch.
void g5vkdr(span<double> a, i64 n, int m, int first, int last);

// aotss: the F ratio of the term whose `size` rows start at row `first`;
// a row whose right-hand side is 0 is left out, and the result is 0 when
// the rows kept are not `df`.
// dwork: size*(size+1)/2 + 2*size doubles; iwork: 3*size integers.
double aotss(span<const double> a, int first, int size, int df, span<double> dwork, span<int> iwork);

// g5vkai: incremental F ratios, out(t) for each of `nterms` terms whose
// rows and degrees of freedom are size(t), df(t).  `work` holds a copy of
// the triangle and scratch: n + m doubles, then the aotss work.
void g5vkai(span<const double> a, i64 n, int m, span<double> out, span<double> work, span<const int> df,
            span<const int> size, int nterms, span<int> iwork);

// The rows of the Wald table: seven doubles a row (term number, numerator
// df, denominator df, incremental statistic, conditional statistic,
// conditional code, p-value), filled from the first row downward as the
// terms are walked from last to first.
struct AovTblArgs {
  span<const int> rlevel, tyfactv, submods, noeff, neword, inter, fadjkode;
  span<const double> fadjval;  // conditional statistics, then at nfactd + i the incremental
  span<double> yssqu;
  int submod = 0;
  int* typeiii = nullptr;
  span<const double> kenpairs;  // (scale, denominator) a term; empty when none
  int kenwrd = 0;
  int nfactp = 0, nfactd = 0, neqd = 0, neq = 0, nedf = 0;
  double sigma2 = 1.0, s2 = 1.0;
  span<double> aov;
};
void aovtbl(AovTblArgs& t);

// The block that holds the captured fixed part and the work of the tests,
// carved once from the top of the work array.
struct WaldBlock {
  span<double> tri;    // the captured triangle (lssp values)
  span<double> work;   // lssp + m doubles: the copy that the sweeps reduce
  span<double> stats;  // 2 * nfactp: conditional, then incremental
  span<double> dwork;  // aotss work
  span<int> iwork;     // aotss work, then nfactp codes, sizes and dfs
  int m = 0;
  int nfactp = 0;
  int kmax = 0;
  bool captured = false;
};

// Carves the block below `top` (above `floor`) for the fixed part of the
// model in `t`.  Returns 0, or 1 (the block left empty, no tests made) when
// the room is short or the model has no fixed equations.
int wald_reserve(double* x, i64& top, i64 floor, const AiTerms& t, WaldBlock& wb);

// After the fit: the degrees of freedom of the fixed terms in model order,
// the incremental and conditional statistics, and the rows of `aovTbl`.
// `divisor` is the residual variance when the equations are scaled by it,
// else 1.
void wald_after_fit(AiControlArgs& a, WaldBlock& wb, double divisor);

}  // namespace tarnel

#endif
