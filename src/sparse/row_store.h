// The sparse row store of the mixed model equations and its kernels.
//
// The equations are held as the lower triangle of a symmetric matrix of NEQ
// rows, in the current order of positions (never model equations).  Rows 1
// to NDENSE form a packed dense triangle; all later rows are linked lists in
// a pool of slots.  Position 1 is the response: column 1 of every row is
// that row's right-hand side.
//
// Memory (all inside the caller's work array):
//   X      reals.  X(1)..X(LSSP) is the dense triangle by rows, element (r,c),
//          c <= r, at r(r-1)/2 + c.  Pool slot s has its value at X(LSSP+s).
//   L      pairs of 32-bit integers parallel to the pool: L(1,s) the column
//          of slot s, L(2,s) the link to the next element of the same row
//          (0 closes the row; -1 only at an untouched head).  L may run past
//          the value area: tables of the ordering and of absorption live
//          behind the pool in L (e.g. L(2,OFF+r), the start of packed row r).
// Slots are 1-based.  Slots 1..NEQ-NDENSE are the row heads: row r
// (r > NDENSE) has its head in slot r-NDENSE for good.  A head starts as
// column 1, link -1, value 0.  Along a chain columns strictly ascend and
// the chain ends with the diagonal (column r, link 0).  L(1,s) == 0 marks a
// hole.  Absorption packs pivot rows downward from a top pointer TOP: a
// packed row starts (head, lowest column) at its start slot and runs down
// to the diagonal at its lowest slot.
//
// Kernels never write outside the view: where the description lets a slot
// be taken blindly, a kernel here reports "no room" instead, and callers
// turn that into fault 6 (out of workspace).
#ifndef TARNEL_SPARSE_ROW_STORE_H
#define TARNEL_SPARSE_ROW_STORE_H

#include "control/engine_types.h"

namespace tarnel {

// A view of the pool: slot s (1-based) has value val(s), column col(s) and
// link lnk(s).  `nval` slots have a value; `nlnk` (>= nval) slots have an
// integer pair, the extra pairs holding tables behind the pool.
struct Pool {
  double* v = nullptr;  // v[s-1] is the value of slot s (X shifted by LSSP)
  i32* l = nullptr;     // l[2(s-1)] column, l[2(s-1)+1] link of slot s
  i64 nval = 0;
  i64 nlnk = 0;

  Pool() = default;
  Pool(double* values, i64 nvalues, i32* links, i64 nlinks)
      : v(values), l(links), nval(nvalues), nlnk(nlinks) {}
  double& val(i64 s) const { return v[s - 1]; }
  i32& col(i64 s) const { return l[2 * (s - 1)]; }
  i32& lnk(i64 s) const { return l[2 * (s - 1) + 1]; }
  // True when slot s may hold a value and a pair.
  bool ok(i64 s) const { return s >= 1 && s <= nval; }
};

// The whole store: dense triangle, pool and counts.  Built by the caller over
// the work array; every routine of the sparse subsystem takes it.
struct MmeStore {
  span<double> x;   // X(1).. : LSSP dense reals, then pool values
  span<i32> l;      // L pairs: 2 ints per slot, slot 1 at l[0]
  i32 neq = 0;      // NEQ
  i32 ndense = 1;   // NDENSE (>= 1)
  i64 lssp = 1;     // NDENSE(NDENSE+1)/2
  i64 lx = 0;       // LX: highest slot in use
  i64 len = 0;      // LEN: pool slots usable while forming and absorbing

