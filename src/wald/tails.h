// Tail areas of the normal and F distributions, for p-values of the Wald
// table and for the probit link.
#ifndef TARNEL_WALD_TAILS_H
#define TARNEL_WALD_TAILS_H

namespace tarnel {

// The tail area of the standard normal: above x when `upper`, else below.
double alnorm(double x, bool upper);

// The lower tail of an F ratio f with m and n degrees of freedom: the
// probability of a value at or below f.  A ratio at or below 1e-05 and
// m + n at or below 1 give 0.  A p-value is 1 less the result.
double fish(double f, double m, double n);

}  // namespace tarnel

#endif
