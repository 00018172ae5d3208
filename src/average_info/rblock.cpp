// Working variates and AI sums for a residual section with a structured R,
// R = gamma x (product of the section's factors), taken as one block.
//
// Each record gets a row in the WV store above the rows already in use:
// y at the overall scale's column, e/gamma at the section's own scale
// column, (dR/dtheta) R^-1 e for the parameters of R (g5vwvr on the block of
// residuals) and the G-side rows of its equations (g5vwvz).  The rows are
// then read into a dense block w (records x NWV), t = R^-1 w is formed a
// factor at a time, AI gains w' t, and each equation of a record's design
// row gains (design value) x t(record) in its WVXP row.
#include <cmath>

#include "average_info/ai_internal.h"
#include "host/console.h"
#include "host/messages.h"

namespace tarnel {

int g5vwvx(AiPhaseArgs& a, AiScratch& s, const NodeStore& wv, i64& next, i64 limit, i64 first,
           i64 nrec, int n, int r, double g, int c1, int cs) {
  const int nwv = a.nwv;
  const i64 base = next;
  const i64 neq = a.store->neq;
  if (base + nrec > limit || static_cast<i64>(s.wd.size()) < nrec * nwv) return g5vflt(a.nfault, 6);
  for (i64 i = 1; i <= nrec; ++i) wv.clear(base + i);
  next = base + nrec;
  const auto& d = a.design;
  for (i64 i = 0; i < nrec; ++i) {
    i64 rec = first + i, s0 = d.start[rec], last = d.start[rec + 1] - 1;
    double y = d.val[s0 - 1];
    if (is_missing(y)) {
      g5verror(" Missing responses under a structured residual are not available yet", 3);
      return g5vflt(a.nfault, 2000 + r);
    }
    double e = y - g5vybr(d.val, d.col, a.soln, static_cast<i32>(neq), s0 + 1, last);
    a.resid[rec] = e;
    s.xblk[i] = e;
    i64 hint = -1;
    if (c1 > 0) g5vwvs(wv, next, hint, base + i + 1, c1, y);
    hint = -1;
    if (cs > 0 && e != 0.0) g5vwvs(wv, next, hint, base + i + 1, cs, e / g);
  }
  if (g5vwvr(a, s, wv, next, limit, base, nrec, n, r)) return 1;
  for (i64 i = 0; i < nrec; ++i) {
    i64 rec = first + i, s0 = d.start[rec], last = d.start[rec + 1] - 1;
    if (next + nwv > limit) {  // a record's row holds at most NWV nodes
      vprt("WV overflow in Section  record %lld next %lld\n", static_cast<long long>(rec + 1),
           static_cast<long long>(next));
      return g5vflt(a.nfault, 6);
    }
    g5vwvz(wv, next, base + i + 1, d.val, d.col, s0 + 1, last);
  }
  if (next > a.wvnodes) a.wvnodes = next;
  // Dense block of the working variates, record by record.
  span<double> w = s.wd, t = s.td;
  for (i64 k = 0; k < nrec * nwv; ++k) w[k] = 0.0;
  for (i64 i = 0; i < nrec; ++i) {
    i64 row = base + i + 1;
    if (wv.col(row) == 0) continue;
    for (i64 m = row; m > 0; m = wv.lnk(m)) w[i * nwv + wv.col(m) - 1] += wv.val(m);
  }
  next = base;
  // t = R^-1 w, one WV column at a time, one factor at a time.
  for (int c = 0; c < nwv; ++c) {
    for (i64 i = 0; i < nrec; ++i) s.xblk[i] = w[i * nwv + c];
    i64 outer = 1;
    for (int f = 0; f < n; ++f) {
      int order = a.var.field(r + f, kOrder);
      i64 inner = nrec / outer / order;
      if (g5vwvp(a, s, s.xblk, s.bblk, inner, order, outer, r + f, a.var.secform[r + f - 1].second(),
                 0, 1.0, a.nfault))
        return 1;
      for (i64 i = 0; i < nrec; ++i) s.xblk[i] = s.bblk[i];
      outer *= order;
    }
    for (i64 i = 0; i < nrec; ++i) t[i * nwv + c] = s.xblk[i] / g;
  }
  for (i64 i = 0; i < nrec; ++i)
    for (int c = 1; c <= nwv; ++c) {
      double wc = w[i * nwv + c - 1];
      if (wc == 0.0) continue;
      for (int j = 1; j <= c; ++j) a.ai[static_cast<i64>(c) * (c - 1) / 2 + j - 1] += wc * t[i * nwv + j - 1];
    }
  for (i64 i = 0; i < nrec; ++i) {
    i64 rec = first + i, s0 = d.start[rec], last = d.start[rec + 1] - 1;
    span<const double> ti(t.data() + i * nwv, static_cast<std::size_t>(nwv));
    i32 prev = 1;
    for (i64 k = s0 + 1; k <= last; ++k) {
      i32 e = d.col[k - 1];
      if (e <= prev) break;
      prev = e;
      if (a.iw[2 * (e - 1)] < 0) continue;
      if (g5vwvv(a, s, e, d.val[k - 1], ti)) return 1;
      if (g_aistate.nfree < 0) return g5vflt(a.nfault, 6);
    }
  }
  return 0;
}

}  // namespace tarnel
