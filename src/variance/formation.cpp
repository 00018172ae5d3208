// Formation of the variance structures: for every section, the parameters
// are moved back into range, the matrix and its inverse are stored in the
// work array, and form records say how to rebuild their rows, with the log
// determinant of the section and, per parameter, the derivative matrices
// and the trace tr(V^-1 dV/dtheta).
#include "variance/formation.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "host/console.h"
#include "host/messages.h"
#include "variance/dense.h"
#include "variance/spatial.h"

namespace tarnel {

i64 take_top(i64& top, i64 floor, i64 m) {
  if (m < 0 || top - m < floor) return 0;
  top -= m;
  return top + 1;
}

int carve_structure_tables(const WorkArray& work, i64& top, i64 floor, int nsect, int ngamma, int ngiv,
                           StructureTables& t, int& ifault) {
  static_assert(sizeof(FormRecord) == 6 * sizeof(double), "a form record is six words");
  if (nsect < 0 || ngamma < 0 || ngiv < 0) return g5vflt(ifault, 6);
  const i64 ps = take_top(top, floor, 6 * static_cast<i64>(nsect));
  const i64 pl = ps ? take_top(top, floor, nsect) : 0;
  const i64 pp = pl ? take_top(top, floor, 6 * static_cast<i64>(ngamma)) : 0;
  const i64 pt = pp ? take_top(top, floor, ngamma) : 0;
  const i64 pg = pt ? take_top(top, floor, ngiv) : 0;
  if (!pg) return g5vflt(ifault, 6);
  // The records live in 8-byte words of the real array.
  t.secform = span<FormRecord>(reinterpret_cast<FormRecord*>(work.r + ps - 1), static_cast<std::size_t>(nsect));
  t.parform = span<FormRecord>(reinterpret_cast<FormRecord*>(work.r + pp - 1), static_cast<std::size_t>(ngamma));
  t.logdet = span<double>(work.r + pl - 1, static_cast<std::size_t>(nsect));
  t.trdrri = span<double>(work.r + pt - 1, static_cast<std::size_t>(ngamma));
  t.givlogdet = span<double>(work.r + pg - 1, static_cast<std::size_t>(ngiv));
  for (auto& r : t.secform) r = FormRecord{};
  for (auto& r : t.parform) r = FormRecord{};
  for (double& v : t.logdet) v = 0.0;
  for (double& v : t.trdrri) v = 0.0;
  for (double& v : t.givlogdet) v = 0.0;
  return 0;
}

void g5vvp7(span<const double> band, span<double> diags, int n) {
  for (i64 k = 0; k < 4 * static_cast<i64>(n); ++k) diags[k] = 0.0;
  i64 q = 0;
  for (int i = 1; i <= n; ++i)
    for (int j = std::max(1, i - 3); j <= i; ++j) diags[static_cast<i64>(i - j) * n + j - 1] = band[q++];
}

int g5vva0(FormRecord& rec, double sigma, const WorkArray& work, i64& top, i64 floor,
           int& ifault) {
  const i64 p = take_top(top, floor, 2);
  if (p == 0) return g5vflt(ifault, 6);
  work.r[p - 1] = sigma;
  work.r[p] = 1.0 / sigma;
  rec.kind = 0;
  rec.scale = 0;
  rec.kindi = 0;
  rec.scalei = 0;
  rec.pos = p;
  rec.posi = p + 1;
  return 0;
}

namespace {

// The autoregressive forms: model code and number of correlations, the
// least order they need (below it the section falls back to the model and
// correlation count given, under the name), and the lags and kind passed to
// the time-series formation.
struct TimeSeriesCase {
  int model, ncor, least, fb1, fb2;
  const char* name;
  int lags, kind;
};
const TimeSeriesCase kTimeSeries[] = {
    {1, 1, 2, 0, 0, "AR1", 1, 1},   {1, 2, 3, 1, 1, "AR2", 2, 2},    {1, 3, 4, 1, 1, "AR3", 3, 3},
    {14, 1, 3, 1, 1, "SAR", 2, 14}, {14, 2, 4, 1, 1, "SAR2", 3, 15},
};
const TimeSeriesCase* time_series_case(int model, int ncor) {
  for (const TimeSeriesCase& t : kTimeSeries)
    if (t.model == model && t.ncor == ncor) return &t;
  return nullptr;
}

// Two coefficients of a second-order form (AR2, MA2) brought inside the
// region where |a + b| and |b - a| stay below 0.99.
void keep_pair_inside(double& a, double& b) {
  double t = std::fabs(a + b);
  if (t > f32(0.99)) {
    a /= t + 0.01;
    b /= t + 0.01;
  }
  t = std::fabs(b - a);
  if (t > f32(0.99)) {
    a /= t + 0.01;
    b /= t + 0.01;
  }
}

// A value with its derivative in one direction (forward differentiation):
// the time-series structures are written once and give their derivative
// rows, inverse bands and log-determinant traces from the same code.
struct Dual {
  double v = 0.0, d = 0.0;
  Dual() = default;
  Dual(double value, double deriv = 0.0) : v(value), d(deriv) {}
};
inline Dual operator+(Dual a, Dual b) { return {a.v + b.v, a.d + b.d}; }
inline Dual operator-(Dual a, Dual b) { return {a.v - b.v, a.d - b.d}; }
inline Dual operator-(Dual a) { return {-a.v, -a.d}; }
inline Dual operator*(Dual a, Dual b) { return {a.v * b.v, a.d * b.v + a.v * b.d}; }
inline Dual operator/(Dual a, Dual b) {
  return {a.v / b.v, (a.d * b.v - a.v * b.d) / (b.v * b.v)};
}
inline Dual& operator+=(Dual& a, Dual b) { return a = a + b; }
inline Dual dlog(Dual a) { return {std::log(std::fabs(a.v)), a.d / a.v}; }

inline double tiny_to_zero(double x) { return std::fabs(x) <= 1e-20 ? 0.0 : x; }

// Everything one section needs while it is formed.
struct Section {
  int s = 0;           // section number
  StrucRow row;
  int n = 0;           // effective order
  int model = 0;
  int npar = 0;
  int gfirst = 0;
  int ncor = 0;
  int gform = 1;
  bool scaled = false;   // an overall scale or per-row variances
  bool pervar = false;   // per-row variances (a vector of sqrt(v))
  FormRecord* rec = nullptr;
};

class Former {
 public:
  Former(VsfArgs& a, int& ifault) : a_(a), ifault_(ifault) {}
  int run();

 private:
  VsfArgs& a_;
  int& ifault_;

  double& gam(int p) { return a_.gammas.at1(p); }
  int& rg(int p) { return a_.rgmstr.at1(p); }
  FormRecord& pf(int p) { return a_.parform.at1(p); }
  double& tr(int p) { return a_.trdrri.at1(p); }
  double& W(i64 pos) { return a_.work.r[pos - 1]; }
  span<double> WS(i64 pos, i64 len) { return span<double>(a_.work.r + pos - 1, static_cast<std::size_t>(len)); }

  // Takes m words from the top; 0 after setting fault 6.
  i64 take(i64 m) {
    const i64 p = take_top(a_.top, a_.floor, m);
    if (p == 0) g5vflt(ifault_, 6);
    return p;
  }
  // The scratch of a dense inversion of order n: two integer permutations
  // and n reals.  Returns false after setting fault 6.
  struct InverseScratch {
    span<int> perm, perm2;
    i64 pscr = 0;
  };
  bool take_inverse_scratch(int n, InverseScratch& sc) {
    const i64 psc = take(2 * static_cast<i64>(n));
    if (!psc) return false;
    sc.perm = span<int>(a_.work.i + 2 * (psc - 1), static_cast<std::size_t>(n));
    sc.perm2 = span<int>(a_.work.i + 2 * (psc - 1) + n, static_cast<std::size_t>(n));
    sc.pscr = take(n);
    return sc.pscr != 0;
  }
  // Writes the form record of parameter p.
  void stlbri(int p, i64 kind, i64 scale, i64 pos, i64 kindi, i64 scalei, i64 posi) {
    FormRecord& r = pf(p);
    r.kind = kind;
    r.scale = scale;
    r.pos = pos;
    r.kindi = kindi;
    r.scalei = scalei;
    r.posi = posi;
  }
  int fail(int code, const std::string& text) {
    if (!text.empty()) g5verror(text, 4);
    return g5vflt(ifault_, code);
  }

