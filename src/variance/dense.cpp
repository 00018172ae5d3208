// Dense symmetric kernels of the variance code.
#include "variance/dense.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

#include "host/console.h"

namespace tarnel {

namespace {

inline double& P(span<double> a, i64 i, i64 j) { return a[packed_index(i, j)]; }
inline double P(span<const double> a, i64 i, i64 j) { return a[packed_index(i, j)]; }

// Inverts the unit lower factor held strictly below the diagonal, in place
// (rows 1..m only).  M(i,j) = -L(i,j) - sum_{j<k<i} L(i,k) M(k,j).
void invert_unit_lower(span<double> a, int m) {
  for (int i = 2; i <= m; ++i) {
    for (int j = 1; j < i; ++j) {
      double s = -P(a, i, j);
      for (int k = j + 1; k < i; ++k) s -= P(a, i, k) * P(a, k, j);
      P(a, i, j) = s;
    }
  }
}

// With M = L^-1 strictly below the diagonal and 1/D on it (rows 1..m),
// forms M' D^-1 M in place.  Row i of the result only needs row i of M
// and the rows below it, so rows are written in ascending order.
void form_inverse_product(span<double> a, int m) {
  for (int i = 1; i <= m; ++i) {
    for (int j = 1; j <= i; ++j) {
      // C(i,j) = sum_{k>=i} M(k,i) Dinv(k) M(k,j), M(k,k) = 1.
      double s = P(a, i, i) * (j == i ? 1.0 : P(a, i, j));
      for (int k = i + 1; k <= m; ++k) s += P(a, k, i) * P(a, k, k) * P(a, k, j);
      if (j == i) {
        P(a, i, i) = s;
      } else {
        P(a, i, j) = s;
      }
    }
  }
}

}  // namespace

void g5vsmp(span<double> a, int i, int j, int n) {
  if (i == j) return;
  if (i > j) std::swap(i, j);
  // i < j: swap the two diagonals, the entries left of i, the entries
  // between i and j, and those below j.
  std::swap(P(a, i, i), P(a, j, j));
  for (int k = 1; k < i; ++k) std::swap(P(a, i, k), P(a, j, k));
  for (int k = i + 1; k < j; ++k) std::swap(P(a, k, i), P(a, j, k));
  for (int k = j + 1; k <= n; ++k) std::swap(P(a, k, i), P(a, k, j));
}

void g5vsmi(span<double> a, span<double> scratch, span<int> perm, span<int> perm2, int& mode,
            int& n, double& logdet, int& negcount) {
  const int nn = n;
  const int entry_mode = mode;
  logdet = 0.0;
  int neg = 0;
  bool swapped = false;
  for (int k = 1; k <= nn; ++k) perm.at1(k) = k;

  // Pivot tolerance from the smallest diagonal magnitude above 1e-7.
  double t = 1.0;
  for (int k = 1; k <= nn; ++k) {
    const double d = std::fabs(P(a, k, k));
    if (d < t && d > 1e-07) t = d;
  }
  const double tol = t * 1e-07;

  int rank = nn;
  int singular = 0;
  span<double> u = scratch;
  for (int i = 1; i <= nn; ++i) {
    double d = 0.0;
    for (;;) {
      // Reduce row i against the accepted rows: u(j) = a(i,j) - sum L(j,k) u(k).
      for (int j = 1; j < i; ++j) {
        double s = P(a, i, j);
        for (int k = 1; k < j; ++k) s -= P(a, j, k) * u.at1(k);
        u.at1(j) = s;
      }
      d = P(a, i, i);
      for (int j = 1; j < i; ++j) d -= u.at1(j) * u.at1(j) / P(a, j, j);
      if (std::fabs(d) > tol) break;
      int found = 0;
      for (int p = i + 1; p <= nn; ++p) {
        if (std::fabs(P(a, p, p)) > tol) {
          found = p;
          break;
        }
      }
      if (!found) break;
      g5vsmp(a, i, found, nn);
      std::swap(perm.at1(i), perm.at1(found));
      swapped = true;
    }
    if (!(std::fabs(d) > tol)) {
      rank = i - 1;
      singular = nn - i + 1;
      break;
    }
    for (int j = 1; j < i; ++j) P(a, i, j) = u.at1(j) / P(a, j, j);
    P(a, i, i) = d;
    logdet += std::log(std::fabs(d));
    if (!(d > 0.0)) ++neg;
  }
  negcount = swapped ? -1 - neg : neg;
  mode = singular;
  n = rank;
  // The singular part stays zero.
  for (int i = rank + 1; i <= nn; ++i)
    for (int j = 1; j <= i; ++j) P(a, i, j) = 0.0;
  if (entry_mode == -98) return;

  invert_unit_lower(a, rank);
  for (int i = 1; i <= rank; ++i) P(a, i, i) = 1.0 / P(a, i, i);
  if (entry_mode == -99) return;
  form_inverse_product(a, rank);

  // Back to the input order: swap until every position holds its own row.
  for (int k = 1; k <= nn; ++k) perm2.at1(k) = perm.at1(k);
  for (int k = 1; k <= nn; ++k) {
    while (perm.at1(k) != k) {
      const int m = perm.at1(k);
      g5vsmp(a, k, m, nn);
      std::swap(perm.at1(k), perm.at1(m));
    }
  }
  if (entry_mode == -100) n = nn;
}

void g5vsmige(span<double> a, int n, span<double> scratch, double& logdet, span<int> singlist,
              int& nsing, int& nneg) {
  logdet = 0.0;
  nsing = 0;
  nneg = 0;
  span<double> tol = scratch.subspan(0, n);
  span<double> u = scratch.subspan(n, n);
  for (int i = 1; i <= n; ++i) tol.at1(i) = std::max(std::fabs(P(a, i, i)) * 1e-10, 1e-12);
  // Singular pivots are marked by a zero diagonal; their rows are cleared
  // and skipped by the later rows.
  for (int i = 1; i <= n; ++i) {
    for (int j = 1; j < i; ++j) {
      if (P(a, j, j) == 0.0) {
        u.at1(j) = 0.0;
        continue;
      }
      double s = P(a, i, j);
      for (int k = 1; k < j; ++k) s -= P(a, j, k) * u.at1(k);
      u.at1(j) = s;
    }
    double d = P(a, i, i);
    for (int j = 1; j < i; ++j)
      if (P(a, j, j) != 0.0) d -= u.at1(j) * u.at1(j) / P(a, j, j);
    if (d <= tol.at1(i) && d >= -tol.at1(i)) {
      if (nsing < static_cast<int>(singlist.size())) singlist[nsing] = i;
      ++nsing;
      for (int j = 1; j <= i; ++j) P(a, i, j) = 0.0;
      continue;
    }
    for (int j = 1; j < i; ++j) P(a, i, j) = P(a, j, j) != 0.0 ? u.at1(j) / P(a, j, j) : 0.0;
    P(a, i, i) = d;
    logdet += std::log(std::fabs(d));
    if (d < 0.0) ++nneg;
  }
  // Invert with the singular rows treated as absent (their L entries are
  // zero and their D inverse is zero).
  for (int i = 2; i <= n; ++i) {
    for (int j = 1; j < i; ++j) {
      double s = -P(a, i, j);
      for (int k = j + 1; k < i; ++k) s -= P(a, i, k) * P(a, k, j);
      P(a, i, j) = s;
    }
  }
  for (int i = 1; i <= n; ++i) {
    const double d = P(a, i, i);
    P(a, i, i) = d != 0.0 ? 1.0 / d : 0.0;
  }
  for (int i = 1; i <= n; ++i) {
    const bool si = P(a, i, i) == 0.0;
    for (int j = 1; j <= i; ++j) {
      double s = P(a, i, i) * (j == i ? 1.0 : P(a, i, j));
      for (int k = i + 1; k <= n; ++k) s += P(a, k, i) * P(a, k, k) * P(a, k, j);
      P(a, i, j) = si ? 0.0 : s;
    }
  }
  // A singular row's column entries below it may hold products: clear them.
  for (int q = 0; q < std::min<int>(nsing, static_cast<int>(singlist.size())); ++q) {
    const int s = singlist[q];
    for (int j = 1; j <= n; ++j) P(a, s, j) = 0.0;
  }
}

void g5vldl(span<double> a, int n) {
  for (int i = n; i >= 1; --i) {
    for (int j = i; j >= 1; --j) {
      // A(i,j) = sum_{k<=j} L(i,k) D(k) L(j,k), L(k,k) = 1.
      double s = (j == i ? 1.0 : P(a, i, j)) * P(a, j, j);
      for (int k = 1; k < j; ++k) s += P(a, i, k) * P(a, k, k) * P(a, j, k);
      P(a, i, j) = s;
    }
  }
}

void g5vldi(span<double> a, int n, double& logdet, int& nsing) {
  logdet = 0.0;
  nsing = 0;
  for (int i = 1; i <= n; ++i) {
    const double d = P(a, i, i);
    if (d == 0.0) {
      ++nsing;
    } else {
      logdet += std::log(std::fabs(d));
    }
  }
  invert_unit_lower(a, n);
  for (int i = 1; i <= n; ++i) {
    const double d = P(a, i, i);
    P(a, i, i) = d != 0.0 ? 1.0 / d : 0.0;
  }
  form_inverse_product(a, n);
}

void g5vudu(span<double> a, int n) {
  // A(i,j), j <= i, = sum_{k>=i} U(i,k) D(k) U(j,k), U(k,k) = 1, with
  // U(i,k) held at packed (k,i).  Ascending rows only need rows >= i.
  for (int i = 1; i <= n; ++i) {
    for (int j = 1; j <= i; ++j) {
      double s = P(a, i, i) * (j == i ? 1.0 : P(a, i, j));
      for (int k = i + 1; k <= n; ++k) s += P(a, k, i) * P(a, k, k) * P(a, k, j);
      P(a, i, j) = s;
    }
  }
}

double g5vvtr(span<const double> a, span<const double> b, int n) {
  double s = 0.0;
  for (int i = 1; i <= n; ++i) {
    for (int j = 1; j < i; ++j) s += 2.0 * P(a, i, j) * P(b, i, j);
    s += P(a, i, i) * P(b, i, i);
  }
  return s;
}

void g5vvab(span<double> w, span<const double> a, span<const double> b, int n) {
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= n; ++j) {
      double s = 0.0;
      for (int k = 1; k <= n; ++k) s += P(a, i, k) * P(b, k, j);
      w[static_cast<i64>(i - 1) * n + j - 1] = s;
    }
}

