// One REML iteration, and the state the run driver keeps for it.
//
// The model as the host lays it out (positions from 1):
//  * Model positions i = 1..nfactp are `neword`; `tyfact[i]` is the term
//    code of position i: 0 a fixed term; k in 1..10000 a random term with
//    G = gammas(k) I; n*10000 + r a random term whose G is the direct
//    product of the n sections r..r+n-1 of `struc`, first factor slowest;
//    negative: the position joins the random term before it (its levels
//    follow that term's).
//  * gammas(1..nfactp) hold the scaled-identity parameters of the positions
//    (0.0: none); section parameters lie above nfactp.
//  * Residual sections: `nrsect` holds three integers a section: records,
//    the position of the section's scale parameter, and the structure (0 an
//    identity, r a single section of `struc`, n*10000 + r a direct product).
//  * With one section and one trait the residual variance is profiled: the
//    scale parameter stays at 1.0, the other parameters are ratios to it,
//    and sigma2 = (residual sum of squares) / (residual degrees of freedom).
#ifndef TARNEL_CONTROL_ITERATION_H
#define TARNEL_CONTROL_ITERATION_H

#include "control/aicontrol.h"
#include "control/update.h"
#include "sparse/mme.h"
#include "variance/formation.h"
#include "wald/wald.h"

namespace tarnel {

// Where the design rows lie, as design formation left them.
struct DesignLayout {
  u64 kyxz = 0;       // word of the first value
  u64 K = 0;          // word whose integers hold the row starts
  i64 records = 0;
  i64 nonzero = 0;
};

// What the driver keeps for the iterations of one fit.  The blocks are
// carved once from the top of the work array and stay where they are.
struct IterationState {
  DesignLayout design;
  i64 floor = 0;           // words 1..floor belong to the design and driver
  i64 vtop = 0;            // top of the words the structures may take
  StructureTables tabs;
  span<i32> iw;            // 2*NEQ: the order
  span<i32> eqterm;        // NEQ: term (model position) of each equation
  span<i64> start;         // records+1: design row starts (1-based)
  span<double> prev1, prev2;  // parameter history of the update
  span<i32> wvmap;         // 2 * 2 * ngamma: parameter <-> WV column
  span<i32> wvpar;         // ngamma: parameter of each WV column
  span<double> ai;         // ngamma(ngamma+1)/2
  span<double> score;      // ngamma, by WV column
  bool ordered = false;
  i32 tail = 0;            // rows the order leaves to fill in as a block
  UpdateControl control;
  int nwv = 0;
  int scalepos = 0;        // position of the first section's scale
  bool profiled = false;   // residual variance profiled out
  double logdet_c = 0, logdet_r = 0, logdet_g = 0;
  double rss = 0;
  i64 skipped = 0;         // records left out of the equations
  int nsing = 0;
  bool inverse_formed = false;
  MmeStore store;          // the equations of the last iteration
  i64 off = 0;
  span<double> dd;
  WaldBlock wald;          // the fixed part kept for the Wald tests
};

// Carves the driver's blocks for the iterations.  Returns 1 with ifault 6
// when the work array is too small.
int iteration_setup(AiControlArgs& a, IterationState& st, int& ifault);

// One iteration, `iter` from 1.  Returns 0, or 1 with `nfault` set.
int g5vitr(AiControlArgs& a, IterationState& st, int iter, int& nfault);

// The fitted values of the design rows, the residuals, and the
// prediction error variances of the solutions.
void airhat(AiControlArgs& a, IterationState& st, double scale);

}  // namespace tarnel

#endif
