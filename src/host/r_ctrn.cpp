// The model-fit entry as R calls it: the fourteen objects become views,
// are checked, and go to ctrn_run (host/ctrn.cpp).  `unpack` reads them
// object by object, in the order of the call.
#include <R.h>
#include <Rinternals.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "host/console.h"
#include "host/ctrn.h"
#include "host/r_sexp.h"

namespace tarnel {
namespace {

void check(bool ok, const std::string& msg) {
  if (!ok) throw ArgError(msg);
}

double need_size(SEXP control, const char* name) {
  const double v = *need_real1(control, name, "control");
  check(std::isfinite(v) && v >= 0,
        std::string("'control$") + name + "' must be a non-negative number of 8-byte words");
  return v;
}

// The engine writes its results into R's vectors in place.  A vector that
// R may share with another object (a constant in a function's code, a
// vector also bound to a variable) would change behind R's back, so such a
// vector is refused: the caller must pass fresh ones.
void writable(SEXP list, const char* name, const char* where) {
  SEXP e = elem(list, name);
  if (e != R_NilValue && MAYBE_SHARED(e))
    throw ArgError(std::string("element '") + name + "' of '" + where +
                   "' is shared with another R object; the engine writes into it, so pass a fresh copy");
}
void writable_arg(SEXP x, const char* name) {
  if (MAYBE_SHARED(x))
    throw ArgError(std::string("'") + name +
                   "' is shared with another R object; the engine writes into it, so pass a fresh copy");
}

// The fourteen objects of the call.
struct CtrnObjects {
  SEXP datafr, iarg, dpmv, inter, struc, ainv, glm, predict, constr, mbfList, control, aiopt, trn, design;
};

// What unpacking fills, and what its steps share: the integer settings
// and the names of the terms as C strings.
struct Unpacking {
  CtrnInput& in;
  const CtrnObjects& obj;
  std::vector<const char*>& names;
  span<int> ia;  // iarg
};

// The data and the integer settings that describe them.
void unpack_data(Unpacking& u) {
  AiData& d = u.in.args.data;
  u.ia = arg_int(u.obj.iarg, "iarg", 16);
  const span<int> ia = u.ia;
  d.lbin = ia[0];
  d.nrow = ia[1];
  d.ny = ia[2];
  d.ntrt = ia[3];
  d.nycol = ia[4];
  d.wtcol = ia[5];
  d.offsetcol = ia[6];
  d.keep = ia[7];
  check(d.lbin >= 1, "'iarg[1]' (columns per record) must be at least 1");
  check(d.nrow >= 0, "'iarg[2]' (number of records) must not be negative");
  d.datafr = arg_real(u.obj.datafr, "datafr", static_cast<std::size_t>(d.lbin) * d.nrow);
  d.dpmv = arg_real(u.obj.dpmv, "dpmv", 1);
}

// The list `inter`: the term table.
void unpack_terms(Unpacking& u) {
  SEXP inter = u.obj.inter;
  need_list(inter, "inter");
  AiTerms& t = u.in.args.terms;
  SEXP im = elem(inter, "inter");
  t.inter = need_int(inter, "inter", "inter");
  check(t.inter.size() % 4 == 0 && (t.inter.empty() || matrix_rows(im) == 4),
        "element 'inter' of 'inter' must be an integer matrix with four rows");
  t.nfact = static_cast<int>(t.inter.size() / 4);
  t.flev = need_int(inter, "flev", "inter", t.nfact);
  t.nlev = need_int(inter, "nlev", "inter", t.nfact);
  t.IBV = need_int(inter, "IBV", "inter");
  t.lenIbv = t.IBV.empty() ? 0 : matrix_cols(elem(inter, "IBV"));
  t.JBV = need_real(inter, "JBV", "inter");
  t.lenJbv = t.JBV.empty() ? 0 : matrix_cols(elem(inter, "JBV"));
  t.neword = need_int(inter, "neword", "inter");
  t.nfactp = static_cast<int>(t.neword.size());
  for (int p : t.neword)
    check(p >= 0 && p <= t.nfact, "'inter$neword' names a term that is not in the term table");
  t.submds = need_int(inter, "submds", "inter", t.nfactp);
  t.submod = need_int1(inter, "submod", "inter");
  t.faconst = need_real(inter, "faconst", "inter", t.nfact);
  t.points = need_real(inter, "points", "inter");
  t.neq = need_int1(inter, "neq", "inter");
  t.neqd = need_int1(inter, "neqd", "inter");
  SEXP fn = elem(inter, "facnam");
  check(TYPEOF(fn) == STRSXP && Rf_xlength(fn) >= t.nfact,
        "element 'facnam' of 'inter' is missing or is not a character vector of one name a term");
  u.names.resize(static_cast<std::size_t>(t.nfact));
  for (int k = 0; k < t.nfact; ++k) u.names[k] = R_CHAR(STRING_ELT(fn, k));
  t.facnam = span<const char* const>(u.names.data(), u.names.size());
  t.nan = u.ia[13];
  t.mxSpline = u.ia[12];
  check(t.mxSpline >= 0 && t.mxSpline < (1 << 24), "'iarg[13]' (spline sets) is out of range");
  long long maxflev = 0;
  for (int k = 0; k < t.nfact; ++k) maxflev = std::max<long long>(maxflev, t.flev[k]);
  check(maxflev + 1 + t.nfact + 2LL * u.in.args.data.lbin < (1LL << 30), "a term has an absurd number of levels");
}

// The list `struc`: variance structures and their parameters.
void unpack_structures(Unpacking& u) {
  SEXP struc = u.obj.struc;
  need_list(struc, "struc");
  AiStructures& s = u.in.args.structures;
  s.struc = need_int(struc, "struc", "struc");
  s.lstruc = s.struc.empty() ? 0 : matrix_rows(elem(struc, "struc"));
  s.nstruc = s.struc.empty() ? 0 : matrix_cols(elem(struc, "struc"));
  s.nspat = *need_int1(struc, "nspat", "struc");
  s.nrsect = need_int(struc, "nrsect", "struc");
  s.nsect = s.nrsect.empty() ? 0 : matrix_cols(elem(struc, "nrsect"));
  s.gammas = need_real(struc, "gammas", "struc", 1);
  s.ngamma = static_cast<int>(s.gammas.size()) - 1;
  s.tgamma = need_int(struc, "tgamma", "struc", s.ngamma);
  s.printGammas = need_int(struc, "printGammas", "struc", s.ngamma);
  s.gmcstr = need_int(struc, "gmcstr", "struc", s.ngamma);
  u.in.args.terms.tyfact = need_int(struc, "tyfact", "struc");
  s.nfrstg = need_int1(struc, "nfrstg", "struc");
}

// The lists `ainv` (known inverses) and `glm` (family and link).
void unpack_known_and_family(Unpacking& u) {
  AiControlArgs& a = u.in.args;
  SEXP ainv = u.obj.ainv, glm = u.obj.glm;
  need_list(ainv, "ainv");
  a.known.nainv = *need_int1(ainv, "nainv", "ainv");
  a.known.lcainv = need_int(ainv, "lcainv", "ainv");
  a.known.llainv = need_int(ainv, "llainv", "ainv");
  a.known.ainv = need_real(ainv, "ainv", "ainv");
  // The engine reads five integers for each known matrix.
  check(a.known.nainv >= 0 && static_cast<std::size_t>(a.known.nainv) * 5 <= a.known.lcainv.size(),
        "element 'nainv' of 'ainv' must be from 0 to length(lcainv) / 5");
  need_list(glm, "glm");
  a.glm.id = *need_int1(glm, "id", "glm");
  a.glm.link = *need_int1(glm, "link", "glm");
  a.glm.glmphi = need_real(glm, "glmphi", "glm");
  a.glm.thrlevels = need_int(glm, "thrlevels", "glm");
}

// The list `predict`: prediction requests and their result tables.
void unpack_predict(Unpacking& u) {
  SEXP predict = u.obj.predict;
  need_list(predict, "predict");
  AiPredict& p = u.in.args.predict;
  p.npred = need_int1(predict, "npred", "predict");
  p.nfinmd = need_int(predict, "nfinmd", "predict");
  p.pvals = need_real(predict, "pvals", "predict");
  p.lnpvec = static_cast<int>(p.pvals.size());
  p.lpvals = need_int(predict, "lpvals", "predict");
  p.lpwts = need_int(predict, "lpwts", "predict");
  p.prdvals = need_real(predict, "prdvals", "predict");
  p.pvrow = p.prdvals.empty() ? 0 : matrix_rows(elem(predict, "prdvals"));
  p.nptabl = need_int(predict, "nptabl", "predict");
  p.npfact = need_int(predict, "npfact", "predict");
  p.ivals = need_int(predict, "ivals", "predict");
  p.vpvmat = need_real(predict, "vpvmat", "predict");
  p.avsed = need_real(predict, "avsed", "predict");
  p.pvtext = need_raw(predict, "pvtext", "predict");
}

// The lists `constr` (constraints among parameters) and `mbfList` (the
// host-built basis tables, checked against the spline terms).
void unpack_constraints_and_basis(Unpacking& u) {
  AiControlArgs& a = u.in.args;
  SEXP constr = u.obj.constr, mbfList = u.obj.mbfList;
  need_list(constr, "constr");
  a.constraints.ngmcon = *need_int1(constr, "ngmcon", "constr");
  a.constraints.gequal = need_int(constr, "gequal", "constr");
  a.constraints.gmcon = need_real(constr, "gmcon", "constr");

  need_list(mbfList, "mbfList");
  CtrnInput& in = u.in;
  const AiTerms& t = a.terms;
  in.mbfAddr = need_int(mbfList, "mbfAddr", "mbfList");
  in.mbfX = need_real(mbfList, "mbfX", "mbfList");
  int nspl = 0;
  for (int k = 0; k < t.nfact; ++k)
    if (t.inter[4 * static_cast<std::size_t>(k)] == -24) ++nspl;
  check(nspl <= t.mxSpline, "the model has more spline terms than 'iarg[13]' allows");
  check(in.mbfAddr.size() >= 2 * static_cast<std::size_t>(nspl),
        "'mbfList$mbfAddr' needs two values for each spline term");
  double words = 0;
  for (int k = 0; k < nspl; ++k) {
    const int n = in.mbfAddr[2 * k], m = in.mbfAddr[2 * k + 1];
    check(n >= 0 && m >= 0, "'mbfList$mbfAddr' holds a negative size");
    words += (static_cast<double>(m) + 1) * n;
  }
  check(words <= static_cast<double>(in.mbfX.size()), "'mbfList$mbfX' is shorter than its tables");
  check(words < 2147483647.0, "the spline basis tables are absurdly large");
}

// The list `control`, the options among the integer settings, and `aiopt`.
void unpack_control(Unpacking& u) {
  SEXP control = u.obj.control;
  CtrnInput& in = u.in;
  AiTerms& t = in.args.terms;
  need_list(control, "control");
  AiOptions& o = in.args.options;
  in.workspace = need_size(control, "workspace");
  in.pworkspace = need_size(control, "pworkspace");
  o.maxiter = need_int1(control, "maxiter", "control");
  t.knots = *need_int1(control, "knots", "control");
  t.nsppoints = *need_int1(control, "nsppoints", "control");
  o.stepsize = need_real1(control, "stepsize", "control");
  check(std::isfinite(*o.stepsize) && *o.stepsize >= 0, "'control$stepsize' must be a non-negative number");
  t.splstp = *need_real1(control, "splstp", "control");
  t.splinescale = *need_real1(control, "splinescale", "control");
  o.trace = *need_int1(control, "trace", "control");
  span<int> ftest = need_int(control, "Ftest", "control", 1);
  o.fown = ftest[0] > 0 ? 1 : 0;
  o.ownlst = ftest;
  in.keep_design = *need_int1(control, "design", "control");
  o.savedgn = in.keep_design;
  span<int> ia = u.ia;
  o.gkrige = ia[11];
  o.ddf = &ia[8];
  o.typeiii = &ia[9];
  o.aodev = &ia[10];
  o.debug = ia[15];
  o.aiopt = arg_int(u.obj.aiopt, "aiopt");
  o.naiopt = static_cast<int>(o.aiopt.size());
}

// The list `trn`: the result vectors the engine writes in place.
void unpack_results(Unpacking& u) {
  SEXP trn = u.obj.trn;
  need_list(trn, "trn");
  AiResults& r = u.in.args.results;
  r.prvgam = need_real(trn, "prvgam", "trn");
  r.score = need_real(trn, "score", "trn");
  r.loglik = need_real1(trn, "loglik", "trn");
  r.soln = need_real(trn, "soln", "trn");
  r.vsoln = need_real(trn, "vsoln", "trn");
  r.resid = need_real(trn, "resid", "trn");
  r.linearPredictors = need_real(trn, "linearPredictors", "trn");
  r.hat = need_real(trn, "hat", "trn");
  r.sigma2 = need_real(trn, "sigma2", "trn", 1);
  r.deviance = need_real(trn, "deviance", "trn", 1);
  r.nedf = need_int(trn, "nedf", "trn", 1);
  r.nwv = need_int(trn, "nwv", "trn", 1);
  r.noeff = need_int(trn, "noeff", "trn");
  r.nsing = need_int(trn, "nsing", "trn", 1);
  r.ai = need_real(trn, "ai", "trn");
  r.yssqu = need_real(trn, "yssqu", "trn");
  r.Cfixed = need_real(trn, "Cfixed", "trn", 1);
  r.Csparse = need_real(trn, "Csparse", "trn");
  r.CfacNum = need_int(trn, "CfacNum", "trn");
  r.nCfac = need_int(trn, "nCfac", "trn", 1);
  r.aovTbl = need_real(trn, "aovTbl", "trn");
  r.apstvar = need_real(trn, "apstvar", "trn");
  r.converge = need_int1(trn, "converge", "trn");
  r.trArray = need_real(trn, "trArray", "trn");
  r.errtxt = need_raw(trn, "errtxt", "trn", 80);
  // 'license' is fetched and not used; the first string of 'where' likewise.
  SEXP where = elem(trn, "where");
  check(TYPEOF(where) == STRSXP && Rf_xlength(where) >= 1,
        "element 'where' of 'trn' is missing or is not a character vector");
}

// The matrix that receives the kept design, with its columns `xcol`.
void unpack_design(Unpacking& u) {
  CtrnInput& in = u.in;
  SEXP design = u.obj.design;
  if (in.keep_design != 0) {
    check(TYPEOF(design) == REALSXP, "'design' must be a double matrix when the design is kept");
    SEXP xcol = Rf_getAttrib(design, Rf_install("xcol"));
    check(TYPEOF(xcol) == INTSXP, "'design' needs an integer attribute 'xcol'");
    in.design = span<double>(REAL(design), static_cast<std::size_t>(Rf_xlength(design)));
    in.xcol = span<int>(INTEGER(xcol), static_cast<std::size_t>(Rf_xlength(xcol)));
    check(static_cast<double>(in.design.size()) >=
              static_cast<double>(in.args.data.nrow) * static_cast<double>(in.xcol.size()),
          "'design' must have one row a record and one column for each entry of 'xcol'");
  }
  in.na_real = R_NaReal;
}

// Every vector the engine writes into must be R's own, shared with no
// other object.
void check_writable(const CtrnObjects& obj, int keep_design) {
  writable_arg(obj.iarg, "iarg");
  writable_arg(obj.aiopt, "aiopt");
  writable(obj.inter, "neq", "inter");
  for (const char* n : {"gammas", "tgamma", "gmcstr", "nfrstg"}) writable(obj.struc, n, "struc");
  for (const char* n : {"npred", "pvals", "prdvals", "vpvmat", "avsed", "pvtext"}) writable(obj.predict, n, "predict");
  for (const char* n : {"maxiter", "stepsize"}) writable(obj.control, n, "control");
  for (const char* n : {"prvgam", "score", "loglik", "soln", "vsoln", "resid", "linearPredictors", "hat",
                        "sigma2", "deviance", "nedf", "nwv", "noeff", "nsing", "ai", "yssqu", "Cfixed",
                        "Csparse", "CfacNum", "nCfac", "aovTbl", "apstvar", "converge", "trArray", "errtxt"})
    writable(obj.trn, n, "trn");
  if (keep_design != 0) writable_arg(obj.design, "design");
}

// Fills `in` from R's objects, object by object; throws ArgError on the
// first problem.
void unpack(CtrnInput& in, std::vector<const char*>& names, const CtrnObjects& obj) {
  Unpacking u{in, obj, names, span<int>()};
  unpack_data(u);
  unpack_terms(u);
  unpack_structures(u);
  unpack_known_and_family(u);
  unpack_predict(u);
  unpack_constraints_and_basis(u);
  unpack_control(u);
  unpack_results(u);
  unpack_design(u);
  check_writable(obj, in.keep_design);
}

}  // namespace
}  // namespace tarnel

