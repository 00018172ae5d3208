// The Matern correlation of a pair of points, with geometric anisotropy and
// a general power metric, and its derivatives with respect to the range,
// the smoothness, the anisotropy ratio and the angle.
//
//   C(x) = x^nu K_nu(x) / (2^(nu-1) Gamma(nu)),  x = d / phi,
//   d = (alpha |x'|^lambda + |y'|^lambda / alpha)^(1/lambda)
// with (x', y') the difference rotated by the angle theta.  nu = 0.5 is the
// exponential exp(-d/phi).  Bessel functions, gamma and digamma come from
// R's mathematical library.
#include <cmath>

#include "host/rmath.h"
#include "variance/spatial.h"

namespace tarnel {

namespace {

// Orders above this are not distinguishable from the gaussian limit at
// the accuracy of the fit, and keep the Bessel work vector small.
constexpr double kMaxNu = 100.0;

// exp(-x) scaled K_nu(x) for x > 0 (K_{-nu} = K_nu).
double scaled_k(double x, double nu) {
  double bk[128];
  nu = std::fabs(nu);
  if (nu > kMaxNu) nu = kMaxNu;
  return bessel_k_ex(x, nu, 2.0, bk);
}

// log of 1 / (2^(nu-1) Gamma(nu)).
double log_norm(double nu) { return -(nu - 1.0) * M_LN2 - lgammafn(nu); }

// x^nu K_nu(x) c(nu), through the scaled K so that large x underflows
// gracefully.
double corr_at(double x, double nu) {
  return std::exp(log_norm(nu) + nu * std::log(x) - x) * scaled_k(x, nu);
}

}  // namespace

double matern_pair(double dx, double dy, int dim, const double p[5], const bool want[4], double d[4]) {
  const double phi = p[0], nu = p[1], alpha = p[2], theta = p[3], lambda = p[4];
  for (int k = 0; k < 4; ++k) d[k] = 0.0;
  double dist, xr = 0.0, yr = 0.0, a = 0.0, b = 0.0, s = 0.0;
  if (dim == 1) {
    dist = std::fabs(dx);
  } else {
    const double c = std::cos(theta), sn = std::sin(theta);
    xr = dx * c + dy * sn;
    yr = dy * c - dx * sn;
    a = std::pow(std::fabs(xr), lambda);
    b = std::pow(std::fabs(yr), lambda);
    s = a * alpha + b / alpha;
    dist = std::pow(s, 1.0 / lambda);
  }
  const double x = dist / phi;
  if (x > 700.0) return 0.0;
  if (x <= 1e-12) return 1.0;  // the limit at distance 0
  const double C = corr_at(x, nu);
  // w = c(nu) x^(nu+1) K_(nu-1)(x): the derivative of C in log distance.
  const double w = std::exp(log_norm(nu) + (nu + 1.0) * std::log(x) - x) * scaled_k(x, nu - 1.0);
  if (want[0]) d[0] = w / phi;
  if (dim != 1 && s > 0.0) {
    if (want[2]) d[2] = -w * (a * alpha - b / alpha) / (lambda * s * alpha);
    if (want[3] && std::fabs(xr * yr) >= 1e-10)
      d[3] = -xr * yr * w *
             (alpha * std::pow(std::fabs(xr), lambda - 2.0) - std::pow(std::fabs(yr), lambda - 2.0) / alpha) / s;
  }
  if (want[1] && x >= 1e-6 && std::fabs(C) >= f32(1e-4)) {
    // d log c / d nu = -log 2 - digamma(nu); the order derivative of K by
    // a central difference, which is smooth in the order (K_{-nu} = K_nu).
    const double h = 1e-4 * std::fmax(1.0, nu);
    const double kp = scaled_k(x, nu + h), km = scaled_k(x, nu - h);
    const double dk = (kp - km) / (2.0 * h);
    const double front = std::exp(log_norm(nu) + nu * std::log(x) - x);
    d[1] = C * (std::log(x) - M_LN2 - digamma(nu)) + front * dk;
  }
  return C;
}

}  // namespace tarnel
