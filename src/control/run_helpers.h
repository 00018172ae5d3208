// Small accessors the run driver and the iteration share: checked reads
// and writes of the option vectors, the fault text and the fault exit.
#ifndef TARNEL_CONTROL_RUN_HELPERS_H
#define TARNEL_CONTROL_RUN_HELPERS_H

#include <algorithm>

#include "control/aicontrol.h"
#include "host/console.h"
#include "host/messages.h"

namespace tarnel {

// Positions (from 0) of the shared option and state vector `aiopt` that the
// run driver and the iteration read or write.  The design's own positions
// (kAioptMvact and after) are named beside design formation.
enum AioptPosition : int {
  kAioptDebugNow = 0,       // 1 while this iteration prints its debug lines
  kAioptOrderMethod = 1,    // choice of ordering: <4, 4..6, 7..10, >10
  kAioptProgress = 3,       // 1: progress lines and the kept order file
  kAioptStage = 4,          // stop early: 1 after solving, 2 or 3 before scores;
                            // in a generalised model the inner passes' stage
  kAioptGlmWeights = 7,     // position (from 1) in the known matrices' values
                            // of the first working weight of a generalised model
  kAioptUsModified = 9,     // US matrices made positive definite this iteration
  kAioptNegWeights = 17,    // negative weights treated as zero
  kAioptPredict = 19,       // 1 in the last iteration of a run with predictions
  kAioptMoving = 22,        // parameters still moving after the update
  kAioptRestrained = 24,    // parameters whose update was modified
  kAioptOrderUnit = 31,     // unit of the order file (above 7 to use it)
  kAioptNormalStep = 32,    // positive when the step was a normal one
  kAioptAiSingular = 35,    // singularities in the AI matrix
  kAioptAiCondition = 36,   // 1000 x the share of usable AI pivots
  kAioptSingTol1 = 39,      // the two singularity tolerances of absorption
  kAioptSingTol2 = 40,
  kAioptDdfPass = 41,       // the model needs the final DDF pass
  kAioptDdfOnAbort = 44,    // zeroed when the run aborts
  kAioptNegPivots = 48,     // negative pivots treated as singular
  kAioptLastIteration = 51, // set on the last iteration
  kAioptStrips = 56,        // strips of absorption (1: serial)
};

// The stage limit's values.
constexpr int kStageSolveOnly = 1;
constexpr int kStageWorkingVariates = 2;
constexpr int kStageAverageInfo = 3;

// Positions (from 0) of the shared real vector `optvec`.
enum OptvecPosition : int {
  kOptvecLoglik = 11,      // the last log-likelihood
  kOptvecLogdetC = 12,     // log|C| of the absorbed equations
  kOptvecLogdetRest = 13,  // log|R| + log|G|
  kOptvecLogdetG = 14,     // log|G|
  kOptvecRss = 15,         // the residual sum of squares
  kOptvecDloglik = 17,     // the last change of log-likelihood
};

inline int aiopt_at(const AiOptions& o, int k) {
  return static_cast<std::size_t>(k) < o.aiopt.size() ? o.aiopt[k] : 0;
}
inline void aiopt_set(AiOptions& o, int k, int v) {
  if (static_cast<std::size_t>(k) < o.aiopt.size()) o.aiopt[k] = v;
}
inline double optvec_at(const AiOptions& o, int k) {
  return static_cast<std::size_t>(k) < o.optvec.size() ? o.optvec[k] : 0.0;
}
inline void optvec_set(AiOptions& o, int k, double v) {
  if (static_cast<std::size_t>(k) < o.optvec.size()) o.optvec[k] = v;
}
// Puts a text into the 80-character fault field, blank padded.
inline void set_errtxt(AiControlArgs& a, const char* text) {
  put_text(a.results.errtxt.data(), std::min<std::size_t>(a.results.errtxt.size(), 80), text);
}
// The fault exit: "Fault %d" and a flush.
inline void fault_exit(AiControlArgs& a) {
  vprt("Fault %d\n", a.status.ifault);
  cpflush();
}

}  // namespace tarnel

#endif
