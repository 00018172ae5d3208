// The cumulative (ordinal) multinomial step.
//
// A record of an ordered response with K categories comes as k = K - 1
// consecutive design rows, one a threshold j, whose response is the
// cumulative indicator y_j = [Y <= j] and whose linear predictor is
// eta_j = theta_j + x'b, with P(Y <= j) = F(eta_j).  The thresholds are
// the intercept (theta_1) and one covariate column a later threshold
// (theta_j - theta_1), equations `first_eq` onwards; row j carries the
// entry of its own threshold and, for j < k, that of threshold j + 1, whose
// value the step sets (it stays out of eta_j).
//
// Fisher scoring of the record's k predictors takes the working variate
// z_j = eta_j + (y_j - g_j) / d_j, g_j = F(eta_j), d_j = F'(eta_j), and the
// weight matrix W = D S^-1 D, D = diag(d), S the covariance of the
// cumulative indicators: S^-1 is tridiagonal with diagonal
// 1/p_j + 1/p_(j+1) and off-diagonal -1/p_(j+1), p the category
// probabilities.  The equations that follow weight each record by a
// diagonal, so W is factored as U'EU with U unit upper bidiagonal
// (U(j, j+1) = c_j) and E diagonal: row j becomes row j + c_j row (j+1),
// its response z_j + c_j z_(j+1) and its weight E_j.  Since all rows of a
// record share x, the new row j is (1 + c_j) x with threshold entries 1 at
// j and c_j at j + 1.  The log determinant of the weights is then that of
// W.
#include <algorithm>
#include <cmath>

#include "generalised/generalised.h"
#include "host/console.h"
#include "host/rmath.h"

