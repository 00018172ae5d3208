// Scores of the variance parameters, from the solutions and the subset of
// C^-1 that the AI step left in the store.
//
// G parameters: for a term with covariance G and effects u,
//   score(theta) = 1/2 (u' D u + tr(D C^-1_aa) - tr(G^-1 dG/dtheta)),
// D = G^-1 (dG/dtheta) G^-1.  For a direct product D is the product of the
// factor's derivative form (V^-1 dV V^-1 half of the parameter's record)
// with the inverses of the other factors, taken row by row; only elements
// of C^-1 where D is non-zero are read, and those lie on the pattern of C.
// R parameters (a diagonal R = gamma I):
//   score = 1/2 (e'e/gamma^2 - n/gamma + tr(C^-1 W'W)/gamma^2).
// Quadratic forms in u and e are divided by sigma2, the iteration's scale.
#include <algorithm>
#include <cmath>

#include "average_info/ai_internal.h"
#include "host/console.h"
#include "host/messages.h"

namespace tarnel {

// C^-1 at two model equations; 0 on a singular position.
static double zeq(const AiPhaseArgs& a, const AiScratch& s, i32 e1, i32 e2) {
  i32 p1 = s.pos[e1 - 1], p2 = s.pos[e2 - 1];
  return cinv_at(*a.store, a.off, p1, p2);
}

static int selector_of(const AiPhaseArgs& a, int r, int m) {
  int ncor = a.var.field(r, kNcor);
  return (m + 1 > ncor) ? m + 1 - ncor : 0;
}

// g5vsci: a scaled identity with parameter value g over q equations from e0+1.
static void g5vsci(const AiPhaseArgs& a, const AiScratch& s, i64 e0, i64 q, double g, double& score) {
  double sum = 0.0;
  for (i64 k = 1; k <= q; ++k) {
    double u = a.soln[e0 + k - 1];
    sum += u * u / a.sigma2 + zeq(a, s, static_cast<i32>(e0 + k), static_cast<i32>(e0 + k));
  }
  score -= ((static_cast<double>(q) - sum / g) * 0.5) / g;
}

// tr(Sigma^-1 dSigma/dp) for factor row r, from rows of both.
static int trace_term(AiPhaseArgs& a, AiScratch& s, int r, int p, int sel, double& tr) {
  int order = a.var.field(r, kOrder);
  int n0 = 0, n1 = 0;
  tr = 0.0;
  for (int i = 1; i <= order; ++i) {
    if (structure_row(a, r, a.var.secform[r - 1].second(), 0, i, s.rowv[0], s.rowc[0], n0, a.nfault))
      return 1;
    if (structure_row(a, r, a.var.parform[p - 1].first(), sel, i, s.rowv[1], s.rowc[1], n1, a.nfault))
      return 1;
    for (int q = 0; q < n1; ++q) tr += s.rowv[0][s.rowc[1][q] - 1] * s.rowv[1][s.rowc[1][q] - 1];
  }
  structure_row(a, r, nullptr, 0, 0, s.rowv[0], s.rowc[0], n0, a.nfault);
  structure_row(a, r, nullptr, 0, 0, s.rowv[1], s.rowc[1], n1, a.nfault);
  return 0;
}

// g5vscf: the sum over a block of D(I,J) pair(I,J), D the product of the
// rows of n factors from row r: factor k (k >= 0) takes the derivative form
// of parameter p (selector sel), every other factor its inverse.  For a G
// term pair(I,J) = u_I u_J / sigma2 + C^-1(I,J).
template <class Pair>
static int g5vscf(AiPhaseArgs& a, AiScratch& s, int n, int r, int k, int p, int sel, Pair pair,
                  double& sum) {
  int ord[3];
  i64 nn = 1;
  for (int f = 0; f < n; ++f) {
    ord[f] = a.var.field(r + f, kOrder);
    nn *= ord[f];
  }
  int cnt[3] = {0, 0, 0};
  sum = 0.0;
  for (i64 I = 0; I < nn; ++I) {
    i64 rest = I;
    int dig[3];
    for (int f = n - 1; f >= 0; --f) {
      dig[f] = static_cast<int>(rest % ord[f]);
      rest /= ord[f];
    }
    i64 len = 1;
    s.kc[0][0] = 0;
    s.kv[0][0] = 1.0;
    int cur = 0;
    for (int f = 0; f < n; ++f) {
      const i64* rec = (f == k) ? a.var.parform[p - 1].second() : a.var.secform[r + f - 1].second();
      // The factor's record here is the inverse-side form G^-1 dG G^-1, whose
      // derivative selector is the negative of the V-side one.
      if (structure_row(a, r + f, rec, f == k ? -sel : 0, dig[f] + 1, s.rowv[f], s.rowc[f], cnt[f],
                        a.nfault))
        return 1;
      i64 nl = 0;
      for (i64 q = 0; q < len; ++q)
        for (int c = 0; c < cnt[f]; ++c) {
          double w = s.rowv[f][s.rowc[f][c] - 1];
          if (w == 0.0) continue;
          s.kc[1 - cur][nl] = static_cast<i32>(s.kc[cur][q] * ord[f] + s.rowc[f][c] - 1);
          s.kv[1 - cur][nl] = s.kv[cur][q] * w;
          ++nl;
        }
      cur = 1 - cur;
      len = nl;
    }
    for (i64 q = 0; q < len; ++q) sum += s.kv[cur][q] * pair(I, static_cast<i64>(s.kc[cur][q]));
  }
  for (int f = 0; f < n; ++f) structure_row(a, r + f, nullptr, 0, 0, s.rowv[f], s.rowc[f], cnt[f], a.nfault);
  return 0;
}

// makescore: the scores of the parameters of factor k.
static int makescore(AiPhaseArgs& a, AiScratch& s, i64 e0, int n, int r, int k) {
  int rk = r + k;
  int npar = a.var.field(rk, kNpar), gfirst = a.var.field(rk, kGfirst);
  const i64 mult = multiplicity(a, n, r, k);
  for (int m = 0; m < npar; ++m) {
    int p = gfirst + m;
    if (!admits(a, p)) continue;
    if (static_cast<std::size_t>(p) > a.var.parform.size()) return g5vflt(a.nfault, 3001);
    int sel = selector_of(a, rk, m);
    double tr, q;
    if (trace_term(a, s, rk, p, sel, tr)) return 1;
    auto pair = [&](i64 I, i64 J) {
      return a.soln[e0 + I] * a.soln[e0 + J] / a.sigma2 +
             zeq(a, s, static_cast<i32>(e0 + I + 1), static_cast<i32>(e0 + J + 1));
    };
    if (g5vscf(a, s, n, r, k, p, sel, pair, q)) return 1;
    a.score[wvcol(a, p) - 1] += 0.5 * (q - static_cast<double>(mult) * tr);
  }
  return 0;
}

// g5vsca: the scale sigma of a known matrix A, held by its inverse (the
// section links to a GIV row), alone or as factor k of a product of n
// sections from row r0.  The parameter's inverse-side record delivers the
// rows of A^-1 / sigma^2 and the other factors their inverses, so g5vscf
// gives tr(G^-1 dG/dsigma G^-1 (uu'/sigma2 + C^-1_aa)); and
// tr(G^-1 dG/dsigma) = m / sigma times the multiplicity of the factor,
// with m the rank of A^-1 (its order less the singularities the GIV row
// records, e.g. genetic groups).  The trace needs no row of A itself.
static int g5vsca(AiPhaseArgs& a, AiScratch& s, i64 e0, int n, int r0, int k) {
  const int r = r0 + k;
  if (a.var.field(r, kNpar) != 1) {
    g5verror(" A known matrix takes one scale parameter", 3);
    return g5vflt(a.nfault, 3004);
  }
  const int p = a.var.field(r, kGfirst);
  if (p < 1 || static_cast<std::size_t>(p) > a.var.parform.size() ||
      static_cast<std::size_t>(p) > a.gammas.size())
    return g5vflt(a.nfault, 3001);
  const double g = a.gammas[p - 1];
  if (g == 0.0 || !admits(a, p)) return 0;
  const int link = -a.var.field(r, kModel);
  if (a.var.giv == nullptr || link < 1 || link > a.var.giv->count) return g5vflt(a.nfault, 3001);
  const double m = static_cast<double>(effective_order(a, r)) * static_cast<double>(multiplicity(a, n, r0, k));
  auto pair = [&](i64 I, i64 J) {
    return a.soln[e0 + I] * a.soln[e0 + J] / a.sigma2 +
           zeq(a, s, static_cast<i32>(e0 + I + 1), static_cast<i32>(e0 + J + 1));
  };
  double q;
  if (g5vscf(a, s, n, r0, k, p, 0, pair, q)) return 1;
  a.score[wvcol(a, p) - 1] += 0.5 * (q - m / g);
  return 0;
}

int g5vscg(AiPhaseArgs& a, AiScratch& s) {
  i64 e0 = 1;
  for (std::size_t t = 0; t < a.tcode.size(); e0 += a.nlev[t], ++t) {
    int c = a.tcode[t];
    if (c < 1) continue;
    if (a.section > 0 && t < a.tsect.size() && a.tsect[t] > 0 && a.tsect[t] != a.section) continue;
    i64 q = a.nlev[t];
    for (std::size_t u = t + 1; u < a.tcode.size() && a.tcode[u] < 0; ++u) q += a.nlev[u];
    if (c <= 10000) {
      double g = a.gammas[c - 1];
      if (g == 0.0 || !admits(a, c)) continue;
      g5vsci(a, s, e0, q, g, a.score[wvcol(a, c) - 1]);
      continue;
    }
    int n = c / 10000, r = c % 10000;
    if (n > 3 || (n == 3 && a.var.field(r + 1, kModel) != 0)) {
      g5verror("G Structure too complex", 3);
      return g5vflt(a.nfault, 3002);
    }
    if (n == 1 && a.var.field(r, kModel) == 0) {
      if (a.var.field(r, kNpar) == 0) {
        g5verror("Scaling parameter is expected for Identity matrix", 3);
        return g5vflt(a.nfault, 3003);
      }
      int p = a.var.field(r, kGfirst);
      double g = a.gammas[p - 1];
      if (g == 0.0 || !admits(a, p)) continue;
      g5vsci(a, s, e0, q, g, a.score[wvcol(a, p) - 1]);
      continue;
    }
    for (int k = 0; k < n; ++k) {
      if (a.var.field(r + k, kNpar) == 0) continue;
      if (a.var.field(r + k, kModel) < 0) {
        if (g5vsca(a, s, e0, n, r, k)) return 1;
        continue;
      }
      if (makescore(a, s, e0, n, r, k)) return 1;
    }
  }
  if (a.trace) cprintc(" Gscore done");
  return 0;
}

// (W C^-1 W')(I,J) for records I and J (0-based in the design).
static double wcw(const AiPhaseArgs& a, const AiScratch& s, i64 ri, i64 rj) {
  const auto& d = a.design;
  double t = 0.0;
  i32 pi = 1;
  for (i64 i = d.start[ri] + 1; i < d.start[ri + 1]; ++i) {
    i32 ei = d.col[i - 1];
    if (ei <= pi) break;
    pi = ei;
    i32 pj = 1;
    for (i64 j = d.start[rj] + 1; j < d.start[rj + 1]; ++j) {
      i32 ej = d.col[j - 1];
      if (ej <= pj) break;
      pj = ej;
      t += d.val[i - 1] * d.val[j - 1] * zeq(a, s, ei, ej);
    }
  }
  return t;
}

// Scores of a residual section R = gamma x (product of n factors from row
// r) over records first..first+nrec-1.
static int structured_rscore(AiPhaseArgs& a, AiScratch& s, i64 first, i64 nrec, int ps, int n,
                             int r) {
  double g = a.gammas[ps - 1];
  auto pair = [&](i64 I, i64 J) {
    return (a.resid[first + I] * a.resid[first + J] / a.sigma2 + wcw(a, s, first + I, first + J)) / g;
  };
  if (admits(a, ps)) {
    double q;
    if (g5vscf(a, s, n, r, -1, 0, 0, pair, q)) return 1;
    a.score[wvcol(a, ps) - 1] += 0.5 * (q / g - static_cast<double>(nrec) / g);
  }
  for (int k = 0; k < n; ++k) {
    int rk = r + k;
    int npar = a.var.field(rk, kNpar), gfirst = a.var.field(rk, kGfirst);
    i64 mult = nrec / a.var.field(rk, kOrder);
    for (int m = 0; m < npar; ++m) {
      int p = gfirst + m;
      if (!admits(a, p)) continue;
      if (static_cast<std::size_t>(p) > a.var.parform.size()) return g5vflt(a.nfault, 3901);
      int sel = selector_of(a, rk, m);
      double tr, q;
      if (trace_term(a, s, rk, p, sel, tr)) return 1;
      if (g5vscf(a, s, n, r, k, p, sel, pair, q)) return 1;
      a.score[wvcol(a, p) - 1] += 0.5 * (q - static_cast<double>(mult) * tr);
    }
  }
  return 0;
}

int g5vscr(AiPhaseArgs& a, AiScratch& s) {
  i64 rec = 0;
  const auto& d = a.design;
  for (int k = 0; k < a.nsect; ++k) {
    i64 nrec = a.nrsect[3 * k];
    int ps = a.nrsect[3 * k + 1];
    int sc = a.nrsect[3 * k + 2];
    i64 first = rec;
    rec += nrec;
    if (sc > 0) {
      int n = sc > 9999 ? sc / 10000 : 1, r = sc > 9999 ? sc % 10000 : sc;
      if (multitrait_section(a, n, r, nrec)) {
        if (mv_rscore(a, s, first, nrec, ps, r, wcw)) return 1;
        continue;
      }
      if (structured_rscore(a, s, first, nrec, ps, n, r)) return 1;
      continue;
    }
    if (!admits(a, ps) || (k == 0 && a.skip_first_scale)) continue;
    double g = a.gammas[ps - 1];
    double qf = 0.0, tr = 0.0;
    i64 n = 0;
    for (i64 r = first; r < rec; ++r) {
      i64 st = d.start[r];
      if (is_missing(d.val[st - 1])) continue;
      double e = a.resid[r];
      qf += e * e;
      ++n;
      tr += wcw(a, s, r, r);
    }
    double sv = (qf / a.sigma2 + tr) / g;
    a.score[wvcol(a, ps) - 1] += ((sv - static_cast<double>(n)) * 0.5) / g;
  }
  if (a.trace) cprintc(" Score formed");
  return 0;
}

}  // namespace tarnel
