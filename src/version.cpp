// The engine's version and build date.
#include "host/utils.h"

namespace tarnel {

// The date of this build of the engine, as "Mmm dd yyyy".
const char kBuildDate[] = "Nov 21 2026";

const char* library_version() { return "tarnel engine 0.1.0, built Nov 21 2026"; }

}  // namespace tarnel
