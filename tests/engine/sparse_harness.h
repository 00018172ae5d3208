// Test helpers for the sparse equations: a store that owns its memory, a
// loader from a dense matrix, generated designs, and dense reference
// factorisations written independently of the engine.
#ifndef TARNEL_TESTS_SPARSE_HARNESS_H
#define TARNEL_TESTS_SPARSE_HARNESS_H

#include <cmath>
#include <algorithm>
#include <functional>
#include <random>
#include <vector>

#include "sparse/mme.h"

namespace tarnel_test {

using tarnel::i32;
using tarnel::i64;

// Dense symmetric matrix, 1-based (n x n), full storage.
struct Dense {
  int n = 0;
  std::vector<double> a;
  explicit Dense(int n_ = 0) : n(n_), a(static_cast<size_t>(n_) * n_, 0.0) {}
  double& operator()(int i, int j) { return a[static_cast<size_t>(i - 1) * n + (j - 1)]; }
  double operator()(int i, int j) const { return a[static_cast<size_t>(i - 1) * n + (j - 1)]; }
  void add_sym(int i, int j, double v) {
    (*this)(i, j) += v;
    if (i != j) (*this)(j, i) += v;
  }
};

// A store with its own memory: `slots` pool slots, tables behind them.
struct Store {
  std::vector<double> x;
  std::vector<i32> l;
  tarnel::MmeStore s;
  Store(i32 neq, i32 nd, i64 slots) {
    const i64 lssp = static_cast<i64>(nd) * (nd + 1) / 2;
    x.assign(static_cast<size_t>(lssp + slots), 0.0);
    l.assign(static_cast<size_t>(2 * (slots + neq + 2)), 0);
    s.x = tarnel::span<double>(x.data(), x.size());
    s.l = tarnel::span<i32>(l.data(), l.size());
    s.neq = neq;
    s.ndense = nd;
    s.lssp = lssp;
    s.len = slots;
    int nf = 0;
    s.clear(nf);
  }
  i64 off() const { return s.len; }
};

// Loads the lower triangle of C (rows in equation order) into the store:
// non-zeros, the diagonal of every row, and column 1 as the head.
inline bool load(Store& st, const Dense& c) {
  tarnel::Pool p = st.s.pool();
  for (int r = 1; r <= c.n; ++r) {
    if (r <= st.s.ndense) {
      for (int j = 1; j <= r; ++j) st.s.dense(r, j) = c(r, j);
      continue;
    }
    const i64 h = st.s.head(r);
    if (tarnel::g5vlld(p, st.s.lx, h, r, 0.0)) return false;
    i64 pos = h;
    for (int j = 1; j <= r; ++j) {
      if (c(r, j) == 0.0 && j != r && j != 1) continue;
      if (tarnel::g5vlli(p, st.s.lx, pos, j, c(r, j)) != 0) return false;
    }
  }
  return true;
}

// Dense elimination in a given order of positions, from the last position
// down to 2, with the same pivot rule as the engine: a pivot is taken when
// |d| exceeds both tol and tol*|original diagonal|.  ord[p] = equation at
// position p (1-based, ord[0] unused).  Gives the solution by equation,
// log|pivots|, pivot count, singular count and the residual sum in C(1,1).
struct RefResult {
  std::vector<double> soln;
  double logdet = 0;
  int npiv = 0, nsing = 0;
  double rss = 0;
};
inline RefResult ordered_ldl(Dense c, const std::vector<int>& ord, double tol) {
  const int n = c.n;
  RefResult out;
  out.soln.assign(n + 1, 0.0);
  std::vector<double> ddtol(n + 1), piv(n + 1, 0.0);
  std::vector<bool> sing(n + 1, false);
  for (int p = 2; p <= n; ++p) ddtol[p] = std::fmax(std::fabs(c(ord[p], ord[p])) * tol, tol);
  for (int p = n; p >= 2; --p) {
    const int e = ord[p];
    const double d = c(e, e);
    if (std::fabs(d) <= tol || std::fabs(d) <= ddtol[p]) {
      sing[p] = true;
      ++out.nsing;
      continue;
    }
    out.logdet += std::log(std::fabs(d));
    ++out.npiv;
    piv[p] = d;
    for (int q = 1; q < p; ++q) {
      const int f = ord[q];
      const double m = c(f, e) / d;
      if (m == 0.0) continue;
      for (int r = 1; r < p; ++r) c(f, ord[r]) -= m * c(e, ord[r]);
    }
  }
  out.rss = c(1, 1);
  std::vector<double> xp(n + 1, 0.0);
  for (int p = 2; p <= n; ++p) {
    if (sing[p]) continue;
    const int e = ord[p];
    double s = c(e, 1);
    for (int q = 2; q < p; ++q) s -= c(e, ord[q]) * xp[q];
    xp[p] = s / piv[p];
  }
  for (int p = 2; p <= n; ++p) out.soln[ord[p]] = xp[p];
  return out;
}

// Log |det| of the sub-matrix C[2..n, 2..n] by Gaussian elimination with
// partial pivoting (for indefinite, non-singular systems).
inline double lu_logdet(const Dense& c, std::vector<double>* solution = nullptr) {
  const int m = c.n - 1;
  std::vector<double> a(static_cast<size_t>(m) * (m + 1));
  for (int i = 0; i < m; ++i) {
    for (int j = 0; j < m; ++j) a[i * (m + 1) + j] = c(i + 2, j + 2);
    a[i * (m + 1) + m] = c(i + 2, 1);
  }
  double ld = 0;
  for (int k = 0; k < m; ++k) {
    int piv = k;
    for (int i = k + 1; i < m; ++i)
      if (std::fabs(a[i * (m + 1) + k]) > std::fabs(a[piv * (m + 1) + k])) piv = i;
    if (piv != k)
      for (int j = 0; j <= m; ++j) std::swap(a[k * (m + 1) + j], a[piv * (m + 1) + j]);
    const double d = a[k * (m + 1) + k];
    ld += std::log(std::fabs(d));
    for (int i = k + 1; i < m; ++i) {
      const double f = a[i * (m + 1) + k] / d;
      for (int j = k; j <= m; ++j) a[i * (m + 1) + j] -= f * a[k * (m + 1) + j];
    }
  }
  if (solution) {
    solution->assign(c.n + 1, 0.0);
    for (int i = m - 1; i >= 0; --i) {
      double s = a[i * (m + 1) + m];
      for (int j = i + 1; j < m; ++j) s -= a[i * (m + 1) + j] * (*solution)[j + 2];
      (*solution)[i + 2] = s / a[i * (m + 1) + i];
    }
  }
  return ld;
}

// Runs g5vxxa with the order iw (IW(2,.) set, IW(1,.) = term 1 for all).
struct AbsorbRun {
  int rc = 0, nfault = 0, err = 0;
  tarnel::AbsorbArgs a;
  std::vector<i32> iw;
  std::vector<double> soln, work, dd;
  std::vector<i32> rank, status;
};
// `more` (when given) may change the arguments just before the call.
inline AbsorbRun absorb(Store& st, const std::vector<int>& ord, int nterms = 1,
                        const std::vector<int>* term = nullptr, int tail = 0,
                        const std::function<void(AbsorbRun&)>& more = nullptr) {
  AbsorbRun r;
  const int n = st.s.neq;
  r.iw.assign(2 * n, 0);
  for (int p = 1; p <= n; ++p) {
    r.iw[2 * (p - 1) + 1] = ord[p];
    r.iw[2 * (p - 1)] = p == 1 ? 0 : (term ? (*term)[p] : 1);
  }
  r.soln.assign(n, 0.0);
  r.work.assign(n, 0.0);
  r.dd.assign(n, 0.0);
  r.rank.assign(nterms, 0);
  r.status.assign(8, 0);
  r.a.iw = tarnel::span<i32>(r.iw.data(), r.iw.size());
  r.a.off = st.off();
  r.a.rank = tarnel::span<i32>(r.rank.data(), r.rank.size());
  r.a.soln = tarnel::span<double>(r.soln.data(), r.soln.size());
  r.a.work = tarnel::span<double>(r.work.data(), r.work.size());
  r.a.dd = tarnel::span<double>(r.dd.data(), r.dd.size());
  r.a.status = tarnel::span<i32>(r.status.data(), r.status.size());
  r.a.err = &r.err;
  r.a.tail = tail;
  if (more) more(r);
  r.rc = tarnel::g5vxxa(st.s, r.a, r.nfault);
  return r;
}

inline std::vector<int> natural(int n) {
  std::vector<int> o(n + 1);
  for (int i = 0; i <= n; ++i) o[i] = i;
  return o;
}

// Generated design: records with the response in column 1 and a few
// factor columns (nested or crossed), with the dense X'WX beside it.
struct Design {
  std::vector<double> val;
  std::vector<i32> col;
  std::vector<i64> start;  // 1-based
  Dense c;
};

inline Design make_design(int neq, int nrec, int per, unsigned seed, double gdiag) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> pick(2, neq);
  std::normal_distribution<double> z(0, 1);
  Design d;
  d.c = Dense(neq);
  d.start.push_back(1);
  for (int i = 0; i < nrec; ++i) {
    std::vector<int> cols{1};
    for (int k = 0; k < per; ++k) cols.push_back(pick(rng));
    std::sort(cols.begin(), cols.end());
    cols.erase(std::unique(cols.begin(), cols.end()), cols.end());
    std::vector<double> v(cols.size());
    for (size_t k = 0; k < cols.size(); ++k) v[k] = k == 0 ? z(rng) + 3 : 1.0 + 0.3 * z(rng);
    for (size_t k = 0; k < cols.size(); ++k) {
      d.val.push_back(v[k]);
      d.col.push_back(cols[k]);
      for (size_t j = 0; j <= k; ++j) d.c.add_sym(cols[k], cols[j], v[k] * v[j]);
    }
    d.start.push_back(static_cast<i64>(d.val.size()) + 1);
  }
  for (int e = 2; e <= neq; ++e) d.c(e, e) += gdiag;
  return d;
}

