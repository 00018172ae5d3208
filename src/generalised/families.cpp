// Families and links: the start of the linear predictor, the model's
// description, and for one record mu, its derivative, the working weight
// and the deviance term.
#include <algorithm>
#include <cmath>

#include "generalised/generalised.h"
#include "host/console.h"
#include "host/rmath.h"

namespace tarnel {

namespace {

constexpr double kInvSqrt2Pi = 0.3989422917366028;

bool link_in(int link, std::initializer_list<int> allowed) {
  return std::find(allowed.begin(), allowed.end(), link) != allowed.end();
}

// The family's own link, or its default.
int family_link(int id, int link) {
  switch (id) {
    case kFamilyNormal: return link_in(link, {1, 7, 8}) ? link : 5;
    case kFamilyBinomial: return link_in(link, {1, 3, 4}) ? link : 2;
    case kFamilyPoisson: return link_in(link, {1, 6}) ? link : 5;
    case kFamilyGamma: return link_in(link, {1, 5}) ? link : 7;
    case kFamilyNegBinomial: return link_in(link, {1, 5, 7, 15}) ? link : 17;
    case kFamilyMultinomial: return link_in(link, {1, 3, 4}) ? link : 2;
    default: return link;
  }
}

const char* describe(int id, int link) {
  switch (id) {
    case kFamilyNormal:
      if (link == 1) return "Normal; Identity  Mu=XB, V=S2";
      if (link == 7) return "Normal; Inverse   Mu=1/XB, V=S2";
      if (link == 8) return "Normal; Censored";
      return "Normal; Log   Mu=exp(XB), V=S2";
    case kFamilyBinomial:
      if (link == 1) return "Binomial; Identity Mu=P=XB";
      if (link == 3) return "Binomial; Probit Mu=P=Normal Integral(XB)";
      if (link == 4) return "Binomial; Compl Log Log  Mu=P = 1-exp(-exp(XB))";
      return "Binomial; Logit  Mu=P=1/(1+exp(-XB))";
    case kFamilyPoisson:
      if (link == 1) return "Poisson; Identity  Mu=XB  V=Mu";
      if (link == 6) return "Poisson; Square root   Mu=(XB)^2   V=Mu";
      return "Poisson; Log   Mu=exp(XB) V=Mu";
    case kFamilyGamma:
      if (link == 1) return "Gamma; Identity  Mu=XB=PHI/GAMMA";
      if (link == 5) return "Gamma; Log  Mu=exp(XB)=PHI/GAMMA";
      return "Gamma; Inverse   Mu=1/XB=PHI/GAMMA";
    case kFamilyNegBinomial:
      if (link == 1) return "Negative Binomial; Identity  Mu=XB=PHI(1-P)/P";
      if (link == 5) return "Negative Binomial; Log  Mu=exp(XB)=PHI(1-P)/P";
      if (link == 7) return "Negative Binomial; Inverse   Mu=1/XB=PHI(1-P)/P";
      if (link == 15) return "Negative Binomial; LNR Mu=-1/(1-EXP(-XB))=PHI(1-P)/P";
      return "Negative Binomial; INR   Mu=1/XB-1=PHI(1-P)/P";
    case kFamilyMultinomial:
      if (link == 1) return "Cum. Multinomial; Identity P=XB";
      if (link == 3) return "Cum. Multinomial; Probit P=Normal Integral(XB)";
      if (link == 4) return "Cum. Multinomial; Compl Log Log  P = 1-exp(-exp(XB))";
      return "Cum. Multinomial; Logit  P=1/(1+exp(-XB))";
    default: return "Normal; Identity";
  }
}

const char* describe_variance(int id) {
  if (id == kFamilyBinomial) return "V=Mu(1-Mu)/N";
  if (id == kFamilyGamma) return "V=Mu^2/PHI/N=PHI/N/Gamma^2";
  if (id == kFamilyNegBinomial) return "V=Mu(1+Mu/PHI)=PHI(1-P)/P^2";
  return "";
}

// Start of eta from a start of mu, by link, for the families of a
// probability (binomial and multinomial).
double probability_eta(int link, double mu) {
  if (link == 1) return mu;
  if (link == 3) return std::log(mu / (1 - mu)) / f32(3.3);
  if (link == 4) return std::log(-std::log(1 - mu));
  return std::log(mu / (1 - mu));
}

void print_model(const GlmModel& m) {
  vprt("%s\n", m.desc.c_str());
  vprt("%s\n", m.desv.c_str());
  if (m.nq > 0) vprt("Using %d point Quadrature\n", m.nq);
  const double s = std::max(m.scale, f32(0.1));
  if (std::fabs(s - 1.0) >= 0.0005) vprt("Using Overdispersion factor of %f\n", s);
  vprt("Note: The LogLik value is unsuitable for comparing GLM models\n");
}

}  // namespace

double initql(GlmModel& m, double y, double n, bool print, int& counts) {
  m.link = family_link(m.id, m.link);
  m.desc = describe(m.id, m.link);
  m.desv = describe_variance(m.id);
  if ((m.id == kFamilyNormal || m.id == kFamilyGamma || m.id == kFamilyNegBinomial) && m.phi <= 0) m.phi = 1;
  m.scale = std::max(m.scale, f32(0.1));
  if (print) print_model(m);
  const int link = m.link;
  double mu = y < f32(0.01) ? f32(0.1) : y;  // the count families and normal
  switch (m.id) {
    case kFamilyNormal:
      return link == 1 || link == 8 ? mu : link == 7 ? 1 / mu : std::log(mu);
    case kFamilyBinomial:
      if (y > f32(0.99)) {
        counts = 1;
        if (n > 0) y /= n;
      }
      return probability_eta(link, f32(0.6) * y + f32(0.2));
    case kFamilyPoisson:
      return link == 1 ? mu : link == 6 ? std::sqrt(mu) : std::log(mu);
    case kFamilyGamma:
      return link == 1 ? mu : link == 5 ? std::log(mu) : 1 / mu;
    case kFamilyNegBinomial:
      if (link == 1) return mu;
      if (link == 5) return std::log(mu);
      if (link == 7) return 1 / mu;
      if (link == 15) return -std::log((mu + 1) / mu);
      return 1 / (mu + 1);
    case kFamilyMultinomial:
      return probability_eta(link, y > f32(0.99) ? 0.5 : y);
    default:
      m.desc = "Normal; Identity";
      return y;
  }
}

namespace {

inline void clip_low(GlmCommon& c, double eta) {
  ++c.nlow;
  c.sumlow += eta;
}
inline void clip_high(GlmCommon& c, double eta) {
  ++c.nhigh;
  c.sumhigh += eta;
}

// mu and dmu/deta of the binomial links; eta may move to a bound.
void binomial_mean(int link, double& e, GlmCommon& c) {
  if (link == 1) {
    c.mu = e;
    c.dmu = 1;
  } else if (link == 3) {
    if (e > 5) {
      clip_high(c, e);
      c.mu = c.y = 0.9999;
      e = 5;
    } else if (e < -5) {
      clip_low(c, e);
      c.mu = c.y = 0.0001;
      e = -5;
    } else {
      c.mu = std::min(std::max(pnorm5(e, 0.0, 1.0, 1, 0), 0.0001), 0.9999);
    }
    c.dmu = kInvSqrt2Pi * std::exp(-e * e / 2);
  } else if (link == 4) {
    if (e > 2.3) clip_high(c, e), e = 2.3;
    if (e < -10) clip_low(c, e), e = -10;
    c.mu = -std::expm1(-std::exp(e));
    c.dmu = std::exp(e) * (1 - c.mu);
  } else {
    if (e > 10) clip_high(c, e), e = 10;
    if (e < -10) clip_low(c, e), e = -10;
    c.mu = std::min(std::max(1 / (1 + std::exp(-e)), 5e-05), 0.99995);
    c.dmu = c.mu * (1 - c.mu);
  }
}

void poisson_mean(int link, double& e, GlmCommon& c) {
  if (link < 2) {
    c.mu = e;
    c.dmu = 1;
    if (c.mu < c.mulimit) clip_low(c, e), c.mu = c.mulimit;
  } else if (link <= 5) {
    if (e > 15) {
      clip_high(c, e);
      c.mu = 3269017.3724721107;
    } else if (e < -15) {
      clip_low(c, e);
      c.mu = c.mulimit;
    } else {
      c.mu = std::exp(e);
    }
    c.dmu = c.mu;
  } else {
    const double r = std::sqrt(c.mulimit);
    if (e < r) {
      clip_low(c, e);
      c.mu = c.mulimit;
      c.dmu = 2 * r;
    } else {
      c.mu = e * e;
      c.dmu = 2 * e;
    }
  }
}

void gamma_negbin_mean(int id, int link, double& e, GlmCommon& c) {
  if (link < 2) {
    c.mu = e;
    c.dmu = 1;
  } else if (link <= 5) {
    c.mu = std::exp(e);
    c.dmu = c.mu;
  } else if (id == kFamilyGamma || link <= 7) {
    if (e < 0.0001) {
      if (id == kFamilyGamma) {
        clip_low(c, e);
        c.mu = 10000;
        c.dmu = -c.mu * c.mu;
        return;
      }
      e = 0.0001;
    }
    c.mu = 1 / e;
    c.dmu = -c.mu * c.mu;
  } else if (link <= 17) {
    c.mu = 1 / e - 1;  // one formula for both of the shape's own links
    c.dmu = -1 / (e * e);
  } else {
    const double t = std::exp(e);
    c.mu = t / (1 - t);
    c.dmu = c.mu / (1 - t);
  }
}

}  // namespace

double aiglms(const GlmModel& m, double& eta, GlmCommon& c, double& deviance) {
  const bool missing = c.y == kMissingGlm;
  const double n = c.n;
  double v = 1;
  switch (m.id) {
    case kFamilyBinomial:
      binomial_mean(m.link, eta, c);
      v = std::max(c.mu * (1 - c.mu), 1e-10);
      if (!missing) {
        if (c.y > 0) deviance += n * c.y * std::log(c.y / c.mu);
        if (c.y < 1) deviance += n * (1 - c.y) * std::log((1 - c.y) / (1 - c.mu));
      }
      break;
    case kFamilyPoisson:
      poisson_mean(m.link, eta, c);
      v = std::max(c.mu, 1e-300);
      if (!missing) deviance += (c.mu - c.y) + (c.y > 0 ? c.y * std::log(c.y / c.mu) : 0.0);
      break;
    case kFamilyGamma:
      gamma_negbin_mean(m.id, m.link, eta, c);
      v = c.mu * c.mu / m.phi;
      if (!missing && c.mu > 0)
        deviance += n * m.phi * ((c.y - c.mu) / c.mu - (c.y > 0 ? std::log(c.y / c.mu) : 0.0));
      break;
    case kFamilyNegBinomial:
      gamma_negbin_mean(m.id, m.link, eta, c);
      v = std::max(c.mu * (c.mu + m.phi) / m.phi, 1e-300);
      if (!missing && c.mu > 0)
        deviance += (c.y > 0 ? c.y * std::log(c.y / c.mu) : 0.0) +
                    (c.y + m.phi) * std::log((c.mu + m.phi) / (c.y + m.phi));
      break;
    default:  // normal
      if (m.link < 2 || m.link == kLinkCensored) {
        c.mu = eta;
        c.dmu = 1;
      } else if (m.link <= 5) {
        c.mu = std::exp(eta);
        c.dmu = c.mu;
      } else {
        if (eta < 0.0001) eta = 0.0001;
        c.mu = 1 / eta;
        c.dmu = -c.mu * c.mu;
      }
      if (!missing) deviance += (c.y - c.mu) * (c.y - c.mu) / 2;
      break;
  }
  return n * c.dmu * c.dmu / v / m.scale;
}

// Tail areas from R's mathematical library, exact to double precision for
// any degrees of freedom, whole or not.
double alnorm(double x, bool upper) {
  if (std::isnan(x)) return x;
  return pnorm5(x, 0.0, 1.0, upper ? 0 : 1, 0);
}

// A ratio at or below 1e-05, m + n at or below 1 and degrees of freedom
// that are not positive give 0.
double fish(double f, double m, double n) {
  if (!(f > 1e-05) || !(m + n > 1.0)) return 0.0;
  if (!(m > 0.0) || !(n > 0.0)) return 0.0;
  return pf(f, m, n, 1, 0);
}

}  // namespace tarnel
