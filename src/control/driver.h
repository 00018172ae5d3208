// The run driver's loop over REML iterations and the results of a fit.
#ifndef TARNEL_CONTROL_DRIVER_H
#define TARNEL_CONTROL_DRIVER_H

#include "control/aicontrol.h"
#include "control/iteration.h"

namespace tarnel {

// Runs the iterations on the design rows that formation left, and fills
// the results.  `floor` is the first word above the design rows.
void run_iterations(AiControlArgs& a, const DesignLayout& layout, i64 floor);

}  // namespace tarnel

#endif
