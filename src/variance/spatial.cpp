// Distance-based correlation structures (see spatial.h): the exponential
// family, the limited-range models, the power exponential and the Matern
// family.  The matrices are dense and packed; units of different blocks
// are independent, so each block is formed, inverted and differentiated
// apart and then placed into the section's packed matrices, whose
// elements between blocks are 0.
#include "variance/spatial.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "host/messages.h"
#include "variance/dense.h"
#include "variance/formation.h"

namespace tarnel {

namespace {

constexpr int kFault = 1006;
constexpr double kTwoOverPi = 0.6366197722844561;

enum class Family { Exponential, Limited, PowerExp, Matern };

// The parameters as the pair formulae use them.
struct Model {
  Family fam = Family::Exponential;
  int metric = 0, dim = 1, ncor = 1;
  double rho[2] = {1, 1}, phi[2] = {0, 0};  // exponential forms
  double range = 1.0, slope = 1.0, var = 1.0, limit = 0.0;  // limited range
  double expo = 1.0;
  bool separable = true;
  double mp[5] = {1, 0.5, 1, 0, 2};  // Matern
  bool want[5] = {true, true, true, true, true};
};

// The coordinates row of the section and its integer block.
struct Coords {
  int g = 0;
  int n = 0, dim = 1, metric = 0, nblock = 0;
  i64 coord = 0;  // 1-based real position of unit 1's first coordinate
  i64 ints = 0;   // 1-based integer position of `metric`
};

int find_coords(const GivTable& giv, int s, int n, Coords& c) {
  for (int g = 1; g <= giv.count; ++g) {
    if (giv.type(g) != 6000 + s) continue;
    c.g = g;
    c.n = giv.size(g);
    c.coord = giv.start(g);
    c.ints = giv.index(g);
    if (c.n != n || c.ints < 1 || c.ints + 3 + 2 * static_cast<i64>(n) > static_cast<i64>(giv.integer.size()))
      return 1;
    c.metric = giv.integer.at1(c.ints);
    c.dim = giv.integer.at1(c.ints + 1);
    c.nblock = giv.integer.at1(c.ints + 3);
    if ((c.dim != 1 && c.dim != 2) || c.coord < 1 ||
        c.coord + static_cast<i64>(n) * c.dim - 1 > static_cast<i64>(giv.real.size()))
      return 1;
    return 0;
  }
  return 1;
}

inline double& coord(const GivTable& giv, const Coords& c, int unit, int k) {
  return giv.real.at1(static_cast<std::size_t>(c.coord + static_cast<i64>(unit - 1) * c.dim + k));
}

// Correlation of one pair and its derivatives.  `repeated` is set when the
// two points coincide under a form that needs them apart.
double pair_value(const Model& M, double dx, double dy, double* dC, bool& repeated) {
  repeated = false;
  const int nc = M.ncor;
  for (int k = 0; k < nc; ++k) dC[k] = 0.0;
  if (M.fam == Family::Matern) {
    double d4[4];
    const double C = matern_pair(dx, dy, M.dim, M.mp, M.want, d4);
    for (int k = 0; k < nc && k < 4; ++k) dC[k] = d4[k];
    return C;
  }
  if (M.fam == Family::Limited) {
    const double d = M.dim == 1 ? std::fabs(dx) : std::sqrt(dx * dx + dy * dy);
    if (d >= M.limit) return 0.0;
    const double th = M.range, v = M.var, h = d / th;
    double c = 0.0, dth = 0.0;
    switch (M.metric) {
      case 4: c = 1.0 - 0.5 * h * (3.0 - h * h); dth = 1.5 * d * (1.0 - h * h) / (th * th); break;
      case 5: {
        const double r = std::sqrt(std::fmax(0.0, 1.0 - h * h));
        c = 1.0 - kTwoOverPi * (std::asin(std::fmin(h, 1.0)) + h * r);
        dth = kTwoOverPi * h * 2.0 * r / th;
        break;
      }
      // Linear: the routine works with the slope 1/range; the derivative is
      // taken with respect to the range that is the parameter.
      case 6: c = 1.0 - d * M.slope; dth = d / (th * th); break;
      default: c = 1.0 - d / th; dth = d / (th * th); break;
    }
    dC[0] = v * dth;
    if (nc > 1) dC[1] = c;
    return v * c;
  }
  double d1 = 0.0, d2 = 0.0;
  const double ax = std::fabs(dx), ay = std::fabs(dy);
  if (M.fam == Family::PowerExp) {
    const double e = M.expo;
    if (M.dim == 1) {
      d1 = std::pow(ax, e);
    } else if (!M.separable) {
      const double r = std::sqrt(dx * dx + dy * dy);
      d1 = e == 1.0 ? r : std::pow(r, e);
      if (d1 <= 1e-12) repeated = true;
    } else if (nc == 1) {
      d1 = std::pow(ax, e) + std::pow(ay, e);
    } else {
      d1 = std::pow(ax, e);
      d2 = std::pow(ay, e);
    }
  } else {
    const int m = M.metric;
    if (M.dim == 1) {
      d1 = m == 2 ? dx * dx : ax;
    } else if (m == 3) {
      d1 = std::sqrt(dx * dx + dy * dy);
    } else if (m == 1) {
      if (nc == 1) d1 = ax + ay;
      else { d1 = ax; d2 = ay; }
    } else {
      if (nc == 1) d1 = dx * dx + dy * dy;
      else { d1 = dx * dx; d2 = dy * dy; }
    }
    if (d1 + d2 <= 1e-12) repeated = true;
  }
  const double C = std::exp(-M.phi[0] * d1 - M.phi[1] * d2);
  dC[0] = d1 * C / M.rho[0];
  if (nc > 1) dC[1] = d2 * C / M.rho[1];
  return C;
}

// Brings the parameters into range and sets their kinds.  Returns 1 with
// the section's fault for a form that cannot be made.
int set_parameters(SpatialSection& sec, const Coords& co, Model& M, int& ifault) {
  M.metric = co.metric;
  M.dim = co.dim;
  const int m = co.metric;
  span<double> p = sec.par;
  if (m == 9) {
    M.fam = Family::Matern;
    if (co.dim == 1 && sec.ncor > 2) {
      for (int k = 2; k < sec.ncor; ++k) sec.rgmstr[k] = 4;
      sec.ncor = 2;
    }
    if (sec.ncor < 1 || sec.ncor > 5) return g5vflt(ifault, kFault);
    for (int k = 0; k < sec.ncor; ++k) sec.tgamma[k] = 9;
    if (sec.ncor == 5) sec.rgmstr[4] = 4;
    for (int k = 0; k < 5; ++k) M.mp[k] = k < sec.ncor ? p[k] : (k == 1 ? 0.5 : k == 2 ? 1.0 : k == 4 ? 2.0 : 0.0);
    if (!(M.mp[0] > 0.0) || !(M.mp[1] > 0.0) || !(M.mp[2] > 0.0) || !(M.mp[4] > 0.0)) {
      g5verror(" Matern range, smoothness, ratio and power must be positive", 4);
      return g5vflt(ifault, 1010);
    }
    for (int k = 0; k < 4; ++k) M.want[k] = k < sec.ncor && (sec.rgmstr[k] < 4 || sec.rgmstr[k] == 5);
    M.want[4] = false;
    M.ncor = sec.ncor;
    return 0;
  }
  if (sec.ncor < 1 || sec.ncor > 2 || (co.dim == 1 && sec.ncor == 2 && !(m >= 4 && m <= 7)))
    return g5vflt(ifault, kFault);
  M.ncor = sec.ncor;
  if (m >= 4 && m <= 7) {
    M.fam = Family::Limited;
    sec.tgamma[0] = 8;
    if (sec.ncor == 2) sec.tgamma[1] = 5;
    if (!(p[0] > 0.0)) return g5vflt(ifault, kFault);
    M.range = p[0];
    M.slope = 1.0 / p[0];
    M.var = sec.ncor == 2 ? p[1] : 1.0;
    M.limit = p[0];
    return 0;
  }
  const bool power = m >= 11 || m <= -11;
  if (!power && (m < 0 || m > 10)) return g5vflt(ifault, kFault);
  M.fam = power ? Family::PowerExp : Family::Exponential;
  M.expo = f32(0.01 * std::abs(m));
  M.separable = m > 0;
  for (int k = 0; k < sec.ncor; ++k) {
    sec.tgamma[k] = 5;
    if (!power) p[k] = std::fmin(0.999, std::fmax(1e-07, p[k]));
    if (!(p[k] > 0.0)) return g5vflt(ifault, kFault);
    M.rho[k] = p[k];
    M.phi[k] = -std::log(p[k]);
  }
  return 0;
}

// The units in block order: order[0..n) lists the units block by block,
// start[b] is where block b begins (start[nb] = n).  Block numbers are
// given by first appearance of the keys and written beside them.
int assign_blocks(const GivTable& giv, const Coords& co, span<int> order, span<int> start, span<int> keyof) {
  const int n = co.n;
  auto key = [&](int u) -> int& { return giv.integer.at1(co.ints + 4 + 2 * static_cast<i64>(u - 1)); };
  auto num = [&](int u) -> int& { return giv.integer.at1(co.ints + 5 + 2 * static_cast<i64>(u - 1)); };
  if (co.nblock < 2) {
    for (int u = 1; u <= n; ++u) order[u - 1] = u;
    start[0] = 0;
    start[1] = n;
    return 1;
  }
  // keyof[b-1]: the key of block b; a linear search keeps this simple, and
  // blocks are few beside the units.
  int nb = 0;
  for (int u = 1; u <= n; ++u) {
    int b = 0;
    for (int q = 0; q < nb; ++q)
      if (keyof[q] == key(u)) { b = q + 1; break; }
    if (b == 0) {
      if (nb == static_cast<int>(keyof.size())) return -1;
      keyof[nb++] = key(u);
      b = nb;
    }
    num(u) = b;
  }
  // A counting sort by block; keyof then serves as the running cursor.
  for (int b = 0; b <= nb; ++b) start[b] = 0;
  for (int u = 1; u <= n; ++u) ++start[num(u)];
  for (int b = 1; b <= nb; ++b) start[b] += start[b - 1];
  for (int b = 0; b < nb; ++b) keyof[b] = start[b];
  for (int u = 1; u <= n; ++u) order[keyof[num(u) - 1]++] = u;
  i64 packlen = 0;
  for (int b = 0; b < nb; ++b) packlen += packed_size(start[b + 1] - start[b]);
  giv.integer.at1(co.ints + 2) = static_cast<int>(-std::min<i64>(packlen, 2147483647));
  return nb;
}

// Everything the formation of the blocks shares.
struct Former {
  SpatialSection& sec;
  SpatialContext& ctx;
  const Coords& co;
  Model& M;
  int& ifault;
  int nd = 0;                 // parameters with derivative arrays
  int which[5] = {0, 0, 0, 0, 0};  // their parameter numbers (from 0)
  double dmin = 1e10, dmax = 0.0;

