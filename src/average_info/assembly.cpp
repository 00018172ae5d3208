// AI assembly: the record sums w' R^-1 w, the forward pass of the WVXP rows
// through the factor of C, and the subset of C^-1 on the factor's pattern.
//
// Absorption eliminated positions NEQ down to 2; the packed row of position
// p holds a(p,c), c < p, the values of row p when it was pivoted, and
// DD(p) = 1/a(p,p).  With l(p,c) = a(p,c) DD(p) the inverse Z = C^-1 on the
// pattern follows from the last pivot upward (position 2 first):
//   Z(p,c) = -sum_k l(p,k) Z(k,c)   for c in row p,
//   Z(p,p) = DD(p) - sum_k l(p,k) Z(p,k),
// the sums over the columns k of row p.  Every Z(k,c) needed lies in row
// max(k,c), since eliminating p filled row k with column c.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "average_info/ai_internal.h"
#include "host/console.h"
#include "host/messages.h"
#include "sparse/blas.h"
#include "sparse/kernels.h"

namespace tarnel {

static inline double& aiel(span<double> ai, i64 i, i64 j) { return ai[i * (i - 1) / 2 + j - 1]; }

int g5vwv1(AiPhaseArgs& a, AiScratch& s, const NodeStore& wv, i64 start, i64 last,
           double weight) {
  span<double> w = s.wv, t = s.t;
  const span<const double> val = a.design.val;
  const span<const i32> col = a.design.col;
  i32 prev = 1;
  for (i64 k = start; k <= last; ++k) {
    i32 e = col[k - 1];
    if (e <= prev) break;
    prev = e;
    if (wv.col(e) == 0) continue;
    for (i64 n = e; n > 0; n = wv.lnk(n)) w[wv.col(n) - 1] += val[k - 1] * wv.val(n);
  }
  for (int i = 0; i < a.nwv; ++i) t[i] = weight * w[i];
  for (int i = 1; i <= a.nwv; ++i) {
    if (w[i - 1] == 0.0) continue;
    for (int j = 1; j <= i; ++j) aiel(a.ai, i, j) += t[j - 1] * w[i - 1];
  }
  prev = 1;
  for (i64 k = start; k <= last; ++k) {
    i32 e = col[k - 1];
    if (e <= prev) break;
    prev = e;
    if (a.iw[2 * (e - 1)] < 0) continue;  // singular equation
    if (g5vwvv(a, s, e, val[k - 1], t)) return 1;
    if (g_aistate.nfree < 0) return g5vflt(a.nfault, 6);
  }
  return 0;
}

int g5vwvc(AiPhaseArgs& a, AiScratch& s, const NodeStore& wv) {
  // Direct products with a half-order factor carry their G part here; such
  // structures stop in g5vwvr before this point.
  for (std::size_t t = 0; t < a.tcode.size(); ++t) {
    int c = a.tcode[t];
    if (c <= 9999) continue;
    int n = c / 10000, r = c % 10000;
    for (int k = 0; k < n; ++k) {
      if (r + k >= 1 && r + k <= a.var.nstruc && a.var.field(r + k, kField14) == 2) {
        g5verror(" Half-order direct products are not available yet", 3);
        return g5vflt(a.nfault, 2015);
      }
    }
  }
  return 0;
}

double cinv_at(const MmeStore& st, i64 off, i32 p, i32 q) {
  if (p < q) std::swap(p, q);
  if (q < 1 || p > st.neq) return 0.0;
  if (p <= st.ndense) return st.dense(p, q);
  Pool pl = st.pool();
  i64 sl = packed_start(st, off, p);
  for (i32 steps = 0; sl >= 1 && sl <= pl.nval && steps <= p; --sl, ++steps) {
    i32 c = pl.col(sl);
    if (c == q) return pl.val(sl);
    if (c > q || c < 1) return 0.0;
  }
  return 0.0;
}

// Gathers the off-diagonal columns 2..p-1 of factor row p into crow/lrow;
// returns their count, the diagonal slot in `dslot` (0 for a dense row), or
// -1 for a broken row.
static i64 gather_row(const AiPhaseArgs& a, AiScratch& s, i32 p, i64& dslot) {
  const MmeStore& st = *a.store;
  i64 m = 0;
  dslot = 0;
  if (p <= st.ndense) {
    for (i32 c = 2; c < p; ++c) {
      s.crow[m] = c;
      s.lrow[m] = st.dense(p, c);
      ++m;
    }
    return m;
  }
  Pool pl = st.pool();
  i64 sl = packed_start(st, a.off, p);
  for (i32 steps = 0;; --sl, ++steps) {
    if (sl < 1 || sl > pl.nval || steps > p) return -1;
    i32 c = pl.col(sl);
    if (c == p) {
      dslot = sl;
      return m;
    }
    if (c < 1 || c > p) return -1;
    if (c >= 2) {
      s.crow[m] = c;
      s.lrow[m] = pl.val(sl);
      ++m;
    }
  }
}

static bool singular_at(const AiPhaseArgs& a, i32 p) {
  i32 e = a.iw[2 * (p - 1) + 1];
  if (e < 1 || e > a.store->neq) return true;
  return a.iw[2 * (e - 1)] < 0 || a.dd[p - 1] == 0.0;
}

// Rows of positions NDENSE+1..T laid out complete (every column 1..p at
// slot start-(c-1)): the block that absorption filled in.  Returns T, or
// NDENSE when there is no such row.
static i32 complete_rows(const AiPhaseArgs& a) {
  const MmeStore& st = *a.store;
  Pool pl = st.pool();
  i32 t = st.ndense;
  for (i32 p = st.ndense + 1; p <= st.neq; ++p) {
    i64 sl = packed_start(st, a.off, p);
    if (sl < p || sl > pl.nval) break;
    bool full = true;
    for (i32 c = 1; c <= p && full; ++c) full = pl.col(sl - (c - 1)) == c;
    if (!full) break;
    t = p;
  }
  return t;
}

// The inverse on positions 2..top, where rows NDENSE+1..top are complete,
// computed on a dense symmetric copy Z (n = top-1 square, index pos-2) in
// `room`: the dense positions are copied in (already inverted), then the
// complete rows follow in panels of NB.  For a panel P over the positions
// A before it, Z(P,A) = -L(P,A) Z(A,A) - L(P,P) Z(P,A) (L strictly lower,
// l(p,k) = a(p,k) DD(p)), by a product and a triangular solve of the BLAS;
// then the panel's own columns and diagonals as in the element recursion,
// their sums over A from one more product.  Singular positions keep zero rows
// and columns (their multipliers are set to zero).  The result goes back
// into the packed rows, column 1 cleared.  Returns false when `room` is too
// small (nothing is changed then); on an interrupt it returns true at once
// with nothing written back, and `interrupted` says yes from then on.
static bool dense_tail(const AiPhaseArgs& a, i32 top, span<double> room, InterruptPoll& interrupted) {
  constexpr i32 NB = 256;
  MmeStore& st = *a.store;
  Pool pl = st.pool();
  const i32 nd = st.ndense;
  const i64 n = top - 1;
  if (n < 1 || static_cast<i64>(room.size()) < n * n + NB * n + NB * NB) return false;
  double* Z = room.data();
  double* lb = Z + n * n;
  double* hb = lb + NB * n;  // NB x NB, column-major
  const double tiny = f32(1e-10);
  auto z = [&](i32 p, i32 c) -> double& { return Z[static_cast<i64>(p - 2) * n + (c - 2)]; };
  for (i32 k = 2; k <= nd; ++k)
    for (i32 c = 2; c <= k; ++c) z(k, c) = z(c, k) = st.dense(k, c);
  for (i32 p0 = nd + 1; p0 <= top; p0 += NB) {
    // On an interrupt nothing is written back; the caller sees it too.
    if (interrupted(NB)) return true;
    const i32 p1 = std::min(top, p0 + NB - 1);
    const i32 nb = p1 - p0 + 1;
    const i64 na = p0 - 2;  // positions 2..p0-1
    // Multipliers of the panel's rows, by column 2..p-1 (zero elsewhere).
    for (i32 r = 0; r < nb; ++r) {
      const i32 p = p0 + r;
      double* l = lb + static_cast<i64>(r) * n;
      for (i64 j = 0; j < n; ++j) l[j] = 0.0;
      if (singular_at(a, p)) continue;
      const double d = a.dd[p - 1];
      const i64 sl = packed_start(st, a.off, p);
      for (i32 c = 2; c < p; ++c) l[c - 2] = singular_at(a, c) ? 0.0 : pl.val(sl - (c - 1)) * d;
    }
    // G = -L(P,A) Z(A,A) in one product: Z is symmetric, so its rows of P
    // are the columns of a column-major matrix of leading dimension n, and
    // so are the multiplier rows in lb.
    blas_gemm('N', 'N', static_cast<int>(na), nb, static_cast<int>(na), -1.0, Z, static_cast<int>(n),
              lb, static_cast<int>(n), 0.0, Z + na * n, static_cast<int>(n));
    // Z(P,A) = (I + L(P,P))^-1 G: the rows of the panel corrected by the
    // rows before them, as a triangular solve; then
    // H = L(P,A) Z(A,P), the part over A of the sums for the panel's own
    // columns.
    blas_trsm('R', 'U', 'N', 'U', static_cast<int>(na), nb, 1.0, lb + na, static_cast<int>(n),
              Z + na * n, static_cast<int>(n));
    if (na > 0)
      blas_gemm('T', 'N', nb, nb, static_cast<int>(na), 1.0, lb, static_cast<int>(n), Z + na * n,
                static_cast<int>(n), 0.0, hb, NB);
    else
      std::fill(hb, hb + static_cast<i64>(NB) * NB, 0.0);
    for (i32 r = 0; r < nb; ++r) {
      const i32 p = p0 + r;
      double* zp = &Z[static_cast<i64>(p - 2) * n];
      const double* l = lb + static_cast<i64>(r) * n;
      if (singular_at(a, p)) {
        for (i64 j = 0; j < n; ++j) zp[j] = Z[j * n + (p - 2)] = 0.0;
        continue;
      }
      for (i32 c = p0; c < p; ++c) {
        const double* zc = &Z[static_cast<i64>(c - 2) * n];
        const double v = -hb[r + static_cast<i64>(c - p0) * NB] - dot(l, zc, p0 - 2, p - 3);
        zp[c - 2] = singular_at(a, c) ? 0.0 : v;
      }
      const double zpp0 = a.dd[p - 1] - hb[r + static_cast<i64>(r) * NB];
      double zpp = zpp0 - dot(l, zp, p0 - 2, p - 3);
      if (std::fabs(zpp / a.dd[p - 1]) < tiny) zpp = 0.0;
      zp[p - 2] = zpp;
      for (i32 c = 2; c < p; ++c) Z[static_cast<i64>(c - 2) * n + (p - 2)] = zp[c - 2];
    }
  }
  for (i32 p = nd + 1; p <= top; ++p) {
    const i64 sl = packed_start(st, a.off, p);
    pl.val(sl) = 0.0;
    for (i32 c = 2; c <= p; ++c) pl.val(sl - (c - 1)) = z(p, c);
  }
  return true;
}

// Overwrites the factor by the subset of its inverse.
static int sparse_inverse(AiPhaseArgs& a, AiScratch& s) {
  MmeStore& st = *a.store;
  Pool pl = st.pool();
  const double tiny = f32(1e-10);
  // The filled-in block behind the dense positions goes through dense_tail
  // when the free WVXP list room holds its square.
  const i32 ctop = complete_rows(a);
  i32 top = ctop;
  if (top - st.ndense < 32) top = st.ndense;
  span<double> room(g_aistate.lists.w, g_aistate.lists.w ? 2 * g_aistate.lists.n : 0);
  InterruptPoll interrupted(64);
  for (i32 p = 2; p <= st.neq; ++p) {
    if (p == st.ndense + 1 && top > st.ndense && dense_tail(a, top, room, interrupted)) {
      p = top;
      continue;
    }
    if (interrupted(p <= st.ndense ? 64 : 1)) break;
    bool sing = singular_at(a, p);
    if (p <= st.ndense) {
      if (sing) {
        for (i32 c = 1; c <= p; ++c) st.dense(p, c) = 0.0;
        continue;
      }
    } else if (sing) {
      // The packed row of an unpivoted position may not exist: clear only a
      // row that walks to its diagonal.
      i64 dslot;
      i64 m = gather_row(a, s, p, dslot);
      if (m >= 0) {
        i64 sl = packed_start(st, a.off, p);
        for (; sl >= dslot; --sl) pl.val(sl) = 0.0;
      }
      continue;
    }
    i64 dslot;
    i64 m = gather_row(a, s, p, dslot);
    if (m < 0) {
      vprt("Sparse inverse: row %d broken\n", p);
      return g5vflt(a.nfault, 2666);
    }
    double d = a.dd[p - 1];
    for (i64 q = 0; q < m; ++q) {
      s.lrow[q] *= d;
      s.zrow[q] = 0.0;
    }
    for (i64 ia = 0; ia < m; ++ia) {
      i32 k = s.crow[ia];
      if (singular_at(a, k)) continue;
      double la = s.lrow[ia];
      if (k <= st.ndense) {
        for (i64 ib = 0; ib < ia; ++ib) {
          double zkc = st.dense(k, s.crow[ib]);
          s.zrow[ib] -= la * zkc;
          s.zrow[ia] -= s.lrow[ib] * zkc;
        }
        s.zrow[ia] -= la * st.dense(k, k);
        continue;
      }
      i64 sl = packed_start(st, a.off, k);
      if (k <= ctop) {
        // A complete row: column c at slot start-(c-1), no walk needed.
        // The sum for column k in four parts, so that it does not wait on
        // itself.
        const double* zk = &pl.val(sl) + 1;  // zk[-c] = Z(k,c)
        double part[4] = {0.0, 0.0, 0.0, 0.0};
        for (i64 ib = 0; ib < ia; ++ib) {
          const double zkc = zk[-s.crow[ib]];
          s.zrow[ib] -= la * zkc;
          part[ib & 3] += s.lrow[ib] * zkc;
        }
        s.zrow[ia] -= (part[0] + part[1]) + (part[2] + part[3]);
        s.zrow[ia] -= la * pl.val(sl - (k - 1));
        continue;
      }
      i64 ib = 0;
      for (i32 steps = 0;; --sl, ++steps) {
        if (sl < 1 || sl > pl.nval || steps > k) return g5vflt(a.nfault, 2666);
        i32 c = pl.col(sl);
        if (c == k) {
          s.zrow[ia] -= la * pl.val(sl);
          break;
        }
        if (c < 2) continue;
        while (ib < ia && s.crow[ib] < c) ++ib;
        if (ib < ia && s.crow[ib] == c) {
          double zkc = pl.val(sl);
          s.zrow[ib] -= la * zkc;
          s.zrow[ia] -= s.lrow[ib] * zkc;
        }
      }
    }
    double zpp = d;
    for (i64 q = 0; q < m; ++q) {
      if (singular_at(a, s.crow[q])) s.zrow[q] = 0.0;
      zpp -= s.lrow[q] * s.zrow[q];
    }
    if (std::fabs(zpp / d) < tiny) zpp = 0.0;
    if (p <= st.ndense) {
      st.dense(p, 1) = 0.0;
      for (i64 q = 0; q < m; ++q) st.dense(p, s.crow[q]) = s.zrow[q];
      st.dense(p, p) = zpp;
    } else {
      i64 q = 0;
      for (i64 sl = packed_start(st, a.off, p); sl > dslot; --sl) {
        i32 c = pl.col(sl);
        if (c < 2) {
          pl.val(sl) = 0.0;
        } else {
          pl.val(sl) = s.zrow[q++];
        }
      }
      pl.val(dslot) = zpp;
    }
  }
  // An interrupt leaves the inverse unfinished: the run ends with the fault.
  if (interrupted(0)) {
    g5verror("Interrupted by the user", 4);
    return g5vflt(a.nfault, 1);
  }
  return 0;
}

// The WVXP row of equation e gathered into v (NWV reals, cleared first): the
// part spilled to TEMPWV, then the live chain, whose nodes go back on the
// free chain; the row is marked used.  `any` says whether it held
// anything.  Result 1 on a fault.
static int take_row(AiPhaseArgs& a, i32 e, span<double> v, bool& any) {
  AverageInfoState& ls = g_aistate;
  const NodeStore& L = ls.lists;
  for (int k = 0; k < a.nwv; ++k) v[k] = 0.0;
  any = false;
  i64 n = 0;
  if (L.col(e) < 0) {
    if (read_spilled_row(a, e, v)) return 1;
    any = true;
    n = L.lnk(e);
  } else if (L.col(e) > 0) {
    n = e;
  }
  for (; n > 0;) {
    if (L.col(n) >= 1 && L.col(n) <= a.nwv) v[L.col(n) - 1] += L.val(n);
    any = true;
    i64 nx = L.lnk(n);
    if (n != e) {
      L.clear(n);
      L.lnk(n) = static_cast<i32>(ls.freehead);
      ls.freehead = n;
      ++ls.nfree;
    }
    n = nx;
  }
  L.col(e) = 0;
  L.val(e) = 0.0;
  L.lnk(e) = -1;  // used: nothing more may be added
  return 0;
}

// A pivot of the forward pass: t = d v and AI -= t v'.
static void ai_pivot(AiPhaseArgs& a, double d, span<const double> v, span<double> t) {
  for (int k = 0; k < a.nwv; ++k) t[k] = d * v[k];
  for (int k = 1; k <= a.nwv; ++k) {
    if (v[k - 1] == 0.0) continue;
    for (int j = 1; j <= k; ++j) aiel(a.ai, k, j) -= t[j - 1] * v[k - 1];
  }
}

// The forward pass over the block of complete rows NDENSE+1..top: the
// updates of the block's rows are summed in a dense array (row c at
// c*NWV, in the factor rows' scratch) instead of being inserted into their
// lists one element at a time; the dense rows take theirs at the end.
// Result 1 on a fault.
static int forward_block(AiPhaseArgs& a, AiScratch& s, i32 top) {
  const MmeStore& st = *a.store;
  Pool pl = st.pool();
  const int nwv = a.nwv;
  double* u = s.lrow.data();
  std::fill(u, u + static_cast<i64>(top + 1) * nwv, 0.0);
  span<double> v = s.v, t = s.t;
  for (i32 p = top; p > st.ndense; --p) {
    const i32 e = a.iw[2 * (p - 1) + 1];
    if (e < 1 || e > st.neq) return g5vflt(a.nfault, 2020);
    bool any = false;
    if (take_row(a, e, v, any)) return 1;
    const double* up = u + static_cast<i64>(p) * nwv;
    for (int k = 0; k < nwv; ++k) {
      v[k] += up[k];
      any = any || up[k] != 0.0;
    }
    if (singular_at(a, p) || !any) continue;
    ai_pivot(a, a.dd[p - 1], v, t);
    const i64 sl = packed_start(st, a.off, p);
    for (i32 c = 2; c < p; ++c) {
      const double l = pl.val(sl - (c - 1));
      if (l == 0.0) continue;
      double* uc = u + static_cast<i64>(c) * nwv;
      for (int k = 0; k < nwv; ++k) uc[k] -= l * t[k];
    }
  }
  for (i32 c = 2; c <= st.ndense; ++c) {
    const span<const double> uc(u + static_cast<i64>(c) * nwv, static_cast<std::size_t>(nwv));
    if (g5vwvv(a, s, a.iw[2 * (c - 1) + 1], 1.0, uc)) return 1;
    if (g_aistate.nfree < 0) return g5vflt(a.nfault, 6);
  }
  return 0;
}

int g5vwva(AiPhaseArgs& a, AiScratch& s) {
  MmeStore& st = *a.store;
  AverageInfoState& ls = g_aistate;
  Pool pl = st.pool();
  span<double> v = s.v, t = s.t;
  // The block of complete rows behind the dense positions goes through
  // forward_block when the factor rows' scratch holds its array.
  i32 top = complete_rows(a);
  if (top - st.ndense < 32 || static_cast<i64>(top + 1) * a.nwv > static_cast<i64>(s.lrow.size()))
    top = 0;
  for (i32 p = st.neq; p >= 2; --p) {
    if (p == top) {
      if (forward_block(a, s, top)) return 1;
      p = st.ndense + 1;
      continue;
    }
    i32 e = a.iw[2 * (p - 1) + 1];
    if (e < 1 || e > st.neq) return g5vflt(a.nfault, 2020);
    bool any = false;
    if (take_row(a, e, v, any)) return 1;
    if (singular_at(a, p) || !any) continue;
    ai_pivot(a, a.dd[p - 1], v, t);
    if (p > st.ndense) {
      i64 sl = packed_start(st, a.off, p);
      for (i32 steps = 0;; --sl, ++steps) {
        if (sl < 1 || sl > pl.nval || steps > p) return g5vflt(a.nfault, 2666);
        i32 c = pl.col(sl);
        if (c == p) break;
        if (c < 1 || c > p) return g5vflt(a.nfault, 2666);
        if (c < 2 || pl.val(sl) == 0.0) continue;
        if (g5vwvv(a, s, a.iw[2 * (c - 1) + 1], -pl.val(sl), t)) return 1;
        if (ls.nfree < 0) return g5vflt(a.nfault, 6);
      }
    } else {
      for (i32 c = 2; c < p; ++c) {
        double l = st.dense(p, c);
        if (l == 0.0) continue;
        if (g5vwvv(a, s, a.iw[2 * (c - 1) + 1], -l, t)) return 1;
        if (ls.nfree < 0) return g5vflt(a.nfault, 6);
      }
    }
  }
  if (a.trace) cprintc(" X'WV Absorbed");
  if (a.want_inverse && !s.lrow.empty()) {
    if (sparse_inverse(a, s)) return 1;
    a.inverse_formed = true;
  }
  return 0;
}

}  // namespace tarnel
