// The run driver after design formation: the iteration loop with its test
// of convergence and its rules for faults, then the results of the fit.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "control/convergence.h"
#include "control/driver.h"
#include "control/iteration.h"
#include "control/run_helpers.h"
#include "average_info/average_info.h"
#include "host/console.h"
#include "host/messages.h"
#include "prediction/prediction.h"

namespace tarnel {

namespace {

void text_exit(AiControlArgs& a) {
  errortext(a.status.ifault, a.results.errtxt.data(),
            std::min<std::size_t>(a.results.errtxt.size(), 80));
  fault_exit(a);
}

// Writes row `row` (from 1) of the iteration record.
void write_trarray(AiControlArgs& a, int row, span<const double> values) {
  const int ngamma = a.structures.ngamma;
  const std::size_t stride = static_cast<std::size_t>(ngamma) + 3;
  const std::size_t at = (static_cast<std::size_t>(row) - 1) * stride;
  span<double> tr = a.results.trArray;
  if (at + stride > tr.size()) return;
  tr[at] = *a.results.loglik;
  tr[at + 1] = a.results.sigma2[0];
  tr[at + 2] = a.results.nedf[0];
  std::size_t c = at + 3;
  for (int k = a.terms.nfactp + 1; k <= ngamma; ++k) {
    if (a.structures.printGammas[k - 1] != 1) continue;
    tr[c++] = values[k - 1];
  }
}

// Prints and empties the message store.  Returns 1 when a message of
// severity above 3 ends the run.
int empty_message_store(AiControlArgs& a) {
  for (int k = 0; k < MessageStore::kSlots; ++k) {
    const int sev = g5vxer.severity[k];
    if (sev <= 0) continue;
    const std::string text = message_text(k);
    if (sev > 3) {
      a.status.ifault = 1;
      set_errtxt(a, text.c_str());
      clear_message_store();
      return 1;
    }
    const std::string label(severity_label(sev));
    vprt("%s: %s\n", label.c_str(), text.c_str());
    g5vxer.severity[k] = 0;
  }
  return 0;
}

}  // namespace

void run_iterations(AiControlArgs& a, const DesignLayout& layout, i64 floor) {
  AiStatus& st = a.status;
  AiOptions& o = a.options;
  AiTerms& t = a.terms;
  AiStructures& s = a.structures;
  const int ngamma = s.ngamma;
  const int neq = *t.neq;

  // 13. Before the first iteration.
  *a.results.loglik = -12000000000000.0;
  set_errtxt(a, " Solving Equations");
  if (a.glm.id < 2 && !a.results.deviance.empty()) a.results.deviance[0] = 0;
  st.ifault = 1;
  // 14. Records must come in whole units.
  const int per = a.data.keep > 0 ? a.data.keep : std::max(1, a.data.ntrt);
  if (layout.records % per != 0) {
    fault_exit(a);
    return;
  }
  // 15.
  double lastll = f32(-1.2e21);
  int expected_sing = 0;
  const int submod = t.submod ? *t.submod : 0;
  for (int i = 0; i < t.nfactp; ++i)
    if (t.submds[i] > submod) expected_sing += t.rlevel[i];
  // 16. Leading zero parameters are passed over.
  int& nfrstg = *s.nfrstg;
  while (nfrstg < ngamma && s.gammas[nfrstg] == 0.0) ++nfrstg;
  // 17. Generalised models come with their own step.
  if (a.glm.id > 1 || a.glm.link > 1) {
    set_errtxt(a, "Generalised models are not available in this version");
    vprt("Generalised models are not available in this version\n");
    fault_exit(a);
    return;
  }
  if (s.nsect < 1) {
    set_errtxt(a, "The model has no residual section");
    fault_exit(a);
    return;
  }
  // 18.
  set_errtxt(a, "LogLikelihood not converged");
  if (*o.maxiter == 1) set_errtxt(a, "");
  // Prediction tables are set up before the first iteration.
  if (prediction_setup(a)) return;
  const bool predicting = a.predict.npred != nullptr && *a.predict.npred > 0;
  if (o.ddf) *o.ddf = 0;
  if (o.typeiii) *o.typeiii = 0;

  // The driver's blocks: the parameter history, then the iteration's own.
  IterationState it;
  it.design = layout;
  // Seven columns of the history ring, then the parameters of the last
  // good evaluation.
  const i64 nhist = 8 * static_cast<i64>(std::max(ngamma, 1));
  it.floor = floor + nhist;
  if (it.floor + neq / 2 >= static_cast<i64>(a.work.lenx[0])) {
    st.runTrn = 4.0 * neq;
    return;
  }
  span<double> history(a.work.x.r + floor, static_cast<std::size_t>(7 * std::max(ngamma, 1)));
  span<double> lastgood(a.work.x.r + floor + 7 * std::max(ngamma, 1), static_cast<std::size_t>(std::max(ngamma, 1)));
  std::fill(a.work.x.r + floor, a.work.x.r + floor + nhist, 0.0);
  for (int k = 0; k < ngamma; ++k) lastgood[k] = s.gammas[k];
  // A bad step is taken back to a mixture of its parameters and those of the
  // last good evaluation, with the weights of the history ring.
  auto pull_back = [&]() {
    for (int k = 0; k < ngamma; ++k)
      if (history[k] != 0.0)
        s.gammas[k] = 0.10000002384185791 * a.results.prvgam[k] + 0.8999999761581421 * lastgood[k];
  };
  int ifault = 0;
  if (iteration_setup(a, it, ifault)) {
    if (ifault == 6) {
      st.runTrn = static_cast<double>(a.work.lenx[0]);
      st.ifault = 6;
    } else {
      st.ifault = ifault;
      text_exit(a);
    }
    return;
  }
  int hk = 1, hflag = 0;
  {
    // Column 1 of the history holds the starting values.
    for (int k = 0; k < ngamma; ++k) history[k] = s.gammas[k];
  }
  reset_update_state();
  reset_average_info_state();

  int iter = 0, nofit = 0, usmods = 0;
  ConvergenceState cs;
  bool aborted = false;
  bool converged = false;
  etime(1);
  for (;;) {
    ++iter;
    const bool last = iter >= *o.maxiter;
    if (last) aiopt_set(o, 51, 1);
    aiopt_set(o, 19, last && predicting ? 1 : 0);
    const double llfloor = lastll - 10.0;
    aiopt_set(o, 0, (o.debug != 0 && iter <= 2) ? 1 : 0);
    aiopt_set(o, 4, 0);
    int nf = 0;
    g5vitr(a, it, iter, nf);
    st.ifault = nf;
    // Out of workspace, in the equations (6) or while absorbing them
    // (100000 + position): the host calls again with more.
    if (nf == 6 || (nf > 100000 && nf <= 200000)) {
      st.runTrn = static_cast<double>(a.work.lenx[0]);
      return;
    }
    if (o.trace == 1 && aiopt_at(o, 48) > 0)
      vprt("%d negative pivots treated as singularities\n", aiopt_at(o, 48));
    if (nf == 2130) vprt("Residual SS is %f\n", a.results.yssqu.empty() ? 0.0 : it.rss);
    if (nf == 1006) {
      vprt("Tarnel failed to invert a spatially indexed correelation structure\n");
      vprt(" The data may have\n");
      vprt(" duplicate points or the correlations are too high.\n");
    }
    if (empty_message_store(a)) return;
    if (aiopt_at(o, 9) > 0) {
      usmods += aiopt_at(o, 9);
      if (usmods < 10)
        vprt(" US matrix updates modified %d times to remain positive definite.\n", aiopt_at(o, 9));
    }
    const double loglik = *a.results.loglik;
    if (st.ifault > 0) {
      if (aiopt_at(o, 35) > 0) {
        ++nofit;
        set_errtxt(a, "Singularity in Average Information Matrix");
        aborted = true;
        break;
      }
      if (st.ifault > 2000) {
        ++nofit;
        set_errtxt(a, "Iteration failed");
        aborted = true;
        break;
      }
      ++nofit;
      if (nofit == 3 || st.ifault > 52) {
        set_errtxt(a, "Convergence failed");
        vprt("Terminating with nfault = %d\n", st.ifault);
        aborted = true;
        break;
      }
      if (st.ifault <= 9 || iter == 1) {
        text_exit(a);
        return;
      }
      pull_back();
      *o.stepsize = f32(0.1);
      vprt("Likelihood evaluation failed with fault %d - trying again with reduced updates\n", st.ifault);
      --iter;
      continue;
    }
    // A fall in the log-likelihood larger than allowed is a bad step.
    if (iter > 1 && aiopt_at(o, 9) == 0 && loglik < llfloor - f32(0.2) * it.nwv && nofit < 3) {
      ++nofit;
      pull_back();
      *o.stepsize = f32(0.1);
      if (o.trace == 1)
        vprt("Logliklihood decreased to %10.2f - trying again with reduced updates\n", loglik);
      --iter;
      continue;
    }

    // Results of the iteration.
    const int nsing = a.results.nsing[0];
    if (nsing > expected_sing) {
      if (iter == 1 && o.trace == 1)
        vprt("%d singularities detected\n", nsing - expected_sing);
      expected_sing = nsing;
    }
    write_trarray(a, iter, span<const double>(a.results.prvgam.data(), a.results.prvgam.size()));
    if (o.trace == 1) {
      if (iter == 1) vprt("LogLik         S2      DF      wall     cpu\n");
      vprt("%12.4f%12.4f%6d ", loglik, a.results.sigma2[0], a.results.nedf[0]);
      g5vtme(6, "", 0);
      vprt("%8.1f", etime(0));
      if (aiopt_at(o, 24) > 0)
        vprt(" (%d restrained)\n", aiopt_at(o, 24));
      else
        vprt("\n");
    }
    if (aiopt_at(o, 35) > 0) {
      set_errtxt(a, "Singularity in Average Information Matrix");
      vprt("%d singularities inAverage Information Matrix\n", aiopt_at(o, 35));
      aborted = true;
      break;
    }
    int kf = 0;
    keepgammas(history, span<const double>(s.gammas.data(), ngamma), s.gammas, ngamma, hk, hflag, 0, kf);
    for (int k = 0; k < ngamma; ++k) lastgood[k] = a.results.prvgam[k];
    // A step size cut by a bad step or a restrained parameter comes back
    // once the iterations run normally again, so that the last iterations
    // take whole Newton steps.
    if (aiopt_at(o, 24) == 0 && *o.stepsize < 1.0) *o.stepsize = std::min(1.0, 2.0 * *o.stepsize);

    // The test of convergence.
    if (!last) {
      ConvergenceInput ci;
      ci.iter = iter;
      ci.loglik = loglik;
      ci.last_loglik = lastll;
      ci.nfrstg = nfrstg;
      ci.ngamma = ngamma;
      ci.id = a.glm.id;
      ci.link = a.glm.link;
      ci.moving = aiopt_at(o, 22);
      ci.restrained = aiopt_at(o, 24);
      ci.quick = aiopt_at(o, 32);
      ci.aicond = aiopt_at(o, 36);
      ci.maxiter = *o.maxiter;
      ci.predict = predicting;
      const ConvergenceResult cr = convergence_test(ci, cs);
      if (cr.converged) {
        set_errtxt(a, "LogLikelihood Converged");
        *a.results.converge = 1;
        converged = true;
      }
      if (cr.action == ConvergenceAction::kStop) break;
      if (cr.action == ConvergenceAction::kFurtherIteration) *o.maxiter = iter + 1;
    } else {
      break;
    }
    lastll = loglik;
  }
  (void)converged;

  // The end of the fit.
  write_trarray(a, iter + 1, span<const double>(s.gammas.data(), ngamma));
  if (st.ifault < 1 && nofit > 2) {
    vprt("Iteration terminated - nonconvergence\n");
    set_errtxt(a, "Convergence failed");
  }
  if (st.ifault > 0 || aborted) {
    if (st.ifault <= 0) st.ifault = nofit > 0 ? nofit : 1;
    set_errtxt(a, "The estimation was aborted");
    vprt("ABORT\n");
    aiopt_set(o, 44, 0);
    aborted = true;
  }
  if (usmods > 0)
    vprt("US variance structures were modified in %d instances to make them positive definite\n", usmods);
  if (aiopt_at(o, 17) > 0)
    vprt("Warning: %d negative weights may have been treated as zero\n", aiopt_at(o, 17));

  // The dense block of the inverse: the covariance of the fixed effects.
  const double scale = (a.data.ntrt + s.nsect == 2) ? a.results.sigma2[0] : 1.0;
  const int nd = std::max(1, *t.neqd);
  if (!a.results.Cfixed.empty() && a.results.Cfixed[0] > 0 && it.inverse_formed) {
    const std::size_t need = static_cast<std::size_t>(nd) * (nd + 1) / 2;
    for (int p = 1; p <= nd; ++p)
      for (int q = 1; q <= p; ++q) {
        const std::size_t at = static_cast<std::size_t>(p) * (p - 1) / 2 + q - 1;
        if (at < need && at < a.results.Cfixed.size())
          a.results.Cfixed[at] = scale * cinv_at(it.store, it.off, p, q);
      }
  }
  if (!aborted) {
    double hs = a.results.sigma2[0];
    if (a.data.ntrt == 1 && s.nsect == 1 && s.rgmstr[it.scalepos - 1] == 4 &&
        s.gammas[it.scalepos - 1] != 1.0)
      hs = 1.0;
    airhat(a, it, hs);
    prediction_finish(a);
  }
  if (aborted && nofit > 0) {
    st.ifault = nofit;
    text_exit(a);
    return;
  }
  if (st.ifault != 0) vprt("Exit status: %d\n", st.ifault);
}

}  // namespace tarnel