extern "C" SEXP ctrn(SEXP datafr, SEXP iarg, SEXP dpmv, SEXP inter, SEXP struc, SEXP ainv,
                     SEXP glm, SEXP predict, SEXP constr, SEXP mbfList, SEXP control, SEXP aiopt,
                     SEXP trn, SEXP design) {
  char msg[1024];
  msg[0] = '\0';
  SEXP status = PROTECT(Rf_allocVector(INTSXP, 1));
  INTEGER(status)[0] = 0;
  tarnel::host_interrupt_reset();
  try {
    tarnel::CtrnInput in;
    std::vector<const char*> names;
    const tarnel::CtrnObjects obj{datafr, iarg,    dpmv,    inter,  struc, ainv, glm,
                                  predict, constr, mbfList, control, aiopt, trn,  design};
    tarnel::unpack(in, names, obj);
    INTEGER(status)[0] = tarnel::ctrn_run(in);
    // The design kept for the host has been copied out: free it now rather
    // than at the start of the next run.
    tarnel::reset_control_state();
  } catch (const tarnel::ArgError& e) {
    std::snprintf(msg, sizeof msg, "ctrn: %s", e.what());
  } catch (const std::exception& e) {
    std::snprintf(msg, sizeof msg, "ctrn: internal failure: %s", e.what());
  }
  UNPROTECT(1);
  if (msg[0] != '\0') Rf_error("%s", msg);
  return status;
}

