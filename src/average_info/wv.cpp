// Working variates: the G-side rows of every equation, and the pieces that
// multiply blocks of effects by structure rows.
//
// For a term with covariance G and effects u, the working variate of a
// parameter theta of G at the term's equations is (dG/dtheta) G^-1 u.  G is
// never formed: a direct product keeps its factors apart, and a block of
// effects is multiplied along one index at a time by rows of one factor
// (g5vwvp).  US and DIAG factors write their derivatives directly
// (g5vwvu), since dSigma/dsigma_ij is a pair of unit elements.
#include <cmath>

#include "average_info/ai_internal.h"
#include "host/console.h"
#include "host/messages.h"

namespace tarnel {

void g5vwvs(const NodeStore& s, i64& next, i64& hint, i64 row, i32 column, double value) {
  if (s.col(row) == 0) {  // empty head takes the entry
    s.col(row) = column;
    s.val(row) = value;
    s.lnk(row) = 0;
    if (hint >= 0) hint = row;
    return;
  }
  i64 cur = (hint > 0 && s.col(hint) <= column) ? hint : row;
  if (s.col(cur) > column) {
    // Only the head can lie above: move its contents to a fresh node and
    // put the new entry in front, in the head's place.
    i64 m = ++next;
    s.col(m) = s.col(cur);
    s.lnk(m) = s.lnk(cur);
    s.val(m) = s.val(cur);
    s.col(cur) = column;
    s.val(cur) = value;
    s.lnk(cur) = static_cast<i32>(m);
    if (hint >= 0) hint = cur;
    return;
  }
  for (;;) {
    if (s.col(cur) == column) {
      s.val(cur) += value;
      break;
    }
    i64 nx = s.lnk(cur);
    if (nx == 0 || s.col(nx) > column) {
      i64 m = ++next;
      s.col(m) = column;
      s.val(m) = value;
      s.lnk(m) = static_cast<i32>(nx);
      s.lnk(cur) = static_cast<i32>(m);
      cur = m;
      break;
    }
    cur = nx;
  }
  if (hint >= 0) hint = cur;
}

double g5vybr(span<const double> val, span<const i32> col, span<const double> soln, i32 nsoln,
              i64 start, i64 last) {
  double sum = 0.0;
  i32 prev = 1;
  for (i64 k = start; k <= last; ++k) {
    i32 c = col[k - 1];
    if (c <= prev || c > nsoln) break;  // response of the next record, or past the end
    sum += val[k - 1] * soln[c - 1];
    prev = c;
  }
  return sum;
}

void g5vwvz(const NodeStore& wv, i64& next, i64 row, span<const double> val, span<const i32> col,
            i64 start, i64 last) {
  i64 hint = 0;
  i32 prev = 1;
  for (i64 k = start; k <= last; ++k) {
    i32 e = col[k - 1];
    if (e <= prev) break;
    prev = e;
    if (wv.col(e) == 0) continue;
    hint = 0;  // columns of each equation's row ascend afresh
    for (i64 n = e; n > 0; n = wv.lnk(n)) g5vwvs(wv, next, hint, row, wv.col(n), val[k - 1] * wv.val(n));
  }
}

int structure_row(const AiPhaseArgs& a, int srow, const i64* record, int selector, int irow,
                  span<double> vals, span<int> cols, int& count, int& nfault) {
  for (int k = 0; k < count; ++k) {
    int c = cols[k];
    if (c >= 1 && static_cast<std::size_t>(c) <= vals.size()) vals[c - 1] = 0.0;
  }
  count = 0;
  if (irow < 1) return 0;
  if (a.var.row == nullptr) {
    g5verror(" Structure rows are not available yet", 3);
    return g5vflt(nfault, 2111);
  }
  int order = a.var.field(srow, kOrder);
  i64 rownum = irow - 1;
  int ifault = 0;
  int rc = a.var.row(vals, cols, count, rownum, order, record, a.var.srow(srow), *a.var.work,
                     selector, a.var.field(srow, kModel), *a.var.giv, a.var.unit, ifault);
  if (rc != 0 || ifault != 0) {
    count = 0;
    return g5vflt(nfault, ifault != 0 ? ifault : 2111);
  }
  if (count < 0 || count > order) {
    count = 0;
    return g5vflt(nfault, 2111);
  }
  for (int k = 0; k < count; ++k) {
    if (cols[k] < 1 || cols[k] > order) {
      count = 0;
      return g5vflt(nfault, 2111);
    }
  }
  return 0;
}

int g5vwvp(const AiPhaseArgs& a, AiScratch& s, span<const double> source, span<double> target,
           i64 inner, int order, i64 outer, int srow, const i64* record, int selector,
           double diagfill, int& nfault) {
  i64 n = inner * order * outer;
  for (i64 k = 0; k < n; ++k) target[k] = 0.0;
  span<double> v = s.rowv[0];
  span<int> c = s.rowc[0];
  int count = 0;
  for (int i = 1; i <= order; ++i) {
    if (structure_row(a, srow, record, selector, i, v, c, count, nfault)) return 1;
    for (int q = 0; q < count; ++q) {
      int j = c[q];
      double e = v[j - 1];
      if (j == i && e == 0.0) e = diagfill;
      if (e == 0.0) continue;
      for (i64 o = 0; o < outer; ++o) {
        const double* src = source.data() + inner * ((j - 1) + static_cast<i64>(order) * o);
        double* dst = target.data() + inner * ((i - 1) + static_cast<i64>(order) * o);
        for (i64 in = 0; in < inner; ++in) dst[in] += e * src[in];
      }
    }
  }
  structure_row(a, srow, record, selector, 0, v, c, count, nfault);  // clear only
  count = 0;
  return 0;
}

// Adds the non-zero elements of a block at the term's equations in WV
// column `c`.
static void add_block(const NodeStore& wv, i64& next, i64 e0, span<const double> b, i64 n, int c) {
  for (i64 k = 0; k < n; ++k) {
    if (b[k] == 0.0) continue;
    i64 hint = -1;
    g5vwvs(wv, next, hint, e0 + k + 1, c, b[k]);
  }
}

// US (code 9) and DIAG (code 8): dSigma/dsigma_ij B, written element by
// element.  The parameters are in packed lower order (DIAG: diagonals only).
static int g5vwvu(AiPhaseArgs& a, const NodeStore& wv, i64& next, i64 limit, i64 e0, i64 inner,
                  int order, i64 outer, span<const double> b, int code, int gfirst) {
  int p = gfirst;
  i64 io = inner * outer;
  auto at = [&](i64 in, int i, i64 o) { return in + inner * (i + static_cast<i64>(order) * o); };
  for (int i = 0; i < order; ++i) {
    if (code == 9) {
      for (int j = 0; j < i; ++j, ++p) {
        if (!admits(a, p)) continue;
        if (next + 2 * io > limit) return g5vflt(a.nfault, 6);
        int c = wvcol(a, p);
        for (i64 o = 0; o < outer; ++o)
          for (i64 in = 0; in < inner; ++in) {
            double bi = b[at(in, i, o)], bj = b[at(in, j, o)];
            i64 hint = -1;
            if (bi != 0.0) g5vwvs(wv, next, hint, e0 + at(in, j, o) + 1, c, bi);
            hint = -1;
            if (bj != 0.0) g5vwvs(wv, next, hint, e0 + at(in, i, o) + 1, c, bj);
          }
      }
    }
    if (admits(a, p)) {
      if (next + io > limit) return g5vflt(a.nfault, 6);
      int c = wvcol(a, p);
      for (i64 o = 0; o < outer; ++o)
        for (i64 in = 0; in < inner; ++in) {
          double bi = b[at(in, i, o)];
          i64 hint = -1;
          if (bi != 0.0) g5vwvs(wv, next, hint, e0 + at(in, i, o) + 1, c, bi);
        }
    }
    ++p;
  }
  if (next >= limit) return g5vflt(a.nfault, 6);
  return 0;
}

int g5vwvr(AiPhaseArgs& a, AiScratch& s, const NodeStore& wv, i64& next, i64 limit, i64 e0,
           i64 nblk, int nfac, int row1) {
  span<const double> x = s.xblk;
  span<double> b = s.bblk, t = s.tblk;
  i64 outer = 1;
  for (int k = 0; k < nfac; ++k) {
    int r = row1 + k;
    int order = a.var.field(r, kOrder);
    i64 inner = 1;
    for (int f = k + 1; f < nfac; ++f) inner *= a.var.field(row1 + f, kOrder);
    int npar = a.var.field(r, kNpar);
    int code = a.var.field(r, kModel);
    int gfirst = a.var.field(r, kGfirst);
    if (npar != 0) {
      if (a.var.field(r, kField14) == 2 || code == 15) {
        g5verror(" Half-order and XFA working variates are not available yet", 3);
        return g5vflt(a.nfault, 2015);
      }
      if (code < 0 || (code == 0 && nfac == 1)) {
        // A scaled known matrix sigma*A, alone or as one factor of a product
        // (and a lone scaled identity): (dG/dsigma) G^-1 = I/sigma, whatever
        // the other factors, so the working variate is u/sigma.
        double g = (gfirst >= 1 && static_cast<std::size_t>(gfirst) <= a.gammas.size())
                       ? a.gammas[gfirst - 1] : 0.0;
        if (g != 0.0 && admits(a, gfirst)) {
          if (next + nblk > limit) return g5vflt(a.nfault, 6);
          for (i64 q = 0; q < nblk; ++q) b[q] = x[q] / g;
          add_block(wv, next, e0, b, nblk, wvcol(a, gfirst));
        }
      } else {
        // B = (I x Sigma^-1 x I) x, also for a factor of order 1 (a scale).
        if (g5vwvp(a, s, x, b, inner, order, outer, r, a.var.secform[r - 1].second(), 0,
                          1.0, a.nfault)) {
          return 1;
        }
        if (code == 8 || code == 9) {
          if (g5vwvu(a, wv, next, limit, e0, inner, order, outer, b, code, gfirst)) return 1;
        } else {
          for (i64 q = 0; q < nblk; ++q)
            if (std::fabs(b[q]) < 1e-10) b[q] = 0.0;
          int ncor = a.var.field(r, kNcor);
          for (int m = 0; m < npar; ++m) {
            int p = gfirst + m;
            if (!admits(a, p)) continue;
            if (static_cast<std::size_t>(p) > a.var.parform.size()) return g5vflt(a.nfault, 2111);
            int sel = (m + 1 > ncor) ? m + 1 - ncor : 0;
            if (g5vwvp(a, s, b, t, inner, order, outer, r, a.var.parform[p - 1].first(), sel, 0.0,
                       a.nfault))
              return 1;
            if (next + nblk > limit) return g5vflt(a.nfault, 6);
            add_block(wv, next, e0, t, nblk, wvcol(a, p));
            if (next >= limit) return g5vflt(a.nfault, 6);
          }
        }
      }
    }
    outer *= order;
  }
  return 0;
}

// Effects count of term t with the terms of negative code that join it.
static i64 joined_levels(const AiPhaseArgs& a, std::size_t t, std::size_t& last) {
  i64 q = a.nlev[t];
  last = t;
  while (last + 1 < a.tcode.size() && a.tcode[last + 1] < 0) {
    ++last;
    q += a.nlev[last];
  }
  return q;
}

int g5vwvg(AiPhaseArgs& a, AiScratch& s, const NodeStore& wv, i64& next, i64 limit) {
  i64 e0 = 1;  // equation 1 is the response
  std::size_t nt = a.tcode.size();
  for (std::size_t t = 0; t < nt; e0 += a.nlev[t], ++t) {
    int c = a.tcode[t];
    if (c < 1) continue;
    if (a.section > 0 && t < a.tsect.size() && a.tsect[t] > 0 && a.tsect[t] != a.section) continue;
    std::size_t last;
    i64 q = joined_levels(a, t, last);
    if (e0 + q > a.store->neq) return g5vflt(a.nfault, 2111);
    if (c <= 10000) {
      if (static_cast<std::size_t>(c) > a.gammas.size()) return g5vflt(a.nfault, 2111);
      double g = a.gammas[c - 1];
      if (g == 0.0) continue;
      if (next + q > limit) return g5vflt(a.nfault, 6);
      if (admits(a, c)) {
        int col = wvcol(a, c);
        for (i64 k = 1; k <= q; ++k) {
          double u = a.soln[e0 + k - 1];
          if (u == 0.0) continue;
          i64 hint = -1;
          g5vwvs(wv, next, hint, e0 + k, col, u / g);
        }
      }
      a.logdetg += static_cast<double>(q) * std::log(g);
      continue;
    }
    int n = c / 10000, r = c % 10000;
    if (n < 1 || r < 1 || r + n - 1 > a.var.nstruc) return g5vflt(a.nfault, 2111);
    i64 nn = 1;
    for (int k = 0; k < n; ++k) nn *= a.var.field(r + k, kOrder);
    if (nn != q || nn > static_cast<i64>(s.xblk.size())) {
      g5verror(" Term size differs from its structure orders", 3);
      return g5vflt(a.nfault, 2111);
    }
    for (int k = 0; k < n; ++k) {
      if (a.var.field(r + k, kField14) == 1 && static_cast<std::size_t>(r + k) <= a.var.logdet.size())
        a.logdetg += static_cast<double>(multiplicity(a, n, r, k)) * a.var.logdet[r + k - 1];
      if (a.xfa && a.var.field(r + k, kModel) == 15 && a.var.field(r + k, 6) > 0) {
        g5verror(" XFA terms with zero specific variances are not available yet", 3);
        return g5vflt(a.nfault, 2015);
      }
    }
    for (i64 k = 0; k < nn; ++k) s.xblk[k] = a.soln[e0 + k];
    if (g5vwvr(a, s, wv, next, limit, e0, nn, n, r)) return 1;
  }
  return 0;
}

}  // namespace tarnel
