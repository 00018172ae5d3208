// The generator of normal draws for sampled solutions.
#include "sparse/random.h"

#include "host/rmath.h"

namespace tarnel {

double rng_uniform(NormalRng& g) {
  g.seed += 0x9E3779B97F4A7C15ULL;
  u64 z = g.seed;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  z ^= z >> 31;
  // The top 53 bits, centred in their cell: (k + 0.5) / 2^53.
  return (static_cast<double>(z >> 11) + 0.5) * (1.0 / 9007199254740992.0);
}

double g5vnrv(NormalRng& g) { return qnorm5(rng_uniform(g), 0.0, 1.0, 1, 0); }

}  // namespace tarnel
