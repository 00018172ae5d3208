// The host's print primitives on R's console.  One of the few files of the
// engine that include R headers.
//
// While R runs a fit, the engine's text is routed: it is kept in a log that
// R returns with the fit, and shown on the console only when the user
// traces the run.  A fit that runs for more than a couple of seconds shows
// one live line of progress (iteration, log-likelihood, change, time) that
// overwrites itself, read from the iteration record the engine fills in
// place.  Outside a fit (the pedigree calls and other entries) text goes
// straight to the console as before.
#include <R.h>
#include <R_ext/Print.h>
#include <Rinternals.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <string>

#include "host/console.h"

namespace tarnel {

namespace {

using Clock = std::chrono::steady_clock;

// The state of the routing.  The engine runs one fit at a time in a
// process (it is not reentrant), so one route serves it.
struct ConsoleRoute {
  bool capture = false;  // keep the text in the log
  bool echo = true;      // show it on the console as well
  std::string log;
  // Progress: the iteration record (rows of `stride` values a column:
  // log-likelihood, residual variance, degrees of freedom, parameters).
  bool progress = false;
  const double* tr = nullptr;
  R_xlen_t trlen = 0;
  int stride = 0;
  Clock::time_point start;
  std::size_t width = 0;  // characters of the line on screen, 0 if none
  bool interrupted = false;  // the user interrupted this run
};
ConsoleRoute route;

constexpr double kProgressAfter = 2.0;  // seconds before the line appears

void draw_progress() {
  if (!route.progress || !route.tr || route.stride < 3) return;
  const double secs = std::chrono::duration<double>(Clock::now() - route.start).count();
  if (secs < kProgressAfter) return;
  const R_xlen_t ncol = route.trlen / route.stride;
  R_xlen_t last = -1;
  for (R_xlen_t j = 0; j < ncol; ++j)
    if (route.tr[j * route.stride] != 0.0) last = j;
  char line[160];
  const double log2pi = std::log(2.0 * M_PI);
  auto standard = [&](R_xlen_t j) {
    return route.tr[j * route.stride] - 0.5 * route.tr[j * route.stride + 2] * log2pi;
  };
  if (last < 0) {
    std::snprintf(line, sizeof line, "tarnel: iteration 1   %.0f s", secs);
  } else {
    const double ll = standard(last);
    if (last > 0)
      std::snprintf(line, sizeof line, "tarnel: iteration %ld   log-likelihood %.4f   change %.4f   %.0f s",
                    static_cast<long>(last + 1), ll, ll - standard(last - 1), secs);
    else
      std::snprintf(line, sizeof line, "tarnel: iteration 1   log-likelihood %.4f   %.0f s", ll, secs);
  }
  const std::size_t n = std::strlen(line);
  std::string pad(route.width > n ? route.width - n : 0, ' ');
  REprintf("\r%s%s", line, pad.c_str());
  route.width = n;
}

void clear_progress() {
  if (route.width == 0) return;
  REprintf("\r%s\r", std::string(route.width, ' ').c_str());
  route.width = 0;
}

void check_interrupt_fn(void*) { R_CheckUserInterrupt(); }

}  // namespace

void host_puts(const char* text) {
  if (route.capture) {
    route.log += text;
    if (!route.echo) return;
  }
  Rprintf("%s", text);
}

void host_vprintf(const char* format, std::va_list ap) {
  if (!route.capture) {
    Rvprintf(format, ap);
    return;
  }
  std::va_list copy;
  va_copy(copy, ap);
  char small[512];
  const int n = std::vsnprintf(small, sizeof small, format, copy);
  va_end(copy);
  std::string text;
  if (n < 0) return;
  if (static_cast<std::size_t>(n) < sizeof small) {
    text.assign(small, static_cast<std::size_t>(n));
  } else {
    text.resize(static_cast<std::size_t>(n) + 1);
    std::vsnprintf(&text[0], text.size(), format, ap);
    text.resize(static_cast<std::size_t>(n));
  }
  route.log += text;
  if (route.echo) Rprintf("%s", text.c_str());
}

// R_CheckUserInterrupt leaves by a jump when the user interrupted; run it
// under R_ToplevelExec so the jump stops there and the engine can end the
// run in order.  The engine polls this between the steps of an iteration
// and now and then inside its long loops, which is also when the progress
// line is brought up to date.  R forgets the interrupt once it has been
// caught, so the answer is kept for the rest of the run.
bool host_interrupt_pending() {
  draw_progress();
  if (!route.interrupted) route.interrupted = R_ToplevelExec(check_interrupt_fn, nullptr) == FALSE;
  return route.interrupted;
}

void host_interrupt_reset() { route.interrupted = false; }

}  // namespace tarnel

extern "C" {

// Starts routing the engine's text into the log.  `echo`: show it on the
// console as well; `progress`: keep a live progress line, read from the
// element `trArray` of the result list `trn`, `stride` values a column.
SEXP console_begin(SEXP echo, SEXP progress, SEXP trn, SEXP stride) {
  using tarnel::route;
  route = tarnel::ConsoleRoute();
  route.capture = true;
  route.echo = Rf_asLogical(echo) == TRUE;
  route.progress = !route.echo && Rf_asLogical(progress) == TRUE;
  route.start = tarnel::Clock::now();
  if (route.progress && TYPEOF(trn) == VECSXP) {
    SEXP names = Rf_getAttrib(trn, R_NamesSymbol);
    for (R_xlen_t k = 0; k < XLENGTH(trn) && names != R_NilValue; ++k) {
      if (std::strcmp(CHAR(STRING_ELT(names, k)), "trArray") != 0) continue;
      SEXP tr = VECTOR_ELT(trn, k);
      if (TYPEOF(tr) == REALSXP) {
        route.tr = REAL(tr);
        route.trlen = XLENGTH(tr);
      }
    }
    route.stride = Rf_asInteger(stride);
  }
  return R_NilValue;
}

// Ends the routing and returns the log as one string.
SEXP console_end() {
  using tarnel::route;
  tarnel::clear_progress();
  SEXP out = PROTECT(Rf_mkCharLenCE(route.log.data(), static_cast<int>(route.log.size()), CE_NATIVE));
  SEXP res = PROTECT(Rf_ScalarString(out));
  route = tarnel::ConsoleRoute();
  UNPROTECT(2);
  return res;
}

}  // extern "C"