namespace tarnel {

namespace {

// Cumulative probability and density of the link's distribution.
void link_cdf(int link, double e, double& g, double& d) {
  if (link == kLinkProbit) {
    g = pnorm5(e, 0.0, 1.0, 1, 0);
    d = dnorm4(e, 0.0, 1.0, 0);
  } else if (link == kLinkCloglog) {
    g = -std::expm1(-std::exp(e));
    d = std::exp(e - std::exp(e));
  } else {
    g = plogis(e, 0.0, 1.0, 1, 0);
    d = dlogis(e, 0.0, 1.0, 0);
  }
}

double link_quantile(int link, double p) {
  if (link == kLinkProbit) return qnorm5(p, 0.0, 1.0, 1, 0);
  if (link == kLinkCloglog) return std::log(-std::log1p(-p));
  return qlogis(p, 0.0, 1.0, 1, 0);
}

// The bounds of threshold j (from 1): eta is kept in order, each at least
// 0.01 above the one before, and within the link's limits.  An extreme
// threshold of a record far out in the tails is ordinary in these models,
// so a predictor held at a limit is not counted as a bound hit.
void bound_threshold(int link, int j, double& e, double& last) {
  if (j > 1 && e < last) e = last;
  double test = 10, set = 10;
  if (link == kLinkLogit) {
    test = set = (j + 36) * 0.25;
  } else if (link == kLinkProbit) {
    test = j / 10 + 4.5;
    set = (j + 45) * 0.1;
  }
  if (e > test) {
    e = set;
  } else if (e < -test) {
    e = -set;
  }
  last = e + 0.01;
}

// The threshold (2..k) of equation `col`, or 0 for any other equation.
inline int threshold_of(const OrdinalRows& o, i32 col) {
  const i32 m = col - o.first_eq;
  return (m >= 0 && m < o.k - 1) ? m + 2 : 0;
}

// The linear predictor of row r, threshold j, from the design as formed.
double ordinal_eta(const GlmmPass& p, i64 r, int j) {
  const OrdinalRows& o = p.ordinal;
  const i64 b = p.start[r] - 1, e = p.start[r + 1] - 1;
  const i64 neq = static_cast<i64>(p.soln.size());
  double eta = 0;
  for (i64 q = b + 1; q < e; ++q) {
    const i32 c = p.col[q];
    if (c < 1 || c > neq) break;
    const int m = threshold_of(o, c);
    if (m != 0 && m != j) continue;
    eta += o.orig[q - o.base] * p.soln[c - 1];
  }
  return eta;
}

// Row r of threshold j as the step's equations take it: threshold entries
// 1 at j and c at j + 1, every other entry (1 + c) times its value as formed.
void rewrite_row(GlmmPass& p, i64 r, int j, double cj) {
  const OrdinalRows& o = p.ordinal;
  const i64 b = p.start[r] - 1, e = p.start[r + 1] - 1;
  for (i64 q = b + 1; q < e; ++q) {
    const int m = threshold_of(o, p.col[q]);
    if (m == 0)
      p.val[q] = (1.0 + cj) * o.orig[q - o.base];
    else
      p.val[q] = m == j ? 1.0 : (m == j + 1 ? cj : 0.0);
  }
}

// The start of each threshold: the link's quantile of the share of
// records at or below it.
void start_thresholds(const GlmModel& m, GlmmPass& p) {
  OrdinalRows& o = p.ordinal;
  double total = 0;
  for (int j = 0; j < o.k; ++j) o.start[j] = 0;
  for (i64 r0 = 0; r0 < p.records; r0 += o.k) {
    if (is_missing(p.ykeep[r0])) continue;
    const double n = p.n.empty() ? 1.0 : p.n[r0];
    total += n;
    for (int j = 0; j < o.k; ++j) o.start[j] += n * p.ykeep[r0 + j];
  }
  for (int j = 0; j < o.k; ++j) {
    const double share = total > 0 ? o.start[j] / total : (j + 1.0) / (o.k + 1.0);
    o.start[j] = link_quantile(m.link, std::min(std::max(share, 1e-4), 1 - 1e-4));
  }
}

// Checks that the record's indicators are 0 or 1 and never fall.
int check_record(const GlmmPass& p, i64 r0) {
  const OrdinalRows& o = p.ordinal;
  for (int j = 0; j < o.k; ++j) {
    const double y = p.ykeep[r0 + j];
    const bool bad = !(y == 0.0 || y == 1.0) || (j > 0 && y < p.ykeep[r0 + j - 1]);
    if (bad) {
      vprt("Invalid binomial/multinomialproportion %f", y);
      vprt("/ %f in record", 1.0);
      vprt(" %d\n", static_cast<int>(r0 + j + 1));
      return 1;
    }
  }
  return 0;
}

// One record (rows r0 .. r0 + k - 1): predictors, probabilities, the
// deviance term, and the transformed rows with their weights.
void ordinal_record(const GlmModel& m, GlmmPass& p, i64 r0) {
  OrdinalRows& o = p.ordinal;
  const int k = o.k;
  const bool first = p.count == 1;
  const double n = p.n.empty() ? 1.0 : p.n[r0];
  const double off = p.offset.empty() ? 0.0 : p.offset[r0];
  double* eta = o.scratch.data();
  double* g = eta + k;
  double* d = g + k;
  double* z = d + k;
  double* prob = z + k;  // k + 1 category probabilities
  double last = 0;
  int cat = k + 1;
  for (int j = 1; j <= k; ++j) {
    const i64 r = r0 + j - 1;
    double e = first ? o.start[j - 1] : ordinal_eta(p, r, j) + off;
    bound_threshold(m.link, j, e, last);
    if (!first && !p.eta.empty())
      p.eta_change = std::max(p.eta_change, std::fabs(e - p.eta[r]) / (1.0 + std::fabs(e)));
    if (!p.eta.empty()) p.eta[r] = e;
    eta[j - 1] = e;
    link_cdf(m.link, e, g[j - 1], d[j - 1]);
    if (p.ykeep[r] == 1.0 && cat > k) cat = j;
  }
  for (int j = 0; j <= k; ++j) {
    const double hi = j < k ? g[j] : 1.0, lo = j > 0 ? g[j - 1] : 0.0;
    prob[j] = std::max(hi - lo, 1e-300);
  }
  p.deviance += -n * std::log(prob[cat - 1]);
  const double s = n / m.scale;
  double* cs = prob + k + 1;  // k factors c_j
  double cj = 0;
  for (int j = 0; j < k; ++j) {
    const i64 r = r0 + j;
    z[j] = eta[j] - off + (p.ykeep[r] - g[j]) / d[j];
    const double a = s * d[j] * d[j] * (1 / prob[j] + 1 / prob[j + 1]);
    const double bprev = j > 0 ? -s * d[j - 1] * d[j] / prob[j] : 0.0;
    // E_j = A_j - c_(j-1) B_(j-1), c_j = B_j / E_j.
    const double ej = a - cj * bprev;
    p.weights[r] = std::max(ej, 0.0);
    cj = j + 1 < k && ej > 0 ? -s * d[j] * d[j + 1] / prob[j + 1] / ej : 0.0;
    cs[j] = cj;
  }
  for (int j = 0; j < k; ++j) {
    const i64 r = r0 + j;
    p.val[p.start[r] - 1] = z[j] + (j + 1 < k ? cs[j] * z[j + 1] : 0.0);
    rewrite_row(p, r, j + 1, cs[j]);
  }
}

}  // namespace

int ordinal_pass(const GlmModel& m, GlmmPass& p, int& valid) {
  OrdinalRows& o = p.ordinal;
  const int k = o.k;
  if (p.count == 1 && !o.ready) {
    // The design as formed, kept for the linear predictors of later passes.
    for (std::size_t q = 0; q < o.orig.size(); ++q) o.orig[q] = p.val[o.base + static_cast<i64>(q)];
    o.ready = true;
  }
  if (p.count == 1) start_thresholds(m, p);
  for (i64 r0 = 0; r0 + k <= p.records; r0 += k) {
    p.common.record = r0 + 1;
    if (is_missing(p.ykeep[r0])) {
      for (int j = 0; j < k; ++j) p.weights[r0 + j] = 0.0;
      continue;
    }
    if (p.count == 1 && check_record(p, r0)) return 1;
    ordinal_record(m, p, r0);
    valid += k;
  }
  return 0;
}

}  // namespace tarnel