void g5vvaa(span<double> c, span<const double> b, span<const double> a, span<double> w, int n) {
  g5vvab(w, a, b, n);
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= i; ++j) {
      double s = 0.0;
      const double* wi = w.data() + static_cast<i64>(i - 1) * n;
      for (int k = 1; k <= n; ++k) s += wi[k - 1] * P(a, k, j);
      c[packed_index(i, j)] = s;
    }
}

void g5vvas(span<double> c, span<const double> a, span<const double> b, double s, int n) {
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= i; ++j) {
      double t = 0.0;
      for (int k = 1; k <= n; ++k) t += P(a, i, k) * P(b, k, j) + P(b, i, k) * P(a, k, j);
      c[packed_index(i, j)] += 0.5 * s * t;
    }
}

void g5vvast(span<double> c, span<const double> afull, span<const double> b, double s, int n) {
  auto A = [&](int i, int k) { return afull[static_cast<i64>(i - 1) * n + k - 1]; };
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= i; ++j) {
      double t = 0.0;
      for (int k = 1; k <= n; ++k) t += A(i, k) * P(b, k, j) + P(b, i, k) * A(j, k);
      c[packed_index(i, j)] += 0.5 * s * t;
    }
}

void g5vvma(double r0, double r1, span<double> v, int n) {
  if (n < 1) return;
  if (n == 1) {
    v[0] = 1.0 / r0;
    return;
  }
  if (n == 2) {
    const double det = (r0 + r1) * (r0 - r1);
    v[0] = r0 / det;
    v[1] = -r1 / det;
    v[2] = r0 / det;
    return;
  }
  if (r1 == 0.0) {
    for (i64 k = 0; k < packed_size(n); ++k) v[k] = 0.0;
    for (int i = 1; i <= n; ++i) P(v, i, i) = 1.0 / r0;
    return;
  }
  // With t(k) the determinant of the leading k x k block (t(0) = 1,
  // t(k) = r0 t(k-1) - r1^2 t(k-2)), element (i,j), j <= i, of the inverse
  // is (-r1)^(i-j) t(j-1) t(n-i) / t(n).  The determinants grow like a
  // power of n, so they are carried as logs with their signs; the row-n
  // slots hold log|t(k-1)| (and the sign) until row n itself is written.
  double* lt = v.data() + packed_index(n, 1);  // lt[k] = log|t(k)|, k < n
  lt[0] = 0.0;
  double lq = 0.0, q = r0;  // q(k) = t(k)/t(k-1)
  int neg_q = 0;
  // A negative ratio flips the sign of the later determinants.  For the
  // positive definite matrices of MA1 there is none; otherwise the signs
  // are found again from the ratios when needed.
  for (int k = 1; k <= n; ++k) {
    if (k > 1) q = r0 - r1 * r1 / q;
    if (q < 0.0) ++neg_q;
    lq = std::log(std::fabs(q));
    if (k < n) lt[k] = lt[k - 1] + lq;
  }
  const double ltn = (n >= 2 ? lt[n - 1] : 0.0) + lq;
  auto sign_t = [&](int k) {  // sign of t(k), from the ratios again
    int c = 0;
    double qq = r0;
    for (int m = 1; m <= k; ++m) {
      if (m > 1) qq = r0 - r1 * r1 / qq;
      if (qq < 0.0) ++c;
    }
    return (c % 2) ? -1.0 : 1.0;
  };
  const bool all_positive = neg_q == 0;
  const double sn = all_positive ? 1.0 : sign_t(n);
  const double lr = std::log(std::fabs(r1));
  auto element = [&](int i, int j, double ltj, double lti) {
    const int d = i - j;
    double e = std::exp(ltj + lti - ltn + d * lr);
    if (r1 > 0.0 && (d % 2)) e = -e;  // (-r1)^d
    if (!all_positive) e *= sign_t(j - 1) * sign_t(n - i) * sn;
    return e;
  };
  for (int i = 1; i < n; ++i)
    for (int j = 1; j <= i; ++j) P(v, i, j) = element(i, j, lt[j - 1], lt[n - i]);
  // Row n: t(n-i) = t(0) = 1; slot j-1 holds log|t(j-1)| until written.
  for (int j = 1; j <= n; ++j) lt[j - 1] = element(n, j, lt[j - 1], 0.0);
}