  int check_tables();
  int giv_walk();
  int section(int s);
  int shared(Section& S);
  int variance_part(Section& S);
  int finish(Section& S);
  int fall_back(Section& S, int model, int ncor_new, const char* name);

  int model0(Section& S);
  int linked(Section& S);
  int ar_coefficients(Section& S, int which, double phi[3], double dphi[2][3]);
  int time_series(Section& S, int p, int which);
  int moving_average(Section& S, int which);
  int coru(Section& S);
  int corb_corg(Section& S, bool corg);
  int diag(Section& S);
  int us(Section& S);
  int factor_form(Section& S, bool ante);
  int factor_parameters(Section& S, bool ante, int bw, i64 pf_, i64 pscr, span<int> perm, span<int> perm2);
  int factor_derivatives(Section& S, bool ante, i64 pf_, i64 pg, i64 pgi);
  int distance(Section& S);

  // Expands a Toeplitz first row into packed form at `dst`.
  void expand_toeplitz(i64 dst, i64 row, int n) {
    for (int i = 1; i <= n; ++i)
      for (int j = 1; j <= i; ++j) W(dst + packed_index(i, j)) = W(row + i - j);
  }
  int g5vvsa(Section& S, int gp, i64 drow, i64 vinv);
};

int Former::check_tables() {
  const std::size_t ng = a_.gammas.size();
  if (a_.lstruc < 15 || a_.nsect < 0 ||
      a_.struc.size() < static_cast<std::size_t>(a_.nsect) * static_cast<std::size_t>(a_.lstruc))
    return fail(1000, " Structure table shorter than its sections");
  if (a_.tgamma.size() < ng || a_.rgmstr.size() < ng || a_.parform.size() < ng ||
      a_.trdrri.size() < ng || (a_.iteration > 1 && a_.prvgam.size() < ng))
    return fail(1000, " Parameter tables shorter than the parameters");
  if (a_.secform.size() < static_cast<std::size_t>(a_.nsect) ||
      a_.logdet.size() < static_cast<std::size_t>(a_.nsect))
    return fail(1000, " Structure result tables shorter than the sections");
  if (!a_.work.valid() || a_.top > static_cast<i64>(a_.work.len) || a_.floor < 0)
    return fail(6, "");
  return 0;
}

int Former::run() {
  if (check_tables()) return 1;
  // 1. Clear the records and traces.
  for (auto& r : a_.parform) r = FormRecord{};
  for (auto& t : a_.trdrri) t = 0.0;
  for (int s = 1; s <= a_.nsect; ++s) {
    a_.secform.at1(s) = FormRecord{};
    a_.logdet.at1(s) = 0.0;
  }
  // 2. and 3. The known matrices.
  if (giv_walk()) return 1;
  // 4. Running constraint codes above 11 keep their last digit.
  for (auto& c : a_.rgmstr)
    if (c > 11) c %= 10;
  // 5. The sections.
  for (int s = 1; s <= a_.nsect; ++s) {
    StrucRow row{a_.struc.data() + static_cast<std::size_t>(s - 1) * a_.lstruc};
    if (row.field(kOrder) > 800 && a_.debug != 0) g5vtme(a_.unit, " Forming a large variance structure", 35);
    if (section(s)) return 1;
  }
  return 0;
}

int Former::giv_walk() {
  if (a_.iteration <= 1)
    for (auto& v : a_.givlogdet) v = 0.0;
  if (a_.giv.count > 0 && a_.givlogdet.size() < static_cast<std::size_t>(a_.giv.count))
    return fail(1000, " Known matrix table longer than its log determinants");
  char buf[160];
  for (int g = 1; g <= a_.giv.count; ++g) {
    const int size = a_.giv.size(g);
    const int rawtype = a_.giv.type(g);
    if (size == 0 || rawtype == 10 || rawtype == 20) continue;
    if (rawtype >= 6000) continue;  // coordinates and own-structure descriptions
    const GivLayout L = giv_layout(a_.giv, g);
    if (!L.ok || (L.type == 7 && !sparse_giv_valid(a_.giv, L))) {
      std::snprintf(buf, sizeof buf, " Known matrix %d (type %d) does not fit its store", g, rawtype);
      return fail(1000, buf);
    }
    double& held = a_.givlogdet.at1(g);
    double& slot = a_.giv.real.at1(static_cast<std::size_t>(L.slot));
    const double sv = slot;
    if (sv != 0.0 && sv == held) continue;
    auto val = [&](i64 k) { return a_.giv.real.at1(static_cast<std::size_t>(L.first + k - 1)); };
    double ld = 0.0;
    if (L.type == 3) {
      for (int k = 1; k <= size; ++k) {
        const double q = std::fabs(val(2 * k) - val(2 * k - 1) * val(2 * k - 1));
        if (q > 1e-12) ld -= std::log(q);
      }
    } else if (L.type == 8) {
      if (sv < 0.0 && sv > -10.0 * size) {
        ld = sv;
      } else {
        for (int k = 1; k <= size; ++k)
          if (val(k) != 0.0) ld -= std::log(std::fabs(val(k)));
      }
    } else {
      // A sparse inverse keeps its stored value unless it is implausible
      // or marked unknown; a dense one needs an index and a value.
      const bool stands = L.type == 7 ? (std::fabs(sv) < 5.0 * size && sv != a_.sentinel)
                                      : (a_.giv.index(g) != 0 && sv != 0.0 && sv != a_.sentinel);
      if (stands) {
        ld = sv;
      } else {
        // The log determinant from a dense factorisation of a copy taken
        // from the top of the work array.
        if (size > 2000) {
          std::snprintf(buf, sizeof buf,
                        " Known matrix %d: log determinant of a sparse matrix of order %d not available in this version",
                        g, size);
          return fail(1000, buf);
        }
        const i64 nval = packed_size(size);
        const i64 saved = a_.top;
        const i64 p = take(nval + 2 * static_cast<i64>(size));
        if (!p) return 1;
        for (i64 k = 0; k < nval; ++k) W(p + k) = 0.0;
        if (L.type == 9) {
          for (i64 k = 1; k <= nval; ++k) W(p + k - 1) = val(k);
        } else {
          for (int r = 1; r <= size; ++r)
            for (int q = a_.giv.integer.at1(L.rowstart + r - 1); q < a_.giv.integer.at1(L.rowstart + r); ++q)
              W(p + packed_index(r, a_.giv.integer.at1(L.colindex + q - 1))) = val(q);
        }
        span<int> perm(a_.work.i + 2 * (p + nval - 1), static_cast<std::size_t>(size));
        span<int> perm2(a_.work.i + 2 * (p + nval - 1) + size, static_cast<std::size_t>(size));
        const i64 ps = take(size);
        if (!ps) return 1;
        int mode = -98, rank = size, neg = 0;
        double lg = 0.0;
        g5vsmi(WS(p, nval), WS(ps, size), perm, perm2, mode, rank, lg, neg);
        a_.top = saved;
        if (mode > a_.giv.rank(g)) {
          std::snprintf(buf, sizeof buf, "GIV matrix not positive definite: Singular pivots %d", mode);
          g5verror(buf, 3);
        }
        ld = -lg;
      }
    }
    held = ld;
    slot = ld;
  }
  return 0;
}

// A section linked to a known matrix (GIV row -model), held as its
// inverse: sigma times the matrix, delivered through its inverse rows.
int Former::linked(Section& S) {
  const int n = S.n;
  const int g = -S.model;
  char buf[160];
  const GivLayout L = giv_layout(a_.giv, g);
  if (!L.ok || L.type == 3 || (L.type == 7 && !sparse_giv_valid(a_.giv, L)) || L.size != n) {
    std::snprintf(buf, sizeof buf, " Section %d: known matrix %d cannot be linked to a structure of order %d", S.s, g,
                  n);
    return fail(1000 + S.model, buf);
  }
  double sig = 1.0;
  if (!S.scaled && S.npar >= 1) sig = gam(S.gfirst);
  if (S.npar > 1 || sig == 0.0) {
    std::snprintf(buf, sizeof buf, " Linked section %d with %d parameters or zero scale", S.s, S.npar);
    return fail(1000 + S.model, buf);
  }
  const FormRecord keep = *S.rec;
  if (g5vva0(*S.rec, sig, a_.work, a_.top, a_.floor, ifault_)) return 1;
  S.rec->scale = keep.scale;
  S.rec->scalei = keep.scalei;
  const int eff = std::min(n, a_.giv.size(g) - a_.giv.rank(g));
  a_.logdet.at1(S.s) = (S.scaled ? 0.0 : eff * std::log(std::fabs(sig))) + a_.givlogdet.at1(g);
  if (!S.scaled && S.npar == 1) {
    const i64 p = take(1);
    if (!p) return 1;
    W(p) = 1.0 / (sig * sig);
    FormRecord& r = pf(S.gfirst);
    r = FormRecord{};
    r.posi = p;
    tr(S.gfirst) = 1.0 / sig;
    a_.tgamma.at1(S.gfirst) = a_.variance_kind;
  }
  return 0;
}

int Former::section(int s) {
  Section S;
  S.s = s;
  S.row = StrucRow{a_.struc.data() + static_cast<std::size_t>(s - 1) * a_.lstruc};
  S.rec = &a_.secform.at1(s);
  StrucRow& row = S.row;
  if (row.field(kShared) == -1) return shared(S);

restart:
  *S.rec = FormRecord{};
  a_.logdet.at1(s) = 0.0;
  row.field(kField7) = 0;
  S.gform = row.field(kGform) == 2 ? 2 : 1;
  row.field(kGform) = S.gform;
  const int order = row.field(kOrder);
  S.n = S.gform == 2 ? order / 2 : order;
  S.model = row.field(kModel);
  S.npar = row.field(kNpar);
  S.gfirst = row.field(kGfirst);
  S.scaled = S.pervar = false;
  if (S.gfirst == 0) {
    // No parameters of its own: the plain identity.
    S.npar = 0;
    if (S.model > 0) S.model = 0;
  }
  const int n = S.n;
  char buf[160];
  if (n < 1 || S.npar < 0 || (S.gform == 2 && order % 2 != 0)) {
    std::snprintf(buf, sizeof buf, " Structure section %d has order %d", s, order);
    return fail(1000 + S.model, buf);
  }
  if (S.npar > 0 && (S.gfirst < 1 || static_cast<std::size_t>(S.gfirst) + S.npar - 1 > a_.gammas.size())) {
    std::snprintf(buf, sizeof buf, " Structure section %d: parameters outside the parameter table", s);
    return fail(1000 + S.model, buf);
  }
  const int scalepos = row.field(kScalepos);
  if (scalepos < 0 || static_cast<std::size_t>(scalepos) > a_.gammas.size()) {
    std::snprintf(buf, sizeof buf, " Structure section %d: scale outside the parameter table", s);
    return fail(1000 + S.model, buf);
  }
  if (S.model >= 10 && S.model <= 15 && n == 1) S.model = 0;
  if (row.field(kBlockrow) > 0 && !(S.model == 1 && S.npar >= 1)) {
    std::snprintf(buf, sizeof buf, " Structure section %d: blocks are available for AR1 only", s);
    return fail(1000 + S.model, buf);
  }

  if (variance_part(S)) return 1;

  int rc = 0;
  const int m = S.model;
  const int nc = S.ncor;
  if (m < 0) {
    rc = linked(S);
  } else if (m == 0) {
    rc = model0(S);
  } else if (const TimeSeriesCase* t = time_series_case(m, nc)) {
    if (n < t->least) {
      if (fall_back(S, t->fb1, t->fb2, t->name)) return 1;
      goto restart;
    }
    rc = time_series(S, t->lags, t->kind);
  } else if (m == 2 && nc == 1) {
    if (n < 2) return fail(1002, " MA1 needs an order of at least 2");
    rc = moving_average(S, 1);
  } else if (m < 4 && nc == 2) {
    if (n < 3) {
      if (fall_back(S, 1, 1, m == 2 ? "MA2" : "ARMA")) return 1;
      goto restart;
    }
    rc = moving_average(S, m == 2 ? 2 : 3);
  } else if (m == 4) {
    return fail(1004, "");
  } else if (m == 5 && n >= 2 && nc == 1) {
    rc = coru(S);
  } else if (m == 5 && n >= 2 && nc == n - 1) {
    rc = corb_corg(S, false);
  } else if (m == 5 && n >= 2 && nc == n * (n - 1) / 2) {
    rc = corb_corg(S, true);
  } else if (m == 6) {
    rc = distance(S);
  } else if (m == 7) {
    return fail(1007, " Own variance structures are not available in this version");
  } else if (m == 8) {
    rc = diag(S);
  } else if (m == 9) {
    rc = us(S);
  } else if (m == 10 || m == 13 || m == 15) {
    return fail(1000 + m, " Factor analytic structures are not available in this version");
  } else if (m == 11 || m == 12) {
    rc = factor_form(S, m == 12);
  } else {
    std::snprintf(buf, sizeof buf, " Variance model %d with %d parameters is not defined", m, nc);
    return fail(1000 + m, buf);
  }
  if (rc) return 1;
  return finish(S);
}

// Rewrites the section as a simpler model when its order is too small for
// its parameters.  The correlation parameters that the simpler model does
// not use are fixed.
int Former::fall_back(Section& S, int model, int ncor_new, const char* name) {
  char buf[160];
  if (S.pervar) {
    std::snprintf(buf, sizeof buf, " %s of order %d with its own variances cannot be formed", name, S.n);
    return fail(1000 + S.model, buf);
  }
  for (int k = ncor_new + 1; k <= S.ncor; ++k) {
    const int p = S.gfirst + k - 1;
    rg(p) = 4;
    a_.tgamma.at1(p) = 3;
  }
  const int newnpar = S.npar - (S.ncor - ncor_new);
  S.row.field(kModel) = model;
  S.row.field(kNpar) = newnpar;
  std::snprintf(buf, sizeof buf, " %s of order %d fitted as %s", name, S.n, model == 0 ? "IDEN" : "AR1");
  g5verror(buf, 1);
  return 0;
}

int Former::shared(Section& S) {
  StrucRow& row = S.row;
  for (int t = S.s - 1; t >= 1; --t) {
    StrucRow o{a_.struc.data() + static_cast<std::size_t>(t - 1) * a_.lstruc};
    if (o.field(kShared) == -1) continue;
    if (o.field(kGfirst) == row.field(kGfirst) && o.field(kOrder) == row.field(kOrder) &&
        o.field(kModel) == row.field(kModel)) {
      *S.rec = a_.secform.at1(t);
      a_.logdet.at1(S.s) = a_.logdet.at1(t);
      for (int f = 5; f <= 10; ++f) row.field(f) = o.field(f);
      return 0;
    }
  }
  char buf[96];
  std::snprintf(buf, sizeof buf, " Shared structure section %d has no earlier match", S.s);
  return fail(1000 + row.field(kModel), buf);
}

int Former::variance_part(Section& S) {
  const int n = S.n;
  const int m = S.model;
  const int scalepos = S.row.field(kScalepos);
  if (scalepos > 0 && m != 7) {
    S.ncor = S.npar - 1;
    if (S.ncor < 0) S.ncor = 0;
    double& sig = gam(scalepos);
    if (sig < 1e-18) {
      sig = 1e-18;
      rg(scalepos) = 1;
    }
    a_.tgamma.at1(scalepos) = a_.variance_kind;
    const i64 p = take(2);
    if (!p) return 1;
    W(p) = sig;
    W(p + 1) = 1.0 / sig;
    S.rec->scale = -p;
    S.rec->scalei = -(p + 1);
    S.scaled = true;
  } else if (S.npar > n && m > 0 && m < 7) {
    if (m == 5) {
      const int np = S.npar;
      if (np == n + 1 || np == 2 * n - 1 || np == n * (n + 1) / 2) {
        // variances follow the correlations
      } else if (np == 1 || np == n - 1 || np == n * (n - 1) / 2) {
        S.ncor = S.npar;
        return 0;
      } else {
        return fail(1005, " Correlation structure with a number of parameters that fits no form");
      }
    }
    S.ncor = S.npar - n;
    const i64 p = take(2 * static_cast<i64>(n));
    if (!p) return 1;
    if (p <= 1000) return g5vflt(ifault_, 6);  // scale vectors must lie above 1000
    for (int k = 1; k <= n; ++k) {
      const int gp = S.gfirst + S.ncor + k - 1;
      if (gam(gp) < 1e-18) {
        gam(gp) = 1e-18;
        rg(gp) = 1;
      }
      a_.tgamma.at1(gp) = a_.variance_kind;
      W(p + k - 1) = std::sqrt(gam(gp));
      W(p + n + k - 1) = 1.0 / std::sqrt(gam(gp));
    }
    S.rec->scale = p;
    S.rec->scalei = p + n;
    S.scaled = S.pervar = true;
  } else {
    S.ncor = S.npar;
  }
  S.row.field(kNcor) = S.ncor;
  return 0;
}

int Former::finish(Section& S) {
  const int n = S.n;
  const int scalepos = S.row.field(kScalepos);
  S.row.field(kNcor) = S.ncor;
  if (scalepos > 0 && S.model != 7) {
    const double sig = gam(scalepos);
    FormRecord& r = pf(scalepos);
    r = *S.rec;
    tr(scalepos) = n / sig;
    a_.logdet.at1(S.s) += n * std::log(sig);
  } else if (S.pervar) {
    for (int k = S.ncor + 1; k <= S.npar; ++k) {
      const int gp = S.gfirst + k - 1;
      pf(gp) = *S.rec;
      tr(gp) = 1.0 / gam(gp);
      a_.logdet.at1(S.s) += std::log(gam(gp));
    }
  }
  // Correlation parameters carry the section's scaling.
  for (int k = 1; k <= S.ncor; ++k) {
    const int gp = S.gfirst + k - 1;
    if (S.model == 0 || S.model == 8 || S.model == 9) break;
    pf(gp).scale = S.rec->scale;
    pf(gp).scalei = S.rec->scalei;
  }
  if (a_.debug && n < 21 && S.model >= 1 && S.model <= 4) {
    // The stored forms: a Toeplitz row, bands of the inverse (n words
    // each) or a packed inverse.
    auto show = [&](const char* label, i64 kind, i64 pos) {
      if (pos <= 0) return;
      i64 len = n;
      if (kind >= 3 && kind <= 5) len = (kind - 1) * static_cast<i64>(n);
      if (kind == 9) len = packed_size(n);
      g5vplt(label, WS(pos, len), static_cast<int>(len), a_.unit);
    };
    show("R", S.rec->kind, S.rec->pos);
    show("Ri", S.rec->kindi, S.rec->posi);
    if (S.ncor >= 1) {
      show("dR1", pf(S.gfirst).kind, pf(S.gfirst).pos);
      show("dRi1", pf(S.gfirst).kindi, pf(S.gfirst).posi);
    }
    if (S.ncor >= 2) {
      show("dR2", pf(S.gfirst + 1).kind, pf(S.gfirst + 1).pos);
      show("dRi2", pf(S.gfirst + 1).kindi, pf(S.gfirst + 1).posi);
    }
  }
  return 0;
}

int Former::model0(Section& S) {
  const int n = S.n;
  if (S.scaled || S.npar == 0) {
    // sigma I through the scale stage, or the plain identity.
    S.rec->kind = 0;
    S.rec->pos = 0;
    S.rec->kindi = 0;
    S.rec->posi = 0;
    return 0;
  }
  const double sig = gam(S.gfirst);
  if (S.npar > 1 || sig == 0.0) {
    char buf[96];
    std::snprintf(buf, sizeof buf, " Scaled identity section %d with %d parameters or zero scale", S.s,
                  S.npar);
    return fail(1000 + S.model, buf);
  }
  if (g5vva0(*S.rec, sig, a_.work, a_.top, a_.floor, ifault_)) return 1;
  const i64 p = take(1);
  if (!p) return 1;
  W(p) = 1.0 / (sig * sig);
  FormRecord& r = pf(S.gfirst);
  r = FormRecord{};
  r.kind = 0;
  r.pos = 0;
  r.kindi = 0;
  r.posi = p;
  tr(S.gfirst) = n / sig;
  a_.tgamma.at1(S.gfirst) = a_.variance_kind;
  a_.logdet.at1(S.s) = n * std::log(std::fabs(sig));
  return 0;
}

// ---------------------------------------------------------------- AR family

// Autoregressive structures of order p (AR1, AR2, AR3, and SAR and SAR2
// through their autoregressive coefficients).  The correlations follow
// the Yule-Walker equations and the recursion r(k) = sum phi_j r(k-j); the
// inverse is a band of half-width p: the inverse of the first p x p block
// plus the squared one-step residuals over the innovation variance.
namespace ar {

struct Model {
  int p = 1;
  int n = 0;
  bool process = false;  // process form: unit innovation variance
  Dual phi[3];
};

// Correlations rho(0..n-1) and the innovation variance of a unit process.
void correlations(const Model& M, Dual* rho, Dual& s2) {
  const Dual one(1.0);
  const Dual* f = M.phi;
  rho[0] = one;
  int from = 1;
  if (M.p == 2) {
    if (M.n > 1) rho[1] = f[0] / (one - f[1]);
    from = 2;
  } else if (M.p == 3) {
    const Dual D = one - f[1] - f[2] * (f[0] + f[2]);
    if (M.n > 1) rho[1] = (f[2] * f[1] + f[0]) / D;
    if (M.n > 2) rho[2] = (f[1] * (one - f[1]) + f[0] * (f[2] + f[0])) / D;
    from = 3;
  }
  for (int k = from; k < M.n; ++k) {
    Dual r(0.0);
    for (int j = 1; j <= M.p; ++j) r += f[j - 1] * rho[k - j];
    rho[k] = r;
  }
  // Every caller has n > p.
  Dual s(1.0);
  for (int j = 1; j <= M.p; ++j) s = s - f[j - 1] * rho[j];
  s2 = s;
}

// Inverse and log determinant of the p x p correlation block.
void block_inverse(int p, const Dual* rho, Dual inv[3][3], Dual& ld) {
  const Dual one(1.0);
  if (p == 1) {
    inv[0][0] = one;
    ld = Dual(0.0);
  } else if (p == 2) {
    const Dual det = one - rho[1] * rho[1];
    inv[0][0] = inv[1][1] = one / det;
    inv[0][1] = inv[1][0] = -rho[1] / det;
    ld = dlog(det);
  } else {
    const Dual b = rho[1], c = rho[2];
    const Dual det = one - Dual(2.0) * b * b + Dual(2.0) * b * b * c - c * c;
    const Dual c11 = one - b * b, c12 = b * c - b, c13 = b * b - c, c22 = one - c * c;
    inv[0][0] = inv[2][2] = c11 / det;
    inv[0][1] = inv[1][0] = inv[1][2] = inv[2][1] = c12 / det;
    inv[0][2] = inv[2][0] = c13 / det;
    inv[1][1] = c22 / det;
    ld = dlog(det);
  }
}

// Adds the inverse of the correlation matrix of one run of rows [s, s+m)
// to the band (band[k][q] is element (q+1, q+1+k), 0-based q) and returns
// the run's log determinant.
Dual add_run(const Model& M, const Dual* rho, Dual s2, int s, int m, Dual* band) {
  const int n = M.n;
  const int p = M.p;
  if (m <= p) {
    // A one-row block of an AR1.
    band[s] += Dual(1.0);
    return Dual(0.0);
  }
  Dual inv[3][3];
  Dual ld;
  block_inverse(p, rho, inv, ld);
  for (int i = 0; i < p; ++i)
    for (int j = i; j < p; ++j) band[static_cast<i64>(j - i) * n + s + i] += inv[i][j];
  Dual c[4];
  c[0] = Dual(1.0);
  for (int j = 1; j <= p; ++j) c[j] = -M.phi[j - 1];
  const Dual w = Dual(1.0) / s2;
  for (int t = p; t < m; ++t)
    for (int j = 0; j <= p; ++j)
      for (int l = j; l <= p; ++l)
        // pair (t-l, t-j), distance l-j
        band[static_cast<i64>(l - j) * n + s + t - l] += c[j] * c[l] * w;
  return ld + Dual(static_cast<double>(m - p)) * dlog(s2);
}

}  // namespace ar

// The autoregressive coefficients of a time-series section in terms of its
// parameters, after moving the parameters into range, and their
// derivatives (dphi[q][j]: of coefficient j with respect to parameter q;
// AR3 takes its coefficients as the parameters).  Returns the number of
// parameters.
int Former::ar_coefficients(Section& S, int which, double phi[3], double dphi[2][3]) {
  const int g = S.gfirst;
  int nparam = 1;
  if (which == 1) {
    double& r = gam(g);
    if (std::fabs(r) >= 0.999) {
      r = std::copysign(0.999, r);
      rg(g) = 4;
    } else if (std::fabs(r) > 0.995) {
      r = std::copysign(0.995, r);
    }
    if (S.npar == 2 && rg(g + 1) == 7) rg(g) = 4;
    phi[0] = r;
    dphi[0][0] = 1.0;
  } else if (which == 2) {
    double& f1 = gam(g);
    double& f2 = gam(g + 1);
    keep_pair_inside(f1, f2);
    phi[0] = f1;
    phi[1] = f2;
    dphi[0][0] = 1.0;
    dphi[1][1] = 1.0;
    nparam = 2;
  } else if (which == 3) {
    phi[0] = gam(g);
    phi[1] = gam(g + 1);
    phi[2] = gam(g + 2);
    nparam = 3;
  } else if (which == 14) {
    double& av = gam(g);
    if (std::fabs(av) > 0.995) av /= std::fabs(av) + 0.01;
    phi[0] = av;
    phi[1] = -av * av / 4.0;
    dphi[0][0] = 1.0;
    dphi[0][1] = -av / 2.0;
  } else {
    double& av = gam(g);
    double& bv = gam(g + 1);
    if (av == bv) bv *= 0.98;
    phi[0] = av + 2.0 * bv;
    phi[1] = -(2.0 * av + bv) * bv;
    phi[2] = av * bv * bv;
    dphi[0][0] = 1.0;
    dphi[0][1] = -2.0 * bv;
    dphi[0][2] = bv * bv;
    dphi[1][0] = 2.0;
    dphi[1][1] = -2.0 * av - 2.0 * bv;
    dphi[1][2] = 2.0 * av * bv;
    nparam = 2;
  }

  return nparam;
}

int Former::time_series(Section& S, int p, int which) {
  const int n = S.n;
  const int g = S.gfirst;
  const bool process = S.row.field(kBand) != 1;
  char buf[128];

  // Bounds and the coefficients in terms of the parameters.
  double phi[3] = {0, 0, 0};
  double dphi[2][3] = {{0, 0, 0}, {0, 0, 0}};
  const int nparam = ar_coefficients(S, which, phi, dphi);

  // Runs of rows: blocks of a blocked AR1, else one run.
  const int blockrow = S.row.field(kBlockrow);
  if (blockrow > 0 && !block_levels_valid(a_.giv, blockrow, n)) {
    std::snprintf(buf, sizeof buf, " AR1 blocks of section %d: block levels outside the store", S.s);
    return fail(1000 + S.model, buf);
  }
  auto run_end = [&](int start) {  // 0-based start, returns one past the end
    int e = start + 1;
    if (blockrow > 0) {
      const int lev = block_level(a_.giv, blockrow, start + 1);
      while (e < n && block_level(a_.giv, blockrow, e + 1) == lev) ++e;
    } else {
      e = n;
    }
    return e;
  };

  const i64 nb = static_cast<i64>(p + 1) * n;
  // Words: r (n), inverse band (nb); per parameter dr (n), dband (nb).
  // Scratch for the dual values is taken above them and given back.
  const i64 pr = take(n);
  if (!pr) return 1;
  const i64 pb = take(nb);
  if (!pb) return 1;
  i64 pdr[3] = {0, 0, 0}, pdb[3] = {0, 0, 0};
  for (int q = 0; q < nparam; ++q) {
    if (!(pdr[q] = take(n))) return 1;
    if (!(pdb[q] = take(nb))) return 1;
  }
  const i64 saved = a_.top;
  const i64 need = 2 * static_cast<i64>(n) + 2 * static_cast<i64>(nb);
  const i64 ps = take(need);
  if (!ps) return 1;
  Dual* rho = reinterpret_cast<Dual*>(a_.work.r + ps - 1);
  Dual* band = rho + n;

  for (int q = 0; q < nparam; ++q) {
    ar::Model M;
    M.p = p;
    M.n = n;
    M.process = process;
    for (int j = 0; j < p; ++j) {
      double d = 0.0;
      if (which == 3) d = (j == q) ? 1.0 : 0.0;
      else d = dphi[q][j];
      M.phi[j] = Dual(phi[j], d);
    }
    Dual s2;
    ar::correlations(M, rho, s2);
    if (!(s2.v > 0.0) || !std::isfinite(s2.v)) {
      std::snprintf(buf, sizeof buf, " Autoregressive parameters of section %d outside the stationary region", S.s);
      return fail(1000 + S.model, buf);
    }
    for (i64 k = 0; k < nb; ++k) band[k] = Dual(0.0);
    Dual ld(0.0);
    for (int st = 0; st < n;) {
      const int e = run_end(st);
      ld += ar::add_run(M, rho, s2, st, e - st, band);
      st = e;
    }
    // Process form: V = R / s2, V^-1 = s2 R^-1.
    Dual gamma0(1.0);
    if (process) {
      gamma0 = Dual(1.0) / s2;
      for (i64 k = 0; k < nb; ++k) band[k] = band[k] * s2;
      ld = ld - Dual(static_cast<double>(n)) * dlog(s2);
    }
    for (int k = 0; k < n; ++k) {
      const Dual v = rho[k] * gamma0;
      if (q == 0) W(pr + k) = tiny_to_zero(v.v);
      W(pdr[q] + k) = tiny_to_zero(v.d);
    }
    for (i64 k = 0; k < nb; ++k) {
      if (q == 0) W(pb + k) = band[k].v;
      W(pdb[q] + k) = -band[k].d;
    }
    if (q == 0) a_.logdet.at1(S.s) = ld.v;
    const int gp = g + q;
    tr(gp) = ld.d;
    a_.tgamma.at1(gp) = 3;
    stlbri(gp, 2, 0, pdr[q], p + 2, 0, pdb[q]);
  }
  a_.top = saved;
  S.rec->kind = 2;
  S.rec->pos = pr;
  S.rec->kindi = p + 2;
  S.rec->posi = pb;
  if (a_.debug && p == 3) {
    std::snprintf(buf, sizeof buf, "%s %g %g %g", which == 15 ? "SAR2 tr1 tr2 logdet" : "AR3 tr1 tr2 logdet",
                  tr(g), tr(g + 1), a_.logdet.at1(S.s));
    g5vtme(a_.unit, buf, static_cast<int>(std::strlen(buf)));
  } else if (a_.debug && which == 14) {
    std::snprintf(buf, sizeof buf, "SAR tr1 logdet %g %g", tr(g), a_.logdet.at1(S.s));
    g5vtme(a_.unit, buf, static_cast<int>(std::strlen(buf)));
  }
  return 0;
}

// Expands the Toeplitz derivative row at `drow` into packed form, stores
// tr(V^-1 dV) as the parameter's trace and V^-1 dV V^-1 (packed) as its
// inverse-side record.  vinv: the packed inverse.
int Former::g5vvsa(Section& S, int gp, i64 drow, i64 vinv) {
  const int n = S.n;
  const i64 np = packed_size(n);
  const i64 pc = take(np);
  if (!pc) return 1;
  const i64 saved = a_.top;
  const i64 pd = take(np);
  if (!pd) return 1;
  const i64 pw = take(static_cast<i64>(n) * n);
  if (!pw) return 1;
  expand_toeplitz(pd, drow, n);
  tr(gp) = g5vvtr(WS(vinv, np), WS(pd, np), n);
  g5vvaa(WS(pc, np), WS(pd, np), WS(vinv, np), WS(pw, static_cast<i64>(n) * n), n);
  a_.top = saved;
  stlbri(gp, 2, 0, drow, 9, 0, pc);
  return 0;
}

// MA1 (which 1), MA2 (2) and ARMA (3): Toeplitz matrices with a dense
// inverse.
int Former::moving_average(Section& S, int which) {
  const int n = S.n;
  const int g = S.gfirst;
  const bool corr = S.row.field(kBand) == 1;
  const int nparam = which == 1 ? 1 : 2;
  if (which != 1) {
    if (gam(g) == 0.0) gam(g) = 0.01;
    if (gam(g + 1) == 0.0) gam(g + 1) = 0.01;
  }
  if (which == 1) {
    double& th = gam(g);
    if (std::fabs(th) > f32(0.99)) th = std::copysign(0.995, th);
  } else if (which == 2) {
    keep_pair_inside(gam(g), gam(g + 1));
  } else {
    double& ph = gam(g);
    double& th = gam(g + 1);
    if (std::fabs(ph) > 0.999) ph = std::copysign(0.999, ph);
    if (std::fabs(th) > 0.995) th = std::copysign(0.995, th);
    if ((2 * ph - th) * th < 0.0 &&
        1.0 - (2 * ph - th) * th < std::fabs((1 - ph * th) * (ph - th)) && ph * th != 0.0) {
      const double d = std::fabs(1.01 * ph * th);
      ph /= d;
      th /= d;
    }
  }
  const i64 np = packed_size(n);
  const i64 pr = take(n);
  if (!pr) return 1;
  const i64 pinv = take(np);
  if (!pinv) return 1;
  i64 pdr[2] = {0, 0};
  for (int q = 0; q < nparam; ++q)
    if (!(pdr[q] = take(n))) return 1;

  for (int q = 0; q < nparam; ++q) {
    // The Toeplitz row and its derivative in the direction of parameter q.
    Dual a(gam(g), q == 0 ? 1.0 : 0.0);
    Dual b = nparam > 1 ? Dual(gam(g + 1), q == 1 ? 1.0 : 0.0) : Dual(0.0);
    const Dual one(1.0);
    Dual r0, r1, r2(0.0);
    bool arma = false;
    if (which == 1) {
      r0 = one + a * a;
      r1 = -a;
    } else if (which == 2) {
      r0 = one + a * a + b * b;
      r1 = -a * (one - b);
      r2 = -b;
    } else {
      // a = phi, b = theta
      r0 = (one + b * (b - Dual(2.0) * a)) / (one - a * a);
      r1 = (one - b * a) * (a - b) / (one - a * a);
      arma = true;
    }
    Dual scale = corr ? one / r0 : one;
    Dual prev = r1 * scale;
    for (int k = 0; k < n; ++k) {
      Dual v;
      if (k == 0) v = r0 * scale;
      else if (k == 1) v = r1 * scale;
      else if (k == 2 && !arma) v = r2 * scale;
      else if (arma) v = prev = a * prev;
      else v = Dual(0.0);
      if (q == 0) W(pr + k) = v.v;
      W(pdr[q] + k) = v.d;
    }
  }
  const i64 saved = a_.top;
  if (which == 1) {
    const double r0 = W(pr), r1 = n > 1 ? W(pr + 1) : 0.0;
    g5vvma(r0, r1, WS(pinv, np), n);
    // log det by the ratios of the recursion D(k) = r0 D(k-1) - r1^2 D(k-2).
    double ld = std::log(std::fabs(r0));
    double qk = r0;
    for (int k = 2; k <= n; ++k) {
      qk = r0 - r1 * r1 / qk;
      ld += std::log(std::fabs(qk));
    }
    a_.logdet.at1(S.s) = ld;
  } else {
    expand_toeplitz(pinv, pr, n);
    InverseScratch sc;
    if (!take_inverse_scratch(n, sc)) return 1;
    span<int> perm = sc.perm, perm2 = sc.perm2;
    const i64 pscr = sc.pscr;
    int mode = 0, rank = n, neg = 0;
    double ld = 0.0;
    g5vsmi(WS(pinv, np), WS(pscr, n), perm, perm2, mode, rank, ld, neg);
    a_.top = saved;
    if (mode != 0) {
      char buf[96];
      std::snprintf(buf, sizeof buf, " %s structure of section %d is singular", which == 2 ? "MA2" : "ARMA", S.s);
      return fail(1000 + S.model, buf);
    }
    a_.logdet.at1(S.s) = ld;
  }
  if (a_.debug && which == 3) {
    g5vtme(a_.unit, " ARMA", 5);
    g5vtme(a_.unit, " ARMAinv", 8);
  }
  for (int q = 0; q < nparam; ++q) {
    a_.tgamma.at1(g + q) = 3;
    if (g5vvsa(S, g + q, pdr[q], pinv)) return 1;
    if (a_.debug && which == 3) g5vtme(a_.unit, q == 0 ? "DERIV1" : "DERIV2", 6);
  }
  S.rec->kind = 2;
  S.rec->pos = pr;
  S.rec->kindi = 9;
  S.rec->posi = pinv;
  return 0;
}

// ------------------------------------------------------------ correlations

int Former::coru(Section& S) {
  const int n = S.n;
  const int g = S.gfirst;
  double& rho = gam(g);
  if (std::fabs(1.0 - std::fabs(rho)) < f32(1e-4)) rho = std::copysign(0.999, rho);
  const double r = rho;
  if (!(1.0 + (n - 1) * r > 0.0) || !(r < 1.0)) {
    char buf[128];
    std::snprintf(buf, sizeof buf, " Uniform correlation %g of section %d is not positive definite for order %d", r,
                  S.s, n);
    return fail(1005, buf);
  }
  const double a = 1.0 / (1.0 - r);
  const double b = -r / ((1.0 - r) * (1.0 + (n - 1) * r));
  const double q = (2 * a + n * b) * (n - 1) * b + a * a;
  const i64 p = take(4 * static_cast<i64>(n));
  if (!p) return 1;
  // R, R^-1, dR, R^-1 dR R^-1: four Toeplitz rows.
  for (int k = 0; k < n; ++k) {
    W(p + k) = k == 0 ? 1.0 : r;
    W(p + n + k) = k == 0 ? a + b : b;
    W(p + 2 * n + k) = k == 0 ? 0.0 : 1.0;
    W(p + 3 * n + k) = k == 0 ? q - a * a : q;
  }
  S.rec->kind = 2;
  S.rec->pos = p;
  S.rec->kindi = 2;
  S.rec->posi = p + n;
  stlbri(g, 2, 0, p + 2 * n, 2, 0, p + 3 * n);
  tr(g) = n * (n - 1) * b;
  a_.tgamma.at1(g) = 3;
  a_.logdet.at1(S.s) = (n - 1) * std::log(1.0 - r) + std::log(1.0 + (n - 1) * r);
  return 0;
}

int Former::corb_corg(Section& S, bool corg) {
  const int n = S.n;
  const int g = S.gfirst;
  const int nc = S.ncor;
  char buf[160];
  if (corg && packed_size(n) > 4000)
    return fail(1005, " General correlation structure too large for its derivative codes");
  for (int k = 0; k < nc; ++k) {
    const int gp = g + k;
    if (rg(gp) == 2) {
      rg(gp) = 4;
      gam(gp) = 0.0;
    } else if (gam(gp) == 0.0 && rg(gp) < 4) {
      gam(gp) = 0.01;
    }
    a_.tgamma.at1(gp) = 3;
  }
  const i64 np = packed_size(n);
  const i64 pv = corg ? take(np) : take(n);
  if (!pv) return 1;
  const i64 pinv = take(np);
  if (!pinv) return 1;
  const i64 saved = a_.top;
  InverseScratch sc;
  if (!take_inverse_scratch(n, sc)) return 1;
  span<int> perm = sc.perm, perm2 = sc.perm2;
  const i64 pscr = sc.pscr;

  auto element = [&](int i, int j) -> double {  // i > j
    if (corg) return gam(g + static_cast<int>(packed_index(i - 1, j)));
    return gam(g + i - j - 1);
  };
  int tries = 0;
  int sing = 0, neg = 0;
  double ld = 0.0;
  for (;;) {
    for (int i = 1; i <= n; ++i) {
      W(pinv + packed_index(i, i)) = 1.0;
      for (int j = 1; j < i; ++j) W(pinv + packed_index(i, j)) = element(i, j);
    }
    int mode = 0, rank = n, nc2 = 0;
    ld = 0.0;
    g5vsmi(WS(pinv, np), WS(pscr, n), perm, perm2, mode, rank, ld, nc2);
    sing = mode;
    neg = nc2 < 0 ? -1 - nc2 : nc2;
    if (sing == 0 && neg == 0) break;
    if (rg(g) >= 4) break;
    if (!corg) break;
    g5verror("Negative Definite CORG structure modified", 2);
    g5verror("Model may not converge to best solution", 2);
    bool above = false;
    for (int k = 0; k < nc; ++k) {
      gam(g + k) *= f32(0.99);
      if (std::fabs(gam(g + k)) > 1.0) above = true;
    }
    ++tries;
    if (above || tries > 10) return fail(1005, "");
  }
  if (sing != 0 || neg != 0) {
    std::snprintf(buf, sizeof buf, "Nonpositive definite G matrix: %d singularities, %d negative pivots; order %d",
                  sing, neg, n);
    g5verror(buf, 3);
    if (sing != 0 || rg(g) == 1 || (!corg && rg(g) < 4)) return fail(1005, "");
  }
  a_.top = saved;
  a_.logdet.at1(S.s) = ld;
  if (corg) {
    for (int i = 1; i <= n; ++i) {
      W(pv + packed_index(i, i)) = 1.0;
      for (int j = 1; j < i; ++j) W(pv + packed_index(i, j)) = element(i, j);
    }
    S.rec->kind = 9;
  } else {
    W(pv) = 1.0;
    for (int k = 1; k < n; ++k) W(pv + k) = gam(g + k - 1);
    S.rec->kind = 2;
  }
  S.rec->pos = pv;
  S.rec->kindi = 9;
  S.rec->posi = pinv;
  auto Vi = [&](int i, int j) { return W(pinv + packed_index(i, j)); };
  if (corg) {
    int k = 0;
    for (int i = 2; i <= n; ++i)
      for (int j = 1; j < i; ++j, ++k) {
        const int gp = g + k;
        const i64 t = packed_index(i, j) + 1;
        stlbri(gp, 1000 + t, 0, 0, 1000 + t, 0, pinv);
        tr(gp) = 2.0 * Vi(i, j);
      }
  } else {
    for (int k = 1; k < n; ++k) {
      const int gp = g + k - 1;
      stlbri(gp, 5000 + k, 0, 0, 5000 + k, 0, pinv);
      double s = 0.0;
      for (int m = 1; m + k <= n; ++m) s += Vi(m + k, m);
      tr(gp) = 2.0 * s;
    }
  }
  return 0;
}

// A distance-based section: the correlation of its units from their
// coordinates.
int Former::distance(Section& S) {
  if (S.n < 2) return fail(1006, " A distance based structure needs at least two units");
  if (S.ncor < 1) return fail(1006, " A distance based structure needs its parameters");
  const std::size_t g0 = static_cast<std::size_t>(S.gfirst - 1), nc = static_cast<std::size_t>(S.ncor);
  SpatialSection sec;
  sec.s = S.s;
  sec.n = S.n;
  sec.ncor = S.ncor;
  sec.par = a_.gammas.subspan(g0, nc);
  sec.tgamma = a_.tgamma.subspan(g0, nc);
  sec.rgmstr = a_.rgmstr.subspan(g0, nc);
  sec.secrec = S.rec;
  sec.parrec = a_.parform.subspan(g0, nc);
  sec.trdrri = a_.trdrri.subspan(g0, nc);
  SpatialContext ctx;
  ctx.giv = a_.giv;
  ctx.work = a_.work;
  ctx.top = &a_.top;
  ctx.floor = a_.floor;
  ctx.debug = a_.debug;
  ctx.unit = a_.unit;
  if (g5vvdg(sec, ctx, ifault_)) return 1;
  a_.logdet.at1(S.s) = sec.logdet;
  return 0;
}

// ------------------------------------------------------- variance matrices

int Former::diag(Section& S) {
  const int n = S.n;
  const int g = S.gfirst;
  if (S.ncor != n) {
    char buf[96];
    std::snprintf(buf, sizeof buf, " DIAG section %d has %d parameters for order %d", S.s, S.ncor, n);
    return fail(1008, buf);
  }
  const i64 pv = take(n);
  if (!pv) return 1;
  const i64 pi = take(n);
  if (!pi) return 1;
  for (int k = 1; k <= n; ++k) {
    const int gp = g + k - 1;
    a_.tgamma.at1(gp) = a_.variance_kind;
    if (S.gform == 2) {
      if (rg(gp) == 2) {
        rg(gp) = 4;
        gam(gp) = 0.0;
      }
      W(pv + k - 1) = gam(gp);
      W(pi + k - 1) = gam(gp);
      continue;
    }
    const double v = gam(gp);
    if (v == 0.0) {
      char buf[96];
      std::snprintf(buf, sizeof buf, " DIAG section %d has a zero variance", S.s);
      return fail(1008, buf);
    }
    W(pv + k - 1) = v;
    W(pi + k - 1) = 1.0 / v;
    a_.logdet.at1(S.s) += std::log(std::fabs(v));
    stlbri(gp, 100 + k, 0, 0, 100 + k, 0, pi);
    tr(gp) = 1.0 / v;
  }
  S.rec->kind = 8;
  S.rec->pos = pv;
  S.rec->kindi = 8;
  S.rec->posi = pi;
  return 0;
}

int Former::us(Section& S) {
  const int n = S.n;
  const int g = S.gfirst;
  const i64 np = packed_size(n);
  char buf[160];
  if (S.ncor != np) {
    if (a_.debug) {
      std::snprintf(buf, sizeof buf, " US section %d: %d parameters, order %d", S.s, S.ncor, n);
      vprt("%s\n", buf);
    }
    return fail(1009, "");
  }
  for (int k = 0; k < np; ++k) a_.tgamma.at1(g + k) = a_.variance_kind;
  const i64 pv = take(np);
  if (!pv) return 1;
  if (S.gform == 2) {
    // G itself, for the doubled equations.
    for (int i = 1; i <= n; ++i)
      for (int j = 1; j <= i; ++j) {
        const bool cleared = rg(g + static_cast<int>(packed_index(i, i))) == 7 ||
                             rg(g + static_cast<int>(packed_index(j, j))) == 7;
        W(pv + packed_index(i, j)) = cleared ? 0.0 : gam(g + static_cast<int>(packed_index(i, j)));
      }
    if (a_.debug) g5vtme(a_.unit, " USsingG", 8);
    S.rec->kind = 9;
    S.rec->pos = pv;
    S.rec->kindi = 9;
    S.rec->posi = pv;
    return 0;
  }
  const i64 pinv = take(np);
  if (!pinv) return 1;
  const i64 saved = a_.top;
  const i64 pscr = take(2 * static_cast<i64>(n));
  if (!pscr) return 1;
  const i64 psl = take((n + 1) / 2 + 1);
  if (!psl) return 1;
  span<int> singlist(a_.work.i + 2 * (psl - 1), static_cast<std::size_t>(n));
  StrucRow& row = S.row;
  int c = 0, doubling = 0;
  double ld = 0.0;
  if (a_.debug) g5vtme(a_.unit, " USpre", 6);
  for (;;) {
    for (i64 k = 0; k < np; ++k) W(pinv + k) = gam(g + static_cast<int>(k));
    int s = 0, m = 0;
    g5vsmige(WS(pinv, np), n, WS(pscr, 2 * static_cast<i64>(n)), ld, singlist, s, m);
    if (a_.debug) g5vtme(a_.unit, "SMIGE", 5);
    if (s == 0 && m == 0) break;
    if (a_.iteration == 1) {
      if (s == 0 && rg(g) != 1) break;
      if (++doubling > 60) return fail(1009, " US matrix could not be made positive definite");
      for (int i = 1; i <= n; ++i) {
        double& d = gam(g + static_cast<int>(packed_index(i, i)));
        if (d <= 0.001) d = 0.5;
        d *= 2.0;
      }
      continue;
    }
    if (a_.iteration > 2000 && s > 0) return fail(1009, "");
    if (rg(g) < 3 || ((a_.iteration == 2 || a_.iteration == 3) && c == 0)) {
      for (i64 k = 0; k < np; ++k) {
        const int gp = g + static_cast<int>(k);
        gam(gp) = 0.5 * (gam(gp) + a_.prvgam.at1(gp));
      }
      g5verror("NonPosDef US matrix modified", 2);
      if (a_.debug) g5vtme(a_.unit, " pre US (2) failed/modified", 27);
      ++c;
      if (c > 9) return fail(1009, "");
      if (row.field(kUsfix) >= 3)
        for (i64 k = 0; k < np; ++k) rg(g + static_cast<int>(k)) = 7;
      continue;
    }
    if (c == 1) break;
    if (s > 0) return fail(1009, "");
    break;
  }
  row.field(kUsfix) += c;
  a_.top = saved;
  if (a_.debug) g5vtme(a_.unit, " USpst", 6);
  for (i64 k = 0; k < np; ++k) W(pv + k) = gam(g + static_cast<int>(k));
  if (a_.debug) g5vtme(a_.unit, " USinv", 6);
  a_.logdet.at1(S.s) = ld;
  S.rec->kind = 9;
  S.rec->pos = pv;
  S.rec->kindi = 9;
  S.rec->posi = pinv;
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= i; ++j) {
      const i64 t = packed_index(i, j) + 1;
      const int gp = g + static_cast<int>(t) - 1;
      stlbri(gp, 1000 + t, 0, 0, 1000 + t, 0, pinv);
      const double e = W(pinv + t - 1);
      tr(gp) = i == j ? e : 2.0 * e;
    }
  return 0;
}

// CHOL (G = L D L') and ANTE (G^-1 = U D U'): a general matrix kept in
// factor form, with the factor limited to a band.  The parameters are the
// packed factor: D on the diagonal, L(i,j) (CHOL) or U(j,i) (ANTE) at
// packed (i,j), j < i.
// The factor parameters of a CHOL or ANTE section made ready: on the first
// formation a general matrix G in the parameters is factorised (and the
// factor cut to the band), later the ANTE diagonals are held below their
// limit; elements held at zero are zeroed and CHOL zeros moved off 0.
int Former::factor_parameters(Section& S, bool ante, int bw, i64 pf_, i64 pscr, span<int> perm, span<int> perm2) {
  const int n = S.n;
  const int g = S.gfirst;
  const i64 np = packed_size(n);
  auto gi = [&](int i, int j) -> double& { return gam(g + static_cast<int>(packed_index(i, j))); };
  auto ri = [&](int i, int j) -> int& { return rg(g + static_cast<int>(packed_index(i, j))); };
  if (S.row.field(kInited) == 0) {
    // The parameters are still G itself: factorise it.
    for (i64 k = 0; k < np; ++k) W(pf_ + k) = gam(g + static_cast<int>(k));
    if (a_.debug) g5vtme(a_.unit, " GV init", 8);
    int mode = ante ? -99 : -98, rank = n, neg = 0;
    double ld = 0.0;
    g5vsmi(WS(pf_, np), WS(pscr, n), perm, perm2, mode, rank, ld, neg);
    if (a_.debug) g5vtme(a_.unit, ante ? " ANTE UD" : " GV LD", ante ? 8 : 6);
    const bool swapped = neg < 0;
    const int nneg = neg < 0 ? -1 - neg : neg;
    if (ante && (mode != 0 || nneg != 0 || swapped)) return fail(1121, " ANTE matrix not positive definite");
    if (!ante && (swapped || ((mode != 0 || nneg != 0) && rg(g) == 1)))
      return fail(1111, " CHOL matrix not positive definite");
    for (int i = 1; i <= n; ++i)
      for (int j = 1; j <= i; ++j) {
        double v = W(pf_ + packed_index(i, j));
        if (i - j > bw) {
          v = 0.0;
          ri(i, j) = 2;
        }
        gi(i, j) = v;
        if (ante && i == j && v > 1e6) ri(i, j) = 4;
      }
    S.row.field(kInited) = 1;
  } else if (ante) {
    for (int i = 1; i <= n; ++i)
      if (gi(i, i) >= 100000.0 && ri(i, i) < 4) {
        ri(i, i) = 5;
        gi(i, i) = 100000.0;
      }
  }
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= i; ++j) {
      if (ri(i, j) == 2) gi(i, j) = 0.0;
      else if (!ante && gi(i, j) == 0.0) gi(i, j) = f32(1e-4);
    }
  return 0;
}

