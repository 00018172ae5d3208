// The update of the variance parameters: constrained Newton step, the rules
// by kind of parameter, and the EM fallback for US structures.
#include "control/update.h"

#include <cmath>
#include <cstdio>
#include <string_view>
#include <utility>

#include "host/console.h"
#include "host/messages.h"
#include "variance/dense.h"

namespace tarnel {

UpdateState update_state;

void reset_update_state() { update_state = UpdateState{}; }

namespace {

constexpr double kEps = 1e-9;

inline std::size_t pk(int i, int j) {  // packed (i, j), 1-based, to 0-based index
  if (j > i) std::swap(i, j);
  return static_cast<std::size_t>(i) * (i - 1) / 2 + j - 1;
}

inline double sgn(double v) { return v < 0 ? -1.0 : 1.0; }

// Nearest integer, half away from zero, of a value that may be far out of
// the integer range: the test below only asks whether it is 0.
inline double nint_value(double v) { return std::round(v); }

int bad_args(int& ifault, const char* text) {
  g5verror(text, 4);
  return g5vflt(ifault, 1);
}

// A trace word: the timed progress line, ended.
void trace(int unit, std::string_view text) {
  g5vtme(unit, text, static_cast<int>(text.size()));
  cprintc("\n");
}

void debug_vector(const char* label, const double* v, std::size_t n) {
  vprt("%s", label);
  for (std::size_t k = 0; k < n; ++k) vprt("%s%.17g", k ? "," : "", v[k]);
}

}  // namespace

// ---- the constrained inverse ------------------------------------------------

u64 vcminv_work_words(int nwv, int ngmcon) {
  const u64 n = nwv > 0 ? static_cast<u64>(nwv) : 0;
  const u64 c = ngmcon > 0 ? static_cast<u64>(ngmcon) : 0;
  // column map, reduced AI (reused for the result), one reflection vector
  // a constraint, and the diagonal of the reduced system
  return n + n * n + c * n + n + 2;
}

int vcminv(const VcminvArgs& v, int& nfree, int& rank, int& ifault) {
  nfree = 0;
  rank = 0;
  const int nwv = v.nwv;
  const int ng = v.ngamma;
  if (nwv < 0 || ng < 0 || v.ngmcon < 0) return bad_args(ifault, "Update: negative size");
  const std::size_t lai = static_cast<std::size_t>(nwv) * (nwv + 1) / 2;
  if (v.ai.size() < lai || v.hinv.size() < lai || v.wvpar.size() < static_cast<std::size_t>(nwv))
    return bad_args(ifault, "Update: AI, its inverse or the parameter list is too short");
  if (v.rgmstr.size() < static_cast<std::size_t>(ng))
    return bad_args(ifault, "Update: constraint codes are too short");
  if (!v.gequal.empty() && v.gequal.size() < static_cast<std::size_t>(ng))
    return bad_args(ifault, "Update: gequal must have one entry a parameter");
  if (v.ngmcon > 0 && v.gmcon.size() < static_cast<std::size_t>(ng) * v.ngmcon)
    return bad_args(ifault, "Update: gmcon must have ngamma rows for each constraint");
  for (int c = 0; c < nwv; ++c)
    if (v.wvpar[c] < 1 || v.wvpar[c] > ng)
      return bad_args(ifault, "Update: AI row names a parameter out of range");
  if (!v.gequal.empty())
    for (int k = 0; k < ng; ++k)
      if (v.gequal[k] < 0) return bad_args(ifault, "Update: gequal values must not be negative");
  if (v.work.size() < vcminv_work_words(nwv, v.ngmcon)) return g5vflt(ifault, 6);

  for (std::size_t k = 0; k < lai; ++k) v.hinv[k] = 0.0;
  if (nwv == 0) return 0;

  // Column map: 0 held, otherwise the free coordinate of the AI row.
  double* col = v.work.data();
  auto group = [&](int c) { return v.gequal.empty() ? 0 : v.gequal[v.wvpar[c] - 1]; };
  auto held = [&](int c) { return v.rgmstr[v.wvpar[c] - 1] >= 4; };
  for (int c = 0; c < nwv; ++c) col[c] = held(c) ? 0.0 : -1.0;  // -1: not yet placed
  for (int c = 0; c < nwv; ++c) {  // a held member holds its whole group
    if (!held(c) || group(c) == 0) continue;
    for (int e = 0; e < nwv; ++e)
      if (group(e) == group(c)) col[e] = 0.0;
  }
  int m = 0;
  for (int c = 0; c < nwv; ++c) {
    if (col[c] >= 0.0) continue;
    const int g = group(c);
    int found = 0;
    if (g > 0)
      for (int e = 0; e < c; ++e)
        if (group(e) == g && col[e] > 0.0) {
          found = static_cast<int>(col[e]);
          break;
        }
    col[c] = found ? found : ++m;
  }
  if (m == 0) return 0;
  auto cc = [&](int c) { return static_cast<int>(col[c]); };

  const std::size_t M = static_cast<std::size_t>(m);
  double* ar = col + nwv;     // m x m reduced AI, later the result
  double* refl = ar + M * M;  // one Householder vector a constraint, m each
  double* d0 = refl + static_cast<std::size_t>(v.ngmcon > 0 ? v.ngmcon : 0) * M;  // m

  for (std::size_t k = 0; k < M * M; ++k) ar[k] = 0.0;
  for (int i = 1; i <= nwv; ++i) {
    const int ci = cc(i - 1);
    if (!ci) continue;
    for (int j = 1; j <= nwv; ++j) {
      const int cj = cc(j - 1);
      if (cj) ar[(ci - 1) * M + (cj - 1)] += v.ai[pk(i, j)];
    }
  }

  // The linear constraints, in reduced coordinates, are reduced one by one
  // by Householder reflections H_1 ... H_r: Q = H_1 ... H_r turns them into
  // the first r coordinates, so that the last m - r columns of Q are an
  // orthonormal basis K of the free combinations.  A constraint that is a
  // combination of earlier ones leaves nothing and is dropped.
  int r = 0;
  for (int c = 0; c < v.ngmcon; ++c) {
    double* q = refl + static_cast<std::size_t>(r) * M;
    for (std::size_t k = 0; k < M; ++k) q[k] = 0.0;
    for (int e = 0; e < nwv; ++e) {
      const int ce = cc(e);
      if (ce) q[ce - 1] += v.gmcon[static_cast<std::size_t>(c) * ng + v.wvpar[e] - 1];
    }
    double norm = 0.0;
    for (std::size_t k = 0; k < M; ++k) norm += q[k] * q[k];
    norm = std::sqrt(norm);
    for (int s = 0; s < r; ++s) {
      const double* h = refl + static_cast<std::size_t>(s) * M;
      double dot = 0.0;
      for (std::size_t k = s; k < M; ++k) dot += h[k] * q[k];
      for (std::size_t k = s; k < M; ++k) q[k] -= 2.0 * dot * h[k];
    }
    double tail = 0.0;
    for (std::size_t k = r; k < M; ++k) tail += q[k] * q[k];
    tail = std::sqrt(tail);
    if (!(tail > 1e-10 * norm)) continue;
    const double alpha = -sgn(q[r]) * tail;
    for (int k = 0; k < r; ++k) q[k] = 0.0;
    q[r] -= alpha;
    double hn = 0.0;
    for (std::size_t k = r; k < M; ++k) hn += q[k] * q[k];
    hn = std::sqrt(hn);
    for (std::size_t k = r; k < M; ++k) q[k] /= hn;
    ++r;
  }
  // ar := H h ar h H for h = H_1 ... H_r in turn, given a reflection vector
  // that is zero before position s.
  auto reflect = [&](const double* h, std::size_t s) {
    for (std::size_t i = 0; i < M; ++i) {  // rows: ar := ar H
      double* row = ar + i * M;
      double dot = 0.0;
      for (std::size_t k = s; k < M; ++k) dot += row[k] * h[k];
      for (std::size_t k = s; k < M; ++k) row[k] -= 2.0 * dot * h[k];
    }
    for (std::size_t j = 0; j < M; ++j) {  // columns: ar := H ar
      double dot = 0.0;
      for (std::size_t k = s; k < M; ++k) dot += h[k] * ar[k * M + j];
      for (std::size_t k = s; k < M; ++k) ar[k * M + j] -= 2.0 * dot * h[k];
    }
  };
  for (int s = 0; s < r; ++s) reflect(refl + static_cast<std::size_t>(s) * M, s);
  const int f = m - r;
  nfree = f;
  if (f == 0) return 0;

  // Sweep the reduced system K' AI K, the trailing block, in order: minus
  // its inverse is left on the swept part, and a pivot under its tolerance
  // is set aside with its row and column zero.
  const std::size_t R = static_cast<std::size_t>(r);
  auto B = [&](std::size_t i, std::size_t j) -> double& { return ar[(R + i) * M + (R + j)]; };
  const std::size_t F = static_cast<std::size_t>(f);
  for (std::size_t k = 0; k < F; ++k) d0[k] = B(k, k);
  int nsw = 0;
  for (std::size_t k = 0; k < F; ++k) {
    const double tol = (std::fabs(d0[k]) + kEps) * kEps;
    const double d = B(k, k);
    if (!(std::fabs(d) > tol)) {
      for (std::size_t j = 0; j < F; ++j) B(k, j) = B(j, k) = 0.0;
      continue;
    }
    ++nsw;
    const double* rowk = &B(k, 0);
    for (std::size_t i = 0; i < F; ++i) {
      if (i == k) continue;
      double* rowi = &B(i, 0);
      const double fac = rowi[k] / d;
      if (fac == 0.0) continue;
      for (std::size_t j = 0; j < F; ++j) rowi[j] -= fac * rowk[j];
      rowi[k] = fac;
    }
    for (std::size_t j = 0; j < F; ++j) B(k, j) /= d;
    B(k, k) = -1.0 / d;
  }
  rank = nsw;

  // Back to reduced coordinates: Q [0 0; 0 inverse] Q', applying H_r first.
  for (std::size_t i = 0; i < M; ++i)
    for (std::size_t j = 0; j < M; ++j)
      ar[i * M + j] = (i < R || j < R) ? 0.0 : -ar[i * M + j];
  for (int s = r - 1; s >= 0; --s) reflect(refl + static_cast<std::size_t>(s) * M, s);
  for (int i = 1; i <= nwv; ++i) {
    const int ci = cc(i - 1);
    if (!ci) continue;
    for (int j = 1; j <= i; ++j) {
      const int cj = cc(j - 1);
      if (cj) v.hinv[pk(i, j)] = ar[(ci - 1) * M + (cj - 1)];
    }
  }
  return 0;
}

// ---- the EM matrix -----------------------------------------------------------

// A standard EM step for an unstructured (US) variance matrix G of order n
// whose q effects have variance G (x) A: the new G is the expected sum of
// squares and products of the effects given the data, divided by q,
//   G_new = (U' A^-1 U + T) / q,   T(i, j) = tr(A^-1 C^{ij}),
// where C^{ij} is the block of the inverse of the mixed model equations for
// components i and j of the effects.  The caller supplies U' A^-1 U and T.
int g5vemu(const UsEmData& d, int n, span<double> emmat, int& ifault) {
  const std::size_t len = n > 0 ? static_cast<std::size_t>(n) * (n + 1) / 2 : 0;
  if (n < 1 || d.neffects < 1 || d.ssp.size() < len || d.cinv.size() < len || emmat.size() < len) {
    g5verror("EM update: section data do not match the US structure", 4);
    return g5vflt(ifault, 1);
  }
  for (std::size_t k = 0; k < len; ++k) emmat[k] = (d.ssp[k] + d.cinv[k]) / d.neffects;
  return 0;
}

// ---- the update --------------------------------------------------------------

u64 g5vupd_work_words(int nwv, int ngamma, int ngmcon) {
  const u64 n = nwv > 0 ? static_cast<u64>(nwv) : 0;
  const u64 g = ngamma > 0 ? static_cast<u64>(ngamma) : 0;
  // steps, inverse diagonal, new values; backups of rgmstr and p; the
  // constrained inverse
  return 3 * n + 2 * g + vcminv_work_words(nwv, ngmcon);
}

namespace {

struct Pass {
  int nmod = 0;
  bool restart = false;
  double ifsum = 0.0;
  int ifcount = 0;
  int signchanges = 0;
};

// The EM fallback after the pass.  Returns 1 with ifault set on a fault.
int em_fallback(UpdateArgs& a, span<double> scratch, int& ifault) {
  const int nwv = static_cast<int>(a.score.size());
  if (nwv == 0) return 0;
  const int last = a.wvpar[nwv - 1];
  const int rl = a.rgmstr[last - 1];
  const bool wanted = rl / 3 == 17 || rl == 77 || static_cast<double>(a.iter) <= a.emset / 10.0;
  if (!wanted || !(a.emset != 0 || rl > 50)) return 0;
  // The first tenth of the EM setting's iterations are full EM iterations
  // for every US section; later, a section takes an EM step only when one
  // of its parameters asks for it (rgmstr 51 to 53, or 77), and that step
  // is a single step written through the scores.
  const bool by_setting = a.emset != 0 && static_cast<double>(a.iter) <= a.emset / 10.0;
  const bool full_em = by_setting;
  double& stepsz = *a.stepsz;
  int made = 0, failed = 0;
  auto marked = [&](int k) {
    const int r = a.rgmstr[k - 1];
    return r == 51 || r == 52 || r == 53 || r == 77;
  };
  for (int s = 1; s <= a.nstruc; ++s) {
    const int* row = a.struc.data() + static_cast<std::size_t>(s - 1) * a.lstruc;
    if (row[2] != 9) continue;  // model
    const int gform = a.lstruc >= 15 ? row[14] : 1;
    const int n = gform == 2 ? row[0] / 2 : row[0];
    const int npar = row[1];
    const int first = row[3];
    if (n < 1 || first < 1 || npar < 1 ||
        static_cast<i64>(first) + npar - 1 > static_cast<i64>(a.gammas.size()))
      continue;
    bool holds = by_setting;
    for (int k = first; k < first + npar && !holds; ++k) holds = marked(k);
    if (!holds || a.rgmstr[first - 1] % 10 != 1) continue;
    bool ok = static_cast<i64>(npar) == static_cast<i64>(n) * (n + 1) / 2;
    for (int i = 1; i <= n && ok; ++i) {
      const int r = a.rgmstr[first - 1 + static_cast<int>(pk(i, i))];
      ok = r == 1 || r > 9;
    }
    const UsEmData* data = nullptr;
    for (const UsEmData& d : a.em)
      if (d.section == s) data = &d;
    if (!ok || data == nullptr) {
      g5verror("No EM update of constrained US structure", 2);
      continue;
    }
    const std::size_t len = static_cast<std::size_t>(npar);
    if (scratch.size() < 4 * len + 2 * static_cast<std::size_t>(n)) return g5vflt(ifault, 6);
    double* em = scratch.data();
    double* prev = em + len;
    double* sc = prev + len;
    double* piv = sc + len;  // a copy for the pivot test, then 2n scratch
    // The matrix passes when its generalised inverse finds no singular and
    // no negative pivot.
    auto pivots = [&](int& nsing, int& nneg) {
      for (std::size_t k = 0; k < len; ++k) piv[k] = em[k];
      double logdet = 0.0;
      g5vsmige(span<double>(piv, len), n, span<double>(piv + len, 2 * static_cast<std::size_t>(n)),
               logdet, span<int>(), nsing, nneg);
    };
    auto plt = [&](const char* label, const double* m) {
      g5vplt(label, span<const double>(m, len), static_cast<int>(len), a.unit);
    };
    if (a.debug) trace(a.unit, "Calling EMU-A");
    if (g5vemu(*data, n, span<double>(em, len), ifault)) return 1;
    for (std::size_t k = 0; k < len; ++k) prev[k] = a.prev1[first - 1 + k];
    if (!full_em) {
      // One EM step written through the scores: G + (2/q) G S G, with S the
      // symmetric matrix of the scores (an off-diagonal score counts both
      // of its positions, hence the half).
      if (a.debug) trace(a.unit, "Single step EM Update using Score ");
      for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= i; ++j) {
          const int k = first - 1 + static_cast<int>(pk(i, j));
          double v = 0.0;
          for (int c = 0; c < nwv; ++c)
            if (a.wvpar[c] == k + 1) v = a.score[c];
          sc[pk(i, j)] = i == j ? v : 0.5 * v;
        }
      if (a.debug) {
        plt(" UScore", sc);
        plt(" USprev", prev);
        // the section's block of AI, packed by its parameters
        vprt(" USAI  ");
        for (int i = first; i < first + npar; ++i)
          for (int j = first; j <= i; ++j) {
            int ci = 0, cj = 0;
            for (int c = 1; c <= nwv; ++c) {
              if (a.wvpar[c - 1] == i) ci = c;
              if (a.wvpar[c - 1] == j) cj = c;
            }
            vprt(" %12.5g", ci && cj ? a.ai[pk(ci, cj)] : 0.0);
          }
        vprt("\n");
        plt(" USEM  ", em);
      }
      for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= i; ++j) {
          double t = 0.0;
          for (int k = 1; k <= n; ++k)
            for (int l = 1; l <= n; ++l) t += prev[pk(i, k)] * sc[pk(k, l)] * prev[pk(l, j)];
          em[pk(i, j)] = prev[pk(i, j)] + 2.0 * t / data->neffects;
        }
    }
    int nsing = 0, nneg = 0, back = 0;
    pivots(nsing, nneg);
    while ((nsing > 0 || nneg > 0) && back < 30) {
      if (a.debug) trace(a.unit, "Regress back");
      for (std::size_t k = 0; k < len; ++k) em[k] = 0.5 * (em[k] + prev[k]);
      if (a.debug) plt(" USEMrb", em);
      ++back;
      pivots(nsing, nneg);
    }
    if (nsing > 0 || nneg > 0)  // never passed: keep the previous matrix
      for (std::size_t k = 0; k < len; ++k) em[k] = prev[k];
    if (back > 0) {
      if (a.debug) vprt("%d negative roots\n", back);
      cprintc(" US regressed back\n");
      ++failed;
    }
    if (a.debug) trace(a.unit, "CALLING EMU-B");
    for (std::size_t k = 0; k < len; ++k) {
      a.gammas[first - 1 + k] = em[k];
      if (a.rgmstr[first - 1 + k] == 77) a.rgmstr[first - 1 + k] = 1;
    }
    ++made;
  }
  if (made > 0) {
    a.control->emiter = a.iter;
    if (a.iter == 1) update_state.prevstepsz = f32(0.1);
    else if (failed > made - failed) stepsz = 0.25;
  }
  return 0;
}

}  // namespace

