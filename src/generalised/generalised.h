// Generalised linear mixed models: families, links and the step that turns
// a generalised model into weighted normal equations.
//
// A generalised model is fitted as a sequence of weighted normal models.
// Before each REML iteration `aiglmm` walks the design rows, forms the
// linear predictor of each from the current solutions, and writes the
// working variate over the row's response and the working weight into the
// residual weight vector.  It also adds up the deviance (half the deviance
// in the usual convention) and counts how often the predictor ran into one
// of the bounds the links keep.
#ifndef TARNEL_GENERALISED_GENERALISED_H
#define TARNEL_GENERALISED_GENERALISED_H

#include <string>

#include "control/engine_types.h"

namespace tarnel {

// Family codes.
enum GlmFamily : int {
  kFamilyNormal = 1,
  kFamilyBinomial = 2,
  kFamilyPoisson = 3,
  kFamilyGamma = 4,
  kFamilyNegBinomial = 5,
  kFamilyMultinomial = 9,
};

// Link codes.
enum GlmLink : int {
  kLinkIdentity = 1,
  kLinkLogit = 2,
  kLinkProbit = 3,
  kLinkCloglog = 4,
  kLinkLog = 5,
  kLinkSqrt = 6,
  kLinkInverse = 7,
  kLinkCensored = 8,
  kLinkLnr = 15,
  kLinkInr = 17,
};

// What the step shares across the records of a pass.
struct GlmCommon {
  double mu = 0, dmu = 0, y = 0, n = 1;
  double sumlow = 0, sumhigh = 0;  // eta summed over the records clipped low / high
  double mulimit = 0;              // lower limit on mu (Poisson)
  int nlow = 0, nhigh = 0;         // records clipped low / high
  i64 record = 0;                  // current record, from 1
};

// The family of a run and its texts.
struct GlmModel {
  int id = 1;
  int link = 1;
  double phi = 1;    // the family's parameter (gamma shape, negative binomial shape)
  double scale = 1;  // overdispersion factor the weights are divided by
  int nq = 0;        // quadrature points (none in this system)
  std::string desc, desv;
};

// Sets the family's default link when the link given is not one of its
// own, the descriptions, and phi; returns the start of eta for a response
// y with group size n.  `counts` is set when a binomial y above 0.99 shows
// the data are counts.  Prints the model when `print` is set.
double initql(GlmModel& m, double y, double n, bool print, int& counts);

// mu, dmu/deta and the weight for one record with linear predictor `eta`
// (which may be moved to a bound) and response c.y (missing: kMissingGlm).
// Adds the record's deviance term to `deviance`; returns the weight.
double aiglms(const GlmModel& m, double& eta, GlmCommon& c, double& deviance);

// The tail area of the standard normal: the upper tail when `upper`.
double alnorm(double x, bool upper);
// The lower tail of an F ratio with m and n degrees of freedom.
double fish(double f, double m, double n);

// The rows of a cumulative multinomial model: k consecutive design rows a
// record, one a threshold (see ordinal.cpp).
struct OrdinalRows {
  int k = 0;                 // thresholds: categories less one
  i32 first_eq = 0;          // equation of the second threshold; later ones follow
  i64 base = 0;              // index of the first design value
  span<double> orig;         // the design values as formed, from `base`
  span<double> start;        // k: the start of each threshold
  span<double> scratch;      // 6k + 1: one record's working values
  bool ready = false;        // orig holds the design as formed
};

// The design rows and what the step reads and writes beside them.
struct GlmmPass {
  double* val = nullptr;           // design values; the first of each row is the response
  const i32* col = nullptr;        // equation of each value
  span<const i64> start;           // records+1 row starts, 1-based
  i64 records = 0;
  span<double> ykeep;              // the responses as formed, one a row
  span<const double> n;            // group size or prior weight, one a row (empty: 1)
  span<const double> offset;       // offset, one a row (empty: none)
  span<const double> soln;         // current solutions, equation 1 the response
  span<double> weights;            // working weights, one a row
  double* weights_logdet = nullptr;  // cached log determinant of the weights: cleared
  int count = 1;                   // the pass's count: 1 is the first pass
  int counts[2] = {0, 0};          // start's count flag; data given as counts (-1)
  span<double> eta;                // the linear predictor of each row at the last pass
  double deviance = 0;             // out: the sum of the records' terms
  double eta_change = 0;           // out: the largest change of eta, relative to 1 + |eta|
  GlmCommon common;
  OrdinalRows ordinal;             // the cumulative multinomial family only
};

// Words of work array the cumulative multinomial step needs beside the
// design: a copy of the design values and the records' scratch.
inline i64 ordinal_words(i64 nvalues, int k) { return nvalues + 7 * static_cast<i64>(k) + 1; }

// One pass of the cumulative multinomial step over all records; `valid`
// counts the rows with a response.  Returns 0, or 1 for a record whose
// indicators are not those of one category.
int ordinal_pass(const GlmModel& m, GlmmPass& p, int& valid);

// One pass of the step.  Returns 0, or the step's status: 1 bad proportion,
// 2 bad count, 3 bad gamma datum, 4 bad negative binomial count, 5 the
// predictor out of bounds, 7 no valid data.
int aiglmm(GlmModel& m, GlmmPass& p);

}  // namespace tarnel

#endif
