// Absorption: factors the store in place from position NEQ down to 2 and
// solves for the effects.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "host/console.h"
#include "host/messages.h"
#include "sparse/blas.h"
#include "sparse/kernels.h"
#include "sparse/mme.h"

namespace tarnel {

namespace {

inline i32& iw1(span<i32> iw, i64 q) { return iw[2 * (q - 1)]; }
inline i32& iw2(span<i32> iw, i64 q) { return iw[2 * (q - 1) + 1]; }

// Inserts slot e (its value kept) into row r with column c, walking from
// the head and relinking the predecessor.  An equal column takes the value
// and e becomes a hole.
void insert_sorted(const Pool& p, i64 head, i64 e, i32 c) {
  i64 prev = head;
  i64 s = p.lnk(head);
  while (s > 0 && p.col(s) < c) {
    prev = s;
    s = p.lnk(s);
  }
  if (s > 0 && p.col(s) == c) {
    p.val(s) += p.val(e);
    p.col(e) = 0;
    p.lnk(e) = 0;
    return;
  }
  p.col(e) = c;
  p.lnk(e) = static_cast<i32>(s > 0 ? s : 0);
  p.lnk(prev) = static_cast<i32>(e);
}


// Links the slots of `keys` (column << 32 | slot), sorted here, behind the
// head of an empty row in column order; a repeated column adds its value to
// the first slot of that column and becomes a hole, as insert_sorted does.
void relink_sorted(const Pool& p, i64 head, i64* keys, i64 n) {
  std::sort(keys, keys + n);
  i64 prev = head;
  i32 pc = -1;
  for (i64 k = 0; k < n; ++k) {
    const i64 e = keys[k] & 0xffffffffLL;
    const i32 c = static_cast<i32>(keys[k] >> 32);
    if (c == pc) {
      p.val(prev) += p.val(e);
      p.col(e) = 0;
      p.lnk(e) = 0;
      continue;
    }
    p.lnk(prev) = static_cast<i32>(e);
    prev = e;
    pc = c;
  }
  p.lnk(prev) = 0;
}

// Lays the linked rows of positions NDENSE+1..upto out again: every row's
// elements in consecutive slots in column order, straight after the heads,
// so that walking a row reads memory in sequence.  Rows NDENSE+1..`full`
// (0: none) are laid out complete over the columns 2..row, with
// explicit zeros where an element is missing: the block that the order
// leaves to fill in then takes its fill without insertions, and column c
// of such a row (c >= 2) lies at a fixed distance from its first element.  The rows
// are first copied into the free room above LX and then back down.  Returns
// the number of elements laid out, or -1 (nothing changed) when the room is
// short.
i64 relayout(const Pool& p, i64& lx, i64 top, i32 nd, i32 neq, i32 upto, i32 full) {
  const i64 nheads = static_cast<i64>(neq) - nd;
  const i32 lo = 2;  // first column laid out complete
  i64 live = 0;
  for (i32 r = nd + 1; r <= upto; ++r) {
    const i64 h = r - nd;
    if (p.lnk(h) <= 0) continue;
    const bool whole = r <= full;
    for (i64 s = p.lnk(h); s > 0; s = p.lnk(s))
      if (!whole || p.col(s) < lo) ++live;
    if (whole) live += r - lo + 1;
  }
  if (lx + live + 1 >= top) return -1;
  i64 at = lx;
  auto put = [&](i32 c, double v) {
    ++at;
    p.val(at) = v;
    p.col(at) = c;
    p.lnk(at) = 1;  // 1: the row goes on
  };
  for (i32 r = nd + 1; r <= upto; ++r) {
    const i64 h = r - nd;
    if (p.lnk(h) <= 0) continue;
    const bool whole = r <= full;
    i64 s = p.lnk(h);
    if (whole) {
      for (; s > 0 && p.col(s) < lo; s = p.lnk(s)) put(p.col(s), p.val(s));
      for (i32 c = lo; c <= r; ++c) {
        if (s > 0 && p.col(s) == c) {
          put(c, p.val(s));
          s = p.lnk(s);
        } else {
          put(c, 0.0);
        }
      }
    } else {
      for (; s > 0; s = p.lnk(s)) put(p.col(s), p.val(s));
    }
    p.lnk(at) = 0;  // the diagonal closes the row
  }
  i64 dst = nheads, src = lx;
  for (i32 r = nd + 1; r <= upto; ++r) {
    const i64 h = r - nd;
    if (p.lnk(h) <= 0) continue;
    p.lnk(h) = static_cast<i32>(dst + 1);
    while (true) {
      ++dst;
      ++src;
      const bool more = p.lnk(src) != 0;
      p.val(dst) = p.val(src);
      p.col(dst) = p.col(src);
      p.lnk(dst) = more ? static_cast<i32>(dst + 1) : 0;
      if (!more) break;
    }
  }
  for (i64 s = dst + 1; s <= at; ++s) {
    p.col(s) = 0;
    p.lnk(s) = 0;
  }
  lx = dst > nheads ? dst : nheads;
  return live;
}


// Pointer to column 0 of a block row laid out complete: element (r, j),
// 2 <= j <= r, is at [j].
inline double* block_row(const Pool& p, i32 nd, i32 r) { return &p.val(p.lnk(r - nd) - 2); }

// True when every row NDENSE+1..blocktop is laid out complete: head of
// column 1, then columns 2..r in consecutive slots closed by the diagonal.
bool block_complete(const Pool& p, i64 lx, i32 nd, i32 blocktop) {
  for (i32 r = nd + 1; r <= blocktop; ++r) {
    const i64 h = r - nd;
    if (p.col(h) != 1 || p.lnk(h) <= 0) return false;
    const i64 first = p.lnk(h);
    if (first + r - 2 > lx) return false;
    for (i64 k = 0; k <= r - 2; ++k)
      if (p.col(first + k) != k + 2 || p.lnk(first + k) != (k < r - 2 ? first + k + 1 : 0)) return false;
  }
  return true;
}

// The rows are laid out again once the pool has grown by half of what was
// laid out at the last lay-out and this many slots besides.
constexpr i64 kRelayoutSlack = 50000;
// Multipliers below this are dropped from the row updates.
constexpr double kTinyMultiplier = 1e-18;
// Pivots absorbed together by the dense kernels of the block, and the
// columns of a block that stay in the second-level cache.
constexpr int kPanel = 32;
constexpr i32 kColumnBlock = 512;
// Fault of a pool too small while absorbing position p: 100000 + p.
constexpr int kOutOfMemoryAt = 100000;
// A failed row update adds this to the error word; a failed move sets the
// word to kMoveFailed.
constexpr int kUpdateFailed = 1 + 495;
constexpr int kMoveFailed = 496;
// Most strips, and the status of a strip that ran out of room.
constexpr int kMaxStrips = 8;
constexpr int kStripFailed = -99;
// On the strip path a slot held in a run and not yet used carries this
// column: neither a hole (compaction and the trimming of LX pass it by) nor
// an element.
constexpr i32 kHeld = -1;

// The free runs of the strips.  From THREADS 101 on the row updates are
// dealt to up to eight strips, each with its own run; below that the runs
// are only handed out.  Before anything that may compact or lay the pool out
// again, release() turns the held slots into holes and empties the records;
// a strip then takes a new run when it needs one.
struct StripRuns {
  Pool pool;
  bool on = false;  // the updates go through the strips
  int n = 1;        // strips
  FreeRun run[kMaxStrips];
  i64 held = 0;     // slots held in runs

