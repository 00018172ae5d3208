// One REML iteration: structures, equations, absorption, log-likelihood,
// working variates and AI, scores, and the update of the parameters.
#include "control/iteration.h"
#include "control/run_helpers.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "average_info/average_info.h"
#include "host/console.h"
#include "host/messages.h"
#include "prediction/prediction.h"
#include "sparse/row_store.h"

namespace tarnel {

namespace {

// Takes m words from the top (1-based positions, words floor+1..top free).
// Returns the 0-based word index of the block, or -1.
i64 carve(i64& top, i64 floor, i64 m) {
  const i64 p = take_top(top, floor, m);
  return p == 0 ? -1 : p - 1;
}

template <class T>
span<T> words_as(const WorkArray& x, i64 at, i64 count) {
  return span<T>(reinterpret_cast<T*>(x.r + at), static_cast<std::size_t>(count));
}

// Bump allocation upward from `lo` (0-based word) below `hi`.
struct Bump {
  const WorkArray* x;
  i64 lo, hi;
  bool ok = true;
  // Words handed out cleared, or, for the store (whose slots are written
  // before they are read), as they stand.
  double* take(i64 words, bool cleared = true) {
    if (words < 0 || lo + words > hi) {
      ok = false;
      return nullptr;
    }
    double* p = x->r + lo;
    if (cleared) std::memset(p, 0, static_cast<std::size_t>(words) * sizeof(double));
    lo += words;
    return p;
  }
};

StrucRow struc_row(AiStructures& s, int r) {
  return StrucRow{s.struc.data() + static_cast<i64>(r - 1) * s.lstruc};
}

// Decodes a structure code: n sections from r.
void product_code(int code, int& n, int& r) {
  if (code <= 0) {
    n = 0;
    r = 0;
  } else if (code < 10000) {
    n = 1;
    r = code;
  } else {
    n = code / 10000;
    r = code % 10000;
  }
}

bool valid_product(const AiStructures& s, int n, int r) {
  return n >= 1 && r >= 1 && r + n - 1 <= s.nstruc && s.lstruc >= 15;
}

}  // namespace

int iteration_setup(AiControlArgs& a, IterationState& st, int& ifault) {
  const WorkArray& x = a.work.x;
  AiStructures& s = a.structures;
  const int neq = *a.terms.neq;
  const int ngamma = s.ngamma;
  i64 top = static_cast<i64>(a.work.lenx[0]);
  const i64 floor = st.floor;
  if (carve_structure_tables(x, top, floor, s.nstruc, ngamma, a.known.nainv, st.tabs, ifault))
    return 1;
  const i64 niw = neq;                        // 2*NEQ integers
  const i64 nterm = (neq + 1) / 2 + 1;        // NEQ integers
  const i64 nstart = st.design.records + 1;   // 64-bit starts
  const i64 nmap = 2 * static_cast<i64>(std::max(ngamma, 1));  // 4*ngamma integers
  const i64 npar = (std::max(ngamma, 1) + 1) / 2 + 1;
  const i64 nai = static_cast<i64>(ngamma) * (ngamma + 1) / 2 + 1;
  const i64 iiw = carve(top, floor, niw), iterm = carve(top, floor, nterm),
            ist = carve(top, floor, nstart), ip1 = carve(top, floor, ngamma + 1),
            ip2 = carve(top, floor, ngamma + 1), imap = carve(top, floor, nmap),
            ipar = carve(top, floor, npar), iai = carve(top, floor, nai),
            isc = carve(top, floor, ngamma + 1);
  if (iiw < 0 || iterm < 0 || ist < 0 || ip1 < 0 || ip2 < 0 || imap < 0 || ipar < 0 || iai < 0 ||
      isc < 0) {
    ifault = 6;
    return 1;
  }
  st.iw = words_as<i32>(x, iiw, 2 * static_cast<i64>(neq));
  st.eqterm = words_as<i32>(x, iterm, neq);
  st.start = words_as<i64>(x, ist, nstart);
  st.prev1 = span<double>(x.r + ip1, ngamma + 1);
  st.prev2 = span<double>(x.r + ip2, ngamma + 1);
  st.wvmap = words_as<i32>(x, imap, 2 * nmap);
  st.wvpar = words_as<i32>(x, ipar, std::max(ngamma, 1));
  st.ai = span<double>(x.r + iai, nai);
  st.score = span<double>(x.r + isc, ngamma + 1);
  std::fill(st.iw.begin(), st.iw.end(), 0);
  st.vtop = top;

  // Design row starts, 1-based into the value store.
  const i32* rs = x.i + 2 * st.design.K;
  for (i64 r = 0; r <= st.design.records; ++r) st.start[r] = static_cast<i64>(rs[r]) + 1;

  // Term of each equation: the natural order.
  st.eqterm[0] = 0;
  i32 e = 1;
  for (int i = 0; i < a.terms.nfactp; ++i)
    for (int k = 0; k < a.terms.rlevel[i] && e < neq; ++k) st.eqterm[e++] = i + 1;
  if (e != neq) {
    vprt(" The levels of the model positions do not add up to the equations\n");
    ifault = 7;
    return 1;
  }

  // Residual scale.
  st.scalepos = s.nsect >= 1 ? s.nrsect[1] : 0;
  if (st.scalepos < 1 || st.scalepos > ngamma) {
    vprt(" The residual section names no scale parameter\n");
    ifault = 1;
    return 1;
  }
  st.profiled = (s.nsect + a.data.ntrt < 3) && s.rgmstr[st.scalepos - 1] != 4;
  st.control = UpdateControl();
  st.ordered = false;
  return 0;
}

// log|G| of the random terms, from the parameters and section log
// determinants.
static double logdet_g(AiControlArgs& a, IterationState& st) {
  AiStructures& s = a.structures;
  double ld = 0;
  const int np = a.terms.nfactp;
  for (int i = 0; i < np; ++i) {
    const int code = i < static_cast<int>(a.terms.tyfact.size()) ? a.terms.tyfact[i] : 0;
    if (code <= 0) continue;
    i64 q = a.terms.rlevel[i];
    for (int j = i + 1; j < np && j < static_cast<int>(a.terms.tyfact.size()) && a.terms.tyfact[j] < 0; ++j)
      q += a.terms.rlevel[j];
    if (code <= 10000) {
      const double g = s.gammas[code - 1];
      if (g != 0.0) ld += static_cast<double>(q) * std::log(std::fabs(g));
      continue;
    }
    int n, r;
    product_code(code, n, r);
    i64 N = 1;
    for (int k = 0; k < n; ++k) N *= std::max(1, struc_row(s, r + k).field(kOrder));
    for (int k = 0; k < n; ++k) {
      StrucRow row = struc_row(s, r + k);
      if (row.field(kField14) != 1) continue;
      const int ord = std::max(1, row.field(kOrder));
      ld += static_cast<double>(N / ord) * st.tabs.logdet[r + k - 1];
    }
  }
  return ld;
}

int g5vitr(AiControlArgs& a, IterationState& st, int iter, int& nfault) {
  const WorkArray& x = a.work.x;
  AiStructures& s = a.structures;
  AiOptions& o = a.options;
  AiTerms& t = a.terms;
  const int neq = *t.neq;
  const int ngamma = s.ngamma;
  const int nfactp = t.nfactp;
  const bool trace = a.options.trace == 1 && aiopt_at(o, 3) == 1;
  nfault = 0;
  if (host_interrupt_pending()) {
    g5verror("Interrupted by the user", 4);
    return g5vflt(nfault, 1);
  }

  // The update list: every parameter but those equal to the missing mark
  // and the zeros among the model positions' own parameters.
  const double mv = a.data.dpmv[0];
  int nwv = 0;
  std::fill(st.wvmap.begin(), st.wvmap.end(), 0);
  for (int k = 1; k <= ngamma; ++k) {
    const double g = s.gammas[k - 1];
    if (g == mv) continue;
    if (g == 0.0 && k <= nfactp && k != st.scalepos) continue;
    ++nwv;
    st.wvmap[2 * (k - 1)] = nwv;
    st.wvmap[2 * (nwv - 1) + 1] = k;
    st.wvpar[nwv - 1] = k;
  }
  st.nwv = nwv;

  // 1. Structures.
  VsfArgs v;
  v.nsect = s.nstruc;
  v.struc = s.struc;
  v.lstruc = s.lstruc;
  v.gammas = span<double>(s.gammas.data(), ngamma);
  v.prvgam = span<double>(a.results.prvgam.data(), std::min<std::size_t>(ngamma, a.results.prvgam.size()));
  v.tgamma = span<int>(s.tgamma.data(), ngamma);
  v.rgmstr = s.rgmstr;
  v.work = x;
  v.top = st.vtop;
  v.floor = st.floor;
  v.secform = st.tabs.secform;
  v.parform = st.tabs.parform;
  v.logdet = st.tabs.logdet;
  v.trdrri = st.tabs.trdrri;
  v.giv.table = a.known.lcainv;
  v.giv.count = a.known.nainv;
  v.giv.real = a.known.ainv;
  v.giv.integer = a.known.llainv;
  v.givlogdet = st.tabs.givlogdet;
  v.iteration = iter;
  v.debug = o.debug;
  if (s.nstruc > 0 && g5vvsf(v, nfault)) return 1;
  const i64 top = s.nstruc > 0 ? v.top : st.vtop;
  GivTable giv = v.giv;

  // 2. Space for this iteration, from the floor up to the structures.
  Bump bump{&x, st.floor, top};
  const i64 ndense = std::max(1, *t.neqd);
  const i64 lssp = ndense * (ndense + 1) / 2;
  double* dd = bump.take(neq);
  double* solwork = bump.take(neq);
  double* acc = bump.take(neq);
  i32* list = reinterpret_cast<i32*>(bump.take(neq / 2 + 2));
  i32* links = reinterpret_cast<i32*>(bump.take(neq + 2));
  i32* rank = reinterpret_cast<i32*>(bump.take(nfactp / 2 + 1));
  i32* status = reinterpret_cast<i32*>(bump.take(4));
  i64 maxord = neq + 1;
  for (int k = 1; k <= s.nstruc; ++k) maxord = std::max<i64>(maxord, struc_row(s, k).field(kOrder) + 1);
  double* scratch = bump.take(maxord);
  i32* scols = reinterpret_cast<i32*>(bump.take(maxord / 2 + 2));
  const i64 upd_words = static_cast<i64>(g5vupd_work_words(nwv, ngamma, a.constraints.ngmcon)) +
                        static_cast<i64>(nwv) * (nwv + 1) + 16;
  double* updwork = bump.take(upd_words);
  double* before = bump.take(ngamma);  // the parameters before the update
  double* aiinv = updwork + upd_words - (static_cast<i64>(nwv) * (nwv + 1) / 2 + 8);
  GTerm* gterms = reinterpret_cast<GTerm*>(bump.take((static_cast<i64>(nfactp) * sizeof(GTerm) + 7) / 8));
  StrucRow* grows = reinterpret_cast<StrucRow*>(bump.take(s.nstruc + 1));
  // One row of a residual section's R^-1, and the rows of structures: the
  // larger of the section sizes and of the structure orders.
  i64 maxsect = neq + 1;
  for (int k = 0; k < s.nsect; ++k) maxsect = std::max<i64>(maxsect, s.nrsect[3 * k]);
  for (int k = 1; k <= s.nstruc; ++k) maxsect = std::max<i64>(maxsect, struc_row(s, k).field(kOrder));
  double* rrow = bump.take(maxsect);
  i32* rcols = reinterpret_cast<i32*>(bump.take(maxsect / 2 + 1));
  if (!bump.ok) return g5vflt(nfault, 6);
  for (int i = 0; i < nfactp; ++i) new (&gterms[i]) GTerm();
  const i64 remaining = bump.hi - bump.lo;
  // The equations take three fifths of what is left; the average
  // information step the rest.
  i64 mwords = remaining * 3 / 5;
  const i64 pool = (mwords - lssp - neq - 4) / 2;
  if (pool < 5 * static_cast<i64>(neq) || remaining - mwords < 3 * 5100) {
    g5verror("MME too large for workspace allocated", 3);
    return g5vflt(nfault, 6);
  }
  double* xs = bump.take(lssp + pool, false);
  i32* ls = reinterpret_cast<i32*>(bump.take(pool + neq + 4, false));
  double* wk = bump.lo < bump.hi ? x.r + bump.lo : nullptr;
  const i64 lenwk = bump.hi - bump.lo;
  if (!bump.ok || wk == nullptr) return g5vflt(nfault, 6);

  MmeStore& ms = st.store;
  ms = MmeStore();
  ms.x = span<double>(xs, static_cast<std::size_t>(lssp + pool));
  ms.l = span<i32>(ls, 2 * static_cast<std::size_t>(pool + neq + 4));
  ms.neq = neq;
  ms.ndense = static_cast<i32>(ndense);
  ms.lssp = lssp;
  ms.len = pool;
  if (ms.clear(nfault)) return 1;
  SspScratch ssp;
  ssp.acc = span<double>(acc, neq);
  ssp.list = span<i32>(list, neq + 1);
  ssp.links = span<i32>(links, 2 * static_cast<std::size_t>(neq) + 2);

  // 3-6. Sums of squares and products, section by section.
  DesignView dv;
  dv.val = span<const double>(x.r + st.design.kyxz, st.design.nonzero);
  dv.col = span<const i32>(x.i + 2 * (st.design.kyxz + st.design.nonzero), st.design.nonzero);
  dv.start = span<const i64>(st.start.data(), st.start.size());
  const double sigma2_ssp = s.gammas[st.scalepos - 1];
  st.logdet_r = 0;
  st.skipped = 0;
  i64 first = 1;
  int err = 0;
  for (int k = 0; k < s.nsect; ++k) {
    const i64 nrec = s.nrsect[3 * k];
    const int ps = s.nrsect[3 * k + 1];
    const int code = s.nrsect[3 * k + 2];
    if (nrec < 0 || first + nrec - 1 > st.design.records || ps < 1 || ps > ngamma) {
      vprt(" Residual section %d does not fit the records\n", k + 1);
      return g5vflt(nfault, 5);
    }
    SspSection sec;
    sec.design = dv;
    sec.struc = s.struc;
    sec.lstruc = s.lstruc;
    sec.first = first;
    sec.last = first + nrec - 1;
    sec.sigma2 = s.gammas[ps - 1] > 0 ? s.gammas[ps - 1] : sigma2_ssp;
    sec.gammas = span<const double>(s.gammas.data(), ngamma);
    sec.ntraits = a.data.ntrt;
    sec.logdet = &st.logdet_r;
    sec.skipped = &st.skipped;
    sec.err = &err;
    int n, r;
    product_code(code, n, r);
    if (n == 0) {
      sec.termcode = -1;
      sec.section = 1;
      sec.lstruc = 0;  // no structure row: a plain identity
    } else if (n == 1 && valid_product(s, 1, r) && struc_row(s, r).field(kModel) == 0) {
      sec.termcode = -1;
      sec.section = r;
      // The section's own variance: its log determinant once a record.
      const int ord = std::max(1, struc_row(s, r).field(kOrder));
      st.logdet_r += static_cast<double>(nrec) / ord * st.tabs.logdet[r - 1];
    } else {
      if (!valid_product(s, n, r)) {
        vprt(" Residual section %d names structures that do not exist\n", k + 1);
        return g5vflt(nfault, 5);
      }
      sec.termcode = -3;
      sec.section = r;
      // Each factor's log determinant counts once per repeat of it.
      for (int j = 0; j < n; ++j) {
        const int ord = std::max(1, struc_row(s, r + j).field(kOrder));
        sec.sectlogdet += static_cast<double>(nrec) / ord * st.tabs.logdet[r + j - 1];
        grows[r - 1 + j] = struc_row(s, r + j);
      }
      sec.rsrc.records = st.tabs.secform.data() + (r - 1);
      sec.rsrc.rows = grows + (r - 1);
      sec.rsrc.nsect = n;
      sec.rsrc.work = &a.work.x;
      sec.rsrc.giv = &giv;
      sec.rsrc.second = true;
      sec.rsrc.scratch = span<double>(scratch, static_cast<std::size_t>(maxord));
      sec.rsrc.scols = span<int>(scols, static_cast<std::size_t>(maxord));
      sec.rrow = span<double>(rrow, static_cast<std::size_t>(maxsect));
      sec.rcols = span<int>(rcols, static_cast<std::size_t>(maxsect));
    }
    if (g5vxxs(ms, sec, ssp)) {
      if (err % 1000 == 6 || err == 6) return g5vflt(nfault, 6);
      return g5vflt(nfault, err > 0 ? err : 136);
    }
    first += nrec;
  }
  if (trace) g5vtme(6, " SSP formed", 11);
  // 7. The weighted response sum of squares must be positive.
  if (!(ms.x[0] > 1e-10)) return g5vflt(nfault, 3);

  // 9. G structures.
  for (int i = 0; i < nfactp; ++i) {
    GTerm& g = gterms[i];
    const int code = i < static_cast<int>(t.tyfact.size()) ? t.tyfact[i] : 0;
    // A joined position's levels belong to the term before it.
    const bool joined = code < 0 && i > 0;
    g.nlev = joined ? 0 : t.rlevel[i];
    if (code < 0) {
      g.code = 0;
      continue;
    }
    // A term takes the levels of the positions joined to it.
    int j = i + 1;
    while (j < nfactp && j < static_cast<int>(t.tyfact.size()) && t.tyfact[j] < 0) {
      g.nlev += t.rlevel[j];
      ++j;
    }
    for (int k = i + 1; k < j; ++k) gterms[k].nlev = 0;
    if (code <= 10000) {
      if (code > ngamma) return g5vflt(nfault, 130);
      g.code = code;
      continue;
    }
    int n, r;
    product_code(code, n, r);
    if (!valid_product(s, n, r)) {
      vprt(" The random term at position %d names structures that do not exist\n", i + 1);
      return g5vflt(nfault, 5);
    }
    g.code = code;
    g.nsect = n;
    for (int k = 0; k < n; ++k) grows[r - 1 + k] = struc_row(s, r + k);
    g.src.records = st.tabs.secform.data() + (r - 1);
    g.src.rows = grows + (r - 1);
    g.src.nsect = n;
    g.src.work = &a.work.x;
    g.src.giv = &giv;
    g.src.second = true;
    g.src.scratch = span<double>(scratch, static_cast<std::size_t>(maxord));
    g.src.scols = span<int>(scols, static_cast<std::size_t>(maxord));
  }
  if (g5vxxg(ms, span<const GTerm>(gterms, nfactp), span<const double>(s.gammas.data(), ngamma), ssp,
             nfault))
    return 1;
  if (trace) g5vtme(6, "XXG done", 8);

  // 11. The order, found on the first iteration.
  span<i32> iw = st.iw;
  if (!st.ordered) {
    for (int p = 1; p <= neq; ++p) {
      iw[2 * (p - 1)] = p;
      iw[2 * (p - 1) + 1] = p;
    }
    const int isort = aiopt_at(o, 1);
    // A large model may take its order from an earlier fit kept in
    // "EQNORD.BIN", when the option asks for it and the file's header
    // matches this model and work array.
    const bool keep_order = aiopt_at(o, 3) == 1 && neq > 5000 && aiopt_at(o, 31) > 7;
    const i64 mark = static_cast<i64>(st.floor), total = static_cast<i64>(a.work.lenx[0]);
    bool from_file = false;
    if (keep_order && neq > ndense + 2 && isort >= 0)
      from_file = eqnord_read(iw, static_cast<i32>(ndense), neq, nfactp, mark, total, trace) == 0;
    if (!from_file && neq > ndense + 2 && isort >= 0) {
      OrderArgs oa;
      oa.store = &ms;
      oa.iw = iw;
      oa.work = span<i32>(reinterpret_cast<i32*>(wk), 2 * static_cast<std::size_t>(lenwk));
      oa.maxlx = (2 * lenwk - 8 * static_cast<i64>(neq)) / 2;
      oa.err = &err;
      oa.lstruc = s.lstruc;
      oa.struc = s.struc;
      int rc = 0;
      if (isort < 4) {
        oa.mode = isort;
        rc = g5veorb(oa);
      } else if (isort <= 6) {
        oa.mode = isort - 2;
        rc = g5veora(oa);
      } else if (isort <= 10) {
        g5vmetis();
      } else {
        oa.mode = isort % 10;
        rc = g5veor(oa);
      }
      if (rc != 0) {
        g5verror("MME too large for workspace allocated", 3);
        return g5vflt(nfault, 6);
      }
      if (trace) g5vtme(6, " Order found", 12);
      st.tail = oa.tail;
      if (keep_order) eqnord_write(iw, static_cast<i32>(ndense), neq, nfactp, mark, total, trace);
    }
    st.ordered = true;
  }
  // Absorption reads IW(1,e) as the term of equation e.
  for (int e = 1; e <= neq; ++e) iw[2 * (e - 1)] = st.eqterm[e - 1];

  // 12. The scale of the equations.
  double sigma2 = 1.0;
  if (s.nsect + a.data.ntrt < 3 && s.rgmstr[st.scalepos - 1] == 4) sigma2 = s.gammas[st.scalepos - 1];

  // 13. Absorption.
  if (trace) g5vtme(6, " Start Absorb", 13);
  AbsorbArgs ab;
  ab.iw = iw;
  ab.off = pool;
  ab.rank = span<i32>(rank, nfactp);
  ab.soln = span<double>(a.results.soln.data(), neq);
  ab.work = span<double>(solwork, neq);
  ab.dd = span<double>(dd, neq);
  ab.iter = iter;
  ab.e1 = aiopt_at(o, 39);
  ab.e2 = aiopt_at(o, 40);
  ab.negpiv = aiopt_at(o, 48);
  ab.threads = std::max(1, aiopt_at(o, 56));
  ab.status = span<i32>(status, 8);
  ab.err = &err;
  ab.tail = st.tail;
  if (a.results.soln.size() < static_cast<std::size_t>(neq)) return g5vflt(nfault, 4);
  if (g5vxxa(ms, ab, nfault)) {
    if (nfault == 0) nfault = err > 0 ? err : 6;
    return 1;
  }
  aiopt_set(o, 48, ab.negpiv);
  st.off = pool;
  st.dd = span<double>(dd, neq);
  st.nsing = ab.nsing;
  st.logdet_c = ab.logdet;
  if (trace) g5vtme(6, " SSP absorbed", 13);
  if (!(ms.x[0] > 1e-10)) return g5vflt(nfault, 2130);
  st.rss = ms.x[0];
  *a.results.nsing.data() = ab.nsing;

  // 16. Stage 1 stops after solving.
  if (aiopt_at(o, 4) == 1) {
    for (int k = 0; k < ngamma && static_cast<std::size_t>(k) < a.results.vsoln.size(); ++k)
      a.results.vsoln[k] = s.gammas[k];
    return 0;
  }

  // 17. Residual degrees of freedom.
  i64 nedf = st.design.records - st.skipped;
  for (int i = 0; i < nfactp; ++i) {
    if (static_cast<std::size_t>(i) < a.results.noeff.size()) a.results.noeff[i] = rank[i];
    const int code = i < static_cast<int>(t.tyfact.size()) ? t.tyfact[i] : 0;
    if (code == 0) nedf -= rank[i];
  }
  a.results.nedf[0] = static_cast<int>(nedf);

  // 19-21. The log-likelihood.
  st.logdet_g = logdet_g(a, st);
  double ll = st.logdet_c + st.logdet_r + st.logdet_g;
  optvec_set(o, 12, st.logdet_c);
  optvec_set(o, 13, st.logdet_r + st.logdet_g);
  optvec_set(o, 14, st.logdet_g);
  const double r = st.rss, vdf = static_cast<double>(nedf);
  if (s.nsect + a.data.ntrt < 3) {
    if (s.rgmstr[st.scalepos - 1] == 4) {
      ll = -0.5 * (ll + r);
    } else {
      if (!(vdf > 0)) return g5vflt(nfault, 280);
      sigma2 = r / vdf;
      ll = -0.5 * (ll + vdf * std::log(sigma2) + vdf);
    }
  } else {
    ll = -0.5 * (ll + r);
  }
  *a.results.loglik = ll;
  a.results.sigma2[0] = sigma2;
  optvec_set(o, 15, r);
  const double last = optvec_at(o, 11);
  optvec_set(o, 17, iter > 1 ? ll - last : 0.0);
  optvec_set(o, 11, ll);

  // Predictions, while the factor of C is still in the store.
  if (aiopt_at(o, 19) > 0) {
    PraArgs pr{&ms, pool, span<const i32>(iw.data(), iw.size()), span<const double>(dd, neq),
               span<const double>(a.results.soln.data(), neq), st.profiled ? sigma2 : 1.0, trace};
    if (prediction_accumulate(a, pr, nfault)) return 1;
  }

  // Working variates, AI, sparse inverse and scores.
  std::fill(st.ai.begin(), st.ai.end(), 0.0);
  std::fill(st.score.begin(), st.score.end(), 0.0);
  if (aiopt_at(o, 4) == 2 || aiopt_at(o, 4) == 3) return 0;
  if (nwv > 0) {
    AiPhaseArgs p;
    p.store = &ms;
    p.off = pool;
    p.iw = iw;
    p.dd = span<double>(dd, neq);
    p.soln = span<const double>(a.results.soln.data(), neq);
    p.design = dv;
    p.records = st.design.records;
    p.nlev = span<const i32>(t.rlevel.data(), nfactp);
    p.tcode = span<const i32>(t.tyfact.data(), std::min<std::size_t>(nfactp, t.tyfact.size()));
    p.nrsect = span<const i32>(s.nrsect.data(), 3 * static_cast<std::size_t>(s.nsect));
    p.nsect = s.nsect;
    p.gammas = span<double>(s.gammas.data(), ngamma);
    p.rgmstr = span<const i32>(s.rgmstr.data(), ngamma);
    p.wvmap = span<const i32>(st.wvmap.data(), st.wvmap.size());
    p.nwv = nwv;
    p.sigma2 = st.profiled ? sigma2 : 1.0;
    p.skip_first_scale = st.profiled;
    p.var.struc = s.struc;
    p.var.lstruc = s.lstruc;
    p.var.nstruc = s.nstruc;
    p.var.secform = st.tabs.secform;
    p.var.parform = st.tabs.parform;
    p.var.logdet = st.tabs.logdet;
    p.var.work = &a.work.x;
    p.var.giv = &giv;
    p.var.row = g5vvrw;
    p.wk = wk;
    p.lenwk = lenwk;
    p.ai = span<double>(st.ai.data(), static_cast<std::size_t>(nwv) * (nwv + 1) / 2);
    p.score = span<double>(st.score.data(), nwv);
    p.resid = a.results.resid.subspan(0, std::min<std::size_t>(a.results.resid.size(), st.design.records));
    p.trace = trace;
    if (a.results.resid.size() < static_cast<std::size_t>(st.design.records)) return g5vflt(nfault, 4);
    if (ai_phase(p)) {
      nfault = p.nfault != 0 ? p.nfault : 3000;
      return 1;
    }
    st.inverse_formed = p.inverse_formed;
  }
  if (trace) g5vtme(6, " Score formed", 13);

  // 30. Ratios: with the scale profiled its score is zero at the estimate.
  const int cs = st.wvmap[2 * (st.scalepos - 1)];
  if (st.profiled && cs > 0) st.score[cs - 1] = 0.0;

  // Results of the iteration for the host.
  for (int k = 0; k < ngamma && static_cast<std::size_t>(k) < a.results.prvgam.size(); ++k)
    a.results.prvgam[k] = s.gammas[k];
  const std::size_t nai = static_cast<std::size_t>(nwv) * (nwv + 1) / 2;
  for (std::size_t k = 0; k < nai && k < a.results.ai.size(); ++k) a.results.ai[k] = st.ai[k];
  std::fill(a.results.score.begin(), a.results.score.end(), 0.0);
  for (int c = 1; c <= nwv; ++c) {
    const int par = st.wvpar[c - 1];
    if (static_cast<std::size_t>(par - 1) < a.results.score.size()) a.results.score[par - 1] = st.score[c - 1];
  }
  a.results.nwv[0] = nwv;
  if (nwv == 0) return 0;

  // 31. The update.
  // With the scale profiled, the others move by the Newton step of the
  // profiled likelihood: the information of the other parameters is the
  // Schur complement of the scale's, and the scale itself stays where it
  // is.  The full matrix stays in st.ai for the host.
  double* aiu = updwork + upd_words - (static_cast<i64>(nwv) * (nwv + 1) / 2 + 8) -
                (static_cast<i64>(nwv) * (nwv + 1) / 2 + 1);
  std::copy(st.ai.begin(), st.ai.begin() + nai, aiu);
  if (st.profiled && cs > 0) {
    auto at = [](int i, int j) {  // packed, 1-based
      if (j > i) std::swap(i, j);
      return static_cast<std::size_t>(i) * (i - 1) / 2 + j - 1;
    };
    const double ass = st.ai[at(cs, cs)];
    if (ass > 0) {
      for (int i = 1; i <= nwv; ++i)
        for (int j = 1; j <= i; ++j)
          if (i != cs && j != cs) aiu[at(i, j)] -= st.ai[at(i, cs)] * st.ai[at(j, cs)] / ass;
    }
    for (int j = 1; j <= nwv; ++j) aiu[at(cs, j)] = 0.0;
    aiu[at(cs, cs)] = 1.0;
  }
  UpdateArgs u;
  u.gammas = span<double>(s.gammas.data(), ngamma);
  u.prev1 = span<double>(st.prev1.data(), ngamma);
  u.prev2 = span<double>(st.prev2.data(), ngamma);
  u.ai = span<const double>(aiu, nai);
  u.score = span<const double>(st.score.data(), nwv);
  u.wvpar = span<const int>(st.wvpar.data(), nwv);
  u.stepsz = o.stepsize;
  u.control = &st.control;
  u.iter = iter;
  u.dloglik = optvec_at(o, 17);
  u.tgamma = span<int>(s.tgamma.data(), ngamma);
  u.rgmstr = s.rgmstr;
  u.gmcstr = span<const int>(s.gmcstr.data(), ngamma);
  u.struc = s.struc;
  u.lstruc = s.lstruc;
  u.nstruc = s.nstruc;
  if (a.constraints.gequal.size() >= static_cast<std::size_t>(ngamma)) u.gequal = a.constraints.gequal;
  u.gmcon = a.constraints.gmcon;
  u.ngmcon = a.constraints.ngmcon;
  u.aiinv = span<double>(aiinv, nai);
  u.work = span<double>(updwork, static_cast<std::size_t>(upd_words - static_cast<i64>(nwv) * (nwv + 1) - 16));
  u.debug = o.debug != 0;
  const double scale_before = s.gammas[st.scalepos - 1];
  std::copy(s.gammas.begin(), s.gammas.begin() + ngamma, before);
  st.control.nmodified = 0;
  if (g5vupd(u, nfault)) return 1;
  if (st.profiled) s.gammas[st.scalepos - 1] = scale_before;
  if (trace) g5vtme(6, "Update", 6);

  // 33. What the driver reads: parameters still moving, restraints, and
  // whether the step was a normal one.
  int moving = 0;
  for (int c = 1; c <= nwv; ++c) {
    const int k = st.wvpar[c - 1];
    const double g0 = before[k - 1], g1 = s.gammas[k - 1];
    if (std::fabs(g1 - g0) > 1e-3 * std::max(std::fabs(g0), 1e-6)) ++moving;
  }
  aiopt_set(o, 22, moving);
  aiopt_set(o, 24, st.control.nmodified);
  aiopt_set(o, 32, 1);
  aiopt_set(o, 36, st.control.aicond);
  return 0;
}

void airhat(AiControlArgs& a, IterationState& st, double scale) {
  const WorkArray& x = a.work.x;
  const int neq = *a.terms.neq;
  const i64 nrec = st.design.records;
  const double* val = x.r + st.design.kyxz;
  const i32* col = x.i + 2 * (st.design.kyxz + st.design.nonzero);
  span<double> soln = a.results.soln;
  for (i64 r = 0; r < nrec; ++r) {
    const i64 b = st.start[r] - 1, e = st.start[r + 1] - 1;
    double fit = 0;
    i32 prev = 0;
    for (i64 k = b + 1; k < e; ++k) {
      const i32 c = col[k];
      if (c <= prev || c > neq) break;
      prev = c;
      fit += val[k] * soln[c - 1];
    }
    if (static_cast<std::size_t>(r) < a.results.linearPredictors.size()) a.results.linearPredictors[r] = fit;
    const double y = val[b];
    if (static_cast<std::size_t>(r) < a.results.resid.size())
      a.results.resid[r] = is_missing(y) ? kMissing : y - fit;
  }
  // Prediction error variances from the sparse inverse on the factor's
  // pattern (diagonal by position).
  // The iteration is over, so the words above the floor are free to hold
  // the position of each equation.
  if (st.inverse_formed && static_cast<i64>(st.floor) + neq / 2 + 1 < st.vtop) {
    i32* pos = x.i + 2 * st.floor;
    for (int e = 0; e <= neq; ++e) pos[e] = 0;
    for (int p = 1; p <= neq; ++p) {
      const i32 e = st.iw[2 * (p - 1) + 1];
      if (e >= 1 && e <= neq) pos[e] = p;
    }
    for (int e = 2; e <= neq && static_cast<std::size_t>(e - 1) < a.results.vsoln.size(); ++e)
      a.results.vsoln[e - 1] = pos[e] > 0 ? scale * cinv_at(st.store, st.off, pos[e], pos[e]) : 0.0;
  }
}

}  // namespace tarnel