inline std::vector<int> shuffled(int n, int nd, unsigned seed) {
  std::vector<int> o = natural(n);
  std::mt19937 rng(seed);
  std::shuffle(o.begin() + nd + 1, o.end(), rng);
  return o;
}

// The store read back as a dense matrix; a sparse row's chain must hold
// ascending columns ending at its diagonal (NaN in the diagonal if not).
inline Dense read_store(const Store& st) {
  const int neq = st.s.neq;
  tarnel::Pool p = st.s.pool();
  Dense got(neq);
  for (int r = 1; r <= neq; ++r) {
    if (r <= st.s.ndense) {
      for (int c = 1; c <= r; ++c) got.add_sym(r, c, st.s.dense(r, c));
      continue;
    }
    if (p.lnk(st.s.head(r)) == -1) continue;
    int last = 0;
    for (i64 s = st.s.head(r); s > 0; s = p.lnk(s)) {
      if (p.col(s) <= last) got(r, r) = NAN;
      last = p.col(s);
      got.add_sym(r, p.col(s), p.val(s));
    }
    if (last != r) got(r, r) = NAN;
  }
  return got;
}

// One SSP section over records 1..n of a design, with the scratch, the
// augmented rows and the outputs owned here (set in place: it points into
// itself).
struct SspRun {
  std::vector<double> acc, aval;
  std::vector<i32> list, links, acol;
  std::vector<i64> astart;
  std::vector<double> room;
  tarnel::SspScratch w;
  tarnel::AugmentedRows aug;
  tarnel::SspSection sec;
  double logdet = 0;
  i64 skipped = 0;
  int err = 0;
  SspRun(const std::vector<double>& val, const std::vector<i32>& col, const std::vector<i64>& start, int neq)
      : acc(neq, 0.0), aval(4000), list(neq + 1), links(2 * neq + 2, 0), acol(4000), astart(start.size(), -1) {
    w = {tarnel::span<double>(acc.data(), acc.size()), tarnel::span<i32>(list.data(), list.size()),
         tarnel::span<i32>(links.data(), links.size())};
    aug = {tarnel::span<double>(aval.data(), aval.size()), tarnel::span<i32>(acol.data(), acol.size()),
           tarnel::span<i64>(astart.data(), astart.size())};
    sec.design = {tarnel::span<const double>(val.data(), val.size()), tarnel::span<const i32>(col.data(), col.size()),
                  tarnel::span<const i64>(start.data(), start.size())};
    sec.first = 1;
    sec.last = static_cast<i64>(start.size()) - 1;
    sec.logdet = &logdet;
    sec.skipped = &skipped;
    sec.err = &err;
  }
  void augment() {
    sec.flags = tarnel::kSspAugment;
    sec.aug = &aug;
  }
  // Room for the index by column: diagonal sections are formed row by row.
  void by_rows(int neq) {
    room.assign(tarnel::ssp_index_words(neq, static_cast<i64>(sec.design.val.size())), 0.0);
    w.room = tarnel::span<double>(room.data(), room.size());
  }
  // The augmented row of record a (from 0) as a dense row; empty if none.
  std::vector<double> aug_row(int a, int neq) const {
    if (astart[a + 1] == astart[a]) return {};
    std::vector<double> row(neq, 0.0);
    for (i64 k = astart[a]; k < astart[a + 1]; ++k) row[acol[k - 1] - 1] += aval[k - 1];
    return row;
  }
  bool scratch_clear() const {
    for (size_t k = 0; k < acc.size(); ++k)
      if (acc[k] != 0.0 || links[k] != 0) return false;
    return true;
  }
};

