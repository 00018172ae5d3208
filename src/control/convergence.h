// The parameter history of the run driver and its test of convergence.
//
// `keepgammas` keeps a ring of parameter vectors: column 1 holds the values
// of the first iteration, columns 2 to 6 the latest ones in turn.  After a
// bad step the driver pulls the parameters back towards a stored column.
//
// `convergence_test` is the driver's decision after an iteration, as a pure
// function of the iteration state: it changes only the two running values
// it is handed (the last restraint-adjusted log-likelihood and its change).
#ifndef TARNEL_CONTROL_CONVERGENCE_H
#define TARNEL_CONTROL_CONVERGENCE_H

#include "control/engine_types.h"

namespace tarnel {

// The ring: `history` holds 7 columns of `ngamma` values, column j (1..7)
// at history[(j-1)*ngamma].  Mode 0 stores `gammas` into the next column
// (k += 1; at 7 it wraps to 2 and `flag` becomes 6).  Any other mode pulls
// `current` back: for each parameter whose column-1 value isn't 0,
// current = 0.1 gammas + 0.9 (column k), both weights single precision.
// Returns 1 with ifault set when the vectors are too short or k is out of
// range.
int keepgammas(span<double> history, span<const double> gammas, span<double> current,
               int ngamma, int& k, int& flag, int mode, int& ifault);

// What the driver does after an iteration.
enum class ConvergenceAction {
  kLoop,                // go on iterating
  kStop,                // converged: the results follow
  kFurtherIteration,    // converged: one further last iteration is needed
                        // (the driver sets maxiter = iter + 1 and loops)
  kSkipped,             // last iteration: no test made
};

struct ConvergenceInput {
  int iter = 0;              // this iteration, from 1
  bool last_iteration = false;
  double loglik = 0.0;       // this iteration's log-likelihood
  double last_loglik = 0.0;  // the previous iteration's
  int nfrstg = 0;
  int ngamma = 0;
  int id = 1;                // family
  int link = 1;
  int moving = 0;            // aiopt[22]: above 1 holds back convergence
  int restrained = 0;        // aiopt[24]: parameters restrained this iteration
  int quick = 0;             // aiopt[32]: must be positive for the quick test
  int aicond = 1000;         // aiopt[36]: must be 1000 (a normal step)
  int warm = 0;              // warm counter: go on until warm % maxiter == 0
  int maxiter = 0;
  // A further last iteration is needed when any of these holds.
  bool imputed = false;
  bool predict = false;      // npred > 0
  bool ddf6 = false;         // ddf == 6
  bool ddf_pending = false;  // aiopt[2] < 0
  bool force_more = false;   // aiopt[50] > 1
};

struct ConvergenceState {
  double s = 1e-22;          // last loglik + restrained count
  double change = 0.0;       // its last change
};

struct ConvergenceResult {
  ConvergenceAction action = ConvergenceAction::kLoop;
  bool converged = false;    // "LogLikelihood Converged": converge = 1
};

ConvergenceResult convergence_test(const ConvergenceInput& in, ConvergenceState& st);

}  // namespace tarnel

#endif
