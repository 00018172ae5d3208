// The pedigree entries as R calls them: sorting a pedigree of text
// identities (pdsort) or integer codes (sortpedigree), turning a sorted
// pedigree into row positions (pmat), and forming the inverse relationship
// matrix (pedigree).  Every size and code from R is checked here or in the
// routine it is handed to; the sorts report their failures as text, which
// the R functions raise.
#include <R.h>
#include <Rinternals.h>

#include <climits>
#include <cmath>
#include <string>
#include <vector>

#include "host/ctrn.h"
#include "host/messages.h"
#include "host/r_sexp.h"
#include "pedigree/band.h"
#include "pedigree/g5vaig.h"
#include "pedigree/psort.h"

using namespace tarnel;

namespace {

int one_int(SEXP x, const char* name) { return arg_int(x, name, 1)[0]; }
double one_real(SEXP x, const char* name) { return arg_real(x, name, 1)[0]; }

void check(bool ok, const std::string& msg) {
  if (!ok) throw ArgError(msg);
}

SEXP need_strings(SEXP x, const char* name, R_xlen_t min_len) {
  check(TYPEOF(x) == STRSXP && Rf_xlength(x) >= min_len,
        std::string("'") + name + "' must be a character vector of length at least " +
            std::to_string(static_cast<long long>(min_len)));
  return x;
}

// Pointers to the strings of a character vector; NA becomes the unknown
// parent's mark.
std::vector<const char*> string_pointers(SEXP x, R_xlen_t n) {
  std::vector<const char*> p(static_cast<std::size_t>(n));
  for (R_xlen_t k = 0; k < n; ++k) {
    SEXP e = STRING_ELT(x, k);
    p[static_cast<std::size_t>(k)] = e == NA_STRING ? kUnknownParent : R_CHAR(e);
  }
  return p;
}

// A named list filled one element at a time, so that each new element is
// protected by the list as soon as it exists.  Holds two protections.
struct ListOut {
  SEXP out, nm;
  int k = 0;
  explicit ListOut(int n) {
    out = PROTECT(Rf_allocVector(VECSXP, n));
    nm = PROTECT(Rf_allocVector(STRSXP, n));
    Rf_setAttrib(out, R_NamesSymbol, nm);
  }
  void add(const char* name, SEXP v) {
    SET_VECTOR_ELT(out, k, v);
    SET_STRING_ELT(nm, k++, Rf_mkChar(name));
  }
};

SEXP matrix_dim(SEXP x, int rows, int cols) {
  SEXP dim = PROTECT(Rf_allocVector(INTSXP, 2));
  INTEGER(dim)[0] = rows;
  INTEGER(dim)[1] = cols;
  Rf_setAttrib(x, R_DimSymbol, dim);
  UNPROTECT(1);
  return x;
}

// Trailing newline off an error text.
std::string chomp(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
  return s;
}

void check_sizes(int lped, int nan) {
  check(lped >= 0, "'lped' must not be negative");
  check(nan >= lped, "'nan' must be at least 'lped'");
  check(nan < INT_MAX / 4, "'nan' is too large");
}

}  // namespace

