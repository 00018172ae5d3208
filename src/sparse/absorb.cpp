// Absorption: factors the store in place from position NEQ down to 2 and
// solves for the effects.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "host/console.h"
#include "host/messages.h"
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

}  // namespace

int g5vxxa(MmeStore& st, AbsorbArgs& a, int& nfault) {
  const i32 neq = st.neq, nd = st.ndense;
  const Pool pool = st.pool();
  int& err = *a.err;
  const i64 nheads = static_cast<i64>(neq) - nd;
  if (neq < 1 || nd < 1 || nd > neq || a.iw.size() < 2u * neq || a.dd.size() < (size_t)neq ||
      a.soln.size() < (size_t)neq || a.work.size() < (size_t)neq || a.off < st.len ||
      a.off + neq > pool.nlnk || st.len > pool.nval || st.lx >= st.len || st.lx < nheads) {
    err = 6;
    return g5vflt(nfault, 6);
  }
  // Sampling puts a second solution behind the first.
  const bool sampling = a.impute[0] >= 1;
  if (sampling) {
    if (a.soln.size() < 2u * static_cast<size_t>(neq)) return g5vflt(nfault, 4);
    if (a.rng == nullptr) {
      g5verror(" Sampled solutions need a random-number generator", 3);
      return g5vflt(nfault, 101);
    }
  }
  // Strips: from THREADS 101 on the row updates are dealt to up to eight
  // strips, each with its own free-run record; below that the runs are only
  // handed out.
  const bool strips = a.threads >= 101;
  const int nstrip = strips ? std::min(a.threads - 100, 8) : std::min(std::max(a.threads, 1), 8);
  if (strips && a.status.size() < static_cast<size_t>(nstrip)) {
    err = 6;
    return g5vflt(nfault, 6);
  }
  // Every equation number of the order must be a valid equation.
  for (i32 q = 1; q <= neq; ++q) {
    const i32 e = iw2(a.iw, q);
    if (e < 1 || e > neq || (q <= nd && e != q)) {
      err = 7;
      return g5vflt(nfault, 7);
    }
  }

  // Tolerance.
  double tol = static_cast<double>(std::pow(10.0f, static_cast<float>(a.e1))) * 1e-9;
  if (a.iter >= 2) tol *= static_cast<double>(std::pow(10.0f, static_cast<float>(a.e2 - 1)));

  a.nsing = 0;
  a.moves = 0;
  FreeRun pardolx[8];
  for (auto& r : pardolx) r = FreeRun{};
  i64& lx = st.lx;
  auto tab1 = [&](i64 q) -> i32& { return pool.col(a.off + q); };
  auto tab2 = [&](i64 q) -> i32& { return pool.lnk(a.off + q); };

  // Rows from equation order to the order of IW.
  if (neq > nd) {
    for (i32 e = 1; e <= neq; ++e) tab1(e) = 0;
    for (i32 q = nd + 1; q <= neq; ++q) {
      const i32 e = iw2(a.iw, q);
      if (tab1(e) != 0) {
        err = 7;
        return g5vflt(nfault, 7);
      }
      tab1(e) = q;
    }
    for (i32 e = 1; e <= nd; ++e) tab1(e) = e;
    // Permute the heads along the cycles: the head of equation e goes to
    // slot newpos(e)-NDENSE.  Done heads are marked by a negated table entry.
    for (i32 e0 = nd + 1; e0 <= neq; ++e0) {
      if (tab1(e0) < 0 || tab1(e0) == e0) continue;
      double v = pool.val(e0 - nd);
      i32 c = pool.col(e0 - nd), l = pool.lnk(e0 - nd);
      i32 e = e0;
      while (tab1(e) > 0) {
        const i32 q = tab1(e);
        tab1(e) = -q;
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
      if (tab1(e) < 0) tab1(e) = -tab1(e);
    for (i64 s = 1; s <= lx; ++s) {
      const i32 c = pool.col(s);
      if (c > nd) {
        if (c > neq) {
          err = 130;
          return g5vflt(nfault, 130);
        }
        pool.col(s) = tab1(c);
      }
    }
  }

  // Slots taken before absorption stay below LEN.
  Pool below = pool;
  below.nval = st.len - 1;
  // Pivot tolerances; sparse rows re-sorted into lower-triangle form.
  for (i32 q = 2; q <= nd && q <= neq; ++q)
    a.dd.at1(q) = std::fmax(std::fabs(st.dense(q, q)) * tol, tol);
  for (i32 q = neq; q > nd; --q) {
    const i64 h = q - nd;
    if (pool.lnk(h) == -1) {
      a.dd.at1(q) = tol;
      continue;
    }
    i64 s = pool.lnk(h);
    pool.lnk(h) = 0;
    int guard = 0;
    while (s > 0) {
      if (++guard > neq + 1 || s > lx) {
        err = 136;
        return g5vflt(nfault, 136);
      }
      const i64 nxt = pool.lnk(s);
      const i32 c = pool.col(s);
      if (c > q) {
        const i64 hc = c - nd;
        if (pool.lnk(hc) == -1) {
          // The transposed row was never touched: give it a zero diagonal.
          pool.lnk(hc) = 0;
          i64 t = hc;
          if (g5vlld(below, lx, t, c, 0.0)) {
            err = 6;
            return g5vflt(nfault, 6);
          }
        }
        insert_sorted(pool, hc, s, q);
      } else if (c >= 1) {
        insert_sorted(pool, h, s, c);
      }
      s = nxt;
    }
  }
  for (i32 q = nd + 1; q <= neq; ++q) {
    const i64 h = q - nd;
    if (pool.lnk(h) == -1) continue;
    i64 s = h;
    while (pool.lnk(s) > 0) s = pool.lnk(s);
    if (pool.col(s) != q) {  // a row without its diagonal: give it one
      if (g5vlld(below, lx, s, q, 0.0)) {
        err = 6;
        return g5vflt(nfault, 6);
      }
      s = lx;
    }
    a.dd.at1(q) = std::fmax(std::fabs(pool.val(s)) * tol, tol);
  }

  for (auto& r : a.rank) r = 0;
  a.logdet = 0.0;

  const i64 step = std::max<i64>(200000, st.len / 10);
  i64 nextreport = step + step / 2;
  i64 top = st.len;
  const i64 lxmax = st.len;
  PackArgs pk;
  pk.lx = &lx;
  pk.top = &top;
  pk.ndense = nd;
  pk.neq = neq;
  pk.trace = a.trace;
  pk.unit = a.unit;
  pk.err = &err;
  a.peaklx = lx;
  const double tiny = 1e-18;
  const int maxmoves = 4 * (neq - nd) + 50;

  // Subtracts am times the packed row's elements from slot s to rstart
  // from the complete row whose head is hc: every column has its slot,
  // nothing is inserted.
  auto add_to_complete = [&](i64 hc, i64 s, i64 rstart, double am) {
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
  };
  auto singular = [&](i32 q, i32 e, double d) {
    if (iw1(a.iw, e) > 0) iw1(a.iw, e) = -iw1(a.iw, e);
    if (a.trace && a.iter >= 2 && d != 0.0)
      vprt("G5VXXA Extra singularity %d %d %g %g %g\n", e, q, d, a.dd.at1(q), tol);
    a.dd.at1(q) = 0.0;
    a.soln.at1(q) = 0.0;
    ++a.nsing;
  };
  auto pivot = [&](i32 q, i32 e, double d) {
    a.logdet += std::log(std::fabs(d));
    const i32 t = iw1(a.iw, e);
    const i32 at = t < 0 ? -t : t;
    if (at > 0 && static_cast<size_t>(at) <= a.rank.size()) a.rank.at1(at) += 1;
    a.dd.at1(q) = 1.0 / d;
  };

  // Rows laid out contiguously now and again as fill-in scatters them; the
  // rows of the block that the order leaves to fill in (positions
  // NDENSE+1..blocktop) are laid out complete.  While `intact` holds, the
  // element of column c >= 2 of a block row sits at (its first element) +
  // c - 2.  Compaction and moves may break that, and clear it.
  const i32 blocktop = a.tail >= 1 && a.tail <= neq - nd ? nd + a.tail : 0;
  i64 laid = neq > nd ? relayout(pool, lx, top, nd, neq, neq, blocktop) : -1;
  bool intact = laid >= 0 && blocktop > 0;
  if (laid < 0) laid = lx - nheads;

  i32 p = neq;  // the position being absorbed

  // Free runs of the strips.  On the strip path a slot held in a run and
  // not yet used carries column kHeld: neither a hole (compaction and the
  // trimming of LX pass it by) nor an element.  Before anything that may
  // compact or lay the pool out again, release_runs() turns them into holes
  // and empties the records; a strip then takes a new run when it needs one.
  constexpr i32 kHeld = -1;
  i64 held = 0;  // slots held in runs
  auto hold = [&](i64 base, i64 n) {
    for (i64 s = base + 1; s <= base + n; ++s) {
      pool.val(s) = 0.0;
      pool.col(s) = kHeld;
      pool.lnk(s) = 0;
    }
    held += n;
  };
  auto unhold = [&](i64 base, i64 n) {
    for (i64 s = base + 1; s <= base + n; ++s) {
      if (pool.col(s) != kHeld) continue;
      pool.col(s) = 0;
      pool.lnk(s) = 0;
    }
    held -= n;
  };
  auto release_runs = [&]() {
    if (!strips) return;
    for (int k = 0; k < nstrip; ++k) {
      FreeRun& r = pardolx[k];
      if (r.count > 0) unhold(r.base, r.count);
      if (r.ncount > 0) unhold(r.nbase, r.ncount);
      r = FreeRun{};
    }
    held = 0;
  };
  if (a.threads > 1) {
    if (a.iter <= 1 && a.trace) vprt(" Threads NEQ %d %d %d\n", a.threads, nd, neq);
    for (int k = 0; k < nstrip; ++k) {
      const i64 run = neq / 2;
      if (lx + run >= st.len) {
        err = 6;
        return g5vflt(nfault, 100000 + neq);
      }
      pardolx[k].base = lx;
      pardolx[k].count = run;
      if (strips) {
        hold(lx, run);
      }
      lx += run;
    }
    if (!strips) {
      // The single path never uses the runs: they go back at once, so that
      // no stale slot above LX is ever read as an element.
      lx = pardolx[0].base;
    }
    if (a.trace)
      for (int k = 0; k < nstrip; ++k)
        vprt(" Strip %d %lld %lld %lld %lld\n", k + 1, (long long)pardolx[k].base,
             (long long)pardolx[k].count, (long long)pardolx[k].nbase, (long long)pardolx[k].ncount);
  }
  if (lx > a.peaklx) a.peaklx = lx;
  for (int k = 0; strips && k < nstrip; ++k) a.status[k] = 0;
  // Makes sure that strip k holds at least `need` slots, taking a spare run
  // of `plen` slots (the pivot row's length) from LX when its run is short.
  // Result 0; 1 when the pool has no room left even after compaction.
  auto ensure = [&](int k, i64 need, i64 plen) -> int {
    FreeRun& r = pardolx[k];
    if (r.count + r.ncount >= need) return 0;
    if (r.ncount > 0) {  // the spare cannot cover it either: start on it
      if (r.count > 0) unhold(r.base, r.count);
      r.base = r.nbase;
      r.count = r.ncount;
      r.nbase = 0;
      r.ncount = 0;
    }
    i64 want = std::max(plen, need - r.count);
    if (lx + want >= top) {
      intact = false;
      release_runs();
      if (a.trace) vprt(" Compact %d %d %lld\n", p, neq, (long long)lx);
      g5vllp(pool, lx, nd, neq, top - want, a.trace, a.unit);
      want = std::max(plen, need);
      if (lx + want >= top) want = top - 1 - lx;
      if (want < need) return 1;
    }
    r.nbase = lx;
    r.ncount = want;
    hold(lx, want);
    lx += want;
    if (lx > a.peaklx) a.peaklx = lx;
    if (a.trace)
      vprt(" Strip %d %lld %lld %lld %lld\n", k + 1, (long long)r.base, (long long)r.count,
           (long long)r.nbase, (long long)r.ncount);
    return 0;
  };
  // The block absorbed with dense kernels, in panels of NB pivots: each
  // panel is factored on its own rows, then its pivots update every row
  // below it in one pass per row.  The arithmetic per element is that of the
  // row update below (multipliers under 1e-18 are dropped), only grouped.
  // Result: the position at which it stopped, all rows above it pivoted (or
  // singular) and their updates applied: NDENSE when the block is done, or
  // a row that needs the pivot search, which the element path then takes.
  constexpr int NB = 32;
  auto absorb_block = [&](i32 q) -> i32 {
    double* prow[NB];
    double prhs[NB], pr[NB], w[NB];
    double w4[4][NB];
    while (q > nd) {
      const i32 pend = std::max(nd + 1, q - NB + 1);
      int np = 0;
      i32 qq = q;
      bool stopped = false;
      for (; qq >= pend; --qq) {
        const i32 e = iw2(a.iw, qq);
        double* rq = block_row(pool, nd, qq);
        const double d = rq[qq];
        if (iw1(a.iw, e) < 0) {
          singular(qq, e, 0.0);
          continue;
        }
        const double ad = std::fabs(d);
        if (ad < tol) {  // a complete row always has off-diagonal elements
          stopped = true;
          break;
        }
        if (ad <= tol || ad <= a.dd.at1(qq)) {
          singular(qq, e, d);
          continue;
        }
        pivot(qq, e, d);
        const double r = 1.0 / d;
        const double rhs = pool.val(qq - nd);
        for (i32 c = qq - 1; c >= pend; --c) {
          const double am = rq[c] * r;
          if (std::fabs(am) < tiny) continue;
          axpy1(block_row(pool, nd, c), rq, am, 2, c);
          pool.val(c - nd) -= am * rhs;
        }
        prow[np] = rq;
        prhs[np] = rhs;
        pr[np] = r;
        ++np;
      }
      // The panel's pivots update every row below it: four rows at a time
      // on the columns they share, then each row on the rest of its own.
      const double* const* pb = prow;
      auto target = [&](i32 c, double*& y, double*& y1) {
        y = nullptr;  // y[j]: column j >= 2 of row c
        if (c > nd) {
          y = block_row(pool, nd, c);
          y1 = &pool.val(c - nd);
        } else {
          const i64 base = static_cast<i64>(c) * (c - 1) / 2;  // X(c,j) at base+j
          y1 = &st.x[base];
          if (c >= 2) y = &st.x[base + 1] - 2;
        }
      };
      auto weights = [&](i32 c, double* wr) {
        bool any = false;
        for (int k = 0; k < np; ++k) {
          const double am = (c >= 2 ? prow[k][c] : prhs[k]) * pr[k];
          wr[k] = std::fabs(am) < tiny ? 0.0 : am;
          any = any || wr[k] != 0.0;
        }
        return any;
      };
      auto rhs = [&](const double* wr, double* y1) {
        double s1 = 0.0;
        for (int k = 0; k < np; ++k) s1 += wr[k] * prhs[k];
        *y1 -= s1;
      };
      // Columns are taken in blocks of CB, so that the panel's part of a
      // block stays in the second-level cache while every row below takes
      // its update there.  Each element gets the same single contribution
      // from the panel whatever the order of the blocks.  Rows are grouped
      // by four from the top: group c holds rows c..c-3 and shares columns
      // 2..c-3; its own columns above c-3, its right-hand sides and the
      // rows below 5 are done with the first block.
      constexpr i32 CB = 512;
      for (i32 j0 = 2; np > 0 && j0 <= std::max(pend - 1, 2); j0 += CB) {
        const i32 j1 = j0 + CB - 1;
        i32 c = pend - 1;
        for (; c >= 5; c -= 4) {
          if (c - 3 < j0 && j0 > 2) break;  // no shared column in this block
          double* y[4];
          double* y1[4];
          bool any = false;
          for (int r = 0; r < 4; ++r) {
            target(c - r, y[r], y1[r]);
            any = weights(c - r, w4[r]) || any;
          }
          if (!any) continue;
          const i32 hi = std::min(c - 3, j1);
          if (hi >= j0) update4(y[0], y[1], y[2], y[3], w4[0], NB, pb, np, j0, hi);
          if (j0 == 2) {
            for (int r = 0; r < 3; ++r) update1(y[r], w4[r], pb, np, c - 2, c - r);
            for (int r = 0; r < 4; ++r) rhs(w4[r], y1[r]);
          }
        }
        if (j0 != 2) continue;
        for (; c >= 1; --c) {
          double *y, *y1;
          target(c, y, y1);
          if (weights(c, w)) {
            if (c >= 2) update1(y, w, pb, np, 2, c);
            rhs(w, y1);
          }
        }
      }
      if (stopped) return qq;
      q = pend - 1;
    }
    return nd;
  };
  bool blockdone = false;

  while (p >= 2) {
    if (p > nd && (lx - nheads - held > laid + laid / 2 + 50000 || (blocktop > 0 && p == blocktop && !intact))) {
      release_runs();
      const i64 l2 = relayout(pool, lx, top, nd, neq, p, blocktop);
      laid = l2 >= 0 ? l2 : lx - nheads;
      if (l2 >= 0 && blocktop > 0) intact = true;
    }
    if (p > nd && top - p < lx) intact = false;  // packing may compact
    if (p > nd && p == blocktop && intact && !blockdone) {
      blockdone = true;
      if (block_complete(pool, lx, nd, blocktop)) {
        const i32 stop = absorb_block(p);
        // The absorbed rows packed as the element path packs them.
        for (i32 q = p; q > stop; --q) {
          if (top - q < lx) {
            intact = false;
            release_runs();  // packing may compact
          }
          i64 rstart = 0, plen = 0;
          g5vxil(pool, pk, rstart, q, plen);
          tab2(q) = static_cast<i32>(rstart);
          if (err != 0) {
            err += 1;
            return g5vflt(nfault, 100000 + q);
          }
          if (lx > a.peaklx) a.peaklx = lx;
        }
        p = stop;
        continue;
      }
    }
    if (a.trace && lx > nextreport) {
      vprt(" Absorbing %d %d %.1f%%\n", p, neq, 100.0 * lx / std::max<i64>(st.len, 1));
      nextreport += step;
    }
    const i32 e = iw2(a.iw, p);
    if (p > nd) {
      if (top - p < lx) release_runs();  // packing may compact
      i64 rstart = 0, plen = 0;
      const double d = g5vxil(pool, pk, rstart, p, plen);
      tab2(p) = static_cast<i32>(rstart);
      if (err != 0) {
        err += 1;
        return g5vflt(nfault, 100000 + p);
      }
      if (lx > a.peaklx) a.peaklx = lx;
      if (iw1(a.iw, e) < 0) {
        singular(p, e, 0.0);
        --p;
        continue;
      }
      if (plen > 0 && pool.col(rstart) == 0) {
        iw1(a.iw, e) = 0;
        a.soln.at1(p) = 0.0;
        a.dd.at1(p) = 0.0;
        --p;
        continue;
      }
      const double ad = std::fabs(d);
      if (ad < tol && plen > 1) {
        // Pivot search: a constraint-like row with a zero diagonal.
        i32 target = 0;
        bool seen = false;
        for (i64 s = rstart; s > rstart - plen + 1; --s) {
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
            if (a.trace) vprt(" %d %d %g\n", e, p, d);
          }
        }
        if (target > 0 && target < p && a.moves < maxmoves) {
          if (a.trace && a.moves < 51)
            vprt(" Move %d %d %d %g\n", p, e, iw2(a.iw, target), d);
          MoveArgs mv;
          mv.lx = &lx;
          mv.top = top;
          mv.lxmax = lxmax;
          mv.ndense = nd;
          mv.neq = neq;
          mv.off = a.off;
          mv.iw = a.iw;
          mv.dd = a.dd;
          mv.nfault = &nfault;
          intact = false;
          if (g5vxmp(pool, mv, p, target)) {
            err = 496;
            if (nfault == 6) nfault = 100000 + p;
            return 1;
          }
          ++a.moves;
          continue;  // the row now at p is absorbed next
        }
        singular(p, e, d);
        --p;
        continue;
      }
      if (ad <= tol || ad <= a.dd.at1(p)) {
        singular(p, e, d);
        --p;
        continue;
      }
      pivot(p, e, d);
      const double r = 1.0 / d;
      // Row update: element k (slot rstart-k), columns ascending with k.
      const i64 dslot = rstart - plen + 1;  // the diagonal
      if (strips) {
        // The off-diagonal elements dealt to the strips in turn: strip k
        // takes elements k, k+NS, k+2NS, ... in descending position.  Each
        // element updates a row of its own, so the strips never meet and
        // the arithmetic per element is that of the single path.
        Pool lim = pool;
        lim.nval = top;
        const i64 noff = plen - 1;
        for (int k = 0; k < nstrip; ++k) {
          a.status[k] = 0;
          for (i64 i = k; i < noff; i += nstrip) {
            const i64 s = dslot + 1 + i;
            const i32 c = pool.col(s);
            const double am = pool.val(s) * r;
            if (std::fabs(am) < tiny) continue;
            const i64 last = rstart - s;
            if (c > nd) {
              const i64 hc = c - nd;
              if (intact && c <= blocktop && pool.col(hc) == 1 && pool.lnk(hc) > 0) {
                add_to_complete(hc, s, rstart, am);
                continue;
              }
              const bool untouched = pool.lnk(hc) == -1;
              if (ensure(k, last + 1 + (untouched ? 1 : 0), plen)) {
                a.status[k] = -99;
                break;
              }
              lim.nval = top;
              i64 pos = hc;
              if (untouched) {  // the target gets its diagonal first
                const i64 n = freerun_next(pardolx[k]);
                --held;
                pool.val(n) = 0.0;
                pool.col(n) = c;
                pool.lnk(n) = 0;
                pool.lnk(hc) = static_cast<i32>(n);
              }
              const i64 before = pardolx[k].count + pardolx[k].ncount;
              g5vllrt(lim, pardolx[k], pos, s, -am, last);
              held -= before - (pardolx[k].count + pardolx[k].ncount);
              if (pos < 0) {
                a.status[k] = -99;
                break;
              }
            } else if (c >= 1) {
              const i64 base = static_cast<i64>(c) * (c - 1) / 2;  // X(c,cc) at base+cc
              for (i64 t = s; t <= rstart; ++t) {
                const i32 cc = pool.col(t);
                if (cc >= 1 && cc <= c) st.x[base + cc - 1] -= am * pool.val(t);
              }
            }
          }
        }
        int failed = 0;
        for (int k = 0; k < nstrip; ++k)
          if (a.status[k] == -99) ++failed;
        if (failed > 0) {
          if (a.trace) vprt(" Strips failed %d %d\n", p, failed);
          err += 1 + 495;
          return g5vflt(nfault, 100000 + p);
        }
        if (lx > a.peaklx) a.peaklx = lx;
        if (lx >= top) return g5vflt(nfault, 100000 + p);
        --p;
        continue;
      }
      for (i64 s = dslot + 1; s <= rstart; ++s) {
        const i32 c = pool.col(s);
        const double am = pool.val(s) * r;
        if (std::fabs(am) < tiny) continue;
        const i64 last = rstart - s;  // elements of lower column than c
        if (c > nd) {
          const i64 hc = c - nd;
          if (intact && c <= blocktop && pool.col(hc) == 1 && pool.lnk(hc) > 0) {
            add_to_complete(hc, s, rstart, am);
            continue;
          }
          if (lx + last + 1 >= top) {
            intact = false;
            if (a.trace) vprt(" Compact %d %d %lld\n", p, neq, (long long)lx);
            if (g5vllp(pool, lx, nd, neq, top - (last + 1), a.trace, a.unit) == 1) {
              err += 1 + 495;
              return g5vflt(nfault, 100000 + p);
            }
          }
          Pool lim = pool;
          lim.nval = top;
          i64 pos = c - nd;
          if (pool.lnk(pos) == -1) {  // an untouched target gets its diagonal first
            if (g5vlld(lim, lx, pos, c, 0.0)) {
              err += 1 + 495;
              return g5vflt(nfault, 100000 + p);
            }
          }
          g5vllrs(lim, lx, pos, s, -am, last);
          if (pos < 0) {
            err += 1 + 495;
            return g5vflt(nfault, 100000 + p);
          }
        } else if (c >= 1) {
          const i64 base = static_cast<i64>(c) * (c - 1) / 2;  // X(c,cc) at base+cc
          for (i64 t = s; t <= rstart; ++t) {
            const i32 cc = pool.col(t);
            if (cc >= 1 && cc <= c) st.x[base + cc - 1] -= am * pool.val(t);
          }
        }
        if (lx > a.peaklx) a.peaklx = lx;
      }
      if (lx >= st.len) {
        if (g5vflt(nfault, 100000 + p)) return 1;
      }
      --p;
      continue;
    }
    // Dense position.
    if (p == nd && !a.dense_copy.empty())
      std::copy(st.x.begin(), st.x.begin() + std::min<i64>(st.lssp, a.dense_copy.size()), a.dense_copy.begin());
    if (iw1(a.iw, e) < 0) {
      singular(p, e, 0.0);
      --p;
      continue;
    }
    const double d = st.dense(p, p), t = a.dd.at1(p);
    if (!(d > t)) {
      if (d < -8 * t) {
        ++a.negpiv;
        if (a.trace) vprt(" Negative pivot %d %d %g %g\n", p, e, d, t);
      }
      singular(p, e, d);
      --p;
      continue;
    }
    pivot(p, e, d);
    const double r = 1.0 / d;
    const double* rowp = &st.x[static_cast<i64>(p) * (p - 1) / 2];  // rowp[j-1] = X(p,j)
    // Each row j takes one update from this pivot and no row's update reads
    // another's, so the order in which the rows are worked does not change
    // the result: the blocked order of the strips comes down, in one thread,
    // to this descending loop (rows with a negligible multiplier skipped),
    // and the results do not depend on THREADS.
    for (i32 j = p - 1; j >= 1; --j) {
      const double am = rowp[j - 1] * r;
      if (std::fabs(am) > tol) {
        double* rowj = &st.x[static_cast<i64>(j) * (j - 1) / 2];
        for (i32 i = 1; i <= j; ++i) rowj[i - 1] -= am * rowp[i - 1];
      }
    }
    --p;
  }
  release_runs();
  if (a.trace) vprt(" equations reordered %d\n", a.moves);

  // Solution by position.  A sample follows the same sums over the sample
  // itself, with a normal draw of variance DD(q) added for the equations in
  // the sampling range, so that its deviations from the solution have the
  // inverse of the coefficient matrix as covariance.  A negative pivot (a
  // constraint row) has no variance of its own: its draw takes |DD(q)|.
  span<double> smp = sampling ? a.soln.subspan(neq, neq) : span<double>();
  if (sampling) {
    if (a.trace) vprt(" Sampling range %d %d\n", a.impute[0], a.impute[1]);
    smp.at1(1) = a.soln.at1(1);
  }
  if (neq > nd) tab2(nd) = static_cast<i32>(top);
  for (i32 q = 2; q <= neq; ++q) {
    const i32 e = iw2(a.iw, q);
    if (iw1(a.iw, e) < 0 || a.dd.at1(q) == 0.0) {
      a.soln.at1(q) = 0.0;
      if (sampling) smp.at1(q) = 0.0;
      continue;
    }
    double sum = 0.0, tsum = 0.0;
    if (q > nd) {
      i64 s = tab2(q);
      if (pool.col(s) == 1) {
        sum = pool.val(s);
        tsum = sum;
        --s;
      }
      for (; s > top && pool.col(s) != q; --s) {
        const i32 c = pool.col(s);
        if (c >= 2 && c < q) {
          sum -= pool.val(s) * a.soln.at1(c);
          if (sampling) tsum -= pool.val(s) * smp.at1(c);
        }
      }
    } else {
      sum = st.dense(q, 1);
      tsum = sum;
      for (i32 j = 2; j < q; ++j) {
        sum -= st.dense(q, j) * a.soln.at1(j);
        if (sampling) tsum -= st.dense(q, j) * smp.at1(j);
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
  return 0;
}

}  // namespace tarnel
