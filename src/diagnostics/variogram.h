// The sample semivariogram of a field of values (usually residuals), on a
// regular grid or from scattered points in polar form.
#ifndef TARNEL_DIAGNOSTICS_VARIOGRAM_H
#define TARNEL_DIAGNOSTICS_VARIOGRAM_H

#include "control/engine_types.h"

namespace tarnel {

struct VariogramArgs {
  int n = 0;                             // points
  span<const double> x, y, z;            // coordinates and values, n each
  span<double> distX, distY, gam;        // grid modes: lag and semivariance a row
  span<const double> u;                  // polar mode: packed distances (i < j at i*n - (i+1)i/2 + j, from 0)
  span<double> dist;                     // polar mode: mean distance a row
  span<int> np;                          // pairs a row
  int grid = 0;                          // 0 polar, 1 grid with absolute lags, 2 grid with signed lags
  int nang = 0;                          // directions
  span<const double> angle, angTol;      // direction and its tolerance, degrees
  span<double> direction;                // polar mode: direction of each row
  double maxdist = 0.0;                  // kept for the caller; the bins are set by nlag and xlag
  int nlag = 0;                          // distance bins
  double xlag = 0.0, lagtol = 0.0;       // bin width and half width
  int nout = 0;                          // out: rows written in polar mode
  span<double> work;                     // polar mode: 3 (max(n, nlag nang) + 1) reals
};

// Rows the results need: 2n for signed grid lags, n for absolute ones,
// nlag * nang in polar mode.
i64 variogram_rows(int grid, int n, int nlag, int nang);
// Work words of polar mode.
i64 variogram_work(int n, int nlag, int nang);

// Bearing of (dx, dy) in degrees from 0 to 360.
double theta(double dx, double dy);

// R's missing value (a NaN with the payload 1954).
bool is_r_na(double v);

// Fills the results; the caller has sized every span (see above).
void variogram(VariogramArgs& a);

}  // namespace tarnel

#endif
