// Prediction: tables of predicted values over the cells of a classify set,
// with their variances, standard errors and standard errors of differences.
//
// Three stages.  Before the iterations `g5vprd` turns each requested table
// into coefficient rows p(i) on the model's equations, one row a cell, and
// keeps them in the prediction work array `xp`.  In the last iteration,
// while the factor of C is still in the row store, `g5vpra` meets them with
// the solution and the factor: p(i)'b and V(i,j) = p(i)' C^-1 p(j), never
// forming C^-1.  After the iterations `aipvals` gives each table its
// standard errors, SEDs, average SEDs and its report text.
//
// The request (lists of the `predict` argument; every position counts from
// 0 unless it says otherwise):
//
//  npfact   the model's variables:  nv, then three words a variable
//           (kind: 1 factor, 2 covariate; data column, from 1; levels, 1 for
//           a covariate), then one word a term of the term table: the
//           variable of a leaf term, 0 for a term prediction cannot
//           expand.  Interactions and the intercept are read from the term
//           table itself.
//  nptabl   16 words a table:
//            [0] classify variables nc   [1] cells n (the table's rows)
//            [2] start of the table's block in ivals
//            [4] first row of the table among all rows
//            [5] start of the table's matrices in vpvmat (-1: none)
//            [6] 1: variances only (no covariances, SEDs or average SEDs),
//                for tables too large for their variance matrix
//  ivals    a table's block: nv role words (0 default, 1 classify,
//           2 averaged explicitly, 3 PRESENT, 4 associated, 5 ignored), nv
//           value words (factor: position in pvals of its level weights,
//           covariate: position of its value; -1: equal weights or the mean),
//           then three words a classify variable, first slowest (variable,
//           count m of levels or values, position of the list: in ivals for
//           a factor's 1-based levels, in pvals for a covariate's values).
//  lpvals   [0] the count of all rows NR.
//  pvals    results first, then the request's real values:
//           [0,NR) predicted values, [NR,2NR) variances, [2NR,3NR) standard
//           errors, [3NR,4NR) status (0 estimable, 1 aliased, 2 empty).
//
// Results:
//  prdvals  NR x 5 by columns: value, standard error, status, and on a link
//           other than the identity the mean and its standard error.
//  vpvmat   for each table asked: V (packed lower triangle by rows, order n,
//           absolute units) and then the SED matrix in the same form.
//  avsed    10 a table: overall SED, then min, mean, max of the groups.
//  pvtext   32768 bytes a table: the report, lines ended by "\n".
//  Missing values are the mark 1e37.
#ifndef TARNEL_PREDICTION_PREDICTION_H
#define TARNEL_PREDICTION_PREDICTION_H

#include "control/aicontrol.h"
#include "sparse/row_store.h"

