// Small accessors the run driver and the iteration share: checked reads
// and writes of the option vectors, the fault text and the fault exit.
#ifndef TARNEL_CONTROL_RUN_HELPERS_H
#define TARNEL_CONTROL_RUN_HELPERS_H

#include <algorithm>

#include "control/aicontrol.h"
#include "host/console.h"
#include "host/messages.h"

namespace tarnel {

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
