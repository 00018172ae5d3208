// The small host entries as R calls them.
#include <R.h>
#include <Rinternals.h>

#include <sys/stat.h>

#include <cstring>
#include <string>
#include <vector>

#include "diagnostics/variogram.h"
#include "host/r_sexp.h"
#include "host/utils.h"

using namespace tarnel;

namespace {

std::string one_string(SEXP x, const char* name) {
  if (TYPEOF(x) != STRSXP || Rf_xlength(x) < 1 || STRING_ELT(x, 0) == NA_STRING)
    throw ArgError(std::string("'") + name + "' must be a character string");
  return R_CHAR(STRING_ELT(x, 0));
}

SEXP need_strings(SEXP x, const char* name) {
  if (TYPEOF(x) != STRSXP) throw ArgError(std::string("'") + name + "' must be a character vector");
  return x;
}

int one_int(SEXP x, const char* name) { return arg_int(x, name, 1)[0]; }

}  // namespace

extern "C" {

SEXP about(SEXP where, SEXP msg, SEXP arch, SEXP vv) {
  return guarded("about", [&] {
    const std::string w = one_string(where, "where"), a = one_string(arch, "arch"),
                      v = one_string(vv, "vv");
    need_strings(msg, "msg");
    if (Rf_xlength(msg) < 1) throw ArgError("'msg' must hold one string");
    char buf[2048];
    std::snprintf(buf, sizeof buf,
                  "Mixed Models for S Language Environments\nAbout tarnel()\nArch:  %s\n"
                  "tarnel() functions visible in: %s\ntarnel() version: %s\n"
                  "Tarnel object library: %s\n",
                  a.c_str(), w.c_str(), v.c_str(), library_version());
    SET_STRING_ELT(msg, 0, Rf_mkChar(buf));
    return msg;
  });
}

SEXP aimat(SEXP aivec, SEXP gammas, SEXP tgamma, SEXP s2, SEXP convrt, SEXP ai) {
  return guarded("aimat", [&] {
    span<double> g = arg_real(gammas, "gammas");
    const int n = static_cast<int>(g.size());
    span<double> a = arg_real(aivec, "aivec", static_cast<std::size_t>(n) * (n + 1) / 2);
    span<int> tg = arg_int(tgamma, "tgamma", n);
    const double s = arg_real(s2, "s2", 1)[0];
    const int cv = one_int(convrt, "convrt");
    span<double> out = arg_real(ai, "ai", static_cast<std::size_t>(n) * n);
    if (n < 1) throw ArgError("'gammas' must hold at least one parameter");
    tarnel::aimat(a, g, tg, s, cv, out, n);
    SEXP status = PROTECT(Rf_ScalarInteger(0));
    UNPROTECT(1);
    return status;
  });
}

SEXP canBeNumeric(SEXP x, SEXP lenx, SEXP ok) {
  return guarded("canBeNumeric", [&] {
    need_strings(x, "x");
    const int n = one_int(lenx, "lenx");
    span<int> res = arg_int(ok, "ok", 1);
    if (n < 0 || n > Rf_xlength(x)) throw ArgError("'lenx' must lie between 0 and length(x)");
    res[0] = 1;
    for (int k = 0; k < n; ++k) {
      SEXP e = STRING_ELT(x, k);
      if (e != NA_STRING && !can_be_numeric(R_CHAR(e))) {
        res[0] = 0;
        break;
      }
    }
    return ok;
  });
}

SEXP int2char(SEXP str, SEXP array, SEXP n) {
  return guarded("int2char", [&] {
    need_strings(str, "str");
    const int m = one_int(n, "n");
    span<int> codes = arg_int(array, "array", m < 0 ? 0 : m);
    if (m < 0 || m > Rf_xlength(str)) throw ArgError("'n' must lie between 0 and length(str)");
    for (int i = 0; i < m; ++i) {
      const int c = codes[i];
      if (c < 0 || c > 255) throw ArgError("'array' holds a code outside 0 to 255");
      char buf[2] = {static_cast<char>(c == 0 ? ' ' : c), '\0'};
      SET_STRING_ELT(str, i, Rf_mkChar(buf));
    }
    return str;
  });
}

SEXP a2i(SEXP data) {
  return guarded("a2i", [&] {
    need_list(data, "data");
    SEXP names = Rf_getAttrib(data, R_NamesSymbol);
    const R_xlen_t n = Rf_xlength(data);
    std::vector<int> pos;
    for (R_xlen_t k = 0; k < n; ++k) {
      if (TYPEOF(names) != STRSXP || STRING_ELT(names, k) == NA_STRING) continue;
      const char* nm = R_CHAR(STRING_ELT(names, k));
      if (!(nm[0] >= 'A' && nm[0] <= 'Z')) continue;
      SEXP cls = Rf_getAttrib(VECTOR_ELT(data, k), R_ClassSymbol);
      if (TYPEOF(cls) == STRSXP && Rf_xlength(cls) > 0 &&
          std::strcmp(R_CHAR(STRING_ELT(cls, 0)), "factor") == 0)
        continue;
      pos.push_back(static_cast<int>(k + 1));
    }
    SEXP out = PROTECT(Rf_allocVector(INTSXP, static_cast<R_xlen_t>(pos.size())));
    for (std::size_t k = 0; k < pos.size(); ++k) INTEGER(out)[k] = pos[k];
    UNPROTECT(1);
    return out;
  });
}

// For each model position whose term is named "mv": in every record whose
// value in that term's column is positive, the response takes `zeromv`.
// The method code is carried for the caller; the patch does not depend on it.
SEXP mvpatch(SEXP factor, SEXP mvmeth, SEXP nfactp, SEXP inter, SEXP neword, SEXP nycol,
             SEXP lbin, SEXP nrow, SEXP data, SEXP zeromv) {
  return guarded("mvpatch", [&] {
    need_strings(factor, "factor");
    (void)one_int(mvmeth, "mvmeth");
    const int np = one_int(nfactp, "nfactp");
    span<int> in = arg_int(inter, "inter");
    const int nfact = static_cast<int>(in.size() / 4);
    span<int> nw = arg_int(neword, "neword", np < 0 ? 0 : np);
    const int yc = one_int(nycol, "nycol");
    const int lb = one_int(lbin, "lbin");
    const int nr = one_int(nrow, "nrow");
    if (np < 0 || lb < 1 || nr < 0) throw ArgError("'nfactp', 'lbin' and 'nrow' must be sizes");
    span<double> dat = arg_real(data, "data", static_cast<std::size_t>(lb) * nr);
    const double z = arg_real(zeromv, "zeromv", 1)[0];
    if (yc < 1 || yc > nfact) throw ArgError("'nycol' must name a term of 'inter'");
    const int ycol = in[4 * (yc - 1) + 2];
    if (ycol < 1 || ycol > lb) throw ArgError("the response term's column lies outside the record");
    for (int i = 0; i < np; ++i) {
      const int t = nw[i];
      if (t < 1 || t > nfact || t > Rf_xlength(factor)) continue;
      if (std::strcmp(R_CHAR(STRING_ELT(factor, t - 1)), "mv") != 0) continue;
      const int col = in[4 * (t - 1) + 2];
      if (col < 1 || col > lb) continue;
      for (int r = 0; r < nr; ++r) {
        double* rec = dat.data() + static_cast<std::size_t>(r) * lb;
        if (rec[col - 1] > 0) rec[ycol - 1] = z;
      }
    }
    return data;
  });
}

SEXP rTextCopy(SEXP target, SEXP source, SEXP start, SEXP end) {
  return guarded("rTextCopy", [&] {
    need_strings(target, "target");
    if (Rf_xlength(target) < 1) throw ArgError("'target' must hold one string");
    const std::string src = one_string(source, "source");
    const std::string out = rtext_copy(src, one_int(start, "start"), one_int(end, "end"));
    SET_STRING_ELT(target, 0, Rf_mkChar(out.c_str()));
    return target;
  });
}

// Help display.  Passing user text to a shell would run any command, so
// this entry never starts a shell or a program: it accepts only the path of
// an existing regular file made of plain path characters, and gives the
// path back for R to show.  `html` is not used.
SEXP Shelp(SEXP cmd, SEXP html) {
  (void)html;
  return guarded("Shelp", [&] {
    const std::string path = one_string(cmd, "cmd");
    if (path.empty()) throw ArgError("'cmd' must name a help file");
    for (char c : path) {
      const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                         (c >= '0' && c <= '9') || c == '/' || c == '.' || c == '_' || c == '-';
      if (!plain) throw ArgError("'cmd' must be the path of a help file, not a command");
    }
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
      throw ArgError("no help file at '" + path + "'");
    return Rf_mkString(path.c_str());
  });
}

// The sample semivariogram; every result vector is R's, written in place.
SEXP variogram(SEXP n, SEXP x, SEXP y, SEXP z, SEXP distX, SEXP distY, SEXP gam, SEXP u, SEXP dist, SEXP np,
               SEXP grid, SEXP nang, SEXP angle, SEXP angTol, SEXP direction, SEXP maxdist, SEXP nlag, SEXP xlag,
               SEXP lagtol, SEXP nout) {
  return guarded("variogram", [&] {
    VariogramArgs a;
    a.n = one_int(n, "n");
    a.grid = one_int(grid, "grid");
    a.nang = one_int(nang, "nang");
    a.nlag = one_int(nlag, "nlag");
    if (a.n < 1 || a.grid < 0 || a.grid > 2) throw ArgError("'n' must be positive and 'grid' 0, 1 or 2");
    if (a.grid == 0 && (a.nang < 1 || a.nlag < 1)) throw ArgError("'nang' and 'nlag' must be positive");
    const std::size_t nn = static_cast<std::size_t>(a.n);
    a.x = arg_real(x, "x", nn);
    a.y = arg_real(y, "y", nn);
    a.z = arg_real(z, "z", nn);
    const std::size_t rows = static_cast<std::size_t>(variogram_rows(a.grid, a.n, a.nlag, a.nang));
    a.gam = arg_real(gam, "gam", rows);
    a.np = arg_int(np, "np", rows);
    a.maxdist = arg_real(maxdist, "maxdist", 1)[0];
    std::vector<double> work;
    if (a.grid == 0) {
      a.u = arg_real(u, "u", nn * (nn + 1) / 2);
      a.dist = arg_real(dist, "dist", rows);
      a.direction = arg_real(direction, "direction", rows);
      a.angle = arg_real(angle, "angle", static_cast<std::size_t>(a.nang));
      a.angTol = arg_real(angTol, "angTol", static_cast<std::size_t>(a.nang));
      a.xlag = arg_real(xlag, "xlag", 1)[0];
      a.lagtol = arg_real(lagtol, "lagtol", 1)[0];
      if (!(a.xlag > 0.0)) throw ArgError("'xlag' must be positive");
      work.assign(static_cast<std::size_t>(variogram_work(a.n, a.nlag, a.nang)), 0.0);
      a.work = span<double>(work.data(), work.size());
    } else {
      a.distX = arg_real(distX, "distX", rows);
      a.distY = arg_real(distY, "distY", rows);
    }
    span<int> out = arg_int(nout, "nout", 1);
    tarnel::variogram(a);
    out[0] = a.grid == 0 ? a.nout : static_cast<int>(rows);
    return Rf_ScalarInteger(0);
  });
}

}  // extern "C"
