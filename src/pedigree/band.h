// Inbreeding from a band of the relationship matrix.
//
// The ancestor walk of g5vaig costs, for each row, one visit per ancestor.
// In a pedigree whose generations overlap and mix freely, nearly every
// earlier row becomes an ancestor after a few dozen generations, and the
// walk grows with the square of the pedigree.  When every known parent of
// row i lies at most `lag` rows before i, the relationships between rows at
// most `lag` apart are closed under the tabular recursion
//     a(i,k) = PR1 a(S,k) + PR2 a(D,k)               (k < i)
//     a(i,i) = MV(i) + PR1^2 a(S,S) + 2 PR1 PR2 a(S,D) + PR2^2 a(D,D)
// (both parents and k lie within `lag` of each other), so keeping only
// that band of A gives every row's inbreeding exactly, in time n * lag and
// memory lag^2, whatever the depth.  With MV the one stored for each row,
// the band is the same T D T' the walk sums over, so the coefficients are
// those of the walk up to rounding.
#ifndef TARNEL_PEDIGREE_BAND_H
#define TARNEL_PEDIGREE_BAND_H

#include "control/engine_types.h"

namespace tarnel {

// The largest distance from a row back to a known parent (0 when no row
// has a parent).  `plist` holds two parents a row, rows from 1.
i64 pedigree_lag(span<const i32> plist, i64 nan);

// Words of the band for a lag (0 when lag is 0).
u64 band_words(i64 lag);

// The largest band the engine will hold (words).
constexpr u64 kBandMaxWords = u64{1} << 26;

// Ancestor visits the walk would make over the rows with both parents
// known, estimated from the ancestors of up to `samples` rows spread over
// the pedigree.  `stamp` and `stack` hold nan+1 integers each (scratch).
double walk_visits_estimate(span<const i32> plist, i64 nan, int samples, i32* stamp,
                            i32* stack);

// Rows the band copies over at a time.
constexpr i64 kBandBlock = 64;

// The band under way: rows at most `lag` apart, in a square of side
// m = lag + kBandBlock + 1 used cyclically (the rows an open block may
// still write to stay apart); entry (x, y) at buf[(x mod m) m + y mod m].
// The entries of a row before it are written when the row is done; those
// after it are copied over, a block of rows at a time, so that reads along
// a parent's row stay contiguous.
class InbreedingBand {
 public:
  InbreedingBand(double* buf, i64 lag) : buf_(buf), lag_(lag), m_(lag + kBandBlock + 1) {}
  // Adds row i (rows in order from 1) with parents S, D (0 unknown),
  // weights PR and Mendelian sampling variance MV.
  void add_row(i64 i, i32 S, i32 D, const double PR[2], double MV);
  // a(i,i) - 1 of a row that would take parents S, D and weights PR with
  // Mendelian sampling variance MV, from the rows already added.
  double inbreeding(i32 S, i32 D, const double PR[2], double MV) const;

 private:
  double* row(i64 x) const { return buf_ + (x % m_) * m_; }
  double at(i64 x, i64 y) const;  // a(x,y), both already added
  void parent_into(double* out, i64 i, i64 lo, i32 p, double w, bool add) const;
  void close_block(i64 last);

  double* buf_;
  i64 lag_, m_;
  i64 block_start_ = 1;
};

}  // namespace tarnel

#endif
