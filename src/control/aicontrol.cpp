// The run driver.
//
// Until the fit control lands this driver returns at once: the entry can be
// called end to end, its checks and tidying run, and no model is fitted.
#include "control/aicontrol.h"

namespace tarnel {

void aicontrol(AiControlArgs& a) {
  (void)a;  // no phases yet: the run ends with status 0 and nothing written
}

}  // namespace tarnel
