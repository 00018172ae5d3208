// The parameter history ring and the test of convergence of the driver.
#include "control/convergence.h"

#include <cmath>

#include "host/messages.h"

namespace tarnel {

int keepgammas(span<double> history, span<const double> gammas, span<double> current,
               int ngamma, int& k, int& flag, int mode, int& ifault) {
  if (ngamma < 0) return g5vflt(ifault, 1);
  const std::size_t n = static_cast<std::size_t>(ngamma);
  if (history.size() < 7 * n || gammas.size() < n) {
    g5verror("Parameter history is shorter than seven columns", 4);
    return g5vflt(ifault, 1);
  }
  if (mode == 0) {
    if (k < 0 || k > 6) {
      g5verror("Parameter history column out of range", 4);
      return g5vflt(ifault, 1);
    }
    k += 1;
    if (k == 7) {
      k = 2;
      flag = 6;
    }
    for (std::size_t p = 0; p < n; ++p) history[(k - 1) * n + p] = gammas[p];
    return 0;
  }
  if (k < 1 || k > 6 || current.size() < n) {
    g5verror("Parameter history column out of range", 4);
    return g5vflt(ifault, 1);
  }
  constexpr double w_new = 0.10000002384185791;
  constexpr double w_old = 0.8999999761581421;
  for (std::size_t p = 0; p < n; ++p)
    if (history[p] != 0.0) current[p] = w_new * gammas[p] + w_old * history[(k - 1) * n + p];
  return 0;
}

ConvergenceResult convergence_test(const ConvergenceInput& in, ConvergenceState& st) {
  ConvergenceResult res;
  if (in.last_iteration) {
    res.action = ConvergenceAction::kSkipped;
    return res;
  }
  bool converged = false;
  if (in.nfrstg == in.ngamma && in.id == 1 && in.link == 1) {
    converged = true;  // nothing to estimate
  } else {
    const int d = in.aicond - 1000;
    const double quick =
        static_cast<double>(static_cast<float>(in.iter) * static_cast<float>(0.002));
    bool tested = false;
    if (std::fabs(in.last_loglik - in.loglik) < quick && d == 0 && in.quick > 0) {
      if (in.moving > 1) {
        st.s = in.loglik + in.restrained;
        return res;  // loop
      }
      if (in.restrained == 0) {
        converged = true;
        tested = true;
      }
    }
    if (!tested) {
      const double s = in.restrained + in.loglik;
      st.change = s - st.s;
      st.s = s;
      if (std::fabs(st.change) >= 0.001 || in.moving > 1 || d != 0) return res;  // loop
      converged = true;
    }
  }
  res.converged = converged;
  if (in.warm > 0 && in.maxiter > 0 && in.warm % in.maxiter != 0) {
    res.action = ConvergenceAction::kLoop;
    return res;
  }
  if (in.imputed || in.predict || in.ddf6 || in.ddf_pending || in.force_more)
    res.action = ConvergenceAction::kFurtherIteration;
  else
    res.action = ConvergenceAction::kStop;
  return res;
}

}  // namespace tarnel
