// Average information: working variates, the AI matrix, the sparse inverse
// of the coefficient matrix and the scores of the variance parameters.
//
// The phase runs once per REML iteration after absorption.  The working
// variate of a parameter theta is w = (dV/dtheta) P y; record by record it
// is Z (dG/dtheta) G^-1 u + (dR/dtheta) R^-1 e.  With W = [X Z] and C the
// coefficient matrix,
//   AI(i,j) = 1/2 (w_i' R^-1 w_j - (W' R^-1 w_i)' C^-1 (W' R^-1 w_j))
// (scaled by 1/sigma2 when the scale is free).  The first term is summed
// record by record; the second comes from one forward pass of the right
// hand sides W' R^-1 w (the WVXP rows) through the factor of C that
// absorption left in the row store.  The factor is then overwritten by the
// subset of C^-1 on its own pattern, which the scores read.
//
// Node stores.  The WV store and the WVXP lists are arrays of 16-byte nodes
// (two words of the work array): the first word holds two 32-bit integers
// (column, link), the second the value.  Nodes are 1-based; row i has its
// head at node i for good.  A chain runs in ascending column; link 0 ends
// it.  Column 0 marks an empty head.
//
// WV map: pairs of 32-bit integers; the first of pair p is the WV column of
// parameter p (0: the parameter has none), the second of pair c is the
// parameter that owns WV column c.
#ifndef TARNEL_AVERAGE_INFO_AVERAGE_INFO_H
#define TARNEL_AVERAGE_INFO_AVERAGE_INFO_H

#include <cstdio>

#include "control/engine_types.h"
#include "sparse/mme.h"
#include "sparse/row_store.h"
#include "variance/structures.h"

namespace tarnel {

// A store of 16-byte nodes over `2 * n` words.
struct NodeStore {
  double* w = nullptr;
  i64 n = 0;  // nodes

  NodeStore() = default;
  NodeStore(double* words, i64 nodes) : w(words), n(nodes) {}
  i32& col(i64 k) const { return reinterpret_cast<i32*>(w + 2 * (k - 1))[0]; }
  i32& lnk(i64 k) const { return reinterpret_cast<i32*>(w + 2 * (k - 1))[1]; }
  double& val(i64 k) const { return w[2 * (k - 1) + 1]; }
  void clear(i64 k) const {
    col(k) = 0;
    lnk(k) = 0;
    val(k) = 0.0;
  }
};

// The row of a structure: the signature of g5vvrw.  The iteration passes
// g5vvrw itself; tests may pass a routine of their own.
using RowRoutine = int (*)(span<double>, span<int>, int&, i64&, int, const i64*, StrucRow,
                           const WorkArray&, int, int, const GivTable&, int, int&);

// Everything the variance side supplies for rows of structures.
struct VarianceView {
  span<int> struc;             // sections by rows of `lstruc` fields
  int lstruc = 0;
  int nstruc = 0;              // number of section rows
  span<const FormRecord> secform;  // one per section row
  span<const FormRecord> parform;  // one per parameter (1-based by position)
  span<const double> logdet;   // one per section row
  const WorkArray* work = nullptr;
  const GivTable* giv = nullptr;
  RowRoutine row = nullptr;    // g5vvrw
  int unit = 6;