// Equation `e` made a copy of equation `of`: aliased.
inline void alias(Dense& c, int e, int of) {
  for (int j = 1; j <= c.n; ++j) c(e, j) = c(j, e) = c(of, j);
  c(e, e) = c(e, of) = c(of, e) = c(of, of);
}

// 20 generated equations and two constraint rows with a zero diagonal
// (sums over effects 2..6 and 7..12), placed where they are absorbed first.
inline Dense constraint_system() {
  const int nbase = 20, neq = nbase + 2;
  Design d = make_design(nbase, 60, 3, 21, 0.0);
  Dense c(neq);
  for (int i = 1; i <= nbase; ++i)
    for (int j = 1; j <= nbase; ++j) c(i, j) = d.c(i, j);
  for (int e = 2; e <= 6; ++e) c.add_sym(nbase + 1, e, 1.0);
  for (int e = 7; e <= 12; ++e) c.add_sym(nbase + 2, e, 1.0 + 0.1 * e);
  for (int e = 2; e <= nbase; ++e) c(e, e) += 0.01;
  return c;
}

// 110 generated equations (more than three panels of pivots) with
// equation 70 aliased to 40.
inline Dense block_system() {
  Design d = make_design(110, 400, 5, 41, 0.0);
  for (int e = 2; e <= 110; ++e) d.c(e, e) += 0.05;
  alias(d.c, 70, 40);
  return d.c;
}

inline double rel(double a, double b) { return std::fabs(a - b) / std::fmax(1.0, std::fabs(b)); }

}  // namespace tarnel_test

#endif
