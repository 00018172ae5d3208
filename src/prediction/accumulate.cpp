// g5vpra: predicted values and their variance matrix from the factor of C.
//
// Absorption eliminated positions NEQ down to 2; row p of the factor holds
// a(p,c), c < p, as it stood when p was pivoted, and DD(p) = 1/a(p,p).  With
// m_p(c) = a(p,c) DD(p) and m_p(p) = 1, C = sum_p a(p,p) m_p m_p', so
// p(i)' C^-1 p(j) = sum_p DD(p) y_i(p) y_j(p), where y = M^-1 p follows from
// one pass down the positions: y(p) is final once the rows above p are done,
// and then y(c) -= m_p(c) y(p) for the columns c of row p.
//
// All rows of all tables go down together: each position heads a chain of
// nodes (table row, y), so a factor row is read once.  A singular position
// s takes no part in the sums; a row whose y(s) is not zero there is not
// estimable, since y(s) = p' z with z the null vector of C that s marks.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "control/run_helpers.h"
#include "host/console.h"
#include "host/messages.h"
#include "prediction/prediction.h"

namespace tarnel {

namespace {

// The relative size of y(s) at a singular position below which a row
// counts as estimable.
constexpr double kEstimableTol = 1e-6;

i64 take(PredNodes& s) {
  if (s.freehead > 0) {
    const i64 m = s.freehead;
    s.freehead = s.lnk(m);
    return m;
  }
  if (s.next >= s.n) return 0;
  return ++s.next;
}

inline i64 packed_row_start(const MmeStore& st, i64 off, i32 p) {
  const Pool pl = st.pool();
  const i64 k = off + p;
  if (k < 1 || k > pl.nlnk) return 0;
  return pl.lnk(k);
}

// Adds the products of one position's chain into the V blocks of its tables.
// A table of variances only keeps the diagonal.
void add_products(const PredNodes& s, i64 head, double d, span<const i32> tabof, span<const i64> vbase,
                  span<const i32> tfirst, span<const i32> tdiag, double* v) {
  i64 seg = head;
  i32 segtab = -1;
  for (i64 a = head; a > 0; a = s.lnk(a)) {
    const i32 ra = s.col(a) - 1;
    const i32 t = tabof[ra];
    if (t != segtab) {
      seg = a;
      segtab = t;
    }
    const i64 ia = ra - tfirst[t] + 1;
    const double da = d * s.val(a);
    if (tdiag[t]) {
      v[vbase[t] + ia - 1] += da * s.val(a);
      continue;
    }
    double* row = v + vbase[t] + ia * (ia - 1) / 2;
    for (i64 b = seg;; b = s.lnk(b)) {
      row[s.col(b) - 1 - tfirst[t]] += da * s.val(b);
      if (b == a) break;
    }
  }
}

// Puts each row's entries into the chains of their positions (rows come
// in ascending order, so each entry goes behind the chain's tail) and
// forms the predicted values.  Returns 1 when the store runs out of nodes.
int load_rows(const WorkArray& xp, const PredictionLayout& L, PredNodes& s, const i32* pos, i32* tail,
              span<const double> soln, i32 neq) {
  const i64* rowstart = reinterpret_cast<const i64*>(xp.r + L.rowstart);
  for (i64 i = 0; i < L.nrows; ++i) {
    double val = 0;
    for (i64 k = rowstart[i]; k < rowstart[i + 1]; ++k) {
      const i64 w = L.entries + 2 * k;
      const i32 e = xp.i[2 * w];
      const double c = xp.r[w + 1];
      if (e < 1 || e > neq || pos[e] < 1) continue;
      val += c * soln[e - 1];
      const i32 p = pos[e];
      i64 m = p;
      if (s.col(p) != 0) {
        m = take(s);
        if (m == 0) return 1;
        s.lnk(tail[p]) = static_cast<i32>(m);
      }
      s.col(m) = static_cast<i32>(i + 1);
      s.val(m) = c;
      s.lnk(m) = 0;
      tail[p] = static_cast<i32>(m);
    }
    xp.r[L.value + i] = val;
  }
  return 0;
}

// y(c) -= m_p(c) y(p) for the columns c of factor row p, with the
// multipliers m_p(c) = a(p,c) DD(p).  Returns 1 when the store is full.
int eliminate(PredNodes& s, const MmeStore& st, i64 off, i32 p, double d) {
  if (p <= st.ndense) {
    for (i32 c = 2; c < p; ++c) {
      const double x = st.dense(p, c);
      if (x != 0.0 && g5vprv(s, c, -x * d, p)) return 1;
    }
    return 0;
  }
  const Pool pl = st.pool();
  i64 sl = packed_row_start(st, off, p);
  for (i32 steps = 0; sl >= 1 && sl <= pl.nval && steps <= p; --sl, ++steps) {
    const i32 c = pl.col(sl);
    if (c == p || c < 1 || c > p) break;
    const double x = pl.val(sl);
    if (c >= 2 && x != 0.0 && g5vprv(s, c, -x * d, p)) return 1;
  }
  return 0;
}

}  // namespace

int g5vprv(PredNodes& s, i64 head, double scale, i64 src) {
  i64 prev = 0, cur = s.col(head) == 0 ? 0 : head;
  for (i64 n = src; n > 0; n = s.lnk(n)) {
    const double v = scale * s.val(n);
    if (v == 0.0) continue;
    const i32 r = s.col(n);
    if (s.col(head) == 0) {  // empty chain: the head takes the first entry
      s.col(head) = r;
      s.val(head) = v;
      s.lnk(head) = 0;
      prev = head;
      cur = 0;
      continue;
    }
    while (cur > 0 && s.col(cur) < r) {
      prev = cur;
      cur = s.lnk(cur);
    }
    if (cur > 0 && s.col(cur) == r) {
      s.val(cur) += v;
      continue;
    }
    const i64 m = take(s);
    if (m == 0) return 1;
    if (prev == 0) {  // in front of the head: the head's entry moves to m
      s.col(m) = s.col(head);
      s.val(m) = s.val(head);
      s.lnk(m) = s.lnk(head);
      s.col(head) = r;
      s.val(head) = v;
      s.lnk(head) = static_cast<i32>(m);
      prev = head;
      cur = m;
      continue;
    }
    s.col(m) = r;
    s.val(m) = v;
    s.lnk(m) = static_cast<i32>(cur);
    s.lnk(prev) = static_cast<i32>(m);
    prev = m;
  }
  return 0;
}

void g5vprfree(PredNodes& s, i64 head) {
  i64 n = s.lnk(head);
  while (n > 0) {
    const i64 nx = s.lnk(n);
    s.col(n) = 0;
    s.val(n) = 0.0;
    s.lnk(n) = static_cast<i32>(s.freehead);
    s.freehead = n;
    n = nx;
  }
  s.col(head) = 0;
  s.lnk(head) = 0;
  s.val(head) = 0.0;
}

int g5vpra(AiControlArgs& a, const PraArgs& r, int& nfault) {
  const WorkArray& xp = a.work.xp;
  PredictionLayout L = read_layout(xp);
  const MmeStore& st = *r.store;
  const i32 neq = st.neq;
  const i64 nr = L.nrows, ntab = L.ntab;
  if (xp.r[L.vmat + L.vlen] != kRowsMark || L.neq != neq) {
    g5verror("Internal error: Aborting predict", 3);
    return g5vflt(nfault, 2);
  }
  if (r.trace) vprt("Calling G5VPRA %lld\n", static_cast<long long>(nr));
  // Scratch behind the rows: positions of equations, chain tails, table of
  // each row, V base and first row of each table, then the nodes.
  i64 at = L.free;
  auto ints = [&](i64 n) {
    i32* p = xp.i + 2 * at;
    at += (n + 1) / 2 + 1;
    return p;
  };
  i32* pos = ints(neq + 1);
  i32* tail = ints(neq + 1);
  i32* tabof = ints(nr);
  i32* tfirst = ints(ntab);
  i32* tdiag = ints(ntab);
  i64* vbase = reinterpret_cast<i64*>(xp.r + at);
  at += ntab;
  PredNodes s;
  s.w = xp.r + at;
  s.n = at < static_cast<i64>(xp.len) ? (static_cast<i64>(xp.len) - at) / 2 : 0;
  if (s.n <= neq) {
    L.shortage = 1;
    write_layout(xp, L);
    return g5vflt(nfault, 6);
  }
  s.next = neq;
  std::fill(xp.r + at, xp.r + at + 2 * static_cast<i64>(neq), 0.0);
  i64 vb = 0;
  for (i64 t = 0; t < ntab; ++t) {
    const TableHeader h = table_header(a.predict, static_cast<int>(t));
    tfirst[t] = h.first;
    tdiag[t] = h.diag ? 1 : 0;
    vbase[t] = vb;
    vb += h.vwords();
    for (int k = 0; k < h.n; ++k) tabof[h.first + k] = static_cast<i32>(t);
  }
  double* v = xp.r + L.vmat;
  std::fill(v, v + L.vlen, 0.0);
  std::fill(xp.r + L.value, xp.r + L.value + nr, 0.0);
  std::fill(xp.r + L.flag, xp.r + L.flag + nr, 0.0);
  for (i32 e = 0; e <= neq; ++e) pos[e] = 0;
  for (i32 p = 1; p <= neq; ++p) {
    const i32 e = r.iw[2 * (p - 1) + 1];
    if (e >= 1 && e <= neq) pos[e] = p;
  }
  // The rows into the chains, and their values.
  if (load_rows(xp, L, s, pos, tail, r.soln, neq)) {
    L.shortage = 1;
    write_layout(xp, L);
    return g5vflt(nfault, 6);
  }
  // The pass down the positions.
  for (i32 p = neq; p >= 2; --p) {
    if (s.col(p) == 0) continue;
    const i32 e = r.iw[2 * (p - 1) + 1];
    const bool singular = e < 1 || e > neq || r.iw[2 * (e - 1)] < 0 || r.dd[p - 1] == 0.0;
    if (singular) {
      for (i64 n = p; n > 0; n = s.lnk(n)) {
        const i32 row = s.col(n) - 1;
        if (std::fabs(s.val(n)) > kEstimableTol * (1.0 + xp.r[L.norm + row])) xp.r[L.flag + row] = 1.0;
      }
      g5vprfree(s, p);
      continue;
    }
    const double d = r.dd[p - 1];
    add_products(s, p, d, span<const i32>(tabof, nr), span<const i64>(vbase, ntab),
                 span<const i32>(tfirst, ntab), span<const i32>(tdiag, ntab), v);
    if (eliminate(s, st, r.off, p, d)) {
      L.shortage = 1;
      write_layout(xp, L);
      return g5vflt(nfault, 6);
    }
    g5vprfree(s, p);
  }
  for (i64 k = 0; k < L.vlen; ++k) v[k] *= r.scale;
  L.done = 1;
  L.shortage = 0;
  write_layout(xp, L);
  if (r.trace) vprt("Leaving G5VPRA %lld nodes\n", static_cast<long long>(s.next));
  return 0;
}

}  // namespace tarnel
