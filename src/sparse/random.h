// Normal draws for sampled solutions of the mixed model equations.
//
// The generator is the engine's own, so that a given seed gives the same
// draws in every build: splitmix64 steps the 64-bit state and gives uniform
// numbers strictly inside (0,1), which the normal quantile function turns
// into standard normal draws (one uniform per draw).
#ifndef TARNEL_SPARSE_RANDOM_H
#define TARNEL_SPARSE_RANDOM_H

#include "control/engine_types.h"

namespace tarnel {

struct NormalRng {
  u64 seed = 0;  // the running state; set it to start a stream
};

// A uniform number in (0,1) (53 random bits, never 0 or 1); steps the state.
double rng_uniform(NormalRng& g);

// g5vnrv: a standard normal draw; steps the state once.
double g5vnrv(NormalRng& g);

}  // namespace tarnel

#endif