  double* W(i64 pos) const { return ctx.work.r + pos - 1; }
  i64 take(i64 m) {
    const i64 p = take_top(*ctx.top, ctx.floor, m);
    if (p == 0) g5vflt(ifault, 6);
    return p;
  }
  void distances(span<const int> units);
  void form(span<const int> units, double* C, double* const* dC);
  int invert(int m, double* C, double* Ci, double* scratch, span<int> singlist, double& ld);
  int blocks(int nb, span<const int> order, span<const int> start, i64 pc, i64 pci, const i64* pd, const i64* pa);
};

void Former::distances(span<const int> units) {
  const int m = static_cast<int>(units.size());
  for (int i = 2; i <= m; ++i)
    for (int j = 1; j < i; ++j) {
      const double dx = coord(ctx.giv, co, units[i - 1], 0) - coord(ctx.giv, co, units[j - 1], 0);
      const double dy = co.dim == 2 ? coord(ctx.giv, co, units[i - 1], 1) - coord(ctx.giv, co, units[j - 1], 1) : 0.0;
      const double d = std::sqrt(dx * dx + dy * dy);
      dmin = std::fmin(dmin, d);
      dmax = std::fmax(dmax, d);
    }
}

// The packed correlation matrix of one block and its derivatives.
void Former::form(span<const int> units, double* C, double* const* dC) {
  const int m = static_cast<int>(units.size());
  double dv[5];
  bool warned = false;
  double smallest = 0.0;
  int shifts = 0;
  for (int i = 1; i <= m; ++i) {
    const int ui = units[i - 1];
    C[packed_index(i, i)] = 1.0;
    for (int k = 0; k < nd; ++k) dC[k][packed_index(i, i)] = 0.0;
    for (int j = 1; j < i; ++j) {
      const int uj = units[j - 1];
      const double dx = coord(ctx.giv, co, ui, 0) - coord(ctx.giv, co, uj, 0);
      const double dy = co.dim == 2 ? coord(ctx.giv, co, ui, 1) - coord(ctx.giv, co, uj, 1) : 0.0;
      bool repeated = false;
      const double c = pair_value(M, dx, dy, dv, repeated);
      if (repeated) {
        if (!warned) g5verror("Repeated point in spatial layout", 2);
        warned = true;
        if (co.dim == 2 && M.fam == Family::Exponential && ++shifts <= 1000) {
          // Move the later point a little and form its row again.
          const double step = f32(0.01) * (smallest > 0.0 ? smallest : 1.0);
          coord(ctx.giv, co, ui, 0) += step;
          coord(ctx.giv, co, ui, 1) += step;
          j = 0;
          continue;
        }
      } else {
        const double e = std::sqrt(dx * dx + dy * dy);
        if (e > 0.0 && (smallest == 0.0 || e < smallest)) smallest = e;
      }
      const i64 q = packed_index(i, j);
      const bool tiny = std::fabs(c) < 1e-17;
      C[q] = tiny ? 0.0 : c;
      for (int k = 0; k < nd; ++k) dC[k][q] = tiny ? 0.0 : dv[which[k]];
    }
  }
}

// Inverts one block in place (Ci from C).  A singular matrix has its
// diagonal raised, in C too, by the mean of its first five diagonal
// elements and is inverted again.
int Former::invert(int m, double* C, double* Ci, double* scratch, span<int> singlist, double& ld) {
  const i64 np = packed_size(m);
  for (int tries = 0;; ++tries) {
    std::copy(C, C + np, Ci);
    int nsing = 0, nneg = 0;
    ld = 0.0;
    g5vsmige(span<double>(Ci, np), m, span<double>(scratch, 2 * static_cast<i64>(m)), ld, singlist, nsing, nneg);
    if (nsing == 0 && nneg == 0) break;
    if (tries >= 3) {
      g5verror("Tarnel failed to invert a spatially indexed correelation structure", 4);
      return g5vflt(ifault, kFault);
    }
    if (tries == 0) g5verror(" Singular spatial correlation matrix: its diagonal is raised", 2);
    double mean = 0.0;
    const int k5 = std::min(m, 5);
    for (int i = 1; i <= k5; ++i) mean += C[packed_index(i, i)];
    mean /= k5;
    for (int i = 1; i <= m; ++i) C[packed_index(i, i)] += mean;
  }
  double big = 0.0;
  for (i64 q = 0; q < np; ++q) big = std::fmax(big, std::fabs(Ci[q]));
  const double drop = f32(1e-12) * big;
  for (i64 q = 0; q < np; ++q)
    if (std::fabs(Ci[q]) < drop) Ci[q] = 0.0;
  return 0;
}

// Places packed block `src` (order m, units `units`) into the packed
// matrix `dst` of the section.
void scatter(double* dst, const double* src, span<const int> units) {
  const int m = static_cast<int>(units.size());
  for (int i = 1; i <= m; ++i)
    for (int j = 1; j <= i; ++j) dst[packed_index(units[i - 1], units[j - 1])] = src[packed_index(i, j)];
}

// Forms, inverts and differentiates each block, in the section's own
// packed matrices when there is one block and in scratch placed into them
// otherwise; adds up the log determinant and the traces.
int Former::blocks(int nb, span<const int> order, span<const int> start, i64 pc, i64 pci, const i64* pd,
                   const i64* pa) {
  const int n = sec.n;
  const i64 np = packed_size(n);
  int mmax = 0;
  for (int b = 0; b < nb; ++b) mmax = std::max(mmax, start[b + 1] - start[b]);
  auto units_of = [&](int b) { return span<const int>(order.data() + start[b], start[b + 1] - start[b]); };
  // Per block: local packed arrays (the section's own when there is one
  // block), the product scratch, and the inversion scratch.
  const bool one = nb == 1;
  const i64 mp = packed_size(mmax);
  const i64 nloc = one ? 0 : (2 + 2 * static_cast<i64>(nd)) * mp;
  const i64 pl = take(nloc + static_cast<i64>(mmax) * mmax + 2 * static_cast<i64>(mmax) + mmax / 2 + 1);
  if (!pl) return 1;
  double* loc = W(pl);
  double* w = loc + nloc;
  double* scr = w + static_cast<i64>(mmax) * mmax;
  span<int> singlist(reinterpret_cast<int*>(scr + 2 * static_cast<i64>(mmax)), static_cast<std::size_t>(mmax));
  if (!one) {
    std::fill(W(pc), W(pc) + np, 0.0);
    std::fill(W(pci), W(pci) + np, 0.0);
    for (int k = 0; k < nd; ++k) {
      std::fill(W(pd[k]), W(pd[k]) + np, 0.0);
      std::fill(W(pa[k]), W(pa[k]) + np, 0.0);
    }
  }
  for (int b = 0; b < nb; ++b) {
    const span<const int> u = units_of(b);
    const int m = static_cast<int>(u.size());
    const i64 q = packed_size(m);
    double* C = one ? W(pc) : loc;
    double* Ci = one ? W(pci) : loc + mp;
    double* dC[5];
    double* aa[5];
    for (int k = 0; k < nd; ++k) {
      dC[k] = one ? W(pd[k]) : loc + (2 + 2 * k) * mp;
      aa[k] = one ? W(pa[k]) : loc + (3 + 2 * k) * mp;
    }
    form(u, C, dC);
    double ld = 0.0;
    if (invert(m, C, Ci, scr, singlist, ld)) return 1;
    sec.logdet += ld;
    for (int k = 0; k < nd; ++k) {
      sec.trdrri[which[k]] += g5vvtr(span<const double>(Ci, q), span<const double>(dC[k], q), m);
      g5vvaa(span<double>(aa[k], q), span<const double>(dC[k], q), span<const double>(Ci, q),
             span<double>(w, static_cast<i64>(m) * m), m);
    }
    if (!one) {
      scatter(W(pc), C, u);
      scatter(W(pci), Ci, u);
      for (int k = 0; k < nd; ++k) {
        scatter(W(pd[k]), dC[k], u);
        scatter(W(pa[k]), aa[k], u);
      }
    }
  }
  return 0;
}

}  // namespace

int g5vvdg(SpatialSection& sec, SpatialContext& ctx, int& ifault) {
  Coords co;
  char buf[160];
  if (find_coords(ctx.giv, sec.s, sec.n, co)) {
    std::snprintf(buf, sizeof buf, " Spatial section %d has no coordinates of its order", sec.s);
    g5verror(buf, 4);
    return g5vflt(ifault, kFault);
  }
  Model M;
  const int given = sec.ncor;
  if (set_parameters(sec, co, M, ifault)) {
    if (ifault == kFault) {
      std::snprintf(buf, sizeof buf, " Spatial section %d: model %d with %d parameters is not defined", sec.s,
                    co.metric, sec.ncor);
      g5verror(buf, 4);
    }
    return 1;
  }
  Former F{sec, ctx, co, M, ifault};
  for (int k = 0; k < sec.ncor; ++k)
    if (M.fam != Family::Matern || M.want[k]) F.which[F.nd++] = k;
  const int n = sec.n;
  const i64 np = packed_size(n);
  // The section's matrices, kept: C, its inverse, and per derivative dC and
  // C^-1 dC C^-1.
  const i64 pc = F.take(np), pci = pc ? F.take(np) : 0;
  if (!pci) return 1;
  i64 pd[5] = {0, 0, 0, 0, 0}, pa[5] = {0, 0, 0, 0, 0};
  for (int k = 0; k < F.nd; ++k) {
    if (!(pd[k] = F.take(np)) || !(pa[k] = F.take(np))) return 1;
  }
  const i64 saved = *ctx.top;
  // Scratch: the block order of the units.
  const i64 pint = F.take(2 * static_cast<i64>(n) + 2);
  if (!pint) return 1;
  int* ints = ctx.work.i + 2 * (pint - 1);
  span<int> order(ints, n), start(ints + n, n + 1), keyof(ints + 2 * n + 1, n);
  const int nb = assign_blocks(ctx.giv, co, order, start, keyof);
  if (nb < 1) return g5vflt(ifault, kFault);
  auto units_of = [&](int b) { return span<const int>(order.data() + start[b], start[b + 1] - start[b]); };

  // The range check of the limited-range models.
  if (M.fam == Family::Limited) {
    for (int b = 0; b < nb; ++b) F.distances(units_of(b));
    if (F.dmax <= M.range) {
      M.limit = f32(1.01) * F.dmax;
    } else {
      if (ctx.debug) g5vtme(ctx.unit, "ISP Range check fail", 20);
      M.range = 3.0 * F.dmin;
      M.slope = 1.0 / M.range;
      M.limit = M.range;
      sec.par[0] = M.range;
    }
    if (ctx.debug) g5vtme(ctx.unit, "ISP/SPH/LIN/LVR Variance", 24);
  } else if (M.fam == Family::PowerExp && ctx.debug) {
    g5vtme(ctx.unit, "Power Exponential", 17);
  }

  for (int k = 0; k < given; ++k) sec.trdrri[k] = 0.0;
  sec.logdet = 0.0;
  if (F.blocks(nb, span<const int>(order.data(), order.size()), span<const int>(start.data(), start.size()), pc, pci,
               pd, pa))
    return 1;
  *ctx.top = saved;
  if (ctx.debug) {
    if (n > 800) g5vtme(ctx.unit, " PowerR formed", 14);
    g5vtme(ctx.unit, " POWER", 6);
    g5vtme(ctx.unit, " PowerR inverted", 16);
    g5vtme(ctx.unit, " POWinv", 7);
    if (F.nd > 0) {
      g5vtme(ctx.unit, " PowerVAA2", 10);
      g5vtme(ctx.unit, " POWd1", 6);
    }
  }
  sec.secrec->kind = 9;
  sec.secrec->pos = pc;
  sec.secrec->kindi = 9;
  sec.secrec->posi = pci;
  for (int k = 0; k < given; ++k) {
    FormRecord& r = sec.parrec[k];
    r.kind = r.kindi = -1;  // no derivative: a row of zeros
    r.pos = r.posi = pc;
  }
  for (int k = 0; k < F.nd; ++k) {
    FormRecord& r = sec.parrec[F.which[k]];
    r.kind = r.kindi = 9;
    r.pos = pd[k];
    r.posi = pa[k];
  }
  return 0;
}

}  // namespace tarnel