  void hold(i64 base, i64 count) {
    for (i64 s = base + 1; s <= base + count; ++s) {
      pool.val(s) = 0.0;
      pool.col(s) = kHeld;
      pool.lnk(s) = 0;
    }
    held += count;
  }
  void unhold(i64 base, i64 count) {
    for (i64 s = base + 1; s <= base + count; ++s) {
      if (pool.col(s) != kHeld) continue;
      pool.col(s) = 0;
      pool.lnk(s) = 0;
    }
    held -= count;
  }
  void release() {
    if (!on) return;
    for (int k = 0; k < n; ++k) {
      FreeRun& r = run[k];
      if (r.count > 0) unhold(r.base, r.count);
      if (r.ncount > 0) unhold(r.nbase, r.ncount);
      r = FreeRun{};
    }
    held = 0;
  }
};

// The block that the order leaves to fill in: positions NDENSE+1..top are
// laid out complete.  While `intact` holds, the element of column c >= 2 of
// a block row sits at (its first element) + c - 2; compaction and moves may
// break that, and clear it.
struct BlockLayout {
  i32 top = 0;        // 0: no block
  i64 laid = 0;       // elements at the last lay-out
  bool intact = false;
  bool done = false;  // the block has been tried
};

// What the steps of one absorption share.
struct Absorption {
  MmeStore& st;
  AbsorbArgs& a;
  int& nfault;
  int& err;
  const Pool pool;
  const i32 neq, nd;
  const i64 nheads;
  i64& lx;
  i64 top = 0;        // packed rows lie above TOP
  i64 lxmax = 0;
  double tol = 0.0;
  int maxmoves = 0;
  bool sampling = false;
  PackArgs pk;
  StripRuns runs;
  BlockLayout block;
  i32 p = 0;          // the position being absorbed
  InterruptPoll interrupted{32};

  Absorption(MmeStore& s, AbsorbArgs& args, int& nf)
      : st(s), a(args), nfault(nf), err(*args.err), pool(s.pool()), neq(s.neq), nd(s.ndense),
        nheads(static_cast<i64>(s.neq) - s.ndense), lx(s.lx) {}
  Absorption(const Absorption&) = delete;

  i32& tab1(i64 q) const { return pool.col(a.off + q); }
  i32& tab2(i64 q) const { return pool.lnk(a.off + q); }
  int fail(int code) {
    err = code;
    return g5vflt(nfault, code);
  }
  // A pool too small at position q.
  int out_of_memory(i32 q) { return g5vflt(nfault, kOutOfMemoryAt + q); }
  void note_peak() {
    if (lx > a.peaklx) a.peaklx = lx;
  }