// Per parameter of a CHOL or ANTE section: the derivative of the factor
// product, its trace against the other matrix, and the dense other side.
// pf_: the factor; pg, pgi: G and its inverse (packed).
int Former::factor_derivatives(Section& S, bool ante, i64 pf_, i64 pg, i64 pgi) {
  const int n = S.n;
  const int g = S.gfirst;
  const i64 np = packed_size(n);
  for (int r = 1; r <= n; ++r)
    for (int c = 1; c <= r; ++c) {
      const i64 t = packed_index(r, c) + 1;
      const int gp = g + static_cast<int>(t) - 1;
      FormRecord& d = pf(gp);
      d = FormRecord{};
      if (rg(gp) == 2 || rg(gp) == 4) continue;  // held: the zero record
      const i64 pd = take(np);
      if (!pd) return 1;
      const i64 keep = a_.top;
      const i64 pp = take(np);
      if (!pp) return 1;
      const i64 pw = take(static_cast<i64>(n) * n);
      if (!pw) return 1;
      // pp: derivative of L D L' (CHOL) or of U D U' (ANTE) at element (r,c).
      auto F = [&](int i, int j) { return W(pf_ + packed_index(i, j)); };
      auto col = [&](int k, int i) -> double {  // column k of L, or of U
        if (i == k) return 1.0;
        if (!ante) return i > k ? F(i, k) : 0.0;
        return i < k ? F(k, i) : 0.0;
      };
      for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= i; ++j) {
          double v;
          if (r == c) {
            v = col(r, i) * col(r, j);
          } else if (!ante) {
            v = F(c, c) * ((i == r ? col(c, j) : 0.0) + (j == r ? col(c, i) : 0.0));
          } else {
            v = F(r, r) * ((i == c ? col(r, j) : 0.0) + (j == c ? col(r, i) : 0.0));
          }
          W(pp + packed_index(i, j)) = v;
        }
      if (!ante) {
        tr(gp) = g5vvtr(WS(pgi, np), WS(pp, np), n);
        g5vvaa(WS(pd, np), WS(pp, np), WS(pgi, np), WS(pw, static_cast<i64>(n) * n), n);
        d.kind = 6000 + t;
        d.pos = pf_;
        d.kindi = 9;
        d.posi = pd;
      } else {
        // dG = -G d(G^-1) G; V^-1 dV V^-1 = -d(G^-1).
        tr(gp) = -g5vvtr(WS(pg, np), WS(pp, np), n);
        g5vvaa(WS(pd, np), WS(pp, np), WS(pg, np), WS(pw, static_cast<i64>(n) * n), n);
        for (i64 k = 0; k < np; ++k) W(pd + k) = -W(pd + k);
        d.kind = 9;
        d.pos = pd;
        d.kindi = 7000 + t;
        d.posi = -pf_;
      }
      a_.top = keep;
    }
  return 0;
}