namespace tarnel {

// Bytes of report text for each table.
constexpr std::size_t kReportSlot = 32768;
// The mark written at the start of the rows area of xp; the tables check it
// before they read the rows.
constexpr double kRowsMark = -123.987;
constexpr double kRowsEndMark = -1.23e23;

// Where things lie in xp (words from 0).  Kept in the first words of xp
// itself, so that the three stages share it without statics.
struct PredictionLayout {
  i64 nrows = 0;       // NR
  i64 ntab = 0;
  i64 neq = 0;
  i64 rowstart = 0;    // NR+1 words: start of each row's entries (entry index)
  i64 count = 0;       // NR words: records in each cell
  i64 norm = 0;        // NR words: sum of |p(i)|
  i64 value = 0;       // NR words: predicted values
  i64 flag = 0;        // NR words: 1 when the row is not estimable
  i64 vmat = 0;        // V blocks, one a table (packed, order n_t)
  i64 vlen = 0;
  i64 zeroterms = 0;   // NTAB words: terms with all weights zero
  i64 entries = 0;     // word of the first PCODE entry (2 words an entry)
  i64 nentries = 0;    // entries in use
  i64 free = 0;        // first word free behind the rows (after the end mark)
  i64 shortage = 0;    // 1 when the last iteration ran short of xp
  i64 done = 0;        // 1 when the accumulation ran
  i64 errors = 0;      // errors found in set-up
};

// One table's header, read from nptabl.
struct TableHeader {
  int nc = 0, n = 0, block = 0, first = 0, mats = -1;
  bool diag = false;  // variances only
  // Words of the table's V block: packed lower triangle, or the diagonal.
  i64 vwords() const { return diag ? n : static_cast<i64>(n) * (n + 1) / 2; }
};
TableHeader table_header(const AiPredict& p, int t);

PredictionLayout read_layout(const WorkArray& xp);
void write_layout(const WorkArray& xp, const PredictionLayout& l);

// Set-up of the tables.  Returns 0; below 0 when xp is too small; above 0
// the count of errors in the request (their words are in the message store
// and on the console).
int g5vprd(AiControlArgs& a);

// Arguments of the accumulation: the store after absorption (the factor of
// C), the order and the reciprocal pivots, the solution by equation, and
// the scale that turns p'C^-1 p into absolute units.
struct PraArgs {
  const MmeStore* store = nullptr;
  i64 off = 0;                 // packed-row start table in L
  span<const i32> iw;          // IW(1,e) term (< 0 singular), IW(2,p) equation
  span<const double> dd;       // reciprocal pivots by position (0 none)
  span<const double> soln;     // by equation
  double scale = 1.0;
  bool trace = false;
};
// Returns 0; 1 with nfault set when the rows do not fit the store of xp
// (the layout's shortage word is set too).
int g5vpra(AiControlArgs& a, const PraArgs& r, int& nfault);

// The node store of the accumulation: 16-byte nodes (row, link, value) in
// words of xp; node k (from 1) is the head of position k.
struct PredNodes {
  double* w = nullptr;
  i64 n = 0;          // nodes usable
  i64 next = 0;       // highest node handed out
  i64 freehead = 0;   // chain of nodes given back
  i32& col(i64 k) const { return reinterpret_cast<i32*>(w + 2 * (k - 1))[0]; }
  i32& lnk(i64 k) const { return reinterpret_cast<i32*>(w + 2 * (k - 1))[1]; }
  double& val(i64 k) const { return w[2 * (k - 1) + 1]; }
};
// g5vprv: adds scale times the chain that starts at node `src` (rows
// ascending) into the chain headed at node `head`: equal rows are added, a
// new node is taken for a row not present, and a smaller row goes in front
// by moving the head's contents to a new node.  Zero products are passed
// over.  Returns 1 when the store has no free node.
int g5vprv(PredNodes& s, i64 head, double scale, i64 src);
// Gives the nodes of the chain headed at `head` back (the head is emptied).
void g5vprfree(PredNodes& s, i64 head);

// The tables: standard errors, SEDs, average SEDs, back-transformation and
// the report.  `scale` as for the accumulation (already applied to V).
void aipvals(AiControlArgs& a);

// Back-transformation of a prediction eta with standard error s on the
// link scale.  `offset` and `power` are the power link's parameters.
struct Retran {
  double mean = 0, se = 0;
};
Retran retran(double eta, double s, int link, double offset, double power);

// The SED pass for one table of n rows in r x c form (c = 1: one way).
// v: packed V (order n); status: per row, above 0 estimable; sed: packed
// SED (order n) or empty.  avsed: 10 values.
void g5vsed(int n, int c, span<const double> v, span<const int> status, span<double> sed,
            span<double> avsed);

// Hooks for the run driver and the iteration.
// Before the iterations: checks the room in xp and sets the tables up.
// Returns 1 when the run must stop (status and runTrn set as they say).
int prediction_setup(AiControlArgs& a);
// In the last iteration, after absorption: the accumulation, when the
// tables were set up.  Runs short of xp quietly (the tables report it).
int prediction_accumulate(AiControlArgs& a, const PraArgs& r, int& nfault);
// After the iterations: the tables, or the shortage of xp for the host.
void prediction_finish(AiControlArgs& a);

}  // namespace tarnel

#endif
