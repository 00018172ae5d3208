// Distance-based correlation structures: the correlation matrix of a
// section's units from their coordinates, its inverse, the derivatives with
// respect to each parameter and their traces.
//
// The coordinates of section s lie in the known-matrix table, in a row of
// type 6000 + s: `size` units, `dim` reals a unit from `start` in the real
// store (x then y), and from `index` in the integer store the block
//   metric, dim, packlen, nblock, then per unit (block key, block number).
// Units with different block keys are independent (a block-diagonal
// matrix); the block numbers and the packed length are written here.
//
// metric: 0 to 3, 8, 10 the exponential family (3 Euclidean distance,
// 1 city block or separable, 2 squared distances, the gaussian form);
// 4 spherical, 5 circular, 6 linear, 7 linear variance (limited range);
// 9 Matern; 11 and above power exponential with exponent metric/100,
// separable; a negative metric below -10 the same with the Euclidean
// distance.
#ifndef TARNEL_VARIANCE_SPATIAL_H
#define TARNEL_VARIANCE_SPATIAL_H

#include "control/engine_types.h"
#include "variance/structures.h"

namespace tarnel {

// Everything one distance-based section gives and gets.
struct SpatialSection {
  int s = 0;                // section number: its coordinates are in the row of type 6000 + s
  int n = 0;                // order (units)
  int ncor = 0;             // in: parameters given; out: parameters used
  span<double> par;         // the correlation parameters (moved into range in place)
  span<int> tgamma, rgmstr;
  FormRecord* secrec = nullptr;  // kind, pos, kindi, posi written
  span<FormRecord> parrec;       // one a parameter
  span<double> trdrri;           // one a parameter
  double logdet = 0.0;
};

struct SpatialContext {
  GivTable giv;
  WorkArray work;
  i64* top = nullptr;  // lowered as words are taken
  i64 floor = 0;
  int debug = 0;
  int unit = 6;
};

// Forms the section.  Returns 0, or 1 with ifault set: 6 out of workspace,
// 1006 a section that cannot be formed, 1010 a fault in the Matern family.
int g5vvdg(SpatialSection& sec, SpatialContext& ctx, int& ifault);

// One Matern correlation and its derivatives for a pair of points.
//   dx, dy: coordinate differences (dy ignored when dim is 1);
//   p: range phi, smoothness nu, ratio alpha, angle theta, power lambda;
//   want[k]: whether the derivative with respect to parameter k is needed.
// Returns C; d[0..3] take dC/dphi, dC/dnu, dC/dalpha, dC/dtheta.
double matern_pair(double dx, double dy, int dim, const double p[5], const bool want[4], double d[4]);

}  // namespace tarnel

#endif
