// Reading R's objects for the engine.
#include "host/r_sexp.h"

#include <cstring>

namespace tarnel {

SEXP elem(SEXP list, const char* str) {
  if (TYPEOF(list) != VECSXP) return R_NilValue;
  SEXP names = Rf_getAttrib(list, R_NamesSymbol);
  if (TYPEOF(names) != STRSXP) return R_NilValue;
  const R_xlen_t n = Rf_xlength(list);
  for (R_xlen_t k = 0; k < n && k < Rf_xlength(names); ++k) {
    if (std::strcmp(R_CHAR(STRING_ELT(names, k)), str) == 0) return VECTOR_ELT(list, k);
  }
  return R_NilValue;
}

int* ielem(SEXP list, int i) {
  if (TYPEOF(list) != VECSXP || i < 0 || i >= Rf_xlength(list)) return nullptr;
  SEXP e = VECTOR_ELT(list, i);
  return TYPEOF(e) == INTSXP ? INTEGER(e) : nullptr;
}

namespace {
[[noreturn]] void fail(const char* name, const char* where, const char* wanted, std::size_t min_len) {
  std::string m = "element '";
  m += name;
  m += "' of '";
  m += where;
  m += "' is missing or is not ";
  m += wanted;
  if (min_len > 0) m += " of length at least " + std::to_string(min_len);
  throw ArgError(m);
}

SEXP typed(SEXP list, const char* name, const char* where, SEXPTYPE type, const char* wanted,
           std::size_t min_len) {
  SEXP e = elem(list, name);
  if (TYPEOF(e) != type || static_cast<std::size_t>(Rf_xlength(e)) < min_len)
    fail(name, where, wanted, min_len);
  return e;
}
}  // namespace

SEXP need_list(SEXP x, const char* what) {
  if (TYPEOF(x) != VECSXP) throw ArgError(std::string("'") + what + "' must be a named list");
  return x;
}

span<int> need_int(SEXP list, const char* name, const char* where, std::size_t min_len) {
  SEXP e = typed(list, name, where, INTSXP, "an integer vector", min_len);
  return span<int>(INTEGER(e), static_cast<std::size_t>(Rf_xlength(e)));
}

span<double> need_real(SEXP list, const char* name, const char* where, std::size_t min_len) {
  SEXP e = typed(list, name, where, REALSXP, "a double vector", min_len);
  return span<double>(REAL(e), static_cast<std::size_t>(Rf_xlength(e)));
}

span<char> need_raw(SEXP list, const char* name, const char* where, std::size_t min_len) {
  SEXP e = typed(list, name, where, RAWSXP, "a raw vector", min_len);
  return span<char>(reinterpret_cast<char*>(RAW(e)), static_cast<std::size_t>(Rf_xlength(e)));
}

int* need_int1(SEXP list, const char* name, const char* where) {
  return need_int(list, name, where, 1).data();
}

double* need_real1(SEXP list, const char* name, const char* where) {
  return need_real(list, name, where, 1).data();
}

span<int> arg_int(SEXP x, const char* name, std::size_t min_len) {
  if (TYPEOF(x) != INTSXP || static_cast<std::size_t>(Rf_xlength(x)) < min_len)
    throw ArgError(std::string("'") + name + "' must be an integer vector" +
                   (min_len ? " of length at least " + std::to_string(min_len) : ""));
  return span<int>(INTEGER(x), static_cast<std::size_t>(Rf_xlength(x)));
}

span<double> arg_real(SEXP x, const char* name, std::size_t min_len) {
  if (TYPEOF(x) != REALSXP || static_cast<std::size_t>(Rf_xlength(x)) < min_len)
    throw ArgError(std::string("'") + name + "' must be a double vector" +
                   (min_len ? " of length at least " + std::to_string(min_len) : ""));
  return span<double>(REAL(x), static_cast<std::size_t>(Rf_xlength(x)));
}

int matrix_rows(SEXP x) {
  SEXP dim = Rf_getAttrib(x, R_DimSymbol);
  if (TYPEOF(dim) == INTSXP && Rf_length(dim) == 2) return INTEGER(dim)[0];
  return Rf_length(x);
}

int matrix_cols(SEXP x) {
  SEXP dim = Rf_getAttrib(x, R_DimSymbol);
  if (TYPEOF(dim) == INTSXP && Rf_length(dim) == 2) return INTEGER(dim)[1];
  return 1;
}

}  // namespace tarnel
