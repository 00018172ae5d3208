#include "variance_support.h"

#include <algorithm>
#include <utility>

namespace vtest {

Mat matmul(const Mat& a, const Mat& b, int n) {
  Mat c(n * n, 0.0);
  for (int i = 0; i < n; ++i)
    for (int k = 0; k < n; ++k)
      for (int j = 0; j < n; ++j) c[i * n + j] += a[i * n + k] * b[k * n + j];
  return c;
}

Mat identity(int n) {
  Mat m(n * n, 0.0);
  for (int i = 0; i < n; ++i) m[i * n + i] = 1.0;
  return m;
}

namespace {
// Gauss-Jordan with partial pivoting on [a | I]; returns the inverse and
// the log|det|.
std::pair<Mat, double> gauss_jordan(Mat a, int n) {
  Mat inv = identity(n);
  double ld = 0.0;
  for (int c = 0; c < n; ++c) {
    int piv = c;
    for (int r = c + 1; r < n; ++r)
      if (std::fabs(a[r * n + c]) > std::fabs(a[piv * n + c])) piv = r;
    for (int j = 0; j < n; ++j) {
      std::swap(a[c * n + j], a[piv * n + j]);
      std::swap(inv[c * n + j], inv[piv * n + j]);
    }
    const double d = a[c * n + c];
    ld += std::log(std::fabs(d));
    for (int j = 0; j < n; ++j) {
      a[c * n + j] /= d;
      inv[c * n + j] /= d;
    }
    for (int r = 0; r < n; ++r) {
      if (r == c) continue;
      const double f = a[r * n + c];
      if (f == 0.0) continue;
      for (int j = 0; j < n; ++j) {
        a[r * n + j] -= f * a[c * n + j];
        inv[r * n + j] -= f * inv[c * n + j];
      }
    }
  }
  return {inv, ld};
}
}  // namespace

Mat inverse(const Mat& a, int n) { return gauss_jordan(a, n).first; }
double log_abs_det(const Mat& a, int n) { return gauss_jordan(a, n).second; }

double max_abs_diff(const Mat& a, const Mat& b) {
  double m = 0.0;
  for (std::size_t k = 0; k < a.size(); ++k) m = std::max(m, std::fabs(a[k] - b[k]));
  return m;
}
double max_abs(const Mat& a) {
  double m = 0.0;
  for (double v : a) m = std::max(m, std::fabs(v));
  return m;
}

int Fit::add_section(int order, int npar, int model, int gfirst, int band, int scalepos) {
  std::vector<int> r(15, 0);
  r[tarnel::kOrder - 1] = order;
  r[tarnel::kNpar - 1] = npar;
  r[tarnel::kModel - 1] = model;
  r[tarnel::kGfirst - 1] = gfirst;
  r[tarnel::kBand - 1] = band;
  r[tarnel::kScalepos - 1] = scalepos;
  r[tarnel::kGform - 1] = 1;
  struc.insert(struc.end(), r.begin(), r.end());
  return static_cast<int>(struc.size() / 15);
}

int Fit::run(int iteration) {
  using namespace tarnel;
  const std::size_t ng = gammas.size();
  const int ns = static_cast<int>(struc.size() / 15);
  if (prvgam.size() != ng) prvgam = gammas;
  tgamma.assign(ng, 0);
  if (rgmstr.size() != ng) rgmstr.assign(ng, 0);
  secform.assign(ns, FormRecord{});
  parform.assign(ng, FormRecord{});
  logdet.assign(ns, 0.0);
  trdrri.assign(ng, 0.0);
  a.nsect = ns;
  a.struc = span<int>(struc.data(), struc.size());
  a.lstruc = 15;
  a.gammas = span<double>(gammas.data(), ng);
  a.prvgam = span<double>(prvgam.data(), ng);
  a.tgamma = span<int>(tgamma.data(), ng);
  a.rgmstr = span<int>(rgmstr.data(), ng);
  a.work = WorkArray(work.data(), work.size());
  a.top = static_cast<i64>(work.size());
  a.floor = 0;
  a.secform = span<FormRecord>(secform.data(), secform.size());
  a.parform = span<FormRecord>(parform.data(), parform.size());
  a.logdet = span<double>(logdet.data(), logdet.size());
  a.trdrri = span<double>(trdrri.data(), trdrri.size());
  a.giv.table = span<int>(givtab.data(), givtab.size());
  a.giv.count = static_cast<int>(givtab.size() / 5);
  a.giv.real = span<double>(givreal.data(), givreal.size());
  a.giv.integer = span<int>(givint.data(), givint.size());
  givlogdet.resize(a.giv.count, 0.0);
  a.givlogdet = span<double>(givlogdet.data(), givlogdet.size());
  a.iteration = iteration;
  rc = g5vvsf(a, ifault);
  return rc;
}

Mat Fit::rebuild(int s, const tarnel::i64* half, int selector) {
  using namespace tarnel;
  StrucRow r = row(s);
  const int n = r.field(kOrder);
  Mat m(n * n, 0.0);
  std::vector<double> values(n, 0.0);
  std::vector<int> cols(n, 0);
  for (int i = 1; i <= n; ++i) {
    std::fill(values.begin(), values.end(), 0.0);
    int count = 0;
    i64 rownum = i - 1;
    int flt = 0;
    const int rc2 = g5vvrw(span<double>(values.data(), n), span<int>(cols.data(), n), count, rownum, n,
                           half, r, a.work, selector, r.field(kModel), a.giv, 6, flt);
    if (rc2) return Mat(n * n, NAN);
    for (int q = 0; q < count; ++q) at(m, n, i, cols[q]) = values[cols[q] - 1];
  }
  return m;
}

Mat central_difference(const std::function<Mat(const std::vector<double>&)>& f,
                       std::vector<double> par, int p) {
  const double h = 1e-6 * std::max(1.0, std::fabs(par[p]));
  std::vector<double> up = par, dn = par;
  up[p] += h;
  dn[p] -= h;
  Mat a = f(up), b = f(dn);
  for (std::size_t k = 0; k < a.size(); ++k) a[k] = (a[k] - b[k]) / (2 * h);
  return a;
}

void sparse_lower(const Mat& M, int n, bool transposed, std::vector<double>& vals, std::vector<int>& ints) {
  vals.clear();
  ints.assign(1, 1);
  std::vector<int> cols;
  for (int i = 1; i <= n; ++i) {
    for (int j = 1; j <= i; ++j)
      if (at(M, n, i, j) != 0.0 || j == i) vals.push_back(at(M, n, i, j)), cols.push_back(j);
    ints.push_back(static_cast<int>(vals.size()) + 1);
  }
  ints.insert(ints.end(), cols.begin(), cols.end());
  ints.insert(ints.end(), n, 0);  // cursors
  if (transposed) append_transpose(ints, n);
}

void append_transpose(std::vector<int>& ints, int n, std::size_t from) {
  const int* rs = ints.data() + from;
  const int nnz = rs[n] - 1;
  const std::size_t col = from + n + 1, cur = col + nnz;
  std::vector<int> tstart{1}, trow, tpos;
  for (int c = 1; c <= n; ++c) {
    for (int j = c + 1; j <= n; ++j)
      for (int q = ints[from + j - 1]; q < ints[from + j]; ++q)
        if (ints[col + q - 1] == c) trow.push_back(j), tpos.push_back(q);
    tstart.push_back(static_cast<int>(trow.size()) + 1);
  }
  ints[cur] = -1;
  ints.insert(ints.begin() + cur + n, tpos.begin(), tpos.end());
  ints.insert(ints.begin() + cur + n, trow.begin(), trow.end());
  ints.insert(ints.begin() + cur + n, tstart.begin(), tstart.end());
}

}  // namespace vtest
