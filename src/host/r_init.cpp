// Registration of the native entries.
#include <R.h>
#include <R_ext/Rdynload.h>
#include <Rinternals.h>

extern "C" {
SEXP ctrn(SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP);
SEXP design_rows(SEXP, SEXP);
SEXP record_major(SEXP);
SEXP about(SEXP, SEXP, SEXP, SEXP);
SEXP aimat(SEXP, SEXP, SEXP, SEXP, SEXP, SEXP);
SEXP canBeNumeric(SEXP, SEXP, SEXP);
SEXP int2char(SEXP, SEXP, SEXP);
SEXP a2i(SEXP);
SEXP mvpatch(SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP);
SEXP rTextCopy(SEXP, SEXP, SEXP, SEXP);
SEXP Shelp(SEXP, SEXP);
SEXP orthpoly(SEXP, SEXP);
SEXP spline_basis(SEXP, SEXP, SEXP, SEXP);
SEXP legendre_basis(SEXP, SEXP);
SEXP tarnel_bench_absorb(SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP);
SEXP pdsort(SEXP, SEXP, SEXP, SEXP, SEXP, SEXP);
SEXP sortpedigree(SEXP, SEXP, SEXP, SEXP, SEXP, SEXP);
SEXP pmat(SEXP, SEXP, SEXP);
SEXP pedigree(SEXP, SEXP, SEXP, SEXP, SEXP, SEXP);
SEXP variogram(SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP, SEXP,
               SEXP, SEXP, SEXP);
SEXP console_begin(SEXP, SEXP, SEXP, SEXP);
SEXP console_end();

static const R_CallMethodDef call_entries[] = {
    {"ctrn", (DL_FUNC)&ctrn, 14},
    {"design_rows", (DL_FUNC)&design_rows, 2},
    {"record_major", (DL_FUNC)&record_major, 1},
    {"about", (DL_FUNC)&about, 4},
    {"aimat", (DL_FUNC)&aimat, 6},
    {"canBeNumeric", (DL_FUNC)&canBeNumeric, 3},
    {"int2char", (DL_FUNC)&int2char, 3},
    {"a2i", (DL_FUNC)&a2i, 1},
    {"mvpatch", (DL_FUNC)&mvpatch, 10},
    {"rTextCopy", (DL_FUNC)&rTextCopy, 4},
    {"Shelp", (DL_FUNC)&Shelp, 2},
    {"orthpoly", (DL_FUNC)&orthpoly, 2},
    {"spline_basis", (DL_FUNC)&spline_basis, 4},
    {"legendre_basis", (DL_FUNC)&legendre_basis, 2},
    {"tarnel_bench_absorb", (DL_FUNC)&tarnel_bench_absorb, 7},
    {"pdsort", (DL_FUNC)&pdsort, 6},
    {"sortpedigree", (DL_FUNC)&sortpedigree, 6},
    {"pmat", (DL_FUNC)&pmat, 3},
    {"pedigree", (DL_FUNC)&pedigree, 6},
    {"variogram", (DL_FUNC)&variogram, 20},
    {"console_begin", (DL_FUNC)&console_begin, 4},
    {"console_end", (DL_FUNC)&console_end, 0},
    {nullptr, nullptr, 0}};

void R_init_tarnel(DllInfo* dll) {
  R_registerRoutines(dll, nullptr, call_entries, nullptr, nullptr);
  R_useDynamicSymbols(dll, FALSE);
  R_forceSymbols(dll, TRUE);
}
}
