// The update of the variance parameters between two REML iterations.
//
// `g5vupd` turns the average information matrix (AI) and the scores into a
// Newton step on the free parameters, through the constrained inverse
// `vcminv`, and then passes every parameter of the AI system through rules
// that keep the iteration inside the parameter space.  A US structure whose
// variance wants to leave the space can be handed to an EM step.
//
// Layouts the callers must follow:
//
//  * AI is a packed symmetric matrix of order NWV: element (i, j), j <= i,
//    1-based, at i(i-1)/2 + j.  Row c of AI belongs to the parameter
//    `wvpar[c-1]` (1-based position in `gammas`); the scores follow the
//    rows of AI.
//
//  * Constraints among parameters (the host's `constr` list):
//      gequal  integer, one entry a parameter (length ngamma, or empty).
//              0 = no group.  Parameters that carry the same positive
//              number are held equal: they share one free coordinate, so
//              they move by one common step.  If any member of a group is
//              held (rgmstr 4 and above) the whole group is held.
//      gmcon   real, ngamma rows by ngmcon columns, stored by columns
//              (column c at gmcon[(c-1)*ngamma .. c*ngamma-1]).  Column c is
//              a vector a of coefficients: the combination sum_k a_k
//              gamma_k is kept at its present value, that is the step
//              satisfies a' delta = 0.  Coefficients of parameters outside
//              the AI system are ignored (those parameters do not move).
//              A column that is a combination of earlier constraints adds
//              nothing.
//    Parameters with rgmstr 4 and above are held.  The free combinations
//    are what remains; `vcminv` returns K (K' AI K)^- K', K a basis of them,
//    so that the step is the Newton step of the reduced problem.
//
//  * The control block: four integers (see UpdateControl).
#ifndef TARNEL_CONTROL_UPDATE_H
#define TARNEL_CONTROL_UPDATE_H

#include "control/engine_types.h"

namespace tarnel {

// The control block shared with the caller, four integers in this order.
struct UpdateControl {
  int nmodified = 0;  // parameters whose update was modified (0 on entry)
  int aicond = 0;     // 1000 x the AI condition measure: the share of the
                      // free combinations whose pivot was usable; 1000
                      // when AI is of full rank over them
  int emiter = 0;     // iteration of the last EM step, 0 when none
  int slow = 0;       // the SLOW counter
};
static_assert(sizeof(UpdateControl) == 4 * sizeof(int), "four integers");

// What an EM step for one US section is given (`g5vemu`).  The section has
// order n and q effects (levels of the factor it multiplies); its random
// effects u_l (l = 1..q, each of length n) have variance G (x) A, A known.
//   ssp   packed n(n+1)/2: U' A^-1 U, the sums of squares and products of
//         the section's effects, (i, j) = sum_{l,m} A^{lm} u_{l,i} u_{m,j}
//   cinv  packed n(n+1)/2: the matching trace terms of the C^-1 block of
//         the effects, (i, j) = tr(A^-1 C^{ij}), in the scale of G
// The EM matrix is then (ssp + cinv) / q.  Sections with no entry here get
// no EM step.
struct UsEmData {
  int section = 0;   // 1-based column of struc
  int neffects = 0;  // q
  span<const double> ssp;
  span<const double> cinv;
};

// Statics of the update, reset at the start of each fit (and on
// iteration 1).
struct UpdateState {
  double prevstepsz = f32(0.1);  // PREVSTEPSZ: step size of the last call
  int flag4min = 3;              // FLAG4MIN
};
extern UpdateState update_state;
void reset_update_state();

// The single-precision value of sqrt(250) that bounds the fall and rise of
// a variance in one iteration.
constexpr double kSqrt250 = 15.81138801574707;

struct UpdateArgs {
  span<double> gammas;       // ngamma values; the new values on return
  span<double> prev1;        // p: ngamma, the values at the last iteration
  span<double> prev2;        // q: ngamma, the values the iteration before
  span<const double> ai;     // packed AI, nwv(nwv+1)/2
  span<const double> score;  // nwv scores, in AI order
  span<const int> wvpar;     // nwv: the parameter (1-based) of each AI row
  double* stepsz = nullptr;  // StepSz, kept by the caller
  UpdateControl* control = nullptr;
  int iter = 1;              // iteration number, from 1
  int emset = 0;             // the EM setting
  double dloglik = 0.0;      // change in log-likelihood at this iteration
  span<int> tgamma;          // ngamma
  span<int> rgmstr;          // ngamma
  span<const int> gmcstr;    // ngamma, the host's codes (may be empty)
  span<const double> lower;  // ngamma lower bounds of tgamma 8 (may be
                             // empty: a bound of 0)
  span<const int> struc;     // lstruc x nstruc, by columns
  int lstruc = 0;
  int nstruc = 0;
  span<const int> gequal;    // see the head of this file
  span<const double> gmcon;
  int ngmcon = 0;
  span<const UsEmData> em;   // EM data of US sections (may be empty)
  span<double> aiinv;        // out: packed restricted inverse of AI
  span<double> work;         // scratch, at least g5vupd_work_words words
  int unit = 19;             // debug unit
  bool debug = false;        // the debug record, header and trace words
};

// Words of scratch that g5vupd needs for nwv rows of AI, ngamma parameters
// and ngmcon constraints (EM steps take their part of what is left).
u64 g5vupd_work_words(int nwv, int ngamma, int ngmcon);

// One update.  Returns 0, or 1 with ifault set (6: scratch too small;
// 1: inconsistent arguments, with the reason in the message store).
int g5vupd(UpdateArgs& a, int& ifault);

// The constrained inverse: writes into `hinv` (packed, order nwv) the
// inverse of AI restricted to the free combinations of the parameters, with
// held parameters' rows and columns zero.  `nfree` is the number of free
// combinations, `rank` the number of them with a usable pivot.  Pivots are
// taken in order with the tolerance (|b| + 1e-9) * 1e-9 on the diagonal b
// of the reduced matrix; a pivot under it is set aside (a generalised
// inverse).  Returns 1 with ifault set on a fault.
struct VcminvArgs {
  span<const double> ai;
  int nwv = 0;
  span<const int> wvpar;
  span<const int> rgmstr;
  int ngamma = 0;
  span<const int> gequal;
  span<const double> gmcon;
  int ngmcon = 0;
  span<double> hinv;
  span<double> work;
};
int vcminv(const VcminvArgs& v, int& nfree, int& rank, int& ifault);
u64 vcminv_work_words(int nwv, int ngmcon);

// The EM matrix of a US section of order n: (ssp + cinv) / q, packed.
// Returns 1 with ifault set when the data do not fit the section.
int g5vemu(const UsEmData& d, int n, span<double> emmat, int& ifault);

}  // namespace tarnel

#endif
