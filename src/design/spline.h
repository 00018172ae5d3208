// Cubic smoothing splines as mixed-model terms.
//
// A spline term expands a covariate into the columns Z of the penalty of a
// natural cubic spline: with design points t(1) < ... < t(d) (the distinct
// covariate values, or knot points the user gives), gaps h(i) scaled by
// `scale`, Q the d x (d-2) second-difference matrix and R the (d-2) x (d-2)
// tridiagonal matrix of the penalty, Z = Q (Q'Q)^-1 L with R = L L'.  A
// random effect u ~ N(0, s2 I) on Z, beside a fixed linear trend, makes the
// fitted curve the natural cubic smoothing spline whose smoothing parameter
// is residual / s2 (in the scaled units).
//
// `aidsum` builds one table a spline term in the low end of the work array
// before the design is formed; `aixspl` reads it row by row.
#ifndef TARNEL_DESIGN_SPLINE_H
#define TARNEL_DESIGN_SPLINE_H

#include "control/engine_types.h"

namespace tarnel {

// The design points of a covariate: the distinct values, values closer than
// `tol` joined (each point is the mean of its run).  `order` is scratch of
// v.size() integers.  map[r] gets the point (from 1) of record r, 0 for a
// missing value.  Returns the number of points written to `points` (at
// most v.size()).
int spline_points(span<const double> v, double tol, span<int> order, span<double> points,
                  span<int> map);

// Words of scratch that spline_z needs for d points.
u64 spline_z_work(int d);

// Z (d rows, d - 2 columns, by rows) of the points, and with `gamma` not
// empty its second derivatives (the same shape; rows 1 and d zero), which
// interpolation between the points needs.  Returns 1 when the points do not
// rise or fewer than three are given.
int spline_z(span<const double> points, double scale, span<double> z, span<double> gamma,
             span<double> work);

// The row of Z at a value x: the natural cubic spline through each column of
// Z at the points (linear beyond the end points).  out gets d - 2 values.
void spline_row_at(span<const double> points, double scale, span<const double> z,
                   span<const double> gamma, double x, span<double> out);

// Legendre polynomials of degrees 0 to `degree` of the values v, scaled to
// [-1, 1] over [lo, hi], each multiplied by sqrt(k + 0.5) so that they are
// orthonormal on [-1, 1]: out holds v.size() rows by degree + 1 columns, by
// columns.
void legendre_columns(span<const double> v, double lo, double hi, int degree, span<double> out);

// Everything aidsum reads and writes.
struct SplineTables {
  WorkArray x;
  u64 kyxz = 0;                // in: first free word; out: past the tables
  span<int> inter;             // 4 x nfact
  span<int> flev;
  span<int> nlev;
  span<const double> JBV;      // knot lists: count, then the points
  span<int> kzbkey;            // three values a table
  int mxSpline = 0;
  int ncspln = 0;              // tables so far
  span<const double> datafr;   // record r, column c at r*lbin + c (from 0)
  int lbin = 0;
  int nrow = 0;
  double splinescale = 0;      // above 0: the scale of the gaps
};

// Builds the tables of the spline terms (code -3).  A term's third value is
// its data column; a fourth value above 0 is the 1-based place in JBV of a
// knot list (its count, then the points).  The table number becomes the
// term's second value and flev its columns.  Returns 0, 1 with `errtxt`
// filled on a fault, or 6 when the work array is too small.
int aidsum(SplineTables& s, span<char> errtxt);

}  // namespace tarnel

#endif