  // The pool view (slot 1 = X(LSSP+1)).
  Pool pool() const {
    i64 nv = static_cast<i64>(x.size()) - lssp;
    if (nv < 0) nv = 0;
    return Pool(x.data() + lssp, nv, l.data(), static_cast<i64>(l.size() / 2));
  }
  // Dense element (r,c), 1 <= c <= r <= NDENSE.
  double& dense(i64 r, i64 c) const { return x[r * (r - 1) / 2 + c - 1]; }
  // Head slot of sparse row r.
  i64 head(i32 r) const { return static_cast<i64>(r) - ndense; }
  // Puts every head in its untouched state and sets LX to the heads; clears
  // the dense triangle.  Returns 1 when the view is too small (nfault 6).
  int clear(int& nfault);
};

// g5vlld: takes slot LX+1 with value `val`, column `col`, link 0 and sets
// L(2,tail) to it; LX grows by one.  Appends behind a known last element,
// or starts an untouched row (tail = head, val = 0).  Result 0; 1 when slot
// LX+1 is outside the pool (nothing written).
int g5vlld(const Pool& p, i64& lx, i64 tail, i32 col, double val);

// g5vlli: walks a linked row forward from slot `pos` and adds `val` to column
// `col`, inserting the column (in slot LX+1, without relinking a
// predecessor) when it is missing.  Result 0 when placed, with pos the slot
// to continue from (the link after the element); 1 when the row ended
// first, with pos the final link; 2 when an insertion found no free slot.
int g5vlli(const Pool& p, i64& lx, i64& pos, i32 col, double val);

// g5vxij: looks `col` up in a packed row, walking down from slot `pos` (whose
// lowest slot, the diagonal, is `last`).  Result: the value, with pos set to
// the slot below; 0.0 at once when a higher column is met.  Walking past
// `last` sets err to 2666 and gives 0.0.
double g5vxij(const Pool& p, i64& pos, i64 last, i32 col, int& err);

// Arguments of g5vxil and g5vllp.
struct PackArgs {
  i64* lx = nullptr;     // LX, may fall (trailing holes)
  i64* top = nullptr;    // TOP, falls by the row's length
  i32 ndense = 1;
  i32 neq = 0;
  bool trace = false;
  int unit = 6;
  int* err = nullptr;    // error word: 666 overlap, 667 no room
};

// g5vxil: packs row `row` from its chain into the slots TOP, TOP-1, ...;
// rstart receives the start (the first TOP).  Visited slots other than the
// head become holes.  Result: the diagonal value (0.0 for an untouched row,
// or on error with *err set).  `len` out: number of packed elements.
double g5vxil(const Pool& p, const PackArgs& a, i64& rstart, i32 row, i64& len);

// g5vllp: compacts the pool by moving the elements of the last rows into the
// holes at the bottom.  Result 0 when LX is now below `limit` or nothing
// more is worth moving; 1 when LX is still at or above `limit`.
int g5vllp(const Pool& p, i64& lx, i32 ndense, i32 neq, i64 limit, bool trace, int unit);

// g5vxmp: moves the equation at position i to position k (k < i) while
// absorbing, relabelling every column of the store.  Packed rows lie in
// slots top+1..lxmax; rstart(r) = L(2, off+r) is the start of packed row r.
// iw is the order (pairs: iw[2(q-1)] = IW(1,q), iw[2(q-1)+1] = IW(2,q)), dd
// one real per position.  Result 0; 1 when no slot was free (nfault 6 set).
struct MoveArgs {
  i64* lx = nullptr;
  i64 top = 0;
  i64 lxmax = 0;
  i32 ndense = 1;
  i32 neq = 0;
  i64 off = 0;        // offset of the packed-row start table in L
  span<i32> iw;       // 2*NEQ
  span<double> dd;    // NEQ
  int* nfault = nullptr;
};
int g5vxmp(const Pool& p, const MoveArgs& a, i32 i, i32 k);

// g5vllrs: adds scale times a packed row to a linked row.  The packed
// elements are slots rowslot+k for k = last..0 (columns ascending as k
// falls: slot rowslot+last holds the lowest column, rowslot the highest).  Walks forward from
// `pos` (start with the target row's head); new elements take slot next+1.
// pos = -99 signals a broken chain; pos = -98 signals no free slot.
void g5vllrs(const Pool& p, i64& next, i64& pos, i64 rowslot, double scale, i64 last);

// A free-run record: (base, count, next base, next count).  The next slot
// is base+count; count falls by one; an exhausted run is replaced by the
// next one.
struct FreeRun {
  i64 base = 0, count = 0, nbase = 0, ncount = 0;
};
// The next slot of a free-run record (0 when both runs are exhausted).
i64 freerun_next(FreeRun& run);
// g5vllrt: as g5vllrs, new slots taken from a free-run record.  A run that
// is exhausted gives pos = -98.
void g5vllrt(const Pool& p, FreeRun& run, i64& pos, i64 rowslot, double scale, i64 last);

// g5vxii: the index in X (1-based) of the diagonal of `row`: row(row+1)/2 in
// the dense block, else the slot of its diagonal plus `offset` (LSSP), or 0
// for an untouched row.  Walks the chain from the head.
i64 g5vxii(i32 row, const Pool& p, i32 ndense, i64 offset);

// g5vxxi: turns a vector held by position into one held by equation:
// vector(IW(2,k)) = work(k) for k = 2..NEQ; element 1 stays.  `work` needs
// NEQ reals.  iw as in MoveArgs.
void g5vxxi(span<double> vector, span<double> work, span<const i32> iw, i32 neq);

// g5vxxp: prints rows first..last of the store, one row a line: the row
// number, then column and value pairs (debugging aid).
void g5vxxp(const MmeStore& s, i32 first, i32 last);

}  // namespace tarnel

#endif
