// The host's print primitives on R's console.  One of the few files of the
// engine that include R headers.
#include <R.h>
#include <R_ext/Print.h>
#include <Rinternals.h>

#include "host/console.h"

namespace tarnel {

void host_puts(const char* text) { Rprintf("%s", text); }

void host_vprintf(const char* format, std::va_list ap) { Rvprintf(format, ap); }

namespace {
void check_interrupt_fn(void*) { R_CheckUserInterrupt(); }
}  // namespace

// R_CheckUserInterrupt leaves by a jump when the user interrupted; run it
// under R_ToplevelExec so the jump stops there and the engine can end the
// run in order.
bool host_interrupt_pending() {
  return R_ToplevelExec(check_interrupt_fn, nullptr) == FALSE;
}

}  // namespace tarnel
