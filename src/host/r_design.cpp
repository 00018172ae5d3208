// Host entries of the design subsystem.
#include <R.h>
#include <Rinternals.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "design/design.h"
#include "design/spline.h"
#include "host/r_sexp.h"

using namespace tarnel;

extern "C" {

// Orthonormal polynomial scores of degrees 1 to `degree` of the values x
// (no missing values): an n x degree matrix.
SEXP orthpoly(SEXP x, SEXP degree) {
  return guarded("orthpoly", [&] {
    span<double> v = arg_real(x, "x", 1);
    const int deg = arg_int(degree, "degree", 1)[0];
    const int n = static_cast<int>(v.size());
    if (deg < 1 || deg >= n) throw ArgError("'degree' must be at least 1 and less than the number of values");
    for (double a : v)
      if (!std::isfinite(a)) throw ArgError("'x' must hold finite values only");
    std::vector<double> work(2 * static_cast<std::size_t>(n));
    SEXP out = PROTECT(Rf_allocMatrix(REALSXP, n, deg));
    int count = 0;
    const int stop = gorpol(deg, 0, span<const double>(v.data(), v.size()),
                            span<double>(work.data(), work.size()), n,
                            span<double>(REAL(out), static_cast<std::size_t>(n) * deg), count);
    UNPROTECT(1);
    if (stop != 0)
      throw ArgError("'degree' is too high for the number of distinct values of 'x'");
    return out;
  });
}

// The natural cubic spline basis of the values x (finite, at least three
// distinct): the design points (the distinct values of x, or the knots when
// `knots` is not empty), Z at the points (d x (d - 2)), and the rows of Z at
// the values `at`.  `scale` at or below 0 is 9 / (max - min) of x.
SEXP spline_basis(SEXP x, SEXP knots, SEXP scale, SEXP at) {
  return guarded("spline_basis", [&] {
    span<double> v = arg_real(x, "x", 1);
    span<double> kn = arg_real(knots, "knots", 0);
    span<double> av = arg_real(at, "at", 0);
    double sc = arg_real(scale, "scale", 1)[0];
    const std::size_t n = v.size();
    for (double a : v)
      if (!std::isfinite(a)) throw ArgError("'x' must hold finite values only");
    std::vector<int> order(n), map(n);
    std::vector<double> pts(n);
    int d = spline_points(span<const double>(v.data(), n), 0.0, span<int>(order.data(), n),
                          span<double>(pts.data(), n), span<int>(map.data(), n));
    if (d < 3) throw ArgError("a spline needs at least three distinct values of 'x'");
    const double lo = pts[0], hi = pts[d - 1];
    if (!kn.empty()) {
      d = static_cast<int>(kn.size());
      pts.assign(kn.begin(), kn.end());
    }
    if (sc <= 0.0) sc = 9.0 / (hi - lo);
    const std::size_t m = static_cast<std::size_t>(d - 2);
    std::vector<double> z(d * m), gamma(d * m), work(spline_z_work(d));
    span<const double> points(pts.data(), d);
    if (spline_z(points, sc, span<double>(z.data(), z.size()), span<double>(gamma.data(), gamma.size()),
                 span<double>(work.data(), work.size())) != 0)
      throw ArgError("the spline's points must rise");
    SEXP out = PROTECT(Rf_allocVector(VECSXP, 4));
    SEXP p = Rf_allocVector(REALSXP, d);
    SET_VECTOR_ELT(out, 0, p);
    std::copy(pts.begin(), pts.begin() + d, REAL(p));
    SEXP zm = Rf_allocMatrix(REALSXP, d, static_cast<int>(m));
    SET_VECTOR_ELT(out, 1, zm);
    for (int r = 0; r < d; ++r)
      for (std::size_t k = 0; k < m; ++k) REAL(zm)[r + k * d] = z[r * m + k];
    const int na = static_cast<int>(av.size());
    SEXP za = Rf_allocMatrix(REALSXP, na, static_cast<int>(m));
    SET_VECTOR_ELT(out, 2, za);
    std::vector<double> row(m);
    for (int i = 0; i < na; ++i) {
      spline_row_at(points, sc, span<const double>(z.data(), z.size()),
                    span<const double>(gamma.data(), gamma.size()), av[i], span<double>(row.data(), m));
      for (std::size_t k = 0; k < m; ++k) REAL(za)[i + k * na] = row[k];
    }
    SET_VECTOR_ELT(out, 3, Rf_ScalarReal(sc));
    SEXP nm = PROTECT(Rf_allocVector(STRSXP, 4));
    const char* names[] = {"points", "z", "at", "scale"};
    for (int i = 0; i < 4; ++i) SET_STRING_ELT(nm, i, Rf_mkChar(names[i]));
    Rf_setAttrib(out, R_NamesSymbol, nm);
    UNPROTECT(2);
    return out;
  });
}

// Legendre polynomials of degrees 0 to `degree` of x (finite), x scaled to
// [-1, 1] over its range: a matrix of degree + 1 columns.
SEXP legendre_basis(SEXP x, SEXP degree) {
  return guarded("legendre_basis", [&] {
    span<double> v = arg_real(x, "x", 1);
    const int deg = arg_int(degree, "degree", 1)[0];
    double lo = v[0], hi = v[0];
    for (double a : v) {
      if (!std::isfinite(a)) throw ArgError("'x' must hold finite values only");
      lo = std::min(lo, a);
      hi = std::max(hi, a);
    }
    if (deg < 1) throw ArgError("'degree' must be at least 1");
    if (!(hi > lo)) throw ArgError("'x' must have at least two distinct values");
    const std::size_t n = v.size();
    SEXP out = PROTECT(Rf_allocMatrix(REALSXP, static_cast<int>(n), deg + 1));
    legendre_columns(span<const double>(v.data(), n), lo, hi, deg,
                     span<double>(REAL(out), n * static_cast<std::size_t>(deg + 1)));
    UNPROTECT(1);
    return out;
  });
}

// The data columns record by record, as the engine reads them: the double
// or integer matrix `m` (records by columns) transposed into a fresh double
// vector.  An integer NA becomes R's NA of the doubles.
SEXP record_major(SEXP m) {
  return guarded("record_major", [&] {
    if (TYPEOF(m) != REALSXP && TYPEOF(m) != INTSXP) throw ArgError("'m' must be a numeric matrix");
    const int nrow = matrix_rows(m), ncol = matrix_cols(m);
    if (static_cast<double>(nrow) * ncol != static_cast<double>(Rf_xlength(m)))
      throw ArgError("'m' must be a matrix");
    const std::size_t n = static_cast<std::size_t>(nrow), k = static_cast<std::size_t>(ncol);
    SEXP out = PROTECT(Rf_allocVector(REALSXP, static_cast<R_xlen_t>(n * k)));
    double* o = REAL(out);
    // In blocks of records, so that both sides stay in cache.
    constexpr std::size_t kBlock = 512;
    for (std::size_t r0 = 0; r0 < n; r0 += kBlock) {
      const std::size_t r1 = std::min(n, r0 + kBlock);
      for (std::size_t c = 0; c < k; ++c) {
        if (TYPEOF(m) == REALSXP) {
          const double* col = REAL(m) + c * n;
          for (std::size_t r = r0; r < r1; ++r) o[r * k + c] = col[r];
        } else {
          const int* col = INTEGER(m) + c * n;
          for (std::size_t r = r0; r < r1; ++r) o[r * k + c] = col[r] == NA_INTEGER ? NA_REAL : col[r];
        }
      }
    }
    UNPROTECT(1);
    return out;
  });
}

}  // extern "C"
