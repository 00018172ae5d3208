// The generalised step: before each REML iteration the working variate
// and weight of every record, from the linear predictor of the current
// solutions.
#include <algorithm>
#include <cmath>

#include "generalised/generalised.h"
#include "host/console.h"

namespace tarnel {

namespace {

// The linear predictor of row r (from 0): the design row times the
// solutions, leaving out the response entry.
double row_eta(const GlmmPass& p, i64 r) {
  const i64 b = p.start[r] - 1, e = p.start[r + 1] - 1;
  const i64 neq = static_cast<i64>(p.soln.size());
  double eta = 0;
  i32 prev = 0;
  for (i64 k = b + 1; k < e; ++k) {
    const i32 c = p.col[k];
    if (c <= prev || c > neq) break;
    prev = c;
    eta += p.val[k] * p.soln[c - 1];
  }
  return eta;
}

// The data check of the first pass.  Returns the status of a bad datum.
int check_datum(const GlmModel& m, double y, double n, i64 record) {
  if (m.id == kFamilyPoisson && y < 0) {
    vprt("Invalid Poisson count %f", y);
    vprt(" in record %d\n", static_cast<int>(record));
    return 2;
  }
  if (m.id == kFamilyGamma && y <= 0) {
    vprt("Invalid Gamma data %f", y);
    vprt(" in record %d\n", static_cast<int>(record));
    return 3;
  }
  if (m.id == kFamilyNegBinomial && y < 0) {
    vprt("Invalid Neg Binomial count %f", y);
    vprt(" in record %d\n", static_cast<int>(record));
    return 4;
  }
  if ((m.id == kFamilyBinomial || m.id == kFamilyMultinomial) && (y < 0 || y > n)) {
    vprt("Invalid binomial/multinomialproportion %f", y);
    vprt("/ %f in record", n);
    vprt(" %d\n", static_cast<int>(record));
    return 1;
  }
  return 0;
}

// One walk over the records.  Returns 0, a status, or -1 to start the
// pass again once the data are found to be counts.
int walk_records(GlmModel& m, GlmmPass& p, int& valid) {
  GlmCommon& c = p.common;
  const bool first = p.count == 1;
  const bool probability = m.id == kFamilyBinomial || m.id == kFamilyMultinomial;
  for (i64 r = 0; r < p.records; ++r) {
    const i64 b = p.start[r] - 1;
    double y = p.ykeep[r];
    const bool missing = is_missing(y);
    const double n = p.n.empty() ? 1.0 : p.n[r];
    c.record = r + 1;
    c.n = n;
    if (first && !missing) {
      if (probability && y > 1 && p.counts[1] == 0) {
        vprt("Assuming binomial/multinomial dataexpressed as counts\n");
        p.counts[1] = -1;
        if (r > 0) return -1;
      }
      const int bad = check_datum(m, y, probability && p.counts[1] == -1 ? n : (probability ? 1.0 : y), r + 1);
      if (bad) return bad;
    }
    if (!missing && probability && p.counts[1] == -1) y = n > 0 ? y / n : 0;
    c.y = missing ? kMissingGlm : y;
    const double off = p.offset.empty() ? 0.0 : p.offset[r];
    double eta = first ? initql(m, missing ? 0.0 : y, n, false, p.counts[0]) : row_eta(p, r) + off;
    if (!first && !p.eta.empty())
      p.eta_change = std::max(p.eta_change, std::fabs(eta - p.eta[r]) / (1.0 + std::fabs(eta)));
    if (!p.eta.empty()) p.eta[r] = eta;
    p.weights[r] = aiglms(m, eta, c, p.deviance);
    if (missing) continue;  // the record stays out of the equations
    ++valid;
    p.val[b] = eta - off + (c.y - c.mu) / c.dmu;
  }
  return 0;
}

}  // namespace

int aiglmm(GlmModel& m, GlmmPass& p) {
  GlmCommon& c = p.common;
  if (p.count == 1) {
    // The family's texts and defaults, and the responses as formed.
    const double y0 = p.records > 0 && !is_missing(p.ykeep[0]) ? p.ykeep[0] : 0.0;
    initql(m, y0, p.n.empty() ? 1.0 : p.n[0], true, p.counts[0]);
    c.mulimit = 1e-8;
  }
  int status = 0, valid = 0;
  for (int attempt = 0; attempt < 2; ++attempt) {
    c.nlow = c.nhigh = 0;
    c.sumlow = c.sumhigh = 0;
    p.deviance = 0;
    p.eta_change = 0;
    valid = 0;
    status = m.id == kFamilyMultinomial ? ordinal_pass(m, p, valid) : walk_records(m, p, valid);
    if (status != -1) break;
  }
  if (status > 0) return status;
  // The weights changed: their log determinant is found again.
  if (p.weights_logdet != nullptr) *p.weights_logdet = 0.0;
  if (c.nlow + c.nhigh > 0) {
    vprt("Warning: GLM Bounds %d", p.count);
    vprt(" %d", c.nlow);
    vprt(" %f", c.sumlow / std::max(1, c.nlow));
    vprt(" %d", c.nhigh);
    vprt(" %f\n", c.sumhigh / std::max(1, c.nhigh));
    if (p.count > 10) {
      vprt("Aborting GLM fit because predictedvalues are out of bounds\n");
      vprt("Try a more reasonable link function\n");
      return 5;
    }
  }
  if (valid == 0) {
    vprt("INVALID data values for GLMM\n");
    return 7;
  }
  return 0;
}

}  // namespace tarnel
