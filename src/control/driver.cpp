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
#include "generalised/generalised.h"
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

// One fit's iterations and their results.  `run_iterations` walks four
// steps: the checks before the first iteration (`prepare_run`), the
// driver's blocks (`carve_driver_blocks`), the loop of iterations, each one
// judged by `judge_iteration`, recorded by `record_iteration` and tested by
// `test_convergence`, and last the results of the fit (`finish_fit`).

// What the driver carries through the iterations of one fit.
struct FitRun {
  explicit FitRun(AiControlArgs& args) : a(args) {}
  AiControlArgs& a;
  IterationState it;
  span<double> history;    // the history ring: seven columns of ngamma
  span<double> lastgood;   // the parameters of the last good evaluation
  int hk = 1, hflag = 0;   // the ring's column and wrap flag
  int iter = 0;            // iterations done, from 1
  int nofit = 0;           // failed evaluations
  int usmods = 0;          // US matrices made positive definite
  int expected_sing = 0;   // singularities the model is known to have
  double lastll = f32(-1.2e21);
  ConvergenceState convergence;
  bool aborted = false;
  bool predicting = false;  // prediction tables are formed in the last iteration
  // A generalised model: its family, the step's pass over the records, the
  // counter of inner passes and the deviance of the last iteration.
  bool glm = false;
  GlmModel family;
  GlmmPass pass;
  int glm_counter = 6;
  double last_deviance = 0;
  bool glm_failed = false;
};

// What the loop does after a step of an iteration.
enum class LoopAction {
  kNext,    // go on with this iteration
  kRetry,   // evaluate again with reduced updates, not counting this one
  kEnd,     // leave the loop for the results of the fit
  kReturn,  // leave the driver at once
};

// 13-18. Before the first iteration.  Returns false after a fault exit.
bool prepare_run(FitRun& run, const DesignLayout& layout) {
  AiControlArgs& a = run.a;
  AiStatus& st = a.status;
  AiOptions& o = a.options;
  AiTerms& t = a.terms;
  AiStructures& s = a.structures;
  *a.results.loglik = -12000000000000.0;
  set_errtxt(a, " Solving Equations");
  if (a.glm.id < 2 && !a.results.deviance.empty()) a.results.deviance[0] = 0;
  st.ifault = 1;
  // Records must come in whole units.
  const int per = a.data.keep > 0 ? a.data.keep : std::max(1, a.data.ntrt);
  if (layout.records % per != 0) {
    fault_exit(a);
    return false;
  }
  const int submod = t.submod ? *t.submod : 0;
  for (int i = 0; i < t.nfactp; ++i)
    if (t.submds[i] > submod) run.expected_sing += t.rlevel[i];
  // Leading zero parameters are passed over.
  int& nfrstg = *s.nfrstg;
  while (nfrstg < s.ngamma && s.gammas[nfrstg] == 0.0) ++nfrstg;
  // Generalised models: one residual section of records weighted by the
  // step's weights.
  if (a.glm.id > 1 || a.glm.link > 1) {
    set_errtxt(a, "Data structure does not suit GLMM");
    if (s.nsect > 1 || (a.glm.id != kFamilyMultinomial && s.nspat > 1)) {
      fault_exit(a);
      return false;
    }
    if (a.glm.id > kFamilyNegBinomial && a.glm.id != kFamilyMultinomial) {
      set_errtxt(a, "Cumulative multinomial models are not available in this version");
      vprt("Cumulative multinomial models are not available in this version\n");
      fault_exit(a);
      return false;
    }
    run.glm = true;
    run.last_deviance = a.results.deviance.empty() ? 0.0 : a.results.deviance[0];
  }
  if (s.nsect < 1) {
    set_errtxt(a, "The model has no residual section");
    fault_exit(a);
    return false;
  }
  set_errtxt(a, "LogLikelihood not converged");
  if (*o.maxiter == 1) set_errtxt(a, "");
  // Prediction tables are set up before the first iteration.
  if (prediction_setup(a)) return false;
  run.predicting = a.predict.npred != nullptr && *a.predict.npred > 0;
  if (o.ddf) *o.ddf = 0;
  return true;
}

bool setup_glm_pass(FitRun& run, const DesignLayout& layout, i64 base);