int Former::factor_form(Section& S, bool ante) {
  const int n = S.n;
  const int g = S.gfirst;
  const i64 np = packed_size(n);
  const int base = ante ? 120 : 110;
  char buf[160];
  if (S.ncor != np) {
    std::snprintf(buf, sizeof buf, " %s section %d has %d parameters for order %d", ante ? "ANTE" : "CHOL", S.s,
                  S.ncor, n);
    return fail(1000 + base, buf);
  }
  if (np > 1000) return fail(1000 + base, " Factor structure too large for its derivative codes");
  int bw = S.row.field(kBand);
  if (bw < 1 || bw > n - 1) bw = n - 1;
  for (i64 k = 0; k < np; ++k) a_.tgamma.at1(g + static_cast<int>(k)) = 7;

  const i64 pf_ = take(np);  // the factor
  if (!pf_) return 1;
  const i64 pg = take(np);   // G
  if (!pg) return 1;
  const i64 pgi = take(np);  // G^-1
  if (!pgi) return 1;
  const i64 saved = a_.top;
  InverseScratch sc;
  if (!take_inverse_scratch(n, sc)) return 1;
  span<int> perm = sc.perm, perm2 = sc.perm2;
  const i64 pscr = sc.pscr;

  if (factor_parameters(S, ante, bw, pf_, pscr, perm, perm2)) return 1;
  for (i64 k = 0; k < np; ++k) W(pf_ + k) = gam(g + static_cast<int>(k));
  double ld = 0.0;
  if (ante) {
    for (i64 k = 0; k < np; ++k) W(pgi + k) = W(pf_ + k);
    g5vudu(WS(pgi, np), n);
    if (a_.debug) g5vtme(a_.unit, " GIV UDU", 8);
    for (i64 k = 0; k < np; ++k) W(pg + k) = W(pgi + k);
    int mode = 0, rank = n, neg = 0;
    g5vsmi(WS(pg, np), WS(pscr, n), perm, perm2, mode, rank, ld, neg);
    if (mode != 0) return fail(1120, " ANTE structure is singular");
    ld = -ld;
  } else {
    for (i64 k = 0; k < np; ++k) W(pg + k) = W(pgi + k) = W(pf_ + k);
    g5vldl(WS(pg, np), n);
    if (a_.debug) g5vtme(a_.unit, " GV LDL", 7);
    int nsing = 0;
    g5vldi(WS(pgi, np), n, ld, nsing);
    if (a_.debug) g5vtme(a_.unit, " GV LDL inv", 11);
    if (nsing != 0) return fail(1110, " CHOL structure is singular");
  }
  a_.top = saved;
  a_.logdet.at1(S.s) = ld;
  S.rec->kind = 9;
  S.rec->pos = pg;
  S.rec->kindi = 9;
  S.rec->posi = pgi;

  return factor_derivatives(S, ante, pf_, pg, pgi);
}

}  // namespace

int g5vvsf(VsfArgs& a, int& ifault) {
  ifault = 0;
  Former f(a, ifault);
  return f.run();
}

}  // namespace tarnel
