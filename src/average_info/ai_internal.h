// Internal pieces of the average information phase, shared by its files.
#ifndef TARNEL_AVERAGE_INFO_AI_INTERNAL_H
#define TARNEL_AVERAGE_INFO_AI_INTERNAL_H

#include "average_info/average_info.h"

namespace tarnel {

// Hands out words of the phase's work space in turn.
struct Carver {
  double* p = nullptr;
  i64 left = 0;
  double* take(i64 words) {
    if (words < 0 || words > left) return nullptr;
    double* q = p;
    p += words;
    left -= words;
    return q;
  }
};

// Scratch of the phase, carved once.
struct AiScratch {
  span<double> wv, t, v;        // NWV each
  span<i32> pos;                // NEQ: position of each equation
  span<double> xblk, bblk, tblk;  // largest term block each
  span<double> rowv[3];         // scattered rows of up to three factors
  span<int> rowc[3];
  span<double> kv[2];           // Kronecker row lists (values, columns)
  span<i32> kc[2];
  span<double> wd, td;          // records x NWV: a structured section's
                                // working variates and R^-1 times them
  span<double> lrow, zrow;      // NEQ each: one factor row and its inverse
  span<i32> crow;               // NEQ: its columns
  span<double> mv;              // several traits: a unit's blocks
  span<int> mvi;                // (multitrait_words reals, 5 T ints)
};

// Reals a unit of T traits needs, with npar parameters across the traits.
inline std::size_t multitrait_words(int t, int npar, int nwv) {
  const std::size_t tt = static_cast<std::size_t>(t) * t;
  return tt * (static_cast<std::size_t>(npar) + 4) + 2 * static_cast<std::size_t>(t) * nwv +
         4 * static_cast<std::size_t>(t) + static_cast<std::size_t>(t) * (t + 1) / 2;
}

// True when parameter p (1-based) writes working variates and scores.
inline bool admits(const AiPhaseArgs& a, int p) {
  if (p < 1 || static_cast<std::size_t>(p) > a.rgmstr.size()) return false;
  if (static_cast<std::size_t>(2 * p) > a.wvmap.size()) return false;
  int code = a.rgmstr[p - 1];
  if (code == 4 || code > 5) return false;
  int c = a.wvmap[2 * (p - 1)];
  return c >= 1 && c <= a.nwv;
}
inline int wvcol(const AiPhaseArgs& a, int p) {
  if (p < 1 || static_cast<std::size_t>(2 * p) > a.wvmap.size()) return 0;
  int c = a.wvmap[2 * (p - 1)];
  return (c >= 1 && c <= a.nwv) ? c : 0;
}

// The order a section counts with in a direct product: its order, or for
// a known matrix held by a singular inverse (genetic groups) the rank of
// that inverse, so that the other factors' log determinants and traces are
// taken as often as the known matrix has proper dimensions.
inline int effective_order(const AiPhaseArgs& a, int r) {
  const int order = a.var.field(r, kOrder);
  const int link = -a.var.field(r, kModel);
  if (link < 1 || a.var.giv == nullptr || link > a.var.giv->count) return order;
  const int m = a.var.giv->size(link) - a.var.giv->rank(link);
  return m < order ? m : order;
}

// The multiplicity of factor k of the product of n sections from row r:
// the effective orders of the other factors multiplied.
inline i64 multiplicity(const AiPhaseArgs& a, int n, int r, int k) {
  i64 m = 1;
  for (int f = 0; f < n; ++f)
    if (f != k) m *= effective_order(a, r + f);
  return m;
}

// One row of a structure through the row routine: clears the scattered
// buffer of the last row first.  Returns 1 on a fault (nfault set).
int structure_row(const AiPhaseArgs& a, int srow, const i64* record, int selector, int irow,
                  span<double> vals, span<int> cols, int& count, int& nfault);

// Working variates (wv.cpp).
int g5vwvg(AiPhaseArgs& a, AiScratch& s, const NodeStore& wv, i64& next, i64 limit);
int g5vwvp(const AiPhaseArgs& a, AiScratch& s, span<const double> source, span<double> target,
           i64 inner, int order, i64 outer, int srow, const i64* record, int selector,
           double diagfill, int& nfault);
int g5vwvr(AiPhaseArgs& a, AiScratch& s, const NodeStore& wv, i64& next, i64 limit, i64 e0,
           i64 nblk, int nfac, int row1);
void g5vwvz(const NodeStore& wv, i64& next, i64 row, span<const double> val, span<const i32> col,
            i64 start, i64 last);

// AI assembly (assembly.cpp, wvxp.cpp).
int g5vwvv(AiPhaseArgs& a, AiScratch& s, i32 equation, double scale, span<const double> vec);
int g5vwvt(AiPhaseArgs& a, i32 bound);
int g5vwvx(AiPhaseArgs& a, AiScratch& s, const NodeStore& wv, i64& next, i64 limit, i64 first,
           i64 nrec, int n, int r, double g, int c1, int cs);
int g5vwv1(AiPhaseArgs& a, AiScratch& s, const NodeStore& wv, i64 start, i64 last,
           double weight);
int g5vwvc(AiPhaseArgs& a, AiScratch& s, const NodeStore& wv);
int g5vwva(AiPhaseArgs& a, AiScratch& s);
int read_spilled_row(AiPhaseArgs& a, i32 equation, span<double> v);
void close_tempwv(bool remove_file);

// Several traits (multitrait.cpp): whether a section of n factors from
// row r is I(units) x Sigma(traits), its working variates and AI sums unit
// by unit, and the scores of Sigma's parameters and the section's scale.
bool multitrait_section(const AiPhaseArgs& a, int n, int r, i64 nrec);
int g5vwvm(AiPhaseArgs& a, AiScratch& s, const NodeStore& wv, i64 first, i64 nrec, int r, double g,
           int c1, int cs);
int mv_rscore(AiPhaseArgs& a, AiScratch& s, i64 first, i64 nrec, int ps, int r,
              double (*wcw)(const AiPhaseArgs&, const AiScratch&, i64, i64));

// Scores (scores.cpp).
int g5vscg(AiPhaseArgs& a, AiScratch& s);
int g5vscr(AiPhaseArgs& a, AiScratch& s);

// Decodes a residual section's structure code: 0 none; up to 9999 one
// structure row; above, factors = code / 10000 from row code % 10000.
inline void rcode(int sc, int& n, int& r) {
  if (sc <= 0) {
    n = 0;
    r = 0;
  } else if (sc <= 9999) {
    n = 1;
    r = sc;
  } else {
    n = sc / 10000;
    r = sc % 10000;
  }
}

// Packed factor rows: start slot of sparse row p, and the walk to its end.
inline i64 packed_start(const MmeStore& st, i64 off, i32 p) {
  Pool pl = st.pool();
  i64 k = off + p;
  if (k < 1 || k > pl.nlnk) return 0;
  return pl.lnk(k);
}

}  // namespace tarnel

#endif