// The driver's blocks from `floor` up: seven columns of the history ring,
// the parameters of the last good evaluation, then the iteration's own.
// Returns false when the run cannot go on.
bool carve_driver_blocks(FitRun& run, const DesignLayout& layout, i64 floor) {
  AiControlArgs& a = run.a;
  AiStatus& st = a.status;
  AiStructures& s = a.structures;
  const int ngamma = s.ngamma;
  const int ncol = std::max(ngamma, 1);
  run.it.design = layout;
  const i64 nhist = 8 * static_cast<i64>(ncol);
  i64 nglm = run.glm ? 4 * layout.records : 0;
  if (run.glm && a.glm.id == kFamilyMultinomial)
    nglm += ordinal_words(layout.nonzero, a.glm.thrlevels.empty() ? 0 : std::max(a.glm.thrlevels[0], 0));
  run.it.floor = floor + nhist + nglm;
  if (run.it.floor + *a.terms.neq / 2 >= static_cast<i64>(a.work.lenx[0])) {
    st.runTrn = 4.0 * *a.terms.neq;
    return false;
  }
  run.history = span<double>(a.work.x.r + floor, static_cast<std::size_t>(7 * ncol));
  run.lastgood = span<double>(a.work.x.r + floor + 7 * ncol, static_cast<std::size_t>(ncol));
  std::fill(a.work.x.r + floor, a.work.x.r + floor + nhist, 0.0);
  for (int k = 0; k < ngamma; ++k) run.lastgood[k] = s.gammas[k];
  int ifault = 0;
  if (iteration_setup(a, run.it, ifault)) {
    if (ifault == 6) {
      st.runTrn = static_cast<double>(a.work.lenx[0]);
      st.ifault = 6;
    } else {
      st.ifault = ifault;
      text_exit(a);
    }
    return false;
  }
  // The fixed part of the equations for the Wald tests; none when short of room.
  wald_reserve(a.work.x.r, run.it.vtop, run.it.floor, a.terms, run.it.wald);
  // Column 1 of the history holds the starting values.
  for (int k = 0; k < ngamma; ++k) run.history[k] = s.gammas[k];
  if (run.glm && !setup_glm_pass(run, layout, floor + nhist)) {
    fault_exit(a);
    return false;
  }
  return true;
}

// The rows of a cumulative multinomial model: `thrlevels` holds the number
// of thresholds k and the equation of the second threshold (the later
// ones follow it); records come in whole units of k rows.  From `blk`: the
// copy of the design values, the thresholds' starts and the scratch.
bool setup_ordinal_rows(FitRun& run, const DesignLayout& layout, double* blk) {
  const AiControlArgs& a = run.a;
  OrdinalRows& o = run.pass.ordinal;
  const int k = a.glm.thrlevels.empty() ? 0 : a.glm.thrlevels[0];
  const i32 first = a.glm.thrlevels.size() > 1 ? a.glm.thrlevels[1] : 0;
  const i64 records = layout.records;
  if (k < 1 || records % k != 0 || (k > 1 && (first < 2 || first + k - 2 > *a.terms.neq)) ||
      run.pass.start[records] - 1 > layout.nonzero) {
    vprt(" The thresholds of the cumulative multinomial model do not fit its design\n");
    return false;
  }
  o.k = k;
  o.first_eq = first;
  o.base = 0;
  o.orig = span<double>(blk, static_cast<std::size_t>(layout.nonzero));
  o.start = span<double>(blk + layout.nonzero, static_cast<std::size_t>(k));
  o.scratch = span<double>(blk + layout.nonzero + k, static_cast<std::size_t>(6 * k + 1));
  o.ready = false;
  return true;
}

