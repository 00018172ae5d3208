// Working variates, AI sums and scores of a residual section of several
// traits, R = gamma (I_units x Sigma), taken unit by unit.
//
// A unit is the T consecutive design rows of one record (trait fastest).
// Only its observed traits o enter: R_u = gamma Sigma_oo, and with
// Q = R_u^-1 (padded with zeros at the unobserved traits) and q = Q e,
//   working variate of a parameter p of Sigma:  gamma (dSigma/dp) q, rows o;
//   AI gains W' Q W over the unit's rows, WVXP rows gain x_i (Q W)_i;
//   score(p) = 1/2 (q' dR q + tr(Q dR Q M) - tr(Q dR)),  M = W C^-1 W' on o.
// Sigma and its derivatives come from the structure rows once per call;
// Q is formed again only when the pattern of observed traits changes.
#include <cmath>

#include "average_info/ai_internal.h"
#include "host/console.h"
#include "host/messages.h"
#include "variance/dense.h"

namespace tarnel {

namespace {

// The section's trait factor and what the units share.
struct TraitBlock {
  int t = 0, row = 0, npar = 0, gfirst = 0;
  double g = 1.0;
  span<double> sigma;   // t*t
  span<double> deriv;   // npar * t*t: dSigma/dp by parameter
  span<double> q;       // t*t: Q of the current pattern
  span<double> w, tw;   // t*nwv: working variates and Q times them
  span<double> e, qe;   // t: residuals, Q e
  span<double> M, QMQ;  // t*t each: the scores' sums of one unit
  span<double> pk, scr; // packed t(t+1)/2, and 2t scratch
  span<int> pat, prev, perm, perm2, obs;  // t each
  bool have = false;
};

int sel_of(const AiPhaseArgs& a, int r, int m) {
  int ncor = a.var.field(r, kNcor);
  return (m + 1 > ncor) ? m + 1 - ncor : 0;
}

// Sigma from its inverse rows and each parameter's dSigma/dp.
int trait_matrices(AiPhaseArgs& a, AiScratch& s, TraitBlock& b) {
  const int t = b.t, r = b.row;
  int n0 = 0;
  for (int i = 1; i <= t; ++i) {
    if (structure_row(a, r, a.var.secform[r - 1].second(), 0, i, s.rowv[0], s.rowc[0], n0, a.nfault))
      return 1;
    // Only the row's listed columns are read: the rest of the scattered
    // buffer is not kept clear.
    for (int j = 0; j < t; ++j) b.sigma[(i - 1) * t + j] = 0.0;
    for (int k = 0; k < n0; ++k) b.sigma[(i - 1) * t + s.rowc[0][k] - 1] = s.rowv[0][s.rowc[0][k] - 1];
  }
  structure_row(a, r, nullptr, 0, 0, s.rowv[0], s.rowc[0], n0, a.nfault);
  for (int i = 0; i < t; ++i)
    for (int j = 0; j <= i; ++j) b.pk[packed_index(i + 1, j + 1)] = b.sigma[i * t + j];
  int mode = 0, rank = t, neg = 0;
  double ld = 0.0;
  g5vsmi(b.pk, b.scr, b.perm, b.perm2, mode, rank, ld, neg);
  if (mode != 0) {
    g5verror(" Residual matrix across traits is singular", 3);
    return g5vflt(a.nfault, 2000 + r);
  }
  for (int i = 0; i < t; ++i)
    for (int j = 0; j <= i; ++j) b.sigma[i * t + j] = b.sigma[j * t + i] = b.pk[packed_index(i + 1, j + 1)];
  for (int m = 0; m < b.npar; ++m) {
    const int p = b.gfirst + m;
    span<double> d(b.deriv.data() + static_cast<std::size_t>(m) * t * t, static_cast<std::size_t>(t) * t);
    for (auto& v : d) v = 0.0;
    if (!admits(a, p)) continue;
    if (static_cast<std::size_t>(p) > a.var.parform.size()) return g5vflt(a.nfault, 3901);
    int n1 = 0;
    const int sel = sel_of(a, r, m);
    for (int i = 1; i <= t; ++i) {
      if (structure_row(a, r, a.var.parform[p - 1].first(), sel, i, s.rowv[1], s.rowc[1], n1, a.nfault))
        return 1;
      for (int k = 0; k < n1; ++k) d[(i - 1) * t + s.rowc[1][k] - 1] = s.rowv[1][s.rowc[1][k] - 1];
    }
    structure_row(a, r, nullptr, 0, 0, s.rowv[1], s.rowc[1], n1, a.nfault);
  }
  return 0;
}

// Q = (gamma Sigma_oo)^-1, padded; formed when the pattern changed.
int pattern_inverse(AiPhaseArgs& a, TraitBlock& b) {
  const int t = b.t;
  bool same = b.have;
  for (int i = 0; same && i < t; ++i) same = b.pat[i] == b.prev[i];
  if (same) return 0;
  int m = 0;
  for (int i = 0; i < t; ++i) {
    b.prev[i] = b.pat[i];
    if (b.pat[i]) b.perm2[m++] = i;
  }
  for (auto& v : b.q) v = 0.0;
  b.have = true;
  if (m == 0) return 0;
  // g5vsmi overwrites perm2: the observed positions are kept apart.
  int* o = b.obs.data();
  for (int k = 0; k < m; ++k) o[k] = b.perm2[k];
  for (int k = 0; k < m; ++k)
    for (int l = 0; l <= k; ++l) b.pk[packed_index(k + 1, l + 1)] = b.g * b.sigma[o[k] * t + o[l]];
  int mode = 0, rank = m, neg = 0;
  double ld = 0.0;
  g5vsmi(span<double>(b.pk.data(), packed_size(m)), b.scr, b.perm, b.perm2, mode, rank, ld, neg);
  const int nonpos = neg >= 0 ? neg : -1 - neg;
  if (mode != 0 || nonpos != 0) {
    g5verror(" Residual matrix of the observed traits not positive definite", 3);
    return g5vflt(a.nfault, 2000 + b.row);
  }
  for (int k = 0; k < m; ++k)
    for (int l = 0; l < m; ++l)
      b.q[o[k] * t + o[l]] = b.pk[packed_index(std::max(k, l) + 1, std::min(k, l) + 1)];
  return 0;
}

// Carves the unit block's scratch from the words the phase set aside.
bool carve_block(AiPhaseArgs& a, AiScratch& s, TraitBlock& b, int r) {
  const int t = a.var.field(r + 1, kOrder);
  b.t = t;
  b.row = r + 1;
  b.npar = a.var.field(r + 1, kNpar);
  b.gfirst = a.var.field(r + 1, kGfirst);
  const std::size_t tt = static_cast<std::size_t>(t) * t, tw = static_cast<std::size_t>(t) * a.nwv;
  if (s.mv.size() < multitrait_words(t, b.npar, a.nwv) || s.mvi.size() < 5 * static_cast<std::size_t>(t))
    return false;
  double* p = s.mv.data();
  auto take = [&](span<double>& v, std::size_t n) {
    v = span<double>(p, n);
    p += n;
  };
  take(b.sigma, tt);
  take(b.deriv, tt * b.npar);
  take(b.q, tt);
  take(b.w, tw);
  take(b.tw, tw);
  take(b.e, t);
  take(b.qe, t);
  take(b.M, tt);
  take(b.QMQ, tt);
  take(b.pk, packed_size(t));
  take(b.scr, 2 * static_cast<std::size_t>(t));
  b.pat = span<int>(s.mvi.data(), t);
  b.prev = span<int>(s.mvi.data() + t, t);
  b.perm = span<int>(s.mvi.data() + 2 * t, t);
  b.perm2 = span<int>(s.mvi.data() + 3 * t, t);
  b.obs = span<int>(s.mvi.data() + 4 * t, t);
  return true;
}

int setup(AiPhaseArgs& a, AiScratch& s, TraitBlock& b, int r, double g) {
  if (!carve_block(a, s, b, r)) {
    vprt(" AI step: workspace too small for the trait blocks\n");
    return g5vflt(a.nfault, 6);
  }
  b.g = g;
  b.have = false;
  return trait_matrices(a, s, b);
}

// The unit's pattern, residuals and q = Q e; unobserved residuals marked.
int unit_residuals(AiPhaseArgs& a, TraitBlock& b, i64 r0) {
  const auto& d = a.design;
  const i32 neq = a.store->neq;
  int nobs = 0;
  for (int i = 0; i < b.t; ++i) {
    const i64 rec = r0 + i, s0 = d.start[rec], last = d.start[rec + 1] - 1;
    const double y = d.val[s0 - 1];
    b.pat[i] = is_missing(y) ? 0 : 1;
    b.e[i] = 0.0;
    if (!b.pat[i]) {
      a.resid[rec] = kMissing;
      continue;
    }
    ++nobs;
    b.e[i] = y - g5vybr(d.val, d.col, a.soln, neq, s0 + 1, last);
    a.resid[rec] = b.e[i];
  }
  if (pattern_inverse(a, b)) return -1;
  for (int i = 0; i < b.t; ++i) {
    double v = 0.0;
    for (int j = 0; j < b.t; ++j) v += b.q[i * b.t + j] * b.e[j];
    b.qe[i] = v;
  }
  return nobs;
}

}  // namespace

bool multitrait_section(const AiPhaseArgs& a, int n, int r, i64 nrec) {
  if (a.ntrt < 2 || n != 2 || r < 1 || r + 1 > a.var.nstruc) return false;
  return a.var.field(r, kModel) == 0 && a.var.field(r, kNpar) == 0 &&
         a.var.field(r + 1, kOrder) == a.ntrt && a.var.field(r + 1, kModel) >= 0 &&
         static_cast<i64>(a.var.field(r, kOrder)) * a.ntrt == nrec;
}

int g5vwvm(AiPhaseArgs& a, AiScratch& s, const NodeStore& wv, i64 first, i64 nrec, int r, double g,
           int c1, int cs) {
  TraitBlock b;
  if (setup(a, s, b, r, g)) return 1;
  const int t = b.t, nwv = a.nwv;
  const auto& d = a.design;
  for (i64 r0 = first; r0 < first + nrec; r0 += t) {
    const int nobs = unit_residuals(a, b, r0);
    if (nobs < 0) return 1;
    if (nobs == 0) continue;
    for (auto& v : b.w) v = 0.0;
    for (int i = 0; i < t; ++i) {
      if (!b.pat[i]) continue;
      double* wi = b.w.data() + static_cast<std::size_t>(i) * nwv;
      const i64 rec = r0 + i, s0 = d.start[rec], last = d.start[rec + 1] - 1;
      if (c1 > 0) wi[c1 - 1] += d.val[s0 - 1];
      if (cs > 0) wi[cs - 1] += b.e[i] / g;
      for (int m = 0; m < b.npar; ++m) {
        const int c = wvcol(a, b.gfirst + m);
        if (c < 1 || !admits(a, b.gfirst + m)) continue;
        const double* dm = b.deriv.data() + static_cast<std::size_t>(m) * t * t;
        double v = 0.0;
        for (int j = 0; j < t; ++j) v += dm[i * t + j] * b.qe[j];
        wi[c - 1] += g * v;
      }
      // The G side: each design entry times its equation's row.
      i32 prev = 1;
      for (i64 k = s0 + 1; k <= last; ++k) {
        const i32 e = d.col[k - 1];
        if (e <= prev) break;
        prev = e;
        if (wv.col(e) == 0) continue;
        for (i64 nd = e; nd > 0; nd = wv.lnk(nd)) wi[wv.col(nd) - 1] += d.val[k - 1] * wv.val(nd);
      }
    }
    for (int i = 0; i < t; ++i)
      for (int c = 0; c < nwv; ++c) {
        double v = 0.0;
        for (int j = 0; j < t; ++j) v += b.q[i * t + j] * b.w[static_cast<std::size_t>(j) * nwv + c];
        b.tw[static_cast<std::size_t>(i) * nwv + c] = v;
      }
    for (int i = 0; i < t; ++i) {
      if (!b.pat[i]) continue;
      const double* wi = b.w.data() + static_cast<std::size_t>(i) * nwv;
      const double* ti = b.tw.data() + static_cast<std::size_t>(i) * nwv;
      for (int c = 1; c <= nwv; ++c) {
        if (wi[c - 1] == 0.0) continue;
        for (int j = 1; j <= c; ++j) a.ai[static_cast<i64>(c) * (c - 1) / 2 + j - 1] += wi[c - 1] * ti[j - 1];
      }
      const i64 rec = r0 + i, s0 = d.start[rec], last = d.start[rec + 1] - 1;
      span<const double> trow(ti, static_cast<std::size_t>(nwv));
      i32 prev = 1;
      for (i64 k = s0 + 1; k <= last; ++k) {
        const i32 e = d.col[k - 1];
        if (e <= prev) break;
        prev = e;
        if (a.iw[2 * (e - 1)] < 0) continue;
        if (g5vwvv(a, s, e, d.val[k - 1], trow)) return 1;
        if (g_aistate.nfree < 0) return g5vflt(a.nfault, 6);
      }
    }
  }
  return 0;
}

int mv_rscore(AiPhaseArgs& a, AiScratch& s, i64 first, i64 nrec, int ps, int r,
              double (*wcw)(const AiPhaseArgs&, const AiScratch&, i64, i64)) {
  const double g = a.gammas[ps - 1];
  TraitBlock b;
  if (setup(a, s, b, r, g)) return 1;
  const int t = b.t;
  // M = e e'/sigma2 + W C^-1 W' over the unit, then Q M Q.
  span<double> M = b.M, QMQ = b.QMQ;
  double sscale = 0.0;
  for (i64 r0 = first; r0 < first + nrec; r0 += t) {
    const int nobs = unit_residuals(a, b, r0);
    if (nobs < 0) return 1;
    if (nobs == 0) continue;
    for (int i = 0; i < t; ++i)
      for (int j = 0; j <= i; ++j) {
        double v = 0.0;
        if (b.pat[i] && b.pat[j]) v = b.e[i] * b.e[j] / a.sigma2 + wcw(a, s, r0 + i, r0 + j);
        M[i * t + j] = M[j * t + i] = v;
      }
    for (int i = 0; i < t; ++i)
      for (int j = 0; j < t; ++j) {
        double v = 0.0;
        for (int k = 0; k < t; ++k) {
          double qm = 0.0;
          for (int l = 0; l < t; ++l) qm += M[k * t + l] * b.q[l * t + j];
          v += b.q[i * t + k] * qm;
        }
        QMQ[i * t + j] = v;
      }
    for (int m = 0; m < b.npar; ++m) {
      const int p = b.gfirst + m;
      if (!admits(a, p)) continue;
      const double* dm = b.deriv.data() + static_cast<std::size_t>(m) * t * t;
      double quad = 0.0, tr = 0.0;
      for (int i = 0; i < t; ++i)
        for (int j = 0; j < t; ++j) {
          quad += QMQ[i * t + j] * dm[j * t + i];
          tr += b.q[i * t + j] * dm[j * t + i];
        }
      a.score[wvcol(a, p) - 1] += 0.5 * g * (quad - tr);
    }
    if (admits(a, ps)) {
      double tr = 0.0;
      for (int i = 0; i < t; ++i)
        for (int j = 0; j < t; ++j) tr += (QMQ[i * t + j] - b.q[i * t + j]) * b.sigma[j * t + i];
      sscale += 0.5 * tr;
    }
  }
  if (admits(a, ps)) a.score[wvcol(a, ps) - 1] += sscale;
  return 0;
}

}  // namespace tarnel
