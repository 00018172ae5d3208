// Kernels of the sparse row store: appending, inserting, packing rows,
// compaction, moving an equation and adding packed rows to linked rows.
#include "sparse/row_store.h"

#include <cmath>
#include <cstdio>

#include "host/console.h"
#include "host/messages.h"

namespace tarnel {

int MmeStore::clear(int& nfault) {
  Pool p = pool();
  i64 nheads = static_cast<i64>(neq) - ndense;
  if (ndense < 1 || neq < ndense || lssp != static_cast<i64>(ndense) * (ndense + 1) / 2 ||
      static_cast<i64>(x.size()) < lssp || nheads > p.nval || nheads > p.nlnk) {
    return g5vflt(nfault, 6);
  }
  for (i64 k = 0; k < lssp; ++k) x[k] = 0.0;
  for (i64 s = 1; s <= nheads; ++s) {
    p.val(s) = 0.0;
    p.col(s) = 1;
    p.lnk(s) = -1;
  }
  lx = nheads;
  return 0;
}

int g5vlld(const Pool& p, i64& lx, i64 tail, i32 col, double val) {
  i64 s = lx + 1;
  if (!p.ok(s) || !p.ok(tail)) return 1;
  p.val(s) = val;
  p.col(s) = col;
  p.lnk(s) = 0;
  p.lnk(tail) = static_cast<i32>(s);
  lx = s;
  return 0;
}

int g5vlli(const Pool& p, i64& lx, i64& pos, i32 col, double val) {
  i64 s = pos;
  while (s > 0) {
    if (!p.ok(s)) {
      pos = 0;
      return 1;
    }
    i32 c = p.col(s);
    if (c == col) {
      p.val(s) += val;
      pos = p.lnk(s);
      return 0;
    }
    if (c > col) {
      i64 n = lx + 1;
      if (!p.ok(n)) return 2;
      p.val(n) = p.val(s);
      p.col(n) = c;
      p.lnk(n) = p.lnk(s);
      p.col(s) = col;
      p.val(s) = val;
      p.lnk(s) = static_cast<i32>(n);
      pos = n;
      lx = n;
      return 0;
    }
    s = p.lnk(s);
  }
  pos = s;
  return 1;
}

double g5vxij(const Pool& p, i64& pos, i64 last, i32 col, int& err) {
  while (pos >= last && pos >= 1) {
    i32 c = p.col(pos);
    if (c == col) {
      double v = p.val(pos);
      --pos;
      return v;
    }
    if (c > col) return 0.0;
    --pos;
  }
  err = 2666;
  return 0.0;
}

int g5vllp(const Pool& p, i64& lx, i32 ndense, i32 neq, i64 limit, bool trace, int unit) {
  const i64 nheads = static_cast<i64>(neq) - ndense;
  const i64 low = nheads + 1;
  auto trim = [&]() {
    while (lx > low && p.col(lx) == 0) --lx;
  };
  trim();
  i64 hole = low;  // lowest hole not yet filled lies at or above this
  bool found = false;
  i64 cur = lx;
  while (true) {
    while (hole < lx && p.col(hole) != 0) ++hole;
    if (hole >= lx) break;
    if (lx <= hole + 100) break;
    // The row that owns the element in slot LX: walk to its diagonal.
    cur = lx;
    i64 s = cur;
    int guard = 0;
    while (p.lnk(s) > 0 && guard++ < neq + 2) s = p.lnk(s);
    i32 row = p.col(s);
    if (row <= ndense || row > neq) break;  // not a linked row: stop moving
    found = true;
    // Walk the row from its head, moving each element at or above the hole.
    i64 prev = static_cast<i64>(row) - ndense;
    i64 e = p.lnk(prev);
    while (e > 0) {
      i64 nxt = p.lnk(e);
      while (hole < e && p.col(hole) != 0) ++hole;
      if (hole < e && e >= hole) {
        p.val(hole) = p.val(e);
        p.col(hole) = p.col(e);
        p.lnk(hole) = p.lnk(e);
        p.lnk(prev) = static_cast<i32>(hole);
        p.col(e) = 0;
        p.lnk(e) = 0;
        prev = hole;
        ++hole;
      } else {
        prev = e;
      }
      e = nxt;
    }
    trim();
  }
  int res = 0;
  if (lx >= limit) {
    if (trace) vprt("G5VLLP %lld %lld\n", static_cast<long long>(lx), static_cast<long long>(limit));
    res = 1;
  }
  if (trace)
    vprt("Exit G5VLLP %lld %lld %d %lld %lld\n", static_cast<long long>(hole),
         static_cast<long long>(cur), found ? 1 : 0, static_cast<long long>(lx),
         static_cast<long long>(limit));
  (void)unit;
  return res;
}

double g5vxil(const Pool& p, const PackArgs& a, i64& rstart, i32 row, i64& len) {
  i64& lx = *a.lx;
  i64& top = *a.top;
  const i64 head = static_cast<i64>(row) - a.ndense;
  rstart = top;
  len = 0;
  if (p.lnk(head) == -1) return 0.0;
  if (top < lx) {
    if (a.trace) vprt("G5VXILI overlap %d %lld %lld\n", row, (long long)lx, (long long)top);
    *a.err = 666;
    return 0.0;
  }
  if (top - row < lx) {
    if (a.trace) vprt(" Pack row %d %lld %lld\n", row, (long long)lx, (long long)top);
    if (g5vllp(p, lx, a.ndense, a.neq, top - row, a.trace, a.unit) == 1) {
      *a.err = 667;
      return 0.0;
    }
  }
  if (top > p.nval) {
    *a.err = 666;
    return 0.0;
  }
  double d = 0.0;
  i64 s = head;
  while (s > 0) {
    if (top <= lx || top < 1) {  // cannot happen when rows are sound
      *a.err = 667;
      return 0.0;
    }
    i64 nxt = p.lnk(s);
    d = p.val(s);
    p.val(top) = d;
    p.col(top) = p.col(s);
    --top;
    ++len;
    if (s != head) {
      p.col(s) = 0;
      p.lnk(s) = 0;
    }
    s = nxt;
  }
  const i64 low = static_cast<i64>(a.neq) - a.ndense + 1;
  while (lx > low && p.col(lx) == 0) --lx;
  return d;
}

// Shared body of g5vllrs and g5vllrt: `take` hands out a new slot (0 none).
template <class Take>
static void add_packed(const Pool& p, Take take, i64& pos, i64 rowslot, double scale, i64 last) {
  i64 s = pos;
  for (i64 k = last; k >= 0; --k) {
    const i64 src = rowslot + k;
    const i32 c = p.col(src);
    const double v = scale * p.val(src);
    while (true) {
      if (s < 1 || !p.ok(s)) {
        pos = -99;
        return;
      }
      i32 cs = p.col(s);
      if (cs == c) {
        p.val(s) += v;
        break;
      }
      if (cs > c) {
        i64 n = take();
        if (n == 0) {
          pos = -98;
          return;
        }
        p.val(n) = p.val(s);
        p.col(n) = cs;
        p.lnk(n) = p.lnk(s);
        p.col(s) = c;
        p.val(s) = v;
        p.lnk(s) = static_cast<i32>(n);
        s = n;
        break;
      }
      s = p.lnk(s);
    }
  }
  pos = s;
}

void g5vllrs(const Pool& p, i64& next, i64& pos, i64 rowslot, double scale, i64 last) {
  add_packed(
      p,
      [&]() -> i64 {
        if (!p.ok(next + 1)) return 0;
        return ++next;
      },
      pos, rowslot, scale, last);
}

i64 freerun_next(FreeRun& run) {
  if (run.count <= 0) {
    if (run.ncount <= 0) return 0;
    run.base = run.nbase;
    run.count = run.ncount;
    run.nbase = 0;
    run.ncount = 0;
  }
  const i64 s = run.base + run.count;
  --run.count;
  return s;
}

void g5vllrt(const Pool& p, FreeRun& run, i64& pos, i64 rowslot, double scale, i64 last) {
  add_packed(
      p,
      [&]() -> i64 {
        const i64 s = freerun_next(run);
        return p.ok(s) ? s : 0;
      },
      pos, rowslot, scale, last);
}

int g5vxmp(const Pool& pin, const MoveArgs& a, i32 I, i32 K) {
  i64& lx = *a.lx;
  const i64 top = a.top;
  // New slots come from above LX and must stay below the packed region.
  Pool p = pin;
  if (p.nval > top) p.nval = top;
  // 1. Packed rows: relabel columns K..I-1 up by one, the column I becomes K.
  {
    bool flag = false;
    double rem = 0.0;
    i32 prev = 0x7fffffff;
    for (i64 s = top + 1; s <= a.lxmax; ++s) {
      const i32 c = pin.col(s);
      if (flag && c >= prev) {  // a new row begins: close the previous one
        pin.val(s - 1) = rem;
        pin.col(s - 1) = K;
        flag = false;
      }
      prev = c;
      if (c > I) continue;
      if (c == I) {
        rem = pin.val(s);
        flag = true;
        continue;
      }
      if (flag) {
        if (c >= K) {
          pin.val(s - 1) = pin.val(s);
          pin.col(s - 1) = c + 1;
        } else {
          pin.val(s - 1) = rem;
          pin.col(s - 1) = K;
          flag = false;
        }
      } else if (c >= K) {
        pin.col(s) = c + 1;
      }
    }
    if (flag) {
      pin.val(a.lxmax) = rem;
      pin.col(a.lxmax) = K;
    }
  }
  // 2. The linked pool.
  for (i64 s = 1; s <= lx; ++s)
    if (pin.col(s) >= K) pin.col(s) += 1;
  // 3. Heads of positions I..K+1 take the head of the position below.
  for (i32 q = I; q > K; --q) {
    const i64 h = static_cast<i64>(q) - a.ndense, b = h - 1;
    pin.val(h) = pin.val(b);
    pin.col(h) = pin.col(b);
    pin.lnk(h) = pin.lnk(b);
  }
  // 4-5. The packed row of I becomes the linked row of K.
  const i64 rs = pin.lnk(a.off + I);
  const i64 hk = static_cast<i64>(K) - a.ndense;
  pin.val(hk) = pin.val(rs);
  pin.col(hk) = pin.col(rs);
  pin.lnk(hk) = 0;
  i64 tail = hk;
  bool closed = false;
  for (i64 s = rs - 1; s > top; --s) {
    const i32 c = pin.col(s);
    const double v = pin.val(s);
    if (c <= K) {
      if (closed) break;  // the next packed row
      if (g5vlld(p, lx, tail, c, v)) return g5vflt(*a.nfault, 6);
      tail = lx;
      if (c == K) closed = true;
      continue;
    }
    if (!closed) break;
    // Element of column c > K: row c's element of column K.
    const i64 hc = static_cast<i64>(c) - a.ndense;
    if (pin.lnk(hc) == -1) {
      if (g5vlld(p, lx, hc, K, v) || g5vlld(p, lx, lx, c, 0.0)) return g5vflt(*a.nfault, 6);
      continue;
    }
    i64 pos = hc;
    int r = g5vlli(p, lx, pos, K, v);
    if (r == 2) return g5vflt(*a.nfault, 6);
    if (r == 1) return g5vflt(*a.nfault, 136);
    if (c == I) break;  // the highest column ends the row
  }
  if (!closed) return g5vflt(*a.nfault, 136);
  // 6. Rotate the position arrays.
  const i32 e = a.iw[2 * (I - 1) + 1];
  const double d = a.dd.at1(I);
  for (i32 q = I; q > K; --q) {
    a.iw[2 * (q - 1) + 1] = a.iw[2 * (q - 2) + 1];
    a.dd.at1(q) = a.dd.at1(q - 1);
  }
  a.iw[2 * (K - 1) + 1] = e;
  a.dd.at1(K) = d;
  return 0;
}

i64 g5vxii(i32 row, const Pool& p, i32 ndense, i64 offset) {
  if (row <= ndense) return static_cast<i64>(row) * (row + 1) / 2;
  i64 s = static_cast<i64>(row) - ndense;
  if (p.lnk(s) == -1) return 0;
  while (p.lnk(s) > 0) s = p.lnk(s);
  if (p.col(s) != row) return 0;
  return s + offset;
}

void g5vxxi(span<double> vector, span<double> work, span<const i32> iw, i32 neq) {
  for (i32 k = 2; k <= neq; ++k) work.at1(k) = vector.at1(k);
  for (i32 k = 2; k <= neq; ++k) vector.at1(iw[2 * (k - 1) + 1]) = work.at1(k);
}

void g5vxxp(const MmeStore& s, i32 first, i32 last) {
  Pool p = s.pool();
  for (i32 r = first; r <= last && r <= s.neq; ++r) {
    std::string line = std::to_string(r);
    char buf[64];
    if (r <= s.ndense) {
      for (i32 c = 1; c <= r; ++c) {
        std::snprintf(buf, sizeof buf, " %d %g", c, s.dense(r, c));
        line += buf;
      }
    } else {
      i64 e = s.head(r);
      if (p.lnk(e) == -1) {
        line += " untouched";
      } else {
        int guard = 0;
        while (e > 0 && guard++ <= s.neq) {
          std::snprintf(buf, sizeof buf, " %d %g", p.col(e), p.val(e));
          line += buf;
          e = p.lnk(e);
        }
      }
    }
    vprt("%s\n", line.c_str());
  }
}

}  // namespace tarnel