namespace tarnel {
namespace {

SEXP alloc_body(void* d) {
  const auto* want = static_cast<const std::pair<SEXPTYPE, R_xlen_t>*>(d);
  return Rf_allocVector(want->first, want->second);
}
SEXP alloc_refused(SEXP, void*) { return R_NilValue; }

// A vector from R's heap; a refusal is an ArgError rather than an R error,
// so that the C++ frames holding the work arrays unwind.
SEXP alloc_checked(SEXPTYPE type, R_xlen_t n) {
  std::pair<SEXPTYPE, R_xlen_t> want(type, n);
  SEXP v = R_tryCatchError(alloc_body, &want, alloc_refused, nullptr);
  if (v == R_NilValue) throw ArgError("cannot allocate the sparse design (" + std::to_string(n) + " values)");
  return v;
}

// What the design entry asks of the rows and where it puts them.
struct ColumnsOut {
  int ncol = 0;
  SEXP list = R_NilValue;  // i, p, x (protected by the caller)
};

// The design rows left in the work array, equations 2 to ncol + 1, as the
// columns of a compressed sparse matrix with a row a data record (from 0).
// A column's entries come in record order; an entry that repeats its
// record is added to the one before.
void rows_to_columns(const CtrnInput& in, void* context) {
  auto* out = static_cast<ColumnsOut*>(context);
  const DesignRowsAt& at = in.args.status.rows;
  const WorkArray& w = in.args.work.x;
  const int ncol = out->ncol, nrow = in.args.data.nrow;
  const i32* start = w.i + at.rowbase;
  const i32* eq = w.i + at.colbase;
  const i32* rec = w.i + at.recbase;
  const double* val = w.r + at.kyxz;
  SEXP p = alloc_checked(INTSXP, static_cast<R_xlen_t>(ncol) + 1);
  SET_VECTOR_ELT(out->list, 1, p);
  int* pp = INTEGER(p);
  std::fill(pp, pp + ncol + 1, 0);
  for (i64 k = 0; k < at.nonzero; ++k) {
    const int e = eq[k];
    if (e >= 2 && e <= ncol + 1) ++pp[e - 1];
  }
  for (int c = 0; c < ncol; ++c) {
    if (pp[c + 1] > INT_MAX - pp[c]) throw ArgError("the design has too many nonzeros for a sparse matrix");
    pp[c + 1] += pp[c];
  }
  const int nnz = pp[ncol];
  SEXP iv = alloc_checked(INTSXP, nnz);
  SET_VECTOR_ELT(out->list, 0, iv);
  SEXP xv = alloc_checked(REALSXP, nnz);
  SET_VECTOR_ELT(out->list, 2, xv);
  int* ii = INTEGER(iv);
  double* xx = REAL(xv);
  // pp[c] walks from the start of column c to the start of c + 1.
  for (i64 r = 0; r < at.records; ++r) {
    const int row = rec[r] - 1;
    if (row < 0 || row >= nrow) throw ArgError("a design row names a record out of range");
    for (i64 k = start[r]; k < start[r + 1]; ++k) {
      const int e = eq[k];
      if (e < 2 || e > ncol + 1) continue;
      const int to = pp[e - 2]++;
      ii[to] = row;
      xx[to] = val[k];
    }
  }
  for (int c = ncol; c > 0; --c) pp[c] = pp[c - 1];
  pp[0] = 0;
  int kept = 0;
  for (int c = 0; c < ncol; ++c) {
    const int from = pp[c], to = pp[c + 1];
    pp[c] = kept;
    for (int k = from; k < to; ++k) {
      if (kept > pp[c] && ii[kept - 1] == ii[k]) {
        xx[kept - 1] += xx[k];
      } else {
        ii[kept] = ii[k];
        xx[kept] = xx[k];
        ++kept;
      }
    }
  }
  pp[ncol] = kept;
  if (kept < nnz) {
    SET_VECTOR_ELT(out->list, 0, Rf_lengthgets(iv, kept));
    SET_VECTOR_ELT(out->list, 2, Rf_lengthgets(xv, kept));
  }
}

}  // namespace
}  // namespace tarnel