int g5vupd(UpdateArgs& a, int& ifault) {
  if (a.stepsz == nullptr || a.control == nullptr)
    return bad_args(ifault, "Update: step size or control block missing");
  const int ng = static_cast<int>(a.gammas.size());
  const int nwv = static_cast<int>(a.score.size());
  const std::size_t G = static_cast<std::size_t>(ng);
  if (a.prev1.size() < G || a.prev2.size() < G || a.tgamma.size() < G || a.rgmstr.size() < G ||
      (!a.gmcstr.empty() && a.gmcstr.size() < G) || (!a.lower.empty() && a.lower.size() < G))
    return bad_args(ifault, "Update: parameter vectors are shorter than gammas");
  if (a.wvpar.size() < static_cast<std::size_t>(nwv) ||
      a.ai.size() < static_cast<std::size_t>(nwv) * (nwv + 1) / 2 ||
      a.aiinv.size() < static_cast<std::size_t>(nwv) * (nwv + 1) / 2)
    return bad_args(ifault, "Update: AI or its parameter list is too short");
  if (a.nstruc < 0 || a.lstruc < 0 ||
      (a.nstruc > 0 && (a.lstruc < 4 || a.struc.size() < static_cast<std::size_t>(a.lstruc) * a.nstruc)))
    return bad_args(ifault, "Update: struc is too short");
  for (int c = 0; c < nwv; ++c)
    if (a.wvpar[c] < 1 || a.wvpar[c] > ng)
      return bad_args(ifault, "Update: AI row names a parameter out of range");
  if (a.work.size() < g5vupd_work_words(nwv, ng, a.ngmcon)) return g5vflt(ifault, 6);
  {  // each parameter owns at most one row of AI
    double* seen = a.work.data();
    for (int k = 0; k < ng; ++k) seen[k] = 0.0;
    for (int c = 0; c < nwv; ++c) {
      if (seen[a.wvpar[c] - 1] != 0.0)
        return bad_args(ifault, "Update: a parameter owns two rows of AI");
      seen[a.wvpar[c] - 1] = 1.0;
    }
  }
  if (a.iter <= 1) reset_update_state();

  UpdateControl& ctl = *a.control;
  double& stepsz = *a.stepsz;
  ctl.nmodified = 0;

  // Preparation: p and q, and parameters at zero under a positivity code.
  for (int k = 0; k < ng; ++k) {
    a.prev2[k] = a.prev1[k];
    a.prev1[k] = a.gammas[k];
    if (a.prev2[k] == 0.0 && a.prev1[k] != 0.0) a.prev2[k] = f32(0.975) * a.prev1[k];
    const int code = a.gmcstr.empty() ? a.rgmstr[k] : a.gmcstr[k];
    if (a.iter >= 2 && code == 1 && std::fabs(a.gammas[k]) < 1e-9) a.rgmstr[k] = 7;
  }
  if (a.debug && a.unit == 19) {
    debug_vector("GAM <- c(", a.gammas.data(), G);
    debug_vector("); SCR <- c(", a.score.data(), static_cast<std::size_t>(nwv));
    debug_vector("); AIV <- c(", a.ai.data(), static_cast<std::size_t>(nwv) * (nwv + 1) / 2);
    vprt(")\n");
  }
  auto par = [&](int c) { return a.wvpar[c] - 1; };  // 0-based parameter of AI row c
  // Parameters with no information, and the later of two parameters whose
  // information is the same up to sign, are set aside.
  for (int c = 1; c <= nwv; ++c) {
    const int k = par(c - 1);
    if (a.rgmstr[k] >= 4) continue;
    const double aa = a.ai[pk(c, c)];
    if (std::fabs(aa) < 1e-18) {
      a.rgmstr[k] = 6;
      continue;
    }
    for (int e = 1; e < c; ++e) {
      const int ke = par(e - 1);
      if (a.rgmstr[ke] >= 4) continue;
      const double bb = a.ai[pk(e, e)];
      const double cc = a.ai[pk(c, e)];
      if (std::fabs(cc * cc / (aa * bb)) > 0.999999999) {
        a.rgmstr[k] = 6;
        break;
      }
    }
  }

  // The Newton step on the free combinations.
  double* step = a.work.data();
  double* hdiag = step + nwv;
  double* newg = hdiag + nwv;
  double* rgsave = newg + nwv;
  double* psave = rgsave + ng;
  span<double> vwork(psave + ng, a.work.size() - (3 * static_cast<std::size_t>(nwv) + 2 * G));
  VcminvArgs v;
  v.ai = a.ai;
  v.nwv = nwv;
  v.wvpar = a.wvpar;
  v.rgmstr = a.rgmstr;
  v.ngamma = ng;
  v.gequal = a.gequal;
  v.gmcon = a.gmcon;
  v.ngmcon = a.ngmcon;
  v.hinv = a.aiinv;
  v.work = vwork;
  int nfree = 0, rank = 0;
  if (vcminv(v, nfree, rank, ifault)) {
    if (ifault != 6) g5verror("Update: constrained inverse failed", 4);
    return 1;
  }
  ctl.aicond = nfree > 0 ? static_cast<int>(std::lround(1000.0 * rank / nfree)) : 1000;
  for (int c = 1; c <= nwv; ++c) {
    double s = 0.0;
    for (int e = 1; e <= nwv; ++e) s += a.aiinv[pk(c, e)] * a.score[e - 1];
    step[c - 1] = a.rgmstr[par(c - 1)] >= 4 ? 0.0 : s;
    hdiag[c - 1] = a.aiinv[pk(c, c)];
  }
  if (a.debug) trace(a.unit, " AIeq");

  // The SLOW factor.
  {
    int& m = ctl.slow;
    const double s = stepsz > 0.0 ? std::fmin(stepsz, 1.0 / stepsz) : 0.0;
    if (a.dloglik >= -1.0) {
      if (update_state.flag4min <= m) m -= m / 4;
    } else if (m < 8) {
      m += 5;
      update_state.flag4min += 1;
    }
    const double slow = (1.0 - s) * 0.5 + 1.001 + 0.015 * m;
    if (a.debug) vprt("; SLOW(Update)=%8.4f\n", slow);
  }

  for (int k = 0; k < ng; ++k) {
    rgsave[k] = a.rgmstr[k];
    psave[k] = a.prev1[k];
  }
  Pass pass;
  for (int attempt = 0; attempt < 2; ++attempt) {
    pass = Pass{};
    // Steps are scaled by the step size at the start of the pass; changes
    // made to it below carry over to the next iteration.
    const double scale = stepsz;
    double loadlimit = 0.0;
    for (int c = 0; c < nwv; ++c) {
      const int k = par(c);
      const double g = a.gammas[k];
      const double t = step[c] * scale;
      const double se = std::sqrt(std::fabs(hdiag[c]));
      double& p = a.prev1[k];
      const double q = a.prev2[k];
      int& rg = a.rgmstr[k];
      const int tg = a.tgamma[k];
      double nw = g;
      if (rg <= 3) {
        if (tg == 3) {
          nw = g + std::fmax(-0.3, std::fmin(0.3, t));
          if (std::fabs(nw) > std::fabs(p) && std::fabs(p) > std::fabs(q) &&
              std::fabs(q) > f32(0.9999)) {
            nw = p;
            rg = 7;
          } else if (std::fabs(nw) > (std::fabs(p) + 2.0) / 3.0) {
            nw = (p + 2.0 * sgn(nw)) / 3.0;
            stepsz = 0.5 * stepsz + f32(0.01);
          }
          if (nw == p && (std::fabs(nw) == 0.999 || std::fabs(nw) == f32(0.999))) rg = 7;
          if (nw == q && std::fabs(nw - p) > f32(0.29)) {
            stepsz /= 3.0;
            nw = (p + nw) / 2.0;
          }
        } else if (tg == 5) {
          nw = g + t;
          if (nw > 0.999) {
            nw = 0.1 * p + 0.8999099761605263;
            if (p > 0.999) rg = 7;
          } else if (nw < 0.0) {
            nw = 0.1 * p;
            if (p < 2e-07) rg = 7;
          }
        } else if (tg == 6) {
          if (c == 0 || a.tgamma[par(c - 1)] != 6) {  // a new run of loadings
            double sum = 0.0;
            int cnt = 0;
            for (int e = c; e < nwv && a.tgamma[par(e)] == 6; ++e, ++cnt)
              sum += std::fabs(a.prev1[par(e)]);
            loadlimit = cnt ? sum / cnt * 0.125 : 0.0;
          }
          nw = g + t;
          double u = 0.0;
          if (q != 0.0) {
            u = std::sqrt(2.0 * std::fabs(t) / (std::fabs(q) + std::fabs(p)));
            pass.ifsum += u;
            ++pass.ifcount;
          }
          const double ap = std::fabs(p);
          if (ap <= 1e-5 && ap != 0.0 && u > 3.5 && std::fabs(t) > loadlimit) {
            p *= 10.0;
            nw = std::fabs(p) * sgn(g + t);
          }
          if (ap > 1e-5 && p * (g + t) < 0.0) ++pass.signchanges;
        } else if (tg == 8) {
          const double lb = a.lower.empty() ? 0.0 : a.lower[k];
          nw = g + t >= lb ? g + t : (2.0 * lb + g) / 3.0;
        } else if (g == 0.0) {
          nw = t / 3.0;
        } else if (g > 0.0) {
          if (t > 0.0) {
            nw = std::fmin(g + t, g * kSqrt250);
          } else if (g + t > 0.0) {
            nw = std::fmax(g + t, g / kSqrt250);
          } else if (tg == 4) {  // the boundary case
            nw = std::fmax(g + t, -f32(0.3) * g);
          } else if (g > 0.1 * se || (g > 1e-4 && stepsz < 0.99)) {
            nw = g / kSqrt250;
          } else if (g >= se || (tg != 7 && rg != 3)) {
            if (rg < 3 && tg < 3) {
              if (p > kEps) nw = g / kSqrt250;
              const double d = se > 0.0 ? nint_value((q / kSqrt250 - p) / se * 10000.0) : 1.0;
              if ((d == 0.0 && p < 1e-4 * se) || p < 1e-6 || (rg == 2 && p < 1e-5)) {
                p = nw;
                rg = 7;
              } else {
                rg = 77;  // an EM step is wanted
              }
            } else {
              nw = g + f32(0.2) * std::fmax(t, -0.5);
            }
          } else {
            nw = -g * stepsz;  // a small step through zero
          }
        } else if (tg < 3) {  // g negative
          if (g > -0.99) {
            if (t > g) nw = g + t;
            else if (g + t < -0.99) nw = std::fmax(g + 0.5 * t, -0.99);
            else nw = std::fmax(g + 0.5 * t, 10.0 * g);
          } else {
            nw = t >= 0.0 ? g + t : std::fmax(g + f32(0.7) * t, 10.0 * g);
          }
        } else {
          nw = std::fmin(std::fmax(g + t, 100.0 * g), g - 100.0 * g);
        }
      }
      newg[c] = nw;
      if (rg > 3 && rgsave[k] > 3) continue;  // held: no step, nothing to count
      if (std::fabs(nw - (g + t)) <= 1e-14) continue;
      if (pass.nmod == 0 && !pass.restart && attempt == 0 && stepsz > 0.8) {
        stepsz = 0.5;
        if (a.debug) trace(a.unit, "RESET STEPSZ");
        pass.restart = true;
        break;
      }
      ++pass.nmod;
      if (a.debug) {
        if (pass.nmod == 1)
          vprt("  I II TGAM RGMSTR GAMMA_I    UPDATE    GAMMA_I+1    SQRT(AI(K+I))\n");
        vprt("%4d%4d%4d%6d %12.5g %12.5g %12.5g %12.5g\n", k + 1, c + 1, tg, rg, g, t, nw, se);
      }
    }
    if (!pass.restart) break;
    for (int k = 0; k < ng; ++k) {
      a.rgmstr[k] = static_cast<int>(rgsave[k]);
      a.prev1[k] = psave[k];
    }
  }
  ctl.nmodified = pass.nmod;
  for (int c = 0; c < nwv; ++c) a.gammas[par(c)] = newg[c];
  if (a.debug && pass.ifcount > 0)
    vprt(" Loadings IF%% %10.4f  sign changes %d\n", pass.ifsum / pass.ifcount, pass.signchanges);

  // The EM fallback, with the scratch that the constrained inverse used.
  update_state.prevstepsz = stepsz;
  if (em_fallback(a, vwork, ifault)) return 1;
  return 0;
}

}  // namespace tarnel