extern "C" {

// pdsort(lped, nan, lvls, oldped, col4, fg): the sorted pedigree as a
// character matrix of nan rows, its fgen column and the error text.
SEXP pdsort(SEXP lped_, SEXP nan_, SEXP lvls_, SEXP oldped_, SEXP col4_, SEXP fg_) {
  return guarded("pdsort", [&] {
    const int lped = one_int(lped_, "lped"), nan = one_int(nan_, "nan");
    check_sizes(lped, nan);
    need_strings(lvls_, "lvls", nan);
    need_strings(oldped_, "oldped", 3 * static_cast<R_xlen_t>(lped));
    span<double> col4 = arg_real(col4_, "col4", 1);
    const double fg = one_real(fg_, "fg");
    const bool use_fgen = std::isnan(col4[0]) || col4[0] > -1;
    check(!use_fgen || col4.size() >= static_cast<std::size_t>(lped),
          "'col4' must hold one value a record");
    for (R_xlen_t k = 0; k < nan; ++k)
      check(STRING_ELT(lvls_, k) != NA_STRING, "'lvls' must not hold NA");
    std::vector<const char*> lv = string_pointers(lvls_, nan);
    std::vector<const char*> old = string_pointers(oldped_, 3 * static_cast<R_xlen_t>(lped));
    const std::size_t n = static_cast<std::size_t>(nan);
    std::vector<const char*> newped(3 * n);
    std::vector<int> codes(3 * n);
    SEXP fgen = PROTECT(Rf_allocVector(REALSXP, use_fgen ? nan : 0));
    std::string err;
    const PedigreeSortResult res =
        tarnel::pdsort(lped, nan, span<const char* const>(lv.data(), lv.size()),
                       span<const char* const>(old.data(), old.size()), col4, fg,
                       span<const char*>(newped.data(), newped.size()),
                       span<double>(use_fgen ? REAL(fgen) : nullptr, use_fgen ? n : 0), err,
                       span<int>(codes.data(), codes.size()));
    SEXP ped = PROTECT(Rf_allocVector(STRSXP, res.status == 0 ? 3 * static_cast<R_xlen_t>(nan) : 0));
    if (res.status == 0) {
      SEXP zero = PROTECT(Rf_mkChar(kUnknownParent));
      for (std::size_t k = 0; k < 3 * n; ++k)
        SET_STRING_ELT(ped, static_cast<R_xlen_t>(k),
                       codes[k] < 0 ? zero : STRING_ELT(lvls_, codes[k]));
      UNPROTECT(1);
      matrix_dim(ped, nan, 3);
    }
    ListOut out(5);
    out.add("pedigree", ped);
    out.add("fgen", fgen);
    out.add("passes", Rf_ScalarInteger(res.passes));
    out.add("cycle", Rf_ScalarInteger(res.cycle + 1));
    out.add("error", Rf_mkString(chomp(err).c_str()));
    UNPROTECT(4);
    return out.out;
  });
}

// sortpedigree(lped, nan, lvls, ped, col4, fg): ped holds codes from 1 into
// lvls (0 unknown), three columns of nan rows with the first lped in use.
// The result is a new integer matrix; R's vector is left alone.
SEXP sortpedigree(SEXP lped_, SEXP nan_, SEXP lvls_, SEXP ped_, SEXP col4_, SEXP fg_) {
  return guarded("sortpedigree", [&] {
    const int lped = one_int(lped_, "lped"), nan = one_int(nan_, "nan");
    check_sizes(lped, nan);
    need_strings(lvls_, "lvls", nan);
    span<int> ped_in = arg_int(ped_, "ped", 3 * static_cast<std::size_t>(nan));
    span<double> col4_in = arg_real(col4_, "col4", 1);
    const double fg = one_real(fg_, "fg");
    const bool use_fgen = std::isnan(col4_in[0]) || col4_in[0] > -1;
    check(!use_fgen || col4_in.size() >= static_cast<std::size_t>(nan),
          "'col4' must hold nan values");
    const std::size_t n = static_cast<std::size_t>(nan);
    std::vector<const char*> lv = string_pointers(lvls_, nan);
    SEXP ped = PROTECT(Rf_allocVector(INTSXP, 3 * static_cast<R_xlen_t>(nan)));
    for (std::size_t k = 0; k < 3 * n; ++k) INTEGER(ped)[k] = ped_in[k];
    SEXP col4 = PROTECT(Rf_allocVector(REALSXP, use_fgen ? nan : 1));
    if (use_fgen) {
      for (std::size_t k = 0; k < n; ++k) REAL(col4)[k] = col4_in[k];
    } else {
      REAL(col4)[0] = col4_in[0];
    }
    std::string err;
    const PedigreeSortResult res = tarnel::sortpedigree(
        lped, nan, span<const char* const>(lv.data(), lv.size()), span<int>(INTEGER(ped), 3 * n),
        span<double>(REAL(col4), use_fgen ? n : 1), fg, err);
    matrix_dim(ped, nan, 3);
    ListOut out(5);
    out.add("pedigree", ped);
    out.add("fgen", use_fgen ? col4 : Rf_allocVector(REALSXP, 0));
    out.add("passes", Rf_ScalarInteger(res.passes));
    out.add("cycle", Rf_ScalarInteger(res.cycle + 1));
    out.add("error", Rf_mkString(chomp(err).c_str()));
    UNPROTECT(4);
    return out.out;
  });
}

// pmat(pedigree, lped, nan): sire and dam as row numbers (0 unknown) and
// the rank of each row's identity.
SEXP pmat(SEXP pedigree_, SEXP lped_, SEXP nan_) {
  return guarded("pmat", [&] {
    const int lped = one_int(lped_, "lped"), nan = one_int(nan_, "nan");
    check_sizes(lped, nan);
    need_strings(pedigree_, "pedigree", 3 * static_cast<R_xlen_t>(lped));
    for (R_xlen_t k = 0; k < lped; ++k)
      check(STRING_ELT(pedigree_, k) != NA_STRING, "'pedigree' must not hold an NA individual");
    std::vector<const char*> p = string_pointers(pedigree_, 3 * static_cast<R_xlen_t>(lped));
    SEXP pm = PROTECT(Rf_allocVector(INTSXP, 2 * static_cast<R_xlen_t>(lped)));
    SEXP idx = PROTECT(Rf_allocVector(INTSXP, lped));
    std::string err;
    const std::size_t n = static_cast<std::size_t>(lped);
    tarnel::pmat(span<const char* const>(p.data(), p.size()), lped, span<int>(INTEGER(pm), 2 * n),
                 span<int>(INTEGER(idx), n), nan, err);
    matrix_dim(pm, lped, 2);
    ListOut out(3);
    out.add("pedMat", pm);
    out.add("idx", idx);
    out.add("error", Rf_mkString(chomp(err).c_str()));
    UNPROTECT(4);
    return out.out;
  });
}

// pedigree(plist, fgsx, nan, lenai, iopt, ropt): the inverse relationship
// matrix of a sorted pedigree.
//   plist  2 x nan integers: first and second parent as rows, 0 unknown
//   fgsx   nan reals: fgen (fmode > 0) or sex (xlink > 0); may be empty
//   lenai  slots of the row store (at least nan)
//   iopt   ngrp, groupOffset, fmode, xlink, method, ibl, mgs, debug
//   ropt   pself, dib
SEXP pedigree(SEXP plist_, SEXP fgsx_, SEXP nan_, SEXP lenai_, SEXP iopt_, SEXP ropt_) {
  return guarded("pedigree", [&] {
    const int nan = one_int(nan_, "nan");
    check(nan >= 0 && nan < INT_MAX / 4, "'nan' must be a number of rows");
    span<int> plist = arg_int(plist_, "plist", 2 * static_cast<std::size_t>(nan));
    span<double> fgsx = arg_real(fgsx_, "fgsx");
    const double lenai_d = one_real(lenai_, "lenai");
    check(std::isfinite(lenai_d) && lenai_d >= nan && lenai_d <= static_cast<double>(INT_MAX - 1),
          "'lenai' must lie between 'nan' and 2^31 - 2");
    const i64 lenai = static_cast<i64>(lenai_d);
    span<int> iopt = arg_int(iopt_, "iopt", 8);
    span<double> ropt = arg_real(ropt_, "ropt", 2);
    AinvArgs a;
    AinvOptions& o = a.opt;
    o.ngrp = iopt[0];
    o.groupOffset = iopt[1];
    o.fmode = iopt[2];
    o.xlink = iopt[3];
    o.method = iopt[4];
    o.ibl = iopt[5];
    o.mgs = iopt[6];
    o.debug = iopt[7];
    o.pself = ropt[0];
    o.dib = ropt[1];
    check(o.ngrp >= 0 && o.ngrp <= nan, "'iopt[1]' (groups) must lie between 0 and 'nan'");
    check((o.fmode <= 0 && o.xlink <= 0) || fgsx.size() >= static_cast<std::size_t>(nan),
          "'fgsx' must hold one value a row");
    check(std::isfinite(o.pself) && o.pself <= 1, "'ropt[1]' (selfing rate) must be at most 1");
    check(std::isfinite(o.dib), "'ropt[2]' (line inbreeding) must be finite");

    const std::size_t n = static_cast<std::size_t>(nan);
    SEXP llainv = PROTECT(Rf_allocVector(INTSXP, 2 * static_cast<R_xlen_t>(lenai)));
    SEXP ainv = PROTECT(Rf_allocVector(REALSXP, static_cast<R_xlen_t>(lenai)));
    SEXP inb = PROTECT(Rf_allocVector(REALSXP, nan + 1));
    // Room for the band of A when the pedigree's lag allows one; the pages
    // are touched only when g5vaig chooses it.
    a.opt.band_lag = g5vaig_band_lag(span<const i32>(plist.data(), 2 * n), nan, a.opt);
    const u64 words = g5vaig_work_words(nan, o.ibl) + band_words(a.opt.band_lag);
    SEXP work = PROTECT(Rf_allocVector(REALSXP, static_cast<R_xlen_t>(words)));
    a.llainv = span<i32>(INTEGER(llainv), 2 * static_cast<std::size_t>(lenai));
    a.ainv = span<double>(REAL(ainv), static_cast<std::size_t>(lenai));
    a.lenai = lenai;
    a.plist = span<const i32>(plist.data(), 2 * n);
    a.fgsx = fgsx;
    a.inbreeding = span<double>(REAL(inb), n + 1);
    a.nan = nan;
    a.det = 2.0;  // 2 - det at entry: the log determinant starts from 0

    clear_message_store();
    i64 linv = 0;
    const int failed = tarnel::pedigree(a, WorkArray(REAL(work), words), span<double>(), linv);
    SEXP ginv = PROTECT(Rf_allocVector(REALSXP, failed ? 0 : 3 * static_cast<R_xlen_t>(a.NEXT)));
    if (!failed) pedigree_triples(a, span<double>(REAL(ginv), 3 * static_cast<std::size_t>(a.NEXT)), linv);
    matrix_dim(ginv, 3, failed ? 0 : static_cast<int>(linv));

    // The engine's messages, in the order of the store.
    int nmsg = 0;
    for (int k = 0; k < MessageStore::kSlots; ++k)
      if (g5vxer.severity[k] > 0) ++nmsg;
    SEXP msgs = PROTECT(Rf_allocVector(STRSXP, nmsg));
    SEXP sev = PROTECT(Rf_allocVector(INTSXP, nmsg));
    for (int k = 0, m = 0; k < MessageStore::kSlots; ++k) {
      if (g5vxer.severity[k] <= 0) continue;
      SET_STRING_ELT(msgs, m, Rf_mkChar(message_text(k).c_str()));
      INTEGER(sev)[m++] = g5vxer.severity[k];
    }
    clear_message_store();
    SEXP inbreeding = PROTECT(Rf_allocVector(REALSXP, nan));
    for (std::size_t k = 0; k < n; ++k) REAL(inbreeding)[k] = REAL(inb)[k + 1];

    ListOut out(11);
    out.add("ifault", Rf_ScalarInteger(a.ifault));
    out.add("where", Rf_ScalarInteger(a.where));
    out.add("linv", Rf_ScalarReal(static_cast<double>(linv)));
    out.add("ginv", ginv);
    out.add("inbreeding", inbreeding);
    out.add("det", Rf_ScalarReal(a.det));
    out.add("NEXT", Rf_ScalarReal(static_cast<double>(a.NEXT)));
    out.add("empty_groups", Rf_ScalarInteger(a.empty_groups));
    out.add("constraints", Rf_ScalarInteger(a.constraints));
    out.add("messages", msgs);
    out.add("severity", sev);
    UNPROTECT(10);
    return out.out;
  });
}

}  // extern "C"