// The generalised step's view of the design rows, and four blocks of a
// word a row from `base`: the responses as formed, the group sizes or
// prior weights, the offsets and the linear predictors.  The working weights go into the known
// diagonal matrix whose first value stands at position aiopt[7] of the
// known matrices' values.  Returns false when that place does not fit.
bool setup_glm_pass(FitRun& run, const DesignLayout& layout, i64 base) {
  AiControlArgs& a = run.a;
  const AiData& d = a.data;
  const i64 records = layout.records;
  const int wpos = aiopt_at(a.options, kAioptGlmWeights);
  if (wpos < 2 || static_cast<std::size_t>(wpos - 1 + records) > a.known.ainv.size()) {
    vprt(" The working weights have no place among the known matrices\n");
    return false;
  }
  run.family.id = a.glm.id;
  run.family.link = a.glm.link;
  run.family.phi = a.glm.glmphi.empty() ? 1.0 : a.glm.glmphi[0];
  GlmmPass& p = run.pass;
  p.val = a.work.x.r + layout.kyxz;
  p.col = a.work.x.i + 2 * (layout.kyxz + static_cast<u64>(layout.nonzero));
  p.start = span<const i64>(run.it.start.data(), run.it.start.size());
  p.records = records;
  double* blk = a.work.x.r + base;
  p.ykeep = span<double>(blk, static_cast<std::size_t>(records));
  span<double> n(blk + records, static_cast<std::size_t>(records));
  span<double> off(blk + 2 * records, static_cast<std::size_t>(records));
  const u64 nrows = static_cast<u64>(d.nrow) * static_cast<u64>(std::max(d.ntrt, 1));
  const i32* rec = a.work.x.i + 2 * (layout.K - nrows);
  for (i64 r = 0; r < records; ++r) {
    p.ykeep[r] = p.val[p.start[r] - 1];
    const i64 row = static_cast<i64>(rec[r]) - 1;
    const std::size_t at = static_cast<std::size_t>(row) * static_cast<std::size_t>(d.lbin);
    n[r] = d.wtcol > 0 ? d.datafr[at + d.wtcol - 1] : 1.0;
    off[r] = d.offsetcol > 0 ? d.datafr[at + d.offsetcol - 1] : 0.0;
  }
  p.n = span<const double>(n.data(), n.size());
  p.eta = span<double>(blk + 3 * records, static_cast<std::size_t>(records));
  if (d.offsetcol > 0) p.offset = span<const double>(off.data(), off.size());
  p.soln = span<const double>(a.results.soln.data(), static_cast<std::size_t>(*a.terms.neq));
  p.weights = a.known.ainv.subspan(static_cast<std::size_t>(wpos - 1), static_cast<std::size_t>(records));
  p.weights_logdet = &a.known.ainv[static_cast<std::size_t>(wpos - 2)];
  if (run.family.id == kFamilyMultinomial) return setup_ordinal_rows(run, layout, blk + 4 * records);
  return true;
}

// One pass of the generalised step before an iteration.  The count it is
// given is the iteration plus the stage of the pass; the stage (solve
// only, or stop before the scores) follows from the counter of passes.
// Returns false after a failure of the step.
bool glm_step(FitRun& run) {
  AiControlArgs& a = run.a;
  AiOptions& o = a.options;
  run.pass.count = run.iter + aiopt_at(o, kAioptStage);
  const int status = aiglmm(run.family, run.pass);
  if (status != 0) {
    vprt("Program failure fitting GLM\n");
    a.status.ifault = status + 300000;
    run.glm_failed = true;
    return false;
  }
  a.glm.link = run.family.link;
  if (!a.results.deviance.empty()) a.results.deviance[0] = -run.pass.deviance;
  --run.glm_counter;
  aiopt_set(o, kAioptStage, std::max(run.glm_counter, 0) / 2);
  return true;
}

// A bad step is taken back to a mixture of its parameters and those of the
// last good evaluation, with the weights of the history ring, and the step
// size is cut.
void pull_back(FitRun& run) {
  AiControlArgs& a = run.a;
  for (int k = 0; k < a.structures.ngamma; ++k)
    if (run.history[k] != 0.0)
      a.structures.gammas[k] = 0.10000002384185791 * a.results.prvgam[k] + 0.8999999761581421 * run.lastgood[k];
  *a.options.stepsize = f32(0.1);
}

// What an iteration left: a shortage of workspace, the texts of its
// faults, the message store and the US modifications.
LoopAction after_iteration(FitRun& run, int nf) {
  AiControlArgs& a = run.a;
  AiOptions& o = a.options;
  // Out of workspace, in the equations (6) or while absorbing them
  // (100000 + position): the host calls again with more.
  if (nf == 6 || (nf > 100000 && nf <= 200000)) {
    a.status.runTrn = static_cast<double>(a.work.lenx[0]);
    return LoopAction::kReturn;
  }
  if (o.trace == 1 && aiopt_at(o, kAioptNegPivots) > 0)
    vprt("%d negative pivots treated as singularities\n", aiopt_at(o, kAioptNegPivots));
  if (nf == 2130) vprt("Residual SS is %f\n", a.results.yssqu.empty() ? 0.0 : run.it.rss);
  if (nf == 1006) {
    vprt("Tarnel failed to invert a spatially indexed correelation structure\n");
    vprt(" The data may have\n");
    vprt(" duplicate points or the correlations are too high.\n");
  }
  if (empty_message_store(a)) return LoopAction::kReturn;
  const int modified = aiopt_at(o, kAioptUsModified);
  if (modified > 0) {
    run.usmods += modified;
    if (run.usmods < 10) vprt(" US matrix updates modified %d times to remain positive definite.\n", modified);
  }
  return LoopAction::kNext;
}

