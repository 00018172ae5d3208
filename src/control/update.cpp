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

namespace {

// The arguments of vcminv, checked before anything is written.  Returns 1
// with ifault set on a fault.
int check_vcminv_args(const VcminvArgs& v, int& ifault) {
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
  return 0;
}

// The reduced system of vcminv, in its scratch: the free coordinate of
// each AI row, the reduced AI (m x m, later the result), one reflection
// vector a constraint and the diagonal of the swept block.
struct ReducedSystem {
  const VcminvArgs& v;
  double* col = nullptr;   // nwv: 0 held, otherwise the free coordinate
  int m = 0;               // free coordinates
  std::size_t M = 0;
  double* ar = nullptr;
  double* refl = nullptr;
  double* d0 = nullptr;
  int r = 0;               // independent linear constraints
  int cc(int c) const { return static_cast<int>(col[c]); }
};

// The column map: held parameters (and every member of a group with a
// held member) get 0, the others their free coordinate, one a group.
// Returns the number of free coordinates.
int map_free_coordinates(const VcminvArgs& v, double* col) {
  const int nwv = v.nwv;
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
  return m;
}

// AI in the free coordinates: the rows and columns of a group added.
void reduce_ai(ReducedSystem& rs) {
  const VcminvArgs& v = rs.v;
  const std::size_t M = rs.M;
  for (std::size_t k = 0; k < M * M; ++k) rs.ar[k] = 0.0;
  for (int i = 1; i <= v.nwv; ++i) {
    const int ci = rs.cc(i - 1);
    if (!ci) continue;
    for (int j = 1; j <= v.nwv; ++j) {
      const int cj = rs.cc(j - 1);
      if (cj) rs.ar[(ci - 1) * M + (cj - 1)] += v.ai[pk(i, j)];
    }
  }
}

// The linear constraints, in reduced coordinates, are reduced one by one
// by Householder reflections H_1 ... H_r: Q = H_1 ... H_r turns them into
// the first r coordinates, so that the last m - r columns of Q are an
// orthonormal basis K of the free combinations.  A constraint that is a
// combination of earlier ones leaves nothing and is dropped.
void reduce_constraints(ReducedSystem& rs) {
  const VcminvArgs& v = rs.v;
  const std::size_t M = rs.M;
  int& r = rs.r;
  r = 0;
  for (int c = 0; c < v.ngmcon; ++c) {
    double* q = rs.refl + static_cast<std::size_t>(r) * M;
    for (std::size_t k = 0; k < M; ++k) q[k] = 0.0;
    for (int e = 0; e < v.nwv; ++e) {
      const int ce = rs.cc(e);
      if (ce) q[ce - 1] += v.gmcon[static_cast<std::size_t>(c) * v.ngamma + v.wvpar[e] - 1];
    }
    double norm = 0.0;
    for (std::size_t k = 0; k < M; ++k) norm += q[k] * q[k];
    norm = std::sqrt(norm);
    for (int s = 0; s < r; ++s) {
      const double* h = rs.refl + static_cast<std::size_t>(s) * M;
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
}

// ar := H ar H for the reflection H of vector h, zero before position s.
void reflect(ReducedSystem& rs, const double* h, std::size_t s) {
  const std::size_t M = rs.M;
  double* ar = rs.ar;
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
}

// Sweeps the reduced system K' AI K, the trailing block of f rows, in
// order: minus its inverse is left on the swept part, and a pivot under
// its tolerance is set aside with its row and column zero.  Returns the
// number of pivots swept.
int sweep_free_block(ReducedSystem& rs, int f) {
  const std::size_t R = static_cast<std::size_t>(rs.r), M = rs.M;
  auto B = [&](std::size_t i, std::size_t j) -> double& { return rs.ar[(R + i) * M + (R + j)]; };
  const std::size_t F = static_cast<std::size_t>(f);
  double* d0 = rs.d0;
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
  return nsw;
}

// Back to reduced coordinates, Q [0 0; 0 inverse] Q' applying H_r first,
// and out to the AI rows.
void expand_inverse(ReducedSystem& rs) {
  const VcminvArgs& v = rs.v;
  const std::size_t R = static_cast<std::size_t>(rs.r), M = rs.M;
  double* ar = rs.ar;
  for (std::size_t i = 0; i < M; ++i)
    for (std::size_t j = 0; j < M; ++j) ar[i * M + j] = (i < R || j < R) ? 0.0 : -ar[i * M + j];
  for (int s = rs.r - 1; s >= 0; --s) reflect(rs, rs.refl + static_cast<std::size_t>(s) * M, s);
  for (int i = 1; i <= v.nwv; ++i) {
    const int ci = rs.cc(i - 1);
    if (!ci) continue;
    for (int j = 1; j <= i; ++j) {
      const int cj = rs.cc(j - 1);
      if (cj) v.hinv[pk(i, j)] = ar[(ci - 1) * M + (cj - 1)];
    }
  }
}

}  // namespace

int vcminv(const VcminvArgs& v, int& nfree, int& rank, int& ifault) {
  nfree = 0;
  rank = 0;
  if (check_vcminv_args(v, ifault)) return 1;
  const std::size_t lai = static_cast<std::size_t>(v.nwv) * (v.nwv + 1) / 2;
  for (std::size_t k = 0; k < lai; ++k) v.hinv[k] = 0.0;
  if (v.nwv == 0) return 0;
  ReducedSystem rs{v};
  rs.col = v.work.data();
  rs.m = map_free_coordinates(v, rs.col);
  if (rs.m == 0) return 0;
  rs.M = static_cast<std::size_t>(rs.m);
  rs.ar = rs.col + v.nwv;
  rs.refl = rs.ar + rs.M * rs.M;
  rs.d0 = rs.refl + static_cast<std::size_t>(v.ngmcon > 0 ? v.ngmcon : 0) * rs.M;
  reduce_ai(rs);
  reduce_constraints(rs);
  for (int s = 0; s < rs.r; ++s) reflect(rs, rs.refl + static_cast<std::size_t>(s) * rs.M, s);
  const int f = rs.m - rs.r;
  nfree = f;
  if (f == 0) return 0;
  rank = sweep_free_block(rs, f);
  expand_inverse(rs);
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

// ---- the EM fallback ---------------------------------------------------------

// A US section (`model` 9) of struc that takes an EM step: its order n, its
// npar parameters from `first`, its EM data, and four blocks of scratch.
struct UsEmStep {
  int n = 0, npar = 0, first = 0;
  const UsEmData* data = nullptr;
  std::size_t len = 0;
  double* em = nullptr;    // the EM matrix, then the new one
  double* prev = nullptr;  // the matrix at the last iteration
  double* sc = nullptr;    // the scores as a symmetric matrix
  double* piv = nullptr;   // a copy for the pivot test, then 2n scratch
};

// Any singular and any negative pivot of the generalised inverse of the
// section's matrix.
void em_pivots(UsEmStep& e, int& nsing, int& nneg) {
  for (std::size_t k = 0; k < e.len; ++k) e.piv[k] = e.em[k];
  double logdet = 0.0;
  g5vsmige(span<double>(e.piv, e.len), e.n, span<double>(e.piv + e.len, 2 * static_cast<std::size_t>(e.n)), logdet,
           span<int>(), nsing, nneg);
}

void em_plot(const UpdateArgs& a, const char* label, const UsEmStep& e, const double* m) {
  g5vplt(label, span<const double>(m, e.len), static_cast<int>(e.len), a.unit);
}

// One EM step written through the scores: G + (2/q) G S G, with S the
// symmetric matrix of the scores (an off-diagonal score counts both of its
// positions, hence the half).
void single_step_em(const UpdateArgs& a, UsEmStep& e) {
  const int nwv = static_cast<int>(a.score.size());
  const int n = e.n, first = e.first;
  if (a.debug) trace(a.unit, "Single step EM Update using Score ");
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= i; ++j) {
      const int k = first - 1 + static_cast<int>(pk(i, j));
      double v = 0.0;
      for (int c = 0; c < nwv; ++c)
        if (a.wvpar[c] == k + 1) v = a.score[c];
      e.sc[pk(i, j)] = i == j ? v : 0.5 * v;
    }
  if (a.debug) {
    em_plot(a, " UScore", e, e.sc);
    em_plot(a, " USprev", e, e.prev);
    // the section's block of AI, packed by its parameters
    vprt(" USAI  ");
    for (int i = first; i < first + e.npar; ++i)
      for (int j = first; j <= i; ++j) {
        int ci = 0, cj = 0;
        for (int c = 1; c <= nwv; ++c) {
          if (a.wvpar[c - 1] == i) ci = c;
          if (a.wvpar[c - 1] == j) cj = c;
        }
        vprt(" %12.5g", ci && cj ? a.ai[pk(ci, cj)] : 0.0);
      }
    vprt("\n");
    em_plot(a, " USEM  ", e, e.em);
  }
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= i; ++j) {
      double t = 0.0;
      for (int k = 1; k <= n; ++k)
        for (int l = 1; l <= n; ++l) t += e.prev[pk(i, k)] * e.sc[pk(k, l)] * e.prev[pk(l, j)];
      e.em[pk(i, j)] = e.prev[pk(i, j)] + 2.0 * t / e.data->neffects;
    }
}

// The new matrix must pass the pivot test: until it does it is pulled back
// half way to the previous one, at most 30 times, and one that never
// passes keeps the previous matrix.  Returns true when it was pulled back.
bool regress_back(const UpdateArgs& a, UsEmStep& e) {
  int nsing = 0, nneg = 0, back = 0;
  em_pivots(e, nsing, nneg);
  while ((nsing > 0 || nneg > 0) && back < 30) {
    if (a.debug) trace(a.unit, "Regress back");
    for (std::size_t k = 0; k < e.len; ++k) e.em[k] = 0.5 * (e.em[k] + e.prev[k]);
    if (a.debug) em_plot(a, " USEMrb", e, e.em);
    ++back;
    em_pivots(e, nsing, nneg);
  }
  if (nsing > 0 || nneg > 0)  // never passed: keep the previous matrix
    for (std::size_t k = 0; k < e.len; ++k) e.em[k] = e.prev[k];
  if (back > 0) {
    if (a.debug) vprt("%d negative roots\n", back);
    cprintc(" US regressed back\n");
  }
  return back > 0;
}

// The US section of column s, when it takes an EM step: false for a
// section that is not US, does not ask for the step or cannot take it.
bool us_em_section(const UpdateArgs& a, int s, bool by_setting, UsEmStep& e) {
  const int* row = a.struc.data() + static_cast<std::size_t>(s - 1) * a.lstruc;
  if (row[2] != 9) return false;  // model
  const int gform = a.lstruc >= 15 ? row[14] : 1;
  e.n = gform == 2 ? row[0] / 2 : row[0];
  e.npar = row[1];
  e.first = row[3];
  if (e.n < 1 || e.first < 1 || e.npar < 1 ||
      static_cast<i64>(e.first) + e.npar - 1 > static_cast<i64>(a.gammas.size()))
    return false;
  auto marked = [&](int k) {
    const int r = a.rgmstr[k - 1];
    return r == 51 || r == 52 || r == 53 || r == 77;
  };
  bool holds = by_setting;
  for (int k = e.first; k < e.first + e.npar && !holds; ++k) holds = marked(k);
  if (!holds || a.rgmstr[e.first - 1] % 10 != 1) return false;
  bool ok = static_cast<i64>(e.npar) == static_cast<i64>(e.n) * (e.n + 1) / 2;
  for (int i = 1; i <= e.n && ok; ++i) {
    const int r = a.rgmstr[e.first - 1 + static_cast<int>(pk(i, i))];
    ok = r == 1 || r > 9;
  }
  e.data = nullptr;
  for (const UsEmData& d : a.em)
    if (d.section == s) e.data = &d;
  if (!ok || e.data == nullptr) {
    g5verror("No EM update of constrained US structure", 2);
    return false;
  }
  return true;
}

// The EM fallback after the pass.  The first tenth of the EM setting's
// iterations are full EM iterations for every US section; later, a section
// takes an EM step only when one of its parameters asks for it (rgmstr 51
// to 53, or 77), and that step is a single step written through the
// scores.  Returns 1 with ifault set on a fault.
int em_fallback(UpdateArgs& a, span<double> scratch, int& ifault) {
  const int nwv = static_cast<int>(a.score.size());
  if (nwv == 0) return 0;
  const int last = a.wvpar[nwv - 1];
  const int rl = a.rgmstr[last - 1];
  const bool wanted = rl / 3 == 17 || rl == 77 || static_cast<double>(a.iter) <= a.emset / 10.0;
  if (!wanted || !(a.emset != 0 || rl > 50)) return 0;
  const bool by_setting = a.emset != 0 && static_cast<double>(a.iter) <= a.emset / 10.0;
  const bool full_em = by_setting;
  double& stepsz = *a.stepsz;
  int made = 0, failed = 0;
  for (int s = 1; s <= a.nstruc; ++s) {
    UsEmStep e;
    if (!us_em_section(a, s, by_setting, e)) continue;
    e.len = static_cast<std::size_t>(e.npar);
    if (scratch.size() < 4 * e.len + 2 * static_cast<std::size_t>(e.n)) return g5vflt(ifault, 6);
    e.em = scratch.data();
    e.prev = e.em + e.len;
    e.sc = e.prev + e.len;
    e.piv = e.sc + e.len;
    if (a.debug) trace(a.unit, "Calling EMU-A");
    if (g5vemu(*e.data, e.n, span<double>(e.em, e.len), ifault)) return 1;
    for (std::size_t k = 0; k < e.len; ++k) e.prev[k] = a.prev1[e.first - 1 + k];
    if (!full_em) single_step_em(a, e);
    if (regress_back(a, e)) ++failed;
    if (a.debug) trace(a.unit, "CALLING EMU-B");
    for (std::size_t k = 0; k < e.len; ++k) {
      a.gammas[e.first - 1 + k] = e.em[k];
      if (a.rgmstr[e.first - 1 + k] == 77) a.rgmstr[e.first - 1 + k] = 1;
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

// ---- the steps of the update -------------------------------------------------

// The arguments of g5vupd.  Returns 1 with ifault set on a fault.
int check_update_args(UpdateArgs& a, int& ifault) {
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
  // Each parameter owns at most one row of AI.
  double* seen = a.work.data();
  for (int k = 0; k < ng; ++k) seen[k] = 0.0;
  for (int c = 0; c < nwv; ++c) {
    if (seen[a.wvpar[c] - 1] != 0.0) return bad_args(ifault, "Update: a parameter owns two rows of AI");
    seen[a.wvpar[c] - 1] = 1.0;
  }
  return 0;
}

// Preparation: p and q, parameters at zero under a positivity code, and
// the debug record (a text that R can read back).
void prepare_history(UpdateArgs& a) {
  const int ng = static_cast<int>(a.gammas.size());
  const int nwv = static_cast<int>(a.score.size());
  for (int k = 0; k < ng; ++k) {
    a.prev2[k] = a.prev1[k];
    a.prev1[k] = a.gammas[k];
    if (a.prev2[k] == 0.0 && a.prev1[k] != 0.0) a.prev2[k] = f32(0.975) * a.prev1[k];
    const int code = a.gmcstr.empty() ? a.rgmstr[k] : a.gmcstr[k];
    if (a.iter >= 2 && code == 1 && std::fabs(a.gammas[k]) < 1e-9) a.rgmstr[k] = 7;
  }
  if (a.debug && a.unit == 19) {
    debug_vector("GAM <- c(", a.gammas.data(), static_cast<std::size_t>(ng));
    debug_vector("); SCR <- c(", a.score.data(), static_cast<std::size_t>(nwv));
    debug_vector("); AIV <- c(", a.ai.data(), static_cast<std::size_t>(nwv) * (nwv + 1) / 2);
    vprt(")\n");
  }
}

// Parameters with no information, and the later of two parameters whose
// information is the same up to sign, are set aside.
void set_aside_uninformative(UpdateArgs& a) {
  const int nwv = static_cast<int>(a.score.size());
  for (int c = 1; c <= nwv; ++c) {
    const int k = a.wvpar[c - 1] - 1;
    if (a.rgmstr[k] >= 4) continue;
    const double aa = a.ai[pk(c, c)];
    if (std::fabs(aa) < 1e-18) {
      a.rgmstr[k] = 6;
      continue;
    }
    for (int e = 1; e < c; ++e) {
      const int ke = a.wvpar[e - 1] - 1;
      if (a.rgmstr[ke] >= 4) continue;
      const double bb = a.ai[pk(e, e)];
      const double cc = a.ai[pk(c, e)];
      if (std::fabs(cc * cc / (aa * bb)) > 0.999999999) {
        a.rgmstr[k] = 6;
        break;
      }
    }
  }
}

// The Newton step on the free combinations, and the diagonal of the
// restricted inverse.  Returns 1 with ifault set on a fault.
int newton_step(UpdateArgs& a, span<double> vwork, double* step, double* hdiag, int& ifault) {
  const int nwv = static_cast<int>(a.score.size());
  VcminvArgs v;
  v.ai = a.ai;
  v.nwv = nwv;
  v.wvpar = a.wvpar;
  v.rgmstr = a.rgmstr;
  v.ngamma = static_cast<int>(a.gammas.size());
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
  a.control->aicond = nfree > 0 ? static_cast<int>(std::lround(1000.0 * rank / nfree)) : 1000;
  for (int c = 1; c <= nwv; ++c) {
    double s = 0.0;
    for (int e = 1; e <= nwv; ++e) s += a.aiinv[pk(c, e)] * a.score[e - 1];
    step[c - 1] = a.rgmstr[a.wvpar[c - 1] - 1] >= 4 ? 0.0 : s;
    hdiag[c - 1] = a.aiinv[pk(c, c)];
  }
  if (a.debug) trace(a.unit, " AIeq");
  return 0;
}

// The SLOW counter and its factor (printed only).
void slow_factor(UpdateArgs& a) {
  int& m = a.control->slow;
  const double stepsz = *a.stepsz;
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

// One parameter of the pass: its value g, its scaled step t, the square
// root se of its diagonal in the restricted inverse, its earlier values p
// (which the rules may change) and q, and its codes.
struct ParamStep {
  double g, t, se;
  double& p;
  double q;
  int& rg;
  int tg;
};

// tgamma 3, correlations: at most 0.3 a step, a third of the way to +-1,
// and held at the boundary or when oscillating.
double correlation_step(ParamStep& x, double& stepsz) {
  const double p = x.p, q = x.q;
  double nw = x.g + std::fmax(-0.3, std::fmin(0.3, x.t));
  if (std::fabs(nw) > std::fabs(p) && std::fabs(p) > std::fabs(q) && std::fabs(q) > f32(0.9999)) {
    nw = p;
    x.rg = 7;
  } else if (std::fabs(nw) > (std::fabs(p) + 2.0) / 3.0) {
    nw = (p + 2.0 * sgn(nw)) / 3.0;
    stepsz = 0.5 * stepsz + f32(0.01);
  }
  if (nw == p && (std::fabs(nw) == 0.999 || std::fabs(nw) == f32(0.999))) x.rg = 7;
  if (nw == q && std::fabs(nw - p) > f32(0.29)) {
    stepsz /= 3.0;
    nw = (p + nw) / 2.0;
  }
  return nw;
}

// tgamma 5, parameters in the unit interval.
double unit_step(ParamStep& x) {
  const double p = x.p;
  double nw = x.g + x.t;
  if (nw > 0.999) {
    nw = 0.1 * p + 0.8999099761605263;
    if (p > 0.999) x.rg = 7;
  } else if (nw < 0.0) {
    nw = 0.1 * p;
    if (p < 2e-07) x.rg = 7;
  }
  return nw;
}

// tgamma 6, loadings, with the check on small ones against `loadlimit`.
double loading_step(ParamStep& x, double loadlimit, Pass& pass) {
  const double g = x.g, t = x.t, q = x.q;
  double nw = g + t;
  double u = 0.0;
  if (q != 0.0) {
    u = std::sqrt(2.0 * std::fabs(t) / (std::fabs(q) + std::fabs(x.p)));
    pass.ifsum += u;
    ++pass.ifcount;
  }
  const double ap = std::fabs(x.p);
  if (ap <= 1e-5 && ap != 0.0 && u > 3.5 && std::fabs(t) > loadlimit) {
    x.p *= 10.0;
    nw = std::fabs(x.p) * sgn(g + t);
  }
  if (ap > 1e-5 && x.p * (g + t) < 0.0) ++pass.signchanges;
  return nw;
}

// A positive variance whose step would take it to zero or below: the
// boundary case.
double variance_at_boundary(ParamStep& x, double stepsz) {
  const double g = x.g, t = x.t, se = x.se, q = x.q;
  double nw = g;
  if (x.tg == 4) {
    nw = std::fmax(g + t, -f32(0.3) * g);
  } else if (g > 0.1 * se || (g > 1e-4 && stepsz < 0.99)) {
    nw = g / kSqrt250;
  } else if (g >= se || (x.tg != 7 && x.rg != 3)) {
    if (x.rg < 3 && x.tg < 3) {
      if (x.p > kEps) nw = g / kSqrt250;
      const double d = se > 0.0 ? nint_value((q / kSqrt250 - x.p) / se * 10000.0) : 1.0;
      if ((d == 0.0 && x.p < 1e-4 * se) || x.p < 1e-6 || (x.rg == 2 && x.p < 1e-5)) {
        x.p = nw;
        x.rg = 7;
      } else {
        x.rg = 77;  // an EM step is wanted
      }
    } else {
      nw = g + f32(0.2) * std::fmax(t, -0.5);
    }
  } else {
    nw = -g * stepsz;  // a small step through zero
  }
  return nw;
}

// Variances and general elements (tgamma 4 may go negative).
double variance_step(ParamStep& x, double stepsz) {
  const double g = x.g, t = x.t;
  if (g == 0.0) return t / 3.0;
  if (g > 0.0) {
    if (t > 0.0) return std::fmin(g + t, g * kSqrt250);
    if (g + t > 0.0) return std::fmax(g + t, g / kSqrt250);
    return variance_at_boundary(x, stepsz);
  }
  if (x.tg < 3) {  // g negative
    if (g > -0.99) {
      if (t > g) return g + t;
      if (g + t < -0.99) return std::fmax(g + 0.5 * t, -0.99);
      return std::fmax(g + 0.5 * t, 10.0 * g);
    }
    return t >= 0.0 ? g + t : std::fmax(g + f32(0.7) * t, 10.0 * g);
  }
  return std::fmin(std::fmax(g + t, 100.0 * g), g - 100.0 * g);
}

// One pass over the parameters, writing the new values to newg.  Steps are
// scaled by the step size at the start of the pass; changes made to it
// carry over to the next iteration.  The first modified parameter at a
// step size above 0.8 halves it and asks for the pass again.
Pass update_pass(UpdateArgs& a, int attempt, const double* step, const double* hdiag, double* newg,
                 const double* rgsave) {
  const int nwv = static_cast<int>(a.score.size());
  double& stepsz = *a.stepsz;
  auto par = [&](int c) { return a.wvpar[c] - 1; };  // 0-based parameter of AI row c
  Pass pass;
  const double scale = stepsz;
  double loadlimit = 0.0;
  for (int c = 0; c < nwv; ++c) {
    const int k = par(c);
    ParamStep x{a.gammas[k], step[c] * scale, std::sqrt(std::fabs(hdiag[c])), a.prev1[k], a.prev2[k],
                a.rgmstr[k], a.tgamma[k]};
    const double g = x.g, t = x.t;
    double nw = g;
    if (x.rg <= 3) {
      if (x.tg == 3) {
        nw = correlation_step(x, stepsz);
      } else if (x.tg == 5) {
        nw = unit_step(x);
      } else if (x.tg == 6) {
        if (c == 0 || a.tgamma[par(c - 1)] != 6) {  // a new run of loadings
          double sum = 0.0;
          int cnt = 0;
          for (int e = c; e < nwv && a.tgamma[par(e)] == 6; ++e, ++cnt) sum += std::fabs(a.prev1[par(e)]);
          loadlimit = cnt ? sum / cnt * 0.125 : 0.0;
        }
        nw = loading_step(x, loadlimit, pass);
      } else if (x.tg == 8) {
        const double lb = a.lower.empty() ? 0.0 : a.lower[k];
        nw = g + t >= lb ? g + t : (2.0 * lb + g) / 3.0;
      } else {
        nw = variance_step(x, stepsz);
      }
    }
    newg[c] = nw;
    if (x.rg > 3 && rgsave[k] > 3) continue;  // held: no step, nothing to count
    if (std::fabs(nw - (g + t)) <= 1e-14) continue;
    if (pass.nmod == 0 && !pass.restart && attempt == 0 && stepsz > 0.8) {
      stepsz = 0.5;
      if (a.debug) trace(a.unit, "RESET STEPSZ");
      pass.restart = true;
      break;
    }
    ++pass.nmod;
    if (a.debug) {
      if (pass.nmod == 1) vprt("  I II TGAM RGMSTR GAMMA_I    UPDATE    GAMMA_I+1    SQRT(AI(K+I))\n");
      vprt("%4d%4d%4d%6d %12.5g %12.5g %12.5g %12.5g\n", k + 1, c + 1, x.tg, x.rg, g, t, nw, x.se);
    }
  }
  return pass;
}

}  // namespace

int g5vupd(UpdateArgs& a, int& ifault) {
  if (check_update_args(a, ifault)) return 1;
  if (a.iter <= 1) reset_update_state();
  a.control->nmodified = 0;
  prepare_history(a);
  set_aside_uninformative(a);

  // The scratch: steps, inverse diagonal, new values, backups of rgmstr
  // and p, and the constrained inverse's (later the EM fallback's).
  const int ng = static_cast<int>(a.gammas.size());
  const int nwv = static_cast<int>(a.score.size());
  const std::size_t G = static_cast<std::size_t>(ng);
  double* step = a.work.data();
  double* hdiag = step + nwv;
  double* newg = hdiag + nwv;
  double* rgsave = newg + nwv;
  double* psave = rgsave + ng;
  span<double> vwork(psave + ng, a.work.size() - (3 * static_cast<std::size_t>(nwv) + 2 * G));
  if (newton_step(a, vwork, step, hdiag, ifault)) return 1;
  slow_factor(a);

  for (int k = 0; k < ng; ++k) {
    rgsave[k] = a.rgmstr[k];
    psave[k] = a.prev1[k];
  }
  Pass pass;
  for (int attempt = 0; attempt < 2; ++attempt) {
    pass = update_pass(a, attempt, step, hdiag, newg, rgsave);
    if (!pass.restart) break;
    for (int k = 0; k < ng; ++k) {
      a.rgmstr[k] = static_cast<int>(rgsave[k]);
      a.prev1[k] = psave[k];
    }
  }
  a.control->nmodified = pass.nmod;
  for (int c = 0; c < nwv; ++c) a.gammas[a.wvpar[c] - 1] = newg[c];
  if (a.debug && pass.ifcount > 0)
    vprt(" Loadings IF%% %10.4f  sign changes %d\n", pass.ifsum / pass.ifcount, pass.signchanges);

  update_state.prevstepsz = *a.stepsz;
  return em_fallback(a, vwork, ifault);
}

}  // namespace tarnel