namespace {
void print_values(std::string_view label, span<const double> v, int n, int limit) {
  const int m = std::min(n, limit);
  vprt("%.*s\n", static_cast<int>(label.size()), label.data());
  for (int k = 0; k < m; k += 6) {
    std::string line;
    char buf[32];
    for (int q = k; q < std::min(m, k + 6); ++q) {
      std::snprintf(buf, sizeof buf, " %12.5g", v[q]);
      line += buf;
    }
    vprt("%s\n", line.c_str());
  }
}
}  // namespace

void g5vplt(std::string_view label, span<const double> v, int n, int unit) {
  print_values(label, v, n, 91);
}
void g5vpdpv(std::string_view label, span<const double> v, int n, int unit) {
  print_values(label, v, n, 700);
}
void g5vpiv(std::string_view label, span<const int> v, int n, int unit) {
  vprt("%.*s\n", static_cast<int>(label.size()), label.data());
  std::string line;
  char buf[16];
  for (int k = 0; k < n; ++k) {
    std::snprintf(buf, sizeof buf, " %d", v[k]);
    line += buf;
    if ((k + 1) % 12 == 0 || k + 1 == n) {
      vprt("%s\n", line.c_str());
      line.clear();
    }
  }
}
void g5vpll(std::string_view label, span<const double> a, int n, int unit) {
  vprt("%.*s\n", static_cast<int>(label.size()), label.data());
  for (int i = 1; i <= n; ++i) {
    std::string line;
    char buf[32];
    std::snprintf(buf, sizeof buf, "%4d", i);
    line += buf;
    for (int j = 1; j <= i; ++j) {
      std::snprintf(buf, sizeof buf, " %11.4g", P(a, i, j));
      line += buf;
    }
    vprt("%s\n", line.c_str());
  }
}

}  // namespace tarnel