  StrucRow srow(int r) const { return StrucRow{struc.data() + static_cast<i64>(r - 1) * lstruc}; }
  int field(int r, int f) const { return struc[static_cast<i64>(r - 1) * lstruc + f - 1]; }
};

// State of the WVXP lists and of the TEMPWV scratch file.  Kept in one
// struct for the phase; reset_average_info_state() clears it at the start
// of each fit.
struct AverageInfoState {
  NodeStore lists;        // WVXP nodes; heads 1..NEQ
  i64 next = 0;           // next-free (highest node handed out)
  i64 freehead = 0;       // head of the free chain (0: empty)
  i64 nfree = 0;          // nodes on the free chain; < 0 signals overflow
  i64 limit = 0;          // highest usable node
  int unit = -1;          // scratch unit: negative until TEMPWV is opened
  std::FILE* file = nullptr;
  i64 records = 0;        // TEMPWV records written
  i64 buffill = 0;        // entries used in the current buffer
  double* bufr = nullptr; // spill buffer: kTempwvLen reals ...
  i32* bufi = nullptr;    // ... and kTempwvLen integers
  i64 spills = 0;         // rows spilled this iteration (for reports)
  i64 rbufrec = -1;       // record held in the read buffer (-1: none)
  double* rbuf = nullptr; // read buffer: kTempwvLen reals ...
  i32* rbufi = nullptr;   // ... and kTempwvLen integers
  double* merge = nullptr;  // NWV reals: a spilled row being merged
  char filename[64] = "TEMPWV";
};
extern AverageInfoState g_aistate;
void reset_average_info_state();

// Length of one TEMPWV buffer (reals and integers each).
constexpr i64 kTempwvLen = 6800;

// ------------------------------------------------------------ WV store

// g5vwvs: adds `value` to (row, column) of the WV store.  Starts at `hint`
// when it is positive and its node's column does not exceed `column`;
// leaves the hint at the node where the value landed.  New nodes are taken
// from next+1; the caller checks the limit beforehand.
void g5vwvs(const NodeStore& s, i64& next, i64& hint, i64 row, i32 column, double value);

// g5vybr: fitted value of a record: the sum of value x solution over the
// design positions from `start` (1-based) up to `last`, ending at a column
// of 1 or less or above `nsoln`.
double g5vybr(span<const double> val, span<const i32> col, span<const double> soln, i32 nsoln,
              i64 start, i64 last);

// ------------------------------------------------------- phase arguments

struct AiPhaseArgs {
  // The store after g5vxxa: packed rows (start of row p at L(2, off+p)),
  // the dense triangle, the order and the reciprocal pivots.
  MmeStore* store = nullptr;
  i64 off = 0;                 // offset of the packed-row start table in L
  span<i32> iw;                // 2*NEQ: IW(1,e) term (negative: singular),
                               //        IW(2,p) equation at position p
  span<double> dd;             // NEQ: reciprocal pivots by position (0 none)
  span<const double> soln;     // NEQ: solution by equation
  // Design rows (response first, at equation 1).
  DesignView design;
  i64 records = 0;
  // Terms: per term its level count, section number (0: any) and code.
  span<const i32> nlev;
  span<const i32> tsect;
  span<const i32> tcode;
  int section = 0;             // section in hand for G terms (0: all)
  // R sections: three integers each (records, scale parameter, structure
  // row: negative or 0 for none).
  span<const i32> nrsect;
  int nsect = 0;
  // Parameters (1-based positions).
  span<double> gammas;
  span<const i32> rgmstr;
  span<const i32> wvmap;       // 2 * max(ngamma, NWV) pairs
  i32 nwv = 0;
  double sigma2 = 1.0;
  VarianceView var;
  bool xfa = false;            // a factor analytic term is present
  int ntrt = 1;                // traits: design rows of a record, trait fastest
  // Space the phase may use: `lenwk` words of the work array from `wk`.
  double* wk = nullptr;
  i64 lenwk = 0;
  i64 wvxplimit = 0;           // >0: cap on WVXP nodes (forces spills)
  bool want_inverse = true;
  bool skip_first_scale = false; // the first section's scale is profiled:
                                 // its score is not needed
  bool trace = false;
  // Results.
  span<double> ai;             // NWV(NWV+1)/2: packed, scaled
  span<double> score;          // NWV: by WV column
  span<double> resid;          // records: residuals (kMissing when missing)
  double logdetg = 0;          // log|G|
  bool inverse_formed = false; // C^-1 subset replaced the factor
  i64 wvnodes = 0;             // WV store nodes used (high water)
  i64 wvxpnodes = 0;           // WVXP nodes used (high water)
  int nfault = 0;
};

// The phase: working variates record by record, AI, forward pass, sparse
// inverse, scores.  Returns 0; 1 after a fault (args.nfault set).
int ai_phase(AiPhaseArgs& a);

// Pieces, exposed for the iteration and the tests.
// Value of the subset of C^-1 (or, before inversion, of the factor) at
// positions (p, q); 0 for an element outside the pattern.
double cinv_at(const MmeStore& s, i64 off, i32 p, i32 q);

}  // namespace tarnel

#endif