// The design rows alone: `args` holds the fourteen objects of the model-fit
// entry by name, `ncol` the number of equations after the response to
// return.  Returns list(status, i, p, x): the engine's status (0, or -1
// with errtxt written, as ctrn) and, on success, the columns of a sparse
// matrix of one row a data record.
extern "C" SEXP design_rows(SEXP args, SEXP ncol_) {
  return tarnel::guarded("design_rows", [&]() -> SEXP {
    using namespace tarnel;
    need_list(args, "args");
    const int ncol = arg_int(ncol_, "ncol", 1)[0];
    if (ncol < 0) throw ArgError("'ncol' must not be negative");
    const CtrnObjects obj{elem(args, "datafr"), elem(args, "iarg"),    elem(args, "dpmv"),
                          elem(args, "inter"),  elem(args, "struc"),   elem(args, "ainv"),
                          elem(args, "glm"),    elem(args, "predict"), elem(args, "constr"),
                          elem(args, "mbfList"), elem(args, "control"), elem(args, "aiopt"),
                          elem(args, "trn"),    elem(args, "design")};
    CtrnInput in;
    std::vector<const char*> names;
    host_interrupt_reset();
    unpack(in, names, obj);
    if (ncol > *in.args.terms.neq - 1) throw ArgError("'ncol' is more than the design's equations");
    in.keep_design = 0;  // the rows come back here, not in 'design'
    SEXP out = PROTECT(Rf_allocVector(VECSXP, 4));
    ColumnsOut cols;
    cols.ncol = ncol;
    cols.list = out;
    in.after_run = rows_to_columns;
    in.after_context = &cols;
    const int status = ctrn_run(in, aidesign);
    SET_VECTOR_ELT(out, 3, Rf_ScalarInteger(status));
    SEXP nm = PROTECT(Rf_allocVector(STRSXP, 4));
    const char* labels[] = {"i", "p", "x", "status"};
    for (int k = 0; k < 4; ++k) SET_STRING_ELT(nm, k, Rf_mkChar(labels[k]));
    Rf_setAttrib(out, R_NamesSymbol, nm);
    UNPROTECT(2);
    return out;
  });
}