// A failed evaluation, or a fall of the log-likelihood below `llfloor`
// less its allowance: abort, give up, or try again with reduced updates.
LoopAction judge_iteration(FitRun& run, double llfloor) {
  AiControlArgs& a = run.a;
  AiStatus& st = a.status;
  AiOptions& o = a.options;
  const double loglik = *a.results.loglik;
  if (st.ifault > 0) {
    ++run.nofit;
    if (aiopt_at(o, kAioptAiSingular) > 0) {
      set_errtxt(a, "Singularity in Average Information Matrix");
      run.aborted = true;
      return LoopAction::kEnd;
    }
    if (st.ifault > 2000) {
      set_errtxt(a, "Iteration failed");
      run.aborted = true;
      return LoopAction::kEnd;
    }
    if (run.nofit == 3 || st.ifault > 52) {
      set_errtxt(a, "Convergence failed");
      vprt("Terminating with nfault = %d\n", st.ifault);
      run.aborted = true;
      return LoopAction::kEnd;
    }
    if (st.ifault <= 9 || run.iter == 1) {
      text_exit(a);
      return LoopAction::kReturn;
    }
    pull_back(run);
    vprt("Likelihood evaluation failed with fault %d - trying again with reduced updates\n", st.ifault);
    return LoopAction::kRetry;
  }
  // A fall in the log-likelihood larger than allowed is a bad step.
  if (!run.glm && run.iter > 1 && aiopt_at(o, kAioptUsModified) == 0 &&
      loglik < llfloor - f32(0.2) * run.it.nwv && run.nofit < 3) {
    ++run.nofit;
    pull_back(run);
    if (o.trace == 1) vprt("Logliklihood decreased to %10.2f - trying again with reduced updates\n", loglik);
    return LoopAction::kRetry;
  }
  return LoopAction::kNext;
}

// The results of a good iteration: singularities, the iteration record,
// the log line, and the history of the parameters.
LoopAction record_iteration(FitRun& run) {
  AiControlArgs& a = run.a;
  AiOptions& o = a.options;
  AiStructures& s = a.structures;
  const int ngamma = s.ngamma;
  const double loglik = *a.results.loglik;
  const int nsing = a.results.nsing[0];
  if (nsing > run.expected_sing) {
    if (run.iter == 1 && o.trace == 1) vprt("%d singularities detected\n", nsing - run.expected_sing);
    run.expected_sing = nsing;
  }
  write_trarray(a, run.iter, span<const double>(a.results.prvgam.data(), a.results.prvgam.size()));
  if (o.trace == 1) {
    if (run.iter == 1) vprt("LogLik         S2      DF      wall     cpu\n");
    vprt("%12.4f%12.4f%6d ", loglik, a.results.sigma2[0], a.results.nedf[0]);
    g5vtme(6, "", 0);
    vprt("%8.1f", etime(0));
    if (aiopt_at(o, kAioptRestrained) > 0)
      vprt(" (%d restrained)\n", aiopt_at(o, kAioptRestrained));
    else
      vprt("\n");
  }
  if (aiopt_at(o, kAioptAiSingular) > 0) {
    set_errtxt(a, "Singularity in Average Information Matrix");
    vprt("%d singularities inAverage Information Matrix\n", aiopt_at(o, kAioptAiSingular));
    run.aborted = true;
    return LoopAction::kEnd;
  }
  int kf = 0;
  keepgammas(run.history, span<const double>(s.gammas.data(), ngamma), s.gammas, ngamma, run.hk, run.hflag, 0,
             kf);
  for (int k = 0; k < ngamma; ++k) run.lastgood[k] = a.results.prvgam[k];
  // A step size cut by a bad step or a restrained parameter comes back
  // once the iterations run normally again, so that the last iterations
  // take whole Newton steps.
  // A generalised model takes a step of 0.01 on its first iteration, while
  // its working variate settles from the crude start of the linear
  // predictor, and whole steps after it.
  if (aiopt_at(o, kAioptRestrained) == 0 && *o.stepsize < 1.0)
    *o.stepsize = run.glm ? 1.0 : std::min(1.0, 2.0 * *o.stepsize);
  return LoopAction::kNext;
}