  // Position q (equation e) takes no pivot.
  void singular(i32 q, i32 e, double d) {
    if (iw1(a.iw, e) > 0) iw1(a.iw, e) = -iw1(a.iw, e);
    if (a.trace && a.iter >= 2 && d != 0.0)
      vprt("G5VXXA Extra singularity %d %d %g %g %g\n", e, q, d, a.dd.at1(q), tol);
    a.dd.at1(q) = 0.0;
    a.soln.at1(q) = 0.0;
    ++a.nsing;
  }
  // Position q (equation e) pivots on d: the log-determinant, the rank of
  // the equation's term and the reciprocal pivot.
  void pivot(i32 q, i32 e, double d) {
    a.logdet += std::log(std::fabs(d));
    const i32 t = iw1(a.iw, e);
    const i32 at = t < 0 ? -t : t;
    if (at > 0 && static_cast<size_t>(at) <= a.rank.size()) a.rank.at1(at) += 1;
    a.dd.at1(q) = 1.0 / d;
  }
};

// The views, the sampling set-up, the strips and the order.  Result 0 or
// the fault.
int check_args(const MmeStore& st, AbsorbArgs& a, int& nfault, StripRuns& runs) {
  const i32 neq = st.neq, nd = st.ndense;
  const Pool pool = st.pool();
  const i64 nheads = static_cast<i64>(neq) - nd;
  if (neq < 1 || nd < 1 || nd > neq || a.iw.size() < 2u * neq || a.dd.size() < (size_t)neq ||
      a.soln.size() < (size_t)neq || a.work.size() < (size_t)neq || a.off < st.len ||
      a.off + neq > pool.nlnk || st.len > pool.nval || st.lx >= st.len || st.lx < nheads) {
    *a.err = 6;
    return g5vflt(nfault, 6);
  }
  // Sampling puts a second solution behind the first.
  if (a.impute[0] >= 1) {
    if (a.soln.size() < 2u * static_cast<size_t>(neq)) return g5vflt(nfault, 4);
    if (a.rng == nullptr) {
      g5verror(" Sampled solutions need a random-number generator", 3);
      return g5vflt(nfault, 101);
    }
  }
  runs.pool = pool;
  runs.on = a.threads >= 101;
  runs.n = runs.on ? std::min(a.threads - 100, kMaxStrips)
                  : std::min(std::max(a.threads, 1), kMaxStrips);
  if (runs.on && a.status.size() < static_cast<size_t>(runs.n)) {
    *a.err = 6;
    return g5vflt(nfault, 6);
  }
  // Every equation number of the order must be a valid equation.
  for (i32 q = 1; q <= neq; ++q) {
    const i32 e = iw2(a.iw, q);
    if (e < 1 || e > neq || (q <= nd && e != q)) {
      *a.err = 7;
      return g5vflt(nfault, 7);
    }
  }
  return 0;
}

// Rows from equation order to the order of IW: the heads permuted along the
// cycles, the columns renumbered.
int to_position_order(Absorption& x) {
  const Pool& pool = x.pool;
  const i32 neq = x.neq, nd = x.nd;
  for (i32 e = 1; e <= neq; ++e) x.tab1(e) = 0;
  for (i32 q = nd + 1; q <= neq; ++q) {
    const i32 e = iw2(x.a.iw, q);
    if (x.tab1(e) != 0) return x.fail(7);
    x.tab1(e) = q;
  }
  for (i32 e = 1; e <= nd; ++e) x.tab1(e) = e;
  // The head of equation e goes to slot newpos(e)-NDENSE.  Done heads are
  // marked by a negated table entry.
  for (i32 e0 = nd + 1; e0 <= neq; ++e0) {
    if (x.tab1(e0) < 0 || x.tab1(e0) == e0) continue;
    double v = pool.val(e0 - nd);
    i32 c = pool.col(e0 - nd), l = pool.lnk(e0 - nd);
    i32 e = e0;
    while (x.tab1(e) > 0) {
      const i32 q = x.tab1(e);
      x.tab1(e) = -q;
      const i64 h = q - nd;
      const double v2 = pool.val(h);
      const i32 c2 = pool.col(h), l2 = pool.lnk(h);
      pool.val(h) = v;
      pool.col(h) = c;
      pool.lnk(h) = l;
      v = v2;
      c = c2;
      l = l2;
      e = q;
    }
  }
  for (i32 e = 1; e <= neq; ++e)
    if (x.tab1(e) < 0) x.tab1(e) = -x.tab1(e);
  for (i64 s = 1; s <= x.lx; ++s) {
    const i32 c = pool.col(s);
    if (c > nd) {
      if (c > neq) return x.fail(130);
      pool.col(s) = x.tab1(c);
    }
  }
  return 0;
}

// Pivot tolerances; sparse rows re-sorted into lower-triangle form, each
// closed by its diagonal.
int lower_triangle_form(Absorption& x) {
  const Pool& pool = x.pool;
  const i32 neq = x.neq, nd = x.nd;
  const double tol = x.tol;
  // A row's own elements are sorted as keys (column, slot) in the solution's
  // scratch, which is free until the solve, and linked once.
  span<i64> keys(reinterpret_cast<i64*>(x.a.work.data()), x.a.work.size());
  // Slots taken before absorption stay below LEN.
  Pool below = pool;
  below.nval = x.st.len - 1;
  for (i32 q = 2; q <= nd && q <= neq; ++q)
    x.a.dd.at1(q) = std::fmax(std::fabs(x.st.dense(q, q)) * tol, tol);
  for (i32 q = neq; q > nd; --q) {
    const i64 h = q - nd;
    if (pool.lnk(h) == -1) {
      x.a.dd.at1(q) = tol;
      continue;
    }
    i64 s = pool.lnk(h);
    pool.lnk(h) = 0;
    int guard = 0;
    i64 nkeys = 0;  // -1 once the keys overflowed
    while (s > 0) {
      if (++guard > neq + 1 || s > x.lx) return x.fail(136);
      const i64 nxt = pool.lnk(s);
      const i32 c = pool.col(s);
      if (c > q) {
        const i64 hc = c - nd;
        if (pool.lnk(hc) == -1) {
          // The transposed row was never touched: give it a zero diagonal.
          pool.lnk(hc) = 0;
          i64 t = hc;
          if (g5vlld(below, x.lx, t, c, 0.0)) return x.fail(6);
        }
        insert_sorted(pool, hc, s, q);
      } else if (c >= 1 && nkeys >= 0 && nkeys < static_cast<i64>(keys.size())) {
        keys[nkeys++] = (static_cast<i64>(c) << 32) | s;
      } else if (c >= 1) {  // no more room for keys: the rest one by one
        if (nkeys > 0) relink_sorted(pool, h, keys.data(), nkeys);
        nkeys = -1;
        insert_sorted(pool, h, s, c);
      }
      s = nxt;
    }
    if (nkeys > 0) relink_sorted(pool, h, keys.data(), nkeys);
  }
  for (i32 q = nd + 1; q <= neq; ++q) {
    const i64 h = q - nd;
    if (pool.lnk(h) == -1) continue;
    i64 s = h;
    while (pool.lnk(s) > 0) s = pool.lnk(s);
    if (pool.col(s) != q) {  // a row without its diagonal: give it one
      if (g5vlld(below, x.lx, s, q, 0.0)) return x.fail(6);
      s = x.lx;
    }
    x.a.dd.at1(q) = std::fmax(std::fabs(pool.val(s)) * tol, tol);
  }
  return 0;
}

// Hands a run of NEQ/2 slots to each strip.  The single path never uses
// them: they go back at once, so that no stale slot above LX is ever read
// as an element.
int hand_out_runs(Absorption& x) {
  StripRuns& r = x.runs;
  if (x.a.iter <= 1 && x.a.trace) vprt(" Threads NEQ %d %d %d\n", x.a.threads, x.nd, x.neq);
  for (int k = 0; k < r.n; ++k) {
    const i64 run = x.neq / 2;
    if (x.lx + run >= x.st.len) {
      x.err = 6;
      return x.out_of_memory(x.neq);
    }
    r.run[k].base = x.lx;
    r.run[k].count = run;
    if (r.on) r.hold(x.lx, run);
    x.lx += run;
  }
  if (!r.on) x.lx = r.run[0].base;
  if (x.a.trace)
    for (int k = 0; k < r.n; ++k)
      vprt(" Strip %d %lld %lld %lld %lld\n", k + 1, (long long)r.run[k].base,
           (long long)r.run[k].count, (long long)r.run[k].nbase, (long long)r.run[k].ncount);
  return 0;
}

// Makes sure that strip k holds at least `need` slots, taking a spare run
// of `plen` slots (the pivot row's length) from LX when its run is short.
// Result 0; 1 when the pool has no room left even after compaction.
int ensure_run(Absorption& x, int k, i64 need, i64 plen) {
  StripRuns& runs = x.runs;
  FreeRun& r = runs.run[k];
  if (r.count + r.ncount >= need) return 0;
  if (r.ncount > 0) {  // the spare cannot cover it either: start on it
    if (r.count > 0) runs.unhold(r.base, r.count);
    r.base = r.nbase;
    r.count = r.ncount;
    r.nbase = 0;
    r.ncount = 0;
  }
  i64 want = std::max(plen, need - r.count);
  if (x.lx + want >= x.top) {
    x.block.intact = false;
    runs.release();
    if (x.a.trace) vprt(" Compact %d %d %lld\n", x.p, x.neq, (long long)x.lx);
    g5vllp(x.pool, x.lx, x.nd, x.neq, x.top - want, x.a.trace, x.a.unit);
    want = std::max(plen, need);
    if (x.lx + want >= x.top) want = x.top - 1 - x.lx;
    if (want < need) return 1;
  }
  r.nbase = x.lx;
  r.ncount = want;
  runs.hold(x.lx, want);
  x.lx += want;
  x.note_peak();
  if (x.a.trace)
    vprt(" Strip %d %lld %lld %lld %lld\n", k + 1, (long long)r.base, (long long)r.count,
         (long long)r.nbase, (long long)r.ncount);
  return 0;
}

// The pivots of one panel of the block: their rows, right-hand sides and
// reciprocal pivots.
struct Panel {
  double* row[kPanel];
  double rhs[kPanel], r[kPanel];
  int n = 0;
  i32 end = 0;  // the lowest position of the panel
};

// The pivot rule for one row of a dense panel: the row is singular and
// skipped, needs the pivot search, or is taken as the pivot.
enum class PivotStep { kSkip, kSearch, kTaken };
PivotStep pivot_step(Absorption& x, i32 qq, i32 e, double d) {
  if (iw1(x.a.iw, e) < 0) {
    x.singular(qq, e, 0.0);
    return PivotStep::kSkip;
  }
  const double ad = std::fabs(d);
  if (ad < x.tol) return PivotStep::kSearch;  // a complete row always has off-diagonal elements
  if (ad <= x.tol || ad <= x.a.dd.at1(qq)) {
    x.singular(qq, e, d);
    return PivotStep::kSkip;
  }
  x.pivot(qq, e, d);
  return PivotStep::kTaken;
}

// Factors the panel of positions q down to panel.end on its own rows.
// Result: the position at which a row needs the pivot search (the panel
// then ends above it), or 0 when the whole panel was taken.
i32 factor_panel(Absorption& x, Panel& pn, i32 q) {
  const Pool& pool = x.pool;
  const i32 nd = x.nd;
  pn.n = 0;
  for (i32 qq = q; qq >= pn.end; --qq) {
    const i32 e = iw2(x.a.iw, qq);
    double* rq = block_row(pool, nd, qq);
    const double d = rq[qq];
    const PivotStep step = pivot_step(x, qq, e, d);
    if (step == PivotStep::kSkip) continue;
    if (step == PivotStep::kSearch) return qq;
    const double r = 1.0 / d;
    const double rhs = pool.val(qq - nd);
    for (i32 c = qq - 1; c >= pn.end; --c) {
      const double am = rq[c] * r;
      if (std::fabs(am) < kTinyMultiplier) continue;
      axpy1(block_row(pool, nd, c), rq, am, 2, c);
      pool.val(c - nd) -= am * rhs;
    }
    pn.row[pn.n] = rq;
    pn.rhs[pn.n] = rhs;
    pn.r[pn.n] = r;
    ++pn.n;
  }
  return 0;
}

// The rows below a panel, as the dense kernels see them: y[j] is column
// j >= 2 of row c, *y1 its right-hand side; the weights of the panel's
// pivots in row c.
struct PanelTargets {
  Absorption& x;
  const Panel& pn;
  void target(i32 c, double*& y, double*& y1) const {
    y = nullptr;
    if (c > x.nd) {
      y = block_row(x.pool, x.nd, c);
      y1 = &x.pool.val(c - x.nd);
    } else {
      const i64 base = static_cast<i64>(c) * (c - 1) / 2;  // X(c,j) at base+j
      y1 = &x.st.x[base];
      if (c >= 2) y = &x.st.x[base + 1] - 2;
    }
  }
  bool weights(i32 c, double* wr) const {
    bool any = false;
    for (int k = 0; k < pn.n; ++k) {
      const double am = (c >= 2 ? pn.row[k][c] : pn.rhs[k]) * pn.r[k];
      wr[k] = std::fabs(am) < kTinyMultiplier ? 0.0 : am;
      any = any || wr[k] != 0.0;
    }
    return any;
  }
  void rhs(const double* wr, double* y1) const {
    double s1 = 0.0;
    for (int k = 0; k < pn.n; ++k) s1 += wr[k] * pn.rhs[k];
    *y1 -= s1;
  }
};

// The panel's pivots update every row below it: four rows at a time on the
// columns they share, then each row on the rest of its own.  Columns are
// taken in blocks of kColumnBlock, so that the panel's part of a block stays
// in the second-level cache while every row below takes its update there.
// Each element gets the same single contribution from the panel whatever
// the order of the blocks.  Rows are grouped by four from the top: group c
// holds rows c..c-3 and shares columns 2..c-3; its own columns above c-3,
// its right-hand sides and the rows below 5 are done with the first block.
void update_below_panel(Absorption& x, const Panel& pn) {
  const PanelTargets tg{x, pn};
  const double* const* pb = pn.row;
  const int np = pn.n;
  double w[kPanel];
  double w4[4][kPanel];
  for (i32 j0 = 2; np > 0 && j0 <= std::max(pn.end - 1, 2); j0 += kColumnBlock) {
    const i32 j1 = j0 + kColumnBlock - 1;
    i32 c = pn.end - 1;
    for (; c >= 5; c -= 4) {
      if (c - 3 < j0 && j0 > 2) break;  // no shared column in this block
      double* y[4];
      double* y1[4];
      bool any = false;
      for (int r = 0; r < 4; ++r) {
        tg.target(c - r, y[r], y1[r]);
        any = tg.weights(c - r, w4[r]) || any;
      }
      if (!any) continue;
      const i32 hi = std::min(c - 3, j1);
      if (hi >= j0) update4(y[0], y[1], y[2], y[3], w4[0], kPanel, pb, np, j0, hi);
      if (j0 == 2) {
        for (int r = 0; r < 3; ++r) update1(y[r], w4[r], pb, np, c - 2, c - r);
        for (int r = 0; r < 4; ++r) tg.rhs(w4[r], y1[r]);
      }
    }
    if (j0 != 2) continue;
    for (; c >= 1; --c) {
      double *y, *y1;
      tg.target(c, y, y1);
      if (tg.weights(c, w)) {
        if (c >= 2) update1(y, w, pb, np, 2, c);
        tg.rhs(w, y1);
      }
    }
  }
}

// The block absorbed with dense kernels, in panels of kPanel pivots: each
// panel is factored on its own rows, then its pivots update every row below
// it in one pass per row.  The arithmetic per element is that of the row
// update of the element path (multipliers under kTinyMultiplier dropped),
// only grouped.  Result: the position at which it stopped, all rows above
// it pivoted (or singular) and their updates applied: NDENSE when the block
// is done, or a row that needs the pivot search, which the element path
// then takes.
i32 absorb_block(Absorption& x, i32 q) {
  Panel pn;
  while (q > x.nd) {
    pn.end = std::max(x.nd + 1, q - kPanel + 1);
    const i32 stopped = factor_panel(x, pn, q);
    update_below_panel(x, pn);
    if (stopped > 0) return stopped;
    q = pn.end - 1;
    // On an interrupt the element path takes over, and stops at once.
    if (q > x.nd && x.interrupted(32)) return q;
  }
  return x.nd;
}

// The block absorbed through the BLAS, on a square copy.  F holds positions
// 1..n (n the top of the block) column-major with leading dimension n:
// element (r, c), c <= r, of the equations at F[(c-1) + (r-1) n], so that
// row r is a column of F, its right-hand side first.  Panels of kBlasPanel
// pivots, from the top down: the panel's own triangle is eliminated pivot
// by pivot with the tests of the element path; the panel's columns below
// it then take the panel's eliminations at once (a triangular solve), and
// every row below the panel takes the panel's pivots in one product.  Each
// element gets the contributions of the element path (multipliers under
// kTinyMultiplier dropped); only the order of the sums differs.
constexpr int kBlasPanel = 256;
constexpr i32 kBlasColumns = 256;

struct SquareBlock {
  double* f = nullptr;  // n*n
  double* w = nullptr;  // n*kBlasPanel: the multipliers of a panel
  double* t = nullptr;  // kBlasPanel^2: the panel's eliminations
  i32 n = 0;
  double& at(i32 r, i32 c) const { return f[(c - 1) + static_cast<i64>(r - 1) * n]; }
  double* row(i32 r) const { return f + static_cast<i64>(r - 1) * n - 1; }  // row(r)[c]
};

}  // namespace

i64 block_room_words(i32 top) {
  const i64 n = top;
  return n * n + n * kBlasPanel + static_cast<i64>(kBlasPanel) * kBlasPanel;
}

namespace {

void square_triangle(const SquareBlock& sb, const double* v, int k, i32 m, i32 r0, i32 r1);

// Copies the dense triangle and the block rows into F (the rest cleared),
// or back when `out`.
void square_copy(Absorption& x, const SquareBlock& sb, bool out) {
  const i32 nd = x.nd, n = sb.n;
  if (!out) std::fill(sb.f, sb.f + static_cast<i64>(n) * n, 0.0);
  for (i32 r = 1; r <= n; ++r) {
    double* fr = sb.row(r);
    if (r <= nd) {
      double* xr = &x.st.x[static_cast<i64>(r) * (r - 1) / 2] - 1;  // xr[c] = X(r,c)
      if (out) std::copy(fr + 1, fr + r + 1, xr + 1);
      else std::copy(xr + 1, xr + r + 1, fr + 1);
      continue;
    }
    double* br = block_row(x.pool, nd, r);
    double& rhs = x.pool.val(r - nd);
    if (out) {
      rhs = fr[1];
      std::copy(fr + 2, fr + r + 1, br + 2);
    } else {
      fr[1] = rhs;
      std::copy(br + 2, br + r + 1, fr + 2);
    }
  }
}

// Eliminates the panel q..lo on its own triangle (rows and columns lo..q).
// The multipliers go to T (column-major, order q-lo+1, T(j,i) for pivot j
// on row i < j, local indices from lo).  Result: the position of a row that
// needs the pivot search, the panel then ending above it, or 0.
i32 square_panel(Absorption& x, const SquareBlock& sb, i32 q, i32 lo) {
  const i32 k = q - lo + 1;
  std::fill(sb.t, sb.t + static_cast<i64>(k) * k, 0.0);
  for (i32 qq = q; qq >= lo; --qq) {
    const i32 e = iw2(x.a.iw, qq);
    double* rq = sb.row(qq);
    const double d = rq[qq];
    const PivotStep step = pivot_step(x, qq, e, d);
    if (step == PivotStep::kSkip) continue;
    if (step == PivotStep::kSearch) return qq;
    const double r = 1.0 / d;
    for (i32 c = qq - 1; c >= lo; --c) {
      const double am = rq[c] * r;
      if (std::fabs(am) < kTinyMultiplier) continue;
      sb.t[(qq - lo) + static_cast<i64>(c - lo) * k] = am;
      axpy1(sb.row(c), rq, am, lo, c);
    }
  }
  return 0;
}

// The pivots pe..q of a panel whose triangle reached down to lo: their
// columns below lo take the panel's eliminations, then every row below pe
// takes their updates (rows lo..pe-1 only on the columns below lo, the rest
// came with the panel's triangle).
void square_update(const Absorption& x, const SquareBlock& sb, i32 q, i32 lo, i32 pe) {
  const i32 n = sb.n, k = q - pe + 1, kt = q - lo + 1;
  if (k <= 0) return;
  double* v = sb.row(pe) + 1;  // V(i,j) = F(pe+j, i+1): the pivot rows
  const double* t = sb.t + (pe - lo) * (static_cast<i64>(kt) + 1);
  blas_trsm('R', 'L', 'N', 'U', lo - 1, k, 1.0, t, kt, v, n);
  const i32 m = pe - 1;
  if (m < 1) return;
  for (i32 j = 0; j < k; ++j) {  // W(i,j): the multiplier of pivot pe+j in row i+1
    const i32 p = pe + j;
    const double* rp = sb.row(p);
    double* wj = sb.w + static_cast<i64>(j) * m;
    const bool off = x.a.dd.at1(p) == 0.0;  // singular: no updates
    for (i32 c = 1; c <= m; ++c) {
      const double am = off ? 0.0 : rp[c] * x.a.dd.at1(p);
      wj[c - 1] = std::fabs(am) < kTinyMultiplier ? 0.0 : am;
    }
  }
  // Columns lo..m (rows of the panel's triangle) take rows 1..lo-1 in one
  // product; the triangle of columns 1..lo-1 is split in halves.
  if (m >= lo)
    blas_gemm('N', 'T', lo - 1, m - lo + 1, k, -1.0, v, n, sb.w + (lo - 1), m, 1.0, sb.row(lo) + 1, n);
  square_triangle(sb, v, k, m, 1, std::min(m, lo - 1));
}

// Rows and columns r0..r1 of the trailing triangle (rows up to the column)
// take -V W': the rectangle of rows r0..mid-1 and columns mid..r1 in one
// product, the two triangles on each side in halves again; a triangle of at
// most kBlasColumns in one product that also writes the unused room below
// its diagonal.
void square_triangle(const SquareBlock& sb, const double* v, int k, i32 m, i32 r0, i32 r1) {
  const i32 n = sb.n, w = r1 - r0 + 1;
  if (w <= 0) return;
  if (w <= kBlasColumns) {
    blas_gemm('N', 'T', w, w, k, -1.0, v + (r0 - 1), n, sb.w + (r0 - 1), m, 1.0, sb.row(r0) + r0, n);
    return;
  }
  const i32 mid = r0 + w / 2;
  blas_gemm('N', 'T', mid - r0, r1 - mid + 1, k, -1.0, v + (r0 - 1), n, sb.w + (mid - 1), m, 1.0,
            sb.row(mid) + r0, n);
  square_triangle(sb, v, k, m, r0, mid - 1);
  square_triangle(sb, v, k, m, mid, r1);
}

// The block from position q (its top) down, through the BLAS.  Result as
// absorb_block's; -1 when the room does not hold the square.
i32 absorb_block_square(Absorption& x, i32 q) {
  if (static_cast<i64>(x.a.room.size()) < block_room_words(q)) return -1;
  SquareBlock sb;
  sb.n = q;
  sb.f = x.a.room.data();
  sb.w = sb.f + static_cast<i64>(q) * q;
  sb.t = sb.w + static_cast<i64>(q) * kBlasPanel;
  square_copy(x, sb, false);
  i32 stop = x.nd;
  while (q > x.nd) {
    const i32 lo = std::max(x.nd + 1, q - kBlasPanel + 1);
    const i32 stopped = square_panel(x, sb, q, lo);
    square_update(x, sb, q, lo, stopped > 0 ? stopped + 1 : lo);
    if (stopped > 0) {
      stop = stopped;
      break;
    }
    q = lo - 1;
    // On an interrupt the element path takes over, and stops at once.
    if (q > x.nd && x.interrupted(32)) {
      stop = q;
      break;
    }
  }
  square_copy(x, sb, true);
  return stop;
}

// Packs the rows the block absorbed, positions p down to stop+1, as the
// element path packs them.  Result 1 on a fault.
int pack_block(Absorption& x, i32 stop) {
  for (i32 q = x.p; q > stop; --q) {
    if (x.top - q < x.lx) {
      x.block.intact = false;
      x.runs.release();  // packing may compact
    }
    i64 rstart = 0, plen = 0;
    g5vxil(x.pool, x.pk, rstart, q, plen);
    x.tab2(q) = static_cast<i32>(rstart);
    if (x.err != 0) {
      x.err += 1;
      return x.out_of_memory(q);
    }
    x.note_peak();
  }
  return 0;
}

// Lays the rows out again when fill-in has scattered them, or when the
// block is reached and no longer intact; then, at the top of the block,
// absorbs it with the dense kernels.  Result: 1 when the block was taken
// (p has moved on), -1 on a fault, 0 otherwise.
int lay_out_and_take_block(Absorption& x) {
  BlockLayout& b = x.block;
  const i32 p = x.p;
  if (p > x.nd && (x.lx - x.nheads - x.runs.held > b.laid + b.laid / 2 + kRelayoutSlack ||
                   (b.top > 0 && p == b.top && !b.intact))) {
    x.runs.release();
    const i64 l2 = relayout(x.pool, x.lx, x.top, x.nd, x.neq, p, b.top);
    b.laid = l2 >= 0 ? l2 : x.lx - x.nheads;
    if (l2 >= 0 && b.top > 0) b.intact = true;
  }
  if (p > x.nd && x.top - p < x.lx) b.intact = false;  // packing may compact
  if (!(p > x.nd && p == b.top && b.intact && !b.done)) return 0;
  b.done = true;
  if (!block_complete(x.pool, x.lx, x.nd, b.top)) return 0;
  i32 stop = absorb_block_square(x, p);
  if (stop < 0) stop = absorb_block(x, p);
  if (pack_block(x, stop)) return -1;
  x.p = stop;
  return 1;
}

// Subtracts am times the packed row's elements from slot s to rstart from
// the complete row whose head is hc: every column has its slot, nothing is
// inserted.
void add_to_complete(const Pool& pool, i64 hc, i64 s, i64 rstart, double am) {
  const i64 base = pool.lnk(hc) - 2;
  for (i64 t = s; t <= rstart; ++t) {
    const i32 cc = pool.col(t);
    const double v = -am * pool.val(t);
    if (cc >= 2) {
      pool.val(base + cc) += v;
    } else if (cc == 1) {
      pool.val(hc) += v;
    }
  }
}

// Subtracts am times the packed row's elements from slot s to rstart from
// dense row c.
void add_to_dense(Absorption& x, i32 c, i64 s, i64 rstart, double am) {
  const i64 base = static_cast<i64>(c) * (c - 1) / 2;  // X(c,cc) at base+cc
  for (i64 t = s; t <= rstart; ++t) {
    const i32 cc = x.pool.col(t);
    if (cc >= 1 && cc <= c) x.st.x[base + cc - 1] -= am * x.pool.val(t);
  }
}

// True when column c's row is a block row laid out complete.
bool complete_target(const Absorption& x, i32 c) {
  const i64 hc = c - x.nd;
  return x.block.intact && c <= x.block.top && x.pool.col(hc) == 1 && x.pool.lnk(hc) > 0;
}

// The packed pivot row at position p: slots rstart (its start) down to its
// diagonal, plen elements, reciprocal pivot r.
struct PivotRow {
  i64 rstart = 0, plen = 0;
  double r = 0.0;
  i64 diag() const { return rstart - plen + 1; }
};

// The row update of the single path: element k of the pivot row (slot
// rstart-k, columns ascending with k) updates the row of its column.
// Result 1 on a fault.
int update_rows(Absorption& x, const PivotRow& pr) {
  const Pool& pool = x.pool;
  for (i64 s = pr.diag() + 1; s <= pr.rstart; ++s) {
    const i32 c = pool.col(s);
    const double am = pool.val(s) * pr.r;
    if (std::fabs(am) < kTinyMultiplier) continue;
    const i64 last = pr.rstart - s;  // elements of lower column than c
    if (c > x.nd) {
      if (complete_target(x, c)) {
        add_to_complete(pool, c - x.nd, s, pr.rstart, am);
        continue;
      }
      if (x.lx + last + 1 >= x.top) {
        x.block.intact = false;
        if (x.a.trace) vprt(" Compact %d %d %lld\n", x.p, x.neq, (long long)x.lx);
        if (g5vllp(pool, x.lx, x.nd, x.neq, x.top - (last + 1), x.a.trace, x.a.unit) == 1) {
          x.err += kUpdateFailed;
          return x.out_of_memory(x.p);
        }
      }
      Pool lim = pool;
      lim.nval = x.top;
      i64 pos = c - x.nd;
      if (pool.lnk(pos) == -1) {  // an untouched target gets its diagonal first
        if (g5vlld(lim, x.lx, pos, c, 0.0)) {
          x.err += kUpdateFailed;
          return x.out_of_memory(x.p);
        }
      }
      g5vllrs(lim, x.lx, pos, s, -am, last);
      if (pos < 0) {
        x.err += kUpdateFailed;
        return x.out_of_memory(x.p);
      }
    } else if (c >= 1) {
      add_to_dense(x, c, s, pr.rstart, am);
    }
    x.note_peak();
  }
  if (x.lx >= x.st.len) {
    if (x.out_of_memory(x.p)) return 1;
  }
  return 0;
}

// The row update of strip k: it takes the off-diagonal elements k, k+NS,
// k+2NS, ... in descending position.  Each element updates a row of its
// own, so the strips never meet and the arithmetic per element is that of
// the single path.  Sets the strip's status to kStripFailed when it runs
// out of room.
void update_strip(Absorption& x, const PivotRow& pr, int k) {
  const Pool& pool = x.pool;
  StripRuns& runs = x.runs;
  Pool lim = pool;
  const i64 noff = pr.plen - 1;
  x.a.status[k] = 0;
  for (i64 i = k; i < noff; i += runs.n) {
    const i64 s = pr.diag() + 1 + i;
    const i32 c = pool.col(s);
    const double am = pool.val(s) * pr.r;
    if (std::fabs(am) < kTinyMultiplier) continue;
    const i64 last = pr.rstart - s;
    if (c > x.nd) {
      const i64 hc = c - x.nd;
      if (complete_target(x, c)) {
        add_to_complete(pool, hc, s, pr.rstart, am);
        continue;
      }
      const bool untouched = pool.lnk(hc) == -1;
      if (ensure_run(x, k, last + 1 + (untouched ? 1 : 0), pr.plen)) {
        x.a.status[k] = kStripFailed;
        return;
      }
      lim.nval = x.top;
      i64 pos = hc;
      if (untouched) {  // the target gets its diagonal first
        const i64 n = freerun_next(runs.run[k]);
        --runs.held;
        pool.val(n) = 0.0;
        pool.col(n) = c;
        pool.lnk(n) = 0;
        pool.lnk(hc) = static_cast<i32>(n);
      }
      const i64 before = runs.run[k].count + runs.run[k].ncount;
      g5vllrt(lim, runs.run[k], pos, s, -am, last);
      runs.held -= before - (runs.run[k].count + runs.run[k].ncount);
      if (pos < 0) {
        x.a.status[k] = kStripFailed;
        return;
      }
    } else if (c >= 1) {
      add_to_dense(x, c, s, pr.rstart, am);
    }
  }
}

// The row update dealt to the strips in turn.  Result 1 on a fault.
int update_rows_by_strips(Absorption& x, const PivotRow& pr) {
  for (int k = 0; k < x.runs.n; ++k) update_strip(x, pr, k);
  int failed = 0;
  for (int k = 0; k < x.runs.n; ++k)
    if (x.a.status[k] == kStripFailed) ++failed;
  if (failed > 0) {
    if (x.a.trace) vprt(" Strips failed %d %d\n", x.p, failed);
    x.err += kUpdateFailed;
    return x.out_of_memory(x.p);
  }
  x.note_peak();
  if (x.lx >= x.top) return x.out_of_memory(x.p);
  return 0;
}

// A row with a zero diagonal (a constraint-like row): the position of a
// row to move it to, one whose diagonal can take a pivot, or 0.
i32 pivot_search(Absorption& x, const PivotRow& pr, i32 e, double d) {
  const Pool& pool = x.pool;
  const i32 p = x.p, nd = x.nd;
  const double tol = x.tol;
  i32 target = 0;
  bool seen = false;
  for (i64 s = pr.rstart; s > pr.rstart - pr.plen + 1; --s) {
    const i32 c = pool.col(s);
    if (c == p || c < 1) continue;
    if (std::fabs(pool.val(s)) > 100 * tol) {
      if (c <= nd) continue;
      seen = true;
      const i64 di = g5vxii(c, pool, nd, 0);
      if (di > 0 && std::fabs(pool.val(di)) >= tol) {
        target = c;
        break;
      }
    }
  }
  if (target == 0 && seen) {
    const i32 q0 = (nd + 2 * p) / 3;
    for (i32 q = q0; q > nd && target == 0; --q) {
      const i64 di = g5vxii(q, pool, nd, 0);
      if (di > 0 && std::fabs(pool.val(di)) > 100 * tol) target = q;
    }
    for (i32 q = q0 + 1; q < p && target == 0; ++q) {
      const i64 di = g5vxii(q, pool, nd, 0);
      if (di > 0 && std::fabs(pool.val(di)) > 100 * tol) target = q;
    }
    if (target == 0) {
      g5verror(" Lagrangian/Group equation error absorbing SSP", 2);
      if (x.a.trace) vprt(" %d %d %g\n", e, p, d);
    }
  }
  return target;
}

// Moves the equation at position p to position `target`.  Result 1 on a
// fault.
int move_row(Absorption& x, i32 e, i32 target, double d) {
  if (x.a.trace && x.a.moves < 51) vprt(" Move %d %d %d %g\n", x.p, e, iw2(x.a.iw, target), d);
  MoveArgs mv;
  mv.lx = &x.lx;
  mv.top = x.top;
  mv.lxmax = x.lxmax;
  mv.ndense = x.nd;
  mv.neq = x.neq;
  mv.off = x.a.off;
  mv.iw = x.a.iw;
  mv.dd = x.a.dd;
  mv.nfault = &x.nfault;
  x.block.intact = false;
  if (g5vxmp(x.pool, mv, x.p, target)) {
    x.err = kMoveFailed;
    if (x.nfault == 6) x.nfault = kOutOfMemoryAt + x.p;
    return 1;
  }
  ++x.a.moves;
  return 0;
}

// What a step leaves to the loop over positions.
enum class Next { kDown, kAgain, kFault };

// Absorbs the sparse position p: packs its row, then pivots (updating the
// rows of its columns), leaves it singular, or moves a row with a zero
// diagonal out of the way (the row now at p is absorbed next).
Next absorb_sparse(Absorption& x, i32 e) {
  const i32 p = x.p;
  if (x.top - p < x.lx) x.runs.release();  // packing may compact
  PivotRow pr;
  const double d = g5vxil(x.pool, x.pk, pr.rstart, p, pr.plen);
  x.tab2(p) = static_cast<i32>(pr.rstart);
  if (x.err != 0) {
    x.err += 1;
    x.out_of_memory(p);
    return Next::kFault;
  }
  x.note_peak();
  if (iw1(x.a.iw, e) < 0) {
    x.singular(p, e, 0.0);
    return Next::kDown;
  }
  if (pr.plen > 0 && x.pool.col(pr.rstart) == 0) {
    iw1(x.a.iw, e) = 0;
    x.a.soln.at1(p) = 0.0;
    x.a.dd.at1(p) = 0.0;
    return Next::kDown;
  }
  const double ad = std::fabs(d);
  if (ad < x.tol && pr.plen > 1) {
    const i32 target = pivot_search(x, pr, e, d);
    if (target > 0 && target < p && x.a.moves < x.maxmoves)
      return move_row(x, e, target, d) ? Next::kFault : Next::kAgain;
    x.singular(p, e, d);
    return Next::kDown;
  }
  if (ad <= x.tol || ad <= x.a.dd.at1(p)) {
    x.singular(p, e, d);
    return Next::kDown;
  }
  x.pivot(p, e, d);
  pr.r = 1.0 / d;
  const int fault = x.runs.on ? update_rows_by_strips(x, pr) : update_rows(x, pr);
  return fault ? Next::kFault : Next::kDown;
}

// Absorbs the dense position p.  Each row j takes one update from this
// pivot and no row's update reads another's, so the order in which the rows
// are worked does not change the result: the blocked order of the strips
// comes down, in one thread, to this descending loop (rows with a
// negligible multiplier skipped), and the results do not depend on THREADS.
void absorb_dense(Absorption& x, i32 e) {
  const i32 p = x.p;
  // The dense triangle before its first pivot: the fixed equations with
  // every other absorbed, kept for the tests of fixed terms.
  if (p == x.nd && !x.a.dense_copy.empty())
    std::copy(x.st.x.begin(), x.st.x.begin() + std::min<i64>(x.st.lssp, x.a.dense_copy.size()), x.a.dense_copy.begin());
  if (iw1(x.a.iw, e) < 0) {
    x.singular(p, e, 0.0);
    return;
  }
  const double d = x.st.dense(p, p), t = x.a.dd.at1(p);
  if (!(d > t)) {
    if (d < -8 * t) {
      ++x.a.negpiv;
      if (x.a.trace) vprt(" Negative pivot %d %d %g %g\n", p, e, d, t);
    }
    x.singular(p, e, d);
    return;
  }
  x.pivot(p, e, d);
  const double r = 1.0 / d;
  const double* rowp = &x.st.x[static_cast<i64>(p) * (p - 1) / 2];  // rowp[j-1] = X(p,j)
  for (i32 j = p - 1; j >= 1; --j) {
    const double am = rowp[j - 1] * r;
    if (std::fabs(am) > x.tol) {
      double* rowj = &x.st.x[static_cast<i64>(j) * (j - 1) / 2];
      for (i32 i = 1; i <= j; ++i) rowj[i - 1] -= am * rowp[i - 1];
    }
  }
}

// Positions NEQ down to 2.  Result 1 on a fault.
int absorb_positions(Absorption& x) {
  const i64 step = std::max<i64>(200000, x.st.len / 10);
  i64 nextreport = step + step / 2;
  x.p = x.neq;
  while (x.p >= 2) {
    // A dense position costs as much as many sparse ones: it reads the clock.
    if (x.interrupted(x.p > x.nd ? 1 : 32)) {
      g5verror("Interrupted by the user", 4);
      return g5vflt(x.nfault, 1);
    }
    const int taken = lay_out_and_take_block(x);
    if (taken < 0) return 1;
    if (taken > 0) continue;
    if (x.a.trace && x.lx > nextreport) {
      vprt(" Absorbing %d %d %.1f%%\n", x.p, x.neq, 100.0 * x.lx / std::max<i64>(x.st.len, 1));
      nextreport += step;
    }
    const i32 e = iw2(x.a.iw, x.p);
    if (x.p > x.nd) {
      const Next next = absorb_sparse(x, e);
      if (next == Next::kFault) return 1;
      if (next == Next::kAgain) continue;
    } else {
      absorb_dense(x, e);
    }
    --x.p;
  }
  return 0;
}

// Solution by position.  A sample follows the same sums over the sample
// itself, with a normal draw of variance DD(q) added for the equations in
// the sampling range, so that its deviations from the solution have the
// inverse of the coefficient matrix as covariance.  A negative pivot (a
// constraint row) has no variance of its own: its draw takes |DD(q)|.
void solve(Absorption& x) {
  AbsorbArgs& a = x.a;
  const Pool& pool = x.pool;
  const i32 neq = x.neq, nd = x.nd;
  const bool sampling = x.sampling;
  span<double> smp = sampling ? a.soln.subspan(neq, neq) : span<double>();
  if (sampling) {
    if (a.trace) vprt(" Sampling range %d %d\n", a.impute[0], a.impute[1]);
    smp.at1(1) = a.soln.at1(1);
  }
  if (neq > nd) x.tab2(nd) = static_cast<i32>(x.top);
  for (i32 q = 2; q <= neq; ++q) {
    const i32 e = iw2(a.iw, q);
    if (iw1(a.iw, e) < 0 || a.dd.at1(q) == 0.0) {
      a.soln.at1(q) = 0.0;
      if (sampling) smp.at1(q) = 0.0;
      continue;
    }
    double sum = 0.0, tsum = 0.0;
    if (q > nd) {
      i64 s = x.tab2(q);
      if (pool.col(s) == 1) {
        sum = pool.val(s);
        tsum = sum;
        --s;
      }
      for (; s > x.top && pool.col(s) != q; --s) {
        const i32 c = pool.col(s);
        if (c >= 2 && c < q) {
          sum -= pool.val(s) * a.soln.at1(c);
          if (sampling) tsum -= pool.val(s) * smp.at1(c);
        }
      }
    } else {
      sum = x.st.dense(q, 1);
      tsum = sum;
      for (i32 j = 2; j < q; ++j) {
        sum -= x.st.dense(q, j) * a.soln.at1(j);
        if (sampling) tsum -= x.st.dense(q, j) * smp.at1(j);
      }
    }
    a.soln.at1(q) = sum * a.dd.at1(q);
    if (sampling) {
      smp.at1(q) = tsum * a.dd.at1(q);
      if (e > a.impute[0] && e <= a.impute[1])
        smp.at1(q) += g5vnrv(*a.rng) * std::sqrt(std::fabs(a.dd.at1(q)));
    }
  }
  if (sampling) g5vxxi(smp, a.work, a.iw, neq);
  g5vxxi(a.soln, a.work, a.iw, neq);
}

}  // namespace

int g5vxxa(MmeStore& st, AbsorbArgs& a, int& nfault) {
  StripRuns runs;
  if (check_args(st, a, nfault, runs)) return 1;
  Absorption x(st, a, nfault);
  x.runs = runs;
  x.sampling = a.impute[0] >= 1;
  x.tol = static_cast<double>(std::pow(10.0f, static_cast<float>(a.e1))) * 1e-9;
  if (a.iter >= 2) x.tol *= static_cast<double>(std::pow(10.0f, static_cast<float>(a.e2 - 1)));
  a.nsing = 0;
  a.moves = 0;
  if (x.neq > x.nd && to_position_order(x)) return 1;
  if (lower_triangle_form(x)) return 1;
  for (auto& r : a.rank) r = 0;
  a.logdet = 0.0;

  x.top = st.len;
  x.lxmax = st.len;
  x.pk.lx = &x.lx;
  x.pk.top = &x.top;
  x.pk.ndense = x.nd;
  x.pk.neq = x.neq;
  x.pk.trace = a.trace;
  x.pk.unit = a.unit;
  x.pk.err = &x.err;
  a.peaklx = x.lx;
  x.maxmoves = 4 * (x.neq - x.nd) + 50;

  // Rows laid out contiguously now and again as fill-in scatters them; the
  // rows of the block are laid out complete.
  BlockLayout& b = x.block;
  b.top = a.tail >= 1 && a.tail <= x.neq - x.nd ? x.nd + a.tail : 0;
  b.laid = x.neq > x.nd ? relayout(x.pool, x.lx, x.top, x.nd, x.neq, x.neq, b.top) : -1;
  b.intact = b.laid >= 0 && b.top > 0;
  if (b.laid < 0) b.laid = x.lx - x.nheads;

  if (a.threads > 1 && hand_out_runs(x)) return 1;
  x.note_peak();
  for (int k = 0; x.runs.on && k < x.runs.n; ++k) a.status[k] = 0;

  if (absorb_positions(x)) return 1;
  x.runs.release();
  if (a.trace) vprt(" equations reordered %d\n", a.moves);
  solve(x);
  return 0;
}

}  // namespace tarnel
