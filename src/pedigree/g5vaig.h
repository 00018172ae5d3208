// The inverse of the numerator relationship matrix of a sorted pedigree.
//
// `g5vaig` takes the rows in order, computes each row's Mendelian sampling
// variance (MV) and inbreeding (F) and adds the row's contribution to a
// linked row store with `g5vllin`.  `pedigree` wraps it for the host: it
// checks the entitlement, runs it and turns the row store into triples
// (row, column, value), one per nonzero of the lower triangle.
//
// Row store.  Slots run from 1.  Slot r (r = 1..nan) is the permanent head
// of row r; further elements take slots nan+1, nan+2, ... up to `lenai`.
// For slot s, llainv[2(s-1)] is the column, llainv[2(s-1)+1] the link to
// the next element of the row (0 closes the row) and ainv[s-1] the value.
// Along a row the columns ascend and the last element is the diagonal.
#ifndef TARNEL_PEDIGREE_G5VAIG_H
#define TARNEL_PEDIGREE_G5VAIG_H

#include "control/engine_types.h"

namespace tarnel {

// Fault codes of the relationship inverse.  The text of each goes to the
// message store at level 4 and names the row (see AinvArgs::where).
enum AinvFault : int {
  kAinvPoolFull = 6,        // row store full: call again with a larger lenai
  kAinvWorkShort = 8,       // work array shorter than g5vaig_work_words
  kAinvTriplesShort = 9,    // triple store too short
  kAinvBadParent = 11,      // a parent that does not come before its row
  kAinvLineParents = 12,    // inbred lines with both parents the same
  kAinvBadSex = 13,         // X-linked: a sex code other than 1 or 2
  kAinvSexMismatch = 14,    // X-linked: parents' sexes do not fit
  kAinvGroupParent = 15,    // genetic groups: first parent unknown
  kAinvGroupMethod = 16,    // genetic groups with X-linked or inbred lines
  kAinvSizes = 17,          // inconsistent sizes
  kAinvBrokenRow = 101      // a row chain without its diagonal
};

struct AinvOptions {
  int ngrp = 0;         // the first ngrp rows are genetic groups
  int groupOffset = 0;  // above 0: leave empty groups alone
  int fmode = 0;        // above 0: fgsx holds the generation number (fgen)
  int xlink = 0;        // above 0: X-linked method, fgsx holds sex (1 or 2)
  int method = -1;      // at or above 0: an empty group closes a constraint
  double pself = 0;     // selfing rate of rows with only the first parent
  int ibl = 0;          // 1: inbred lines
  double dib = 1;       // inbreeding of an inbred line
  int mgs = 0;          // 1: the second parent is the maternal grandsire
  int debug = 0;        // nonzero: trace line
  // Inbreeding: 0 chooses, 1 walks the ancestors, 2 keeps a band of A (see
  // pedigree/band.h; falls back to the walk where the band does not apply).
  int inbreeding_method = 0;
  i64 band_lag = 0;     // lag the work array has room for past g5vaig_work_words
};

struct AinvArgs {
  span<i32> llainv;             // 2 * lenai: (column, link) per slot
  span<double> ainv;            // lenai values
  i64 lenai = 0;
  span<const i32> plist;        // 2 * nan: first and second parent, 0 unknown
  span<const double> fgsx;      // nan: fgen (fmode > 0) or sex (xlink > 0)
  span<double> inbreeding;      // nan + 1: [0] unknown parent (-1), [r] row r
  i32 nan = 0;
  AinvOptions opt;
  double det = 0;               // out: log determinant of A (rows past the groups)
  i64 NEXT = 0;                 // out: highest slot in use
  int ifault = 0;               // out: fault code, 0 when none
  int where = 0;                // out: row of the fault, 0 when none
  int empty_groups = 0;         // out: groups with no progeny
  int constraints = 0;          // out: constraints generated for them
  int band_used = 0;            // out: 1 when the inbreeding came from the band
};

// Words of work g5vaig needs for `nan` rows (without the band).
u64 g5vaig_work_words(i64 nan, int ibl);

// The lag of the band worth room in the work array for these rows and
// options (0: none), and the words to add for it.
i64 g5vaig_band_lag(span<const i32> plist, i64 nan, const AinvOptions& o);

// Adds row I's contribution to the store: with C = 1/MV and parent weights
// PR, A(I,I) += C; for a known S, A(S,S) += C PR1^2 and A(I,S) -= C PR1;
// for a known D the same with PR2; with both, A(S,D) += C PR1 PR2.  `dslot`
// (optional, nan+1 entries) caches the slot of each row's diagonal.
// Returns 1 with FLAG set (kAinvPoolFull or kAinvBrokenRow) on failure.
int g5vllin(span<double> ainv, span<i32> llainv, i64 lenai, i64& NEXT, i32 I, i32 S, i32 D,
            const double PR[2], double C, int& FLAG, span<i32> dslot = span<i32>());

// Forms the row store, the inbreeding and the log determinant.  The store
// must hold at least nan slots; `work` at least g5vaig_work_words words.
// Returns 1 on a fault (a.ifault, a.where, the text in the message store).
int g5vaig(AinvArgs& a, WorkArray work);

// Writes the store as triples, three reals a record (row, column, value),
// rows in order, off-diagonals first by ascending column, diagonal last.
// linv receives the number of records.  Returns 1 (fault 9) when `ginv`
// is too short.
int pedigree_triples(AinvArgs& a, span<double> ginv, i64& linv);

// The whole entry below the host: licence check, g5vaig with `det` set to
// 2 - det at entry (the host passes 2 so that the log determinant starts
// from 0), and the triples when `ginv` is not empty.
int pedigree(AinvArgs& a, WorkArray work, span<double> ginv, i64& linv);

}  // namespace tarnel

#endif