// The test of convergence, skipped on the last iteration (which ends the
// loop).  A converged run may ask for one further iteration.
LoopAction test_convergence(FitRun& run, bool last) {
  if (last) return LoopAction::kEnd;
  AiControlArgs& a = run.a;
  AiOptions& o = a.options;
  ConvergenceInput ci;
  ci.iter = run.iter;
  ci.loglik = *a.results.loglik;
  ci.last_loglik = run.lastll;
  ci.nfrstg = *a.structures.nfrstg;
  ci.ngamma = a.structures.ngamma;
  ci.id = a.glm.id;
  ci.link = a.glm.link;
  ci.moving = aiopt_at(o, kAioptMoving);
  ci.restrained = aiopt_at(o, kAioptRestrained);
  ci.quick = aiopt_at(o, kAioptNormalStep);
  ci.aicond = aiopt_at(o, kAioptAiCondition);
  ci.maxiter = *o.maxiter;
  ci.predict = run.predicting;
  const ConvergenceResult cr = convergence_test(ci, run.convergence);
  if (run.glm) {
    // A generalised model also waits for its deviance to settle, and with
    // no variance parameter to estimate (where the log-likelihood says
    // little) for its linear predictor.
    const double dev = run.pass.deviance, change = std::fabs(dev - run.last_deviance);
    run.last_deviance = dev;
    const bool eta_moving = run.it.nwv == 0 && run.pass.eta_change > 1e-7;
    if (cr.converged && (change > 1e-8 * (std::fabs(dev) + 1.0) || eta_moving)) return LoopAction::kNext;
  }
  if (cr.converged) {
    set_errtxt(a, "LogLikelihood Converged");
    *a.results.converge = 1;
  }
  if (cr.action == ConvergenceAction::kStop) return LoopAction::kEnd;
  if (cr.action == ConvergenceAction::kFurtherIteration) *o.maxiter = run.iter + 1;
  return LoopAction::kNext;
}

// One evaluation: in a generalised model the passes of the step and the
// equations of each, the last pass a whole iteration; otherwise the one
// iteration.
LoopAction evaluate(FitRun& run, bool last) {
  AiControlArgs& a = run.a;
  AiOptions& o = a.options;
  const double llfloor = run.lastll - 10.0;
  aiopt_set(o, kAioptStage, 0);
  for (;;) {
    if (run.glm && !glm_step(run)) {
      if (run.pass.count > 1) return LoopAction::kEnd;
      text_exit(a);  // bad data: nothing was fitted
      return LoopAction::kReturn;
    }
    aiopt_set(o, kAioptDebugNow, (o.debug != 0 && run.iter <= 2) ? 1 : 0);
    int nf = 0;
    g5vitr(a, run.it, run.iter, nf);
    a.status.ifault = nf;
    LoopAction next = after_iteration(run, nf);
    if (next == LoopAction::kNext) next = judge_iteration(run, llfloor);
    if (next != LoopAction::kNext) return next;
    if (!run.glm || aiopt_at(o, kAioptStage) == 0) break;
  }
  run.glm_counter = 4;
  // The deviance of each iteration, behind the current one, when the host
  // gave room for it.
  if (run.glm && static_cast<std::size_t>(run.iter) < a.results.deviance.size())
    a.results.deviance[run.iter] = -run.pass.deviance;
  if (run.glm && run.it.nwv == 0) {
    // Nothing but the fixed effects: the equations alone say when to stop.
    aiopt_set(o, kAioptMoving, 0);
    aiopt_set(o, kAioptRestrained, 0);
    aiopt_set(o, kAioptNormalStep, 1);
    aiopt_set(o, kAioptAiCondition, 1000);
  }
  LoopAction next = record_iteration(run);
  if (next == LoopAction::kNext) next = test_convergence(run, last);
  return next;
}

// The loop of iterations.  Returns false when the driver must leave at
// once, true for the results of the fit.
bool iterate(FitRun& run) {
  AiControlArgs& a = run.a;
  AiOptions& o = a.options;
  for (;;) {
    ++run.iter;
    const bool last = run.iter >= *o.maxiter;
    if (last) aiopt_set(o, kAioptLastIteration, 1);
    aiopt_set(o, kAioptPredict, last && run.predicting ? 1 : 0);
    const LoopAction next = evaluate(run, last);
    if (next == LoopAction::kReturn) return false;
    if (next == LoopAction::kEnd) return true;
    if (next == LoopAction::kRetry) {
      --run.iter;
      run.glm_counter = 2;
      continue;
    }
    run.lastll = *a.results.loglik;
  }
}

