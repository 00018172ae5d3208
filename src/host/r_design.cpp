// Host entries of the design subsystem.
#include <R.h>
#include <Rinternals.h>

#include <cmath>
#include <vector>

#include "design/design.h"
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

}  // extern "C"
