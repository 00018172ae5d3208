// Reading R's objects for the engine: list elements by name, with checks.
//
// A list element that is missing or of the wrong type is an error that
// names it; the error travels as a C++ exception up to the entry, which
// turns it into an R error once its own frame is clean.
#ifndef TARNEL_HOST_R_SEXP_H
#define TARNEL_HOST_R_SEXP_H

#include <R.h>
#include <Rinternals.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "control/engine_types.h"

namespace tarnel {

struct ArgError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The element of `list` whose name is `str`, or R's nil object.
SEXP elem(SEXP list, const char* str);
// The integer data of element i of the list (from 0), or null.
int* ielem(SEXP list, int i);

// Checked access.  `where` names the list for the message.
SEXP need_list(SEXP x, const char* what);
span<int> need_int(SEXP list, const char* name, const char* where, std::size_t min_len = 0);
span<double> need_real(SEXP list, const char* name, const char* where, std::size_t min_len = 0);
span<char> need_raw(SEXP list, const char* name, const char* where, std::size_t min_len = 0);
// A scalar integer element (length at least 1), as a pointer to it.
int* need_int1(SEXP list, const char* name, const char* where);
double* need_real1(SEXP list, const char* name, const char* where);
// Vectors that are arguments rather than list elements.
span<int> arg_int(SEXP x, const char* name, std::size_t min_len = 0);
span<double> arg_real(SEXP x, const char* name, std::size_t min_len = 0);
// Rows and columns of a matrix element (1 column when it has no dim).
int matrix_rows(SEXP x);
int matrix_cols(SEXP x);

}  // namespace tarnel

#endif

namespace tarnel {
// Runs the body of an entry.  An ArgError or other exception from the body
// becomes an R error naming the entry, raised after the C++ frames have
// been unwound.  The body must leave the protection stack balanced.
template <class F>
SEXP guarded(const char* entry, F body) {
  char msg[1024];
  msg[0] = '\0';
  SEXP out = R_NilValue;
  try {
    out = body();
  } catch (const ArgError& e) {
    std::snprintf(msg, sizeof msg, "%s: %s", entry, e.what());
  } catch (const std::exception& e) {
    std::snprintf(msg, sizeof msg, "%s: internal failure: %s", entry, e.what());
  }
  if (msg[0] != '\0') Rf_error("%s", msg);
  return out;
}
}  // namespace tarnel