// The results that need the equations of the last iteration: the dense
// block of the inverse (the covariance of the fixed effects), then the
// fitted values, residuals and prediction error variances.
void results_after_fit(FitRun& run) {
  AiControlArgs& a = run.a;
  AiStructures& s = a.structures;
  IterationState& it = run.it;
  const double scale = (a.data.ntrt + s.nsect == 2) ? a.results.sigma2[0] : 1.0;
  const int nd = std::max(1, *a.terms.neqd);
  if (!a.results.Cfixed.empty() && a.results.Cfixed[0] > 0 && it.inverse_formed) {
    const std::size_t need = static_cast<std::size_t>(nd) * (nd + 1) / 2;
    for (int p = 1; p <= nd; ++p)
      for (int q = 1; q <= p; ++q) {
        const std::size_t at = static_cast<std::size_t>(p) * (p - 1) / 2 + q - 1;
        if (at < need && at < a.results.Cfixed.size()) a.results.Cfixed[at] = scale * cinv_at(it.store, it.off, p, q);
      }
  }
  if (!run.aborted || run.glm_failed) {
    double hs = a.results.sigma2[0];
    if (a.data.ntrt == 1 && s.nsect == 1 && s.rgmstr[it.scalepos - 1] == 4 && s.gammas[it.scalepos - 1] != 1.0)
      hs = 1.0;
    airhat(a, it, hs);
    prediction_finish(a);
    wald_after_fit(a, it.wald, it.profiled ? a.results.sigma2[0] : 1.0);
  }
}

// The deviance of a generalised model, stored negated, in the log.
void print_deviance(FitRun& run) {
  AiControlArgs& a = run.a;
  if (a.options.trace != 1 || a.results.deviance.empty() || a.results.deviance[0] == 0) return;
  const double dev = -a.results.deviance[0];
  const int nedf = a.results.nedf[0];
  vprt("Deviance fron GLM fit:%9.2f\n", dev);
  vprt("Variance heterogenity factor (Deviance/df):%8.2f\n", nedf > 0 ? dev / nedf : 0.0);
  vprt("(assuming %d degrees of freedom)\n", nedf);
}

// The end of the fit: the last row of the iteration record, the texts of
// an unfinished run, the results, and the exit status.
void finish_fit(FitRun& run) {
  AiControlArgs& a = run.a;
  AiStatus& st = a.status;
  AiOptions& o = a.options;
  AiStructures& s = a.structures;
  write_trarray(a, run.iter + 1, span<const double>(s.gammas.data(), s.ngamma));
  if (st.ifault < 1 && run.nofit > 2) {
    vprt("Iteration terminated - nonconvergence\n");
    set_errtxt(a, "Convergence failed");
  }
  if (st.ifault > 0 || run.aborted) {
    if (st.ifault <= 0) st.ifault = run.nofit > 0 ? run.nofit : 1;
    set_errtxt(a, "The estimation was aborted");
    vprt("ABORT\n");
    aiopt_set(o, kAioptDdfOnAbort, 0);
    run.aborted = true;
  }
  if (run.usmods > 0)
    vprt("US variance structures were modified in %d instances to make them positive definite\n", run.usmods);
  if (aiopt_at(o, kAioptNegWeights) > 0)
    vprt("Warning: %d negative weights may have been treated as zero\n", aiopt_at(o, kAioptNegWeights));
  results_after_fit(run);
  if (run.glm && !run.aborted) print_deviance(run);
  if (run.glm_failed) {
    text_exit(a);
    return;
  }
  if (run.aborted && run.nofit > 0) {
    st.ifault = run.nofit;
    text_exit(a);
    return;
  }
  if (st.ifault != 0) vprt("Exit status: %d\n", st.ifault);
}

}  // namespace

void run_iterations(AiControlArgs& a, const DesignLayout& layout, i64 floor) {
  FitRun run(a);
  if (!prepare_run(run, layout)) return;
  if (!carve_driver_blocks(run, layout, floor)) return;
  reset_update_state();
  reset_average_info_state();
  etime(1);
  if (!iterate(run)) return;
  finish_fit(run);
}

}  // namespace tarnel
