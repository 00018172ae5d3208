// Tail areas from R's mathematical library: its normal and F distribution
// functions are exact to double precision for any degrees of freedom, whole
// or not, so the series and approximations need not be written out here.
#include "wald/tails.h"

#include <cmath>

#include "host/rmath.h"

namespace tarnel {

double alnorm(double x, bool upper) {
  if (std::isnan(x)) return x;
  return pnorm(x, 0.0, 1.0, upper ? 0 : 1, 0);
}

double fish(double f, double m, double n) {
  if (!(f > 1e-05) || !(m + n > 1.0)) return 0.0;
  if (!(m > 0.0) || !(n > 0.0)) return 0.0;
  return pf(f, m, n, 1, 0);
}

}  // namespace tarnel
