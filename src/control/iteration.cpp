// One REML iteration: structures, equations, absorption, log-likelihood,
// working variates and AI, scores, and the update of the parameters.
// `g5vitr` runs the steps listed in `kSteps`, in that order, each over the
// iteration's working set (`IterationWork`); a step may end the iteration
// early, with success or with a fault.
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

// The order a section counts with in a direct product: for a known matrix
// held by a singular inverse (genetic groups) the rank of that inverse.
static int counted_order(const AiControlArgs& a, StrucRow row) {
  const int order = std::max(1, row.field(kOrder));
  const int g = -row.field(kModel);
  if (g < 1 || g > a.known.nainv || a.known.lcainv.size() < static_cast<std::size_t>(5 * g)) return order;
  const int m = a.known.lcainv[5 * (g - 1)] - a.known.lcainv[5 * (g - 1) + 4];
  return std::max(1, std::min(order, m));
}

// log|G| of the random terms, from the parameters and section log
// determinants.  In a direct product each factor's log determinant counts
// once for every level of the other factors.
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
    for (int k = 0; k < n; ++k) {
      StrucRow row = struc_row(s, r + k);
      if (row.field(kField14) != 1) continue;
      i64 mult = 1;
      for (int f = 0; f < n; ++f)
        if (f != k) mult *= counted_order(a, struc_row(s, r + f));
      ld += static_cast<double>(mult) * st.tabs.logdet[r + k - 1];
    }
  }
  return ld;
}

namespace {

// What a step of the iteration tells g5vitr: go on to the next step, stop
// here with success (an early stage, or nothing left to do), or leave with
// the fault set in `nfault`.
enum class StepResult { kNext, kStop, kFault };

StepResult fault(int& nfault, int code) {
  g5vflt(nfault, code);
  return StepResult::kFault;
}

// The working set of one iteration: the fit, the driver's state, and the
// blocks that the iteration carves for itself from the floor of the work
// array up to the structures.  Each step reads what the steps before it
// left here and adds its own.
struct IterationWork {
  IterationWork(AiControlArgs& args, IterationState& state, int it, int& nf)
      : a(args), st(state), iter(it), nfault(nf), neq(*args.terms.neq),
        ngamma(args.structures.ngamma), nfactp(args.terms.nfactp),
        trace(args.options.trace == 1 && aiopt_at(args.options, kAioptProgress) == 1) {}
  AiControlArgs& a;
  IterationState& st;
  const int iter;
  int& nfault;
  const int neq, ngamma, nfactp;
  const bool trace;
  int err = 0;             // detail code of the SSP, order and absorption kernels

  // Structures: the top of the iteration's space and the known inverses.
  i64 top = 0;
  GivTable giv;

  // The iteration's blocks.
  i64 ndense = 1, lssp = 1, pool = 0;
  double* dd = nullptr;        // NEQ: reciprocal pivots by position
  double* solwork = nullptr;   // NEQ: absorption's scratch
  i32* rank = nullptr;         // nfactp: rank of each model position
  i32* status = nullptr;       // absorption's status words
  double* scratch = nullptr;   // one structure row, scattered
  i32* scols = nullptr;
  i64 maxord = 0;
  double* rrow = nullptr;      // one row of a residual section's R^-1
  i32* rcols = nullptr;
  i64 maxsect = 0;
  double* mvwork = nullptr;    // several traits: one unit's block of R^-1
  i32* mviwork = nullptr;      // and its patterns
  double* updwork = nullptr;   // the update's scratch, AI copies at its end
  i64 upd_words = 0;
  double* before = nullptr;    // the parameters before the update
  double* aiinv = nullptr;     // the update's restricted inverse of AI
  GTerm* gterms = nullptr;     // nfactp
  StrucRow* grows = nullptr;   // the rows of struc, by section
  double* wk = nullptr;        // what is left: the order search and the AI step
  i64 lenwk = 0;
  SspScratch ssp;
  DesignView dv;

  double sigma2 = 1.0;         // scale of the equations, then its estimate
  i64 nedf = 0;
};

// A product of n sections of struc from r, seen through the inverse halves
// of their form records.
void structure_source(IterationWork& w, RowSource& src, int n, int r) {
  AiStructures& s = w.a.structures;
  for (int k = 0; k < n; ++k) w.grows[r - 1 + k] = struc_row(s, r + k);
  src.records = w.st.tabs.secform.data() + (r - 1);
  src.rows = w.grows + (r - 1);
  src.nsect = n;
  src.work = &w.a.work.x;
  src.giv = &w.giv;
  src.second = true;
  src.scratch = span<double>(w.scratch, static_cast<std::size_t>(w.maxord));
  src.scols = span<int>(w.scols, static_cast<std::size_t>(w.maxord));
}

// The update list: every parameter but those equal to the missing mark and
// the zeros among the model positions' own parameters.
StepResult find_update_list(IterationWork& w) {
  AiStructures& s = w.a.structures;
  IterationState& st = w.st;
  const double mv = w.a.data.dpmv[0];
  int nwv = 0;
  std::fill(st.wvmap.begin(), st.wvmap.end(), 0);
  for (int k = 1; k <= w.ngamma; ++k) {
    const double g = s.gammas[k - 1];
    if (g == mv) continue;
    if (g == 0.0 && k <= w.nfactp && k != st.scalepos) continue;
    ++nwv;
    st.wvmap[2 * (k - 1)] = nwv;
    st.wvmap[2 * (nwv - 1) + 1] = k;
    st.wvpar[nwv - 1] = k;
  }
  st.nwv = nwv;
  return StepResult::kNext;
}

// 1. The variance structures at the present parameters.
StepResult form_structures(IterationWork& w) {
  AiControlArgs& a = w.a;
  AiStructures& s = a.structures;
  IterationState& st = w.st;
  const int ngamma = w.ngamma;
  VsfArgs v;
  v.nsect = s.nstruc;
  v.struc = s.struc;
  v.lstruc = s.lstruc;
  v.gammas = span<double>(s.gammas.data(), ngamma);
  v.prvgam = span<double>(a.results.prvgam.data(), std::min<std::size_t>(ngamma, a.results.prvgam.size()));
  v.tgamma = span<int>(s.tgamma.data(), ngamma);
  v.rgmstr = s.rgmstr;
  v.work = a.work.x;
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
  v.iteration = w.iter;
  v.debug = a.options.debug;
  if (s.nstruc > 0 && g5vvsf(v, w.nfault)) return StepResult::kFault;
  w.top = s.nstruc > 0 ? v.top : st.vtop;
  w.giv = v.giv;
  return StepResult::kNext;
}

// 2. Space for this iteration, from the floor up to the structures: the
// small blocks first, then the equations in three fifths of what is left,
// and the rest for the order search and the average information step.
StepResult carve_iteration_space(IterationWork& w) {
  AiStructures& s = w.a.structures;
  const int neq = w.neq, nfactp = w.nfactp, nwv = w.st.nwv;
  Bump bump{&w.a.work.x, w.st.floor, w.top};
  w.ndense = std::max(1, *w.a.terms.neqd);
  w.lssp = w.ndense * (w.ndense + 1) / 2;
  w.dd = bump.take(neq);
  w.solwork = bump.take(neq);
  double* acc = bump.take(neq);
  i32* list = reinterpret_cast<i32*>(bump.take(neq / 2 + 2));
  i32* links = reinterpret_cast<i32*>(bump.take(neq + 2));
  w.rank = reinterpret_cast<i32*>(bump.take(nfactp / 2 + 1));
  w.status = reinterpret_cast<i32*>(bump.take(4));
  w.maxord = neq + 1;
  for (int k = 1; k <= s.nstruc; ++k) w.maxord = std::max<i64>(w.maxord, struc_row(s, k).field(kOrder) + 1);
  w.scratch = bump.take(w.maxord);
  w.scols = reinterpret_cast<i32*>(bump.take(w.maxord / 2 + 2));
  w.upd_words = static_cast<i64>(g5vupd_work_words(nwv, w.ngamma, w.a.constraints.ngmcon)) +
                static_cast<i64>(nwv) * (nwv + 1) + 16;
  w.updwork = bump.take(w.upd_words);
  w.before = bump.take(w.ngamma);
  w.aiinv = w.updwork + w.upd_words - (static_cast<i64>(nwv) * (nwv + 1) / 2 + 8);
  w.gterms = reinterpret_cast<GTerm*>(bump.take((static_cast<i64>(nfactp) * sizeof(GTerm) + 7) / 8));
  w.grows = reinterpret_cast<StrucRow*>(bump.take(s.nstruc + 1));
  // One row of a residual section's R^-1, and the rows of structures: the
  // larger of the section sizes and of the structure orders.
  w.maxsect = neq + 1;
  for (int k = 0; k < s.nsect; ++k) w.maxsect = std::max<i64>(w.maxsect, s.nrsect[3 * k]);
  for (int k = 1; k <= s.nstruc; ++k) w.maxsect = std::max<i64>(w.maxsect, struc_row(s, k).field(kOrder));
  w.rrow = bump.take(w.maxsect);
  w.rcols = reinterpret_cast<i32*>(bump.take(w.maxsect / 2 + 1));
  if (w.a.data.ntrt > 1) {
    w.mvwork = bump.take(mv_scratch_reals(w.a.data.ntrt));
    w.mviwork = reinterpret_cast<i32*>(bump.take(mv_scratch_ints(w.a.data.ntrt) / 2 + 1));
  }
  if (!bump.ok) return fault(w.nfault, 6);
  for (int i = 0; i < nfactp; ++i) new (&w.gterms[i]) GTerm();
  const i64 remaining = bump.hi - bump.lo;
  const i64 mwords = remaining * 3 / 5;
  w.pool = (mwords - w.lssp - neq - 4) / 2;
  if (w.pool < 5 * static_cast<i64>(neq) || remaining - mwords < 3 * 5100) {
    g5verror("MME too large for workspace allocated", 3);
    return fault(w.nfault, 6);
  }
  double* xs = bump.take(w.lssp + w.pool, false);
  i32* ls = reinterpret_cast<i32*>(bump.take(w.pool + neq + 4, false));
  w.wk = bump.lo < bump.hi ? w.a.work.x.r + bump.lo : nullptr;
  w.lenwk = bump.hi - bump.lo;
  if (!bump.ok || w.wk == nullptr) return fault(w.nfault, 6);

  MmeStore& ms = w.st.store;
  ms = MmeStore();
  ms.x = span<double>(xs, static_cast<std::size_t>(w.lssp + w.pool));
  ms.l = span<i32>(ls, 2 * static_cast<std::size_t>(w.pool + neq + 4));
  ms.neq = neq;
  ms.ndense = static_cast<i32>(w.ndense);
  ms.lssp = w.lssp;
  ms.len = w.pool;
  if (ms.clear(w.nfault)) return StepResult::kFault;
  w.ssp.acc = span<double>(acc, neq);
  w.ssp.list = span<i32>(list, neq + 1);
  w.ssp.links = span<i32>(links, 2 * static_cast<std::size_t>(neq) + 2);
  // Before the order search, the rest of the work array is free for the
  // index of the records by column.
  w.ssp.room = span<double>(w.wk, static_cast<std::size_t>(w.lenwk));
  return StepResult::kNext;
}

// One residual section, records first..first+nrec-1, for g5vxxs.
StepResult residual_section(IterationWork& w, int k, i64 first, SspSection& sec) {
  AiStructures& s = w.a.structures;
  IterationState& st = w.st;
  const i64 nrec = s.nrsect[3 * k];
  const int ps = s.nrsect[3 * k + 1];
  const int code = s.nrsect[3 * k + 2];
  if (nrec < 0 || first + nrec - 1 > st.design.records || ps < 1 || ps > w.ngamma) {
    vprt(" Residual section %d does not fit the records\n", k + 1);
    return fault(w.nfault, 5);
  }
  sec.design = w.dv;
  sec.struc = s.struc;
  sec.lstruc = s.lstruc;
  sec.first = first;
  sec.last = first + nrec - 1;
  sec.sigma2 = s.gammas[ps - 1] > 0 ? s.gammas[ps - 1] : s.gammas[st.scalepos - 1];
  sec.gammas = span<const double>(s.gammas.data(), w.ngamma);
  sec.ntraits = w.a.data.ntrt;
  sec.logdet = &st.logdet_r;
  sec.skipped = &st.skipped;
  sec.err = &w.err;
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
      return fault(w.nfault, 5);
    }
    sec.termcode = -3;
    sec.section = r;
    // Each factor's log determinant counts once per repeat of it.
    for (int j = 0; j < n; ++j) {
      const int ord = std::max(1, struc_row(s, r + j).field(kOrder));
      sec.sectlogdet += static_cast<double>(nrec) / ord * st.tabs.logdet[r + j - 1];
    }
    structure_source(w, sec.rsrc, n, r);
    sec.rrow = span<double>(w.rrow, static_cast<std::size_t>(w.maxsect));
    sec.rcols = span<int>(w.rcols, static_cast<std::size_t>(w.maxsect));
  }
  if (sec.ntraits > 1 && w.mvwork != nullptr) {
    sec.mvwork = span<double>(w.mvwork, static_cast<std::size_t>(mv_scratch_reals(sec.ntraits)));
    sec.mviwork = span<int>(w.mviwork, static_cast<std::size_t>(mv_scratch_ints(sec.ntraits)));
  }
  return StepResult::kNext;
}

// 3-7. Sums of squares and products, section by section; the weighted
// response sum of squares must come out positive.
StepResult form_ssp(IterationWork& w) {
  const WorkArray& x = w.a.work.x;
  AiStructures& s = w.a.structures;
  IterationState& st = w.st;
  MmeStore& ms = st.store;
  w.dv.val = span<const double>(x.r + st.design.kyxz, st.design.nonzero);
  w.dv.col = span<const i32>(x.i + 2 * (st.design.kyxz + st.design.nonzero), st.design.nonzero);
  w.dv.start = span<const i64>(st.start.data(), st.start.size());
  st.logdet_r = 0;
  st.skipped = 0;
  i64 first = 1;
  for (int k = 0; k < s.nsect; ++k) {
    SspSection sec;
    const StepResult r = residual_section(w, k, first, sec);
    if (r != StepResult::kNext) return r;
    if (g5vxxs(ms, sec, w.ssp)) {
      if (w.err % 1000 == 6 || w.err == 6) return fault(w.nfault, 6);
      return fault(w.nfault, w.err > 0 ? w.err : 136);
    }
    first += s.nrsect[3 * k];
  }
  if (w.trace) g5vtme(6, " SSP formed", 11);
  if (!(ms.x[0] > 1e-10)) return fault(w.nfault, 3);
  return StepResult::kNext;
}

// 9. The G structures of the random terms.
StepResult insert_g_structures(IterationWork& w) {
  AiTerms& t = w.a.terms;
  AiStructures& s = w.a.structures;
  const int nfactp = w.nfactp;
  GTerm* gterms = w.gterms;
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
      if (code > w.ngamma) return fault(w.nfault, 130);
      g.code = code;
      continue;
    }
    int n, r;
    product_code(code, n, r);
    if (!valid_product(s, n, r)) {
      vprt(" The random term at position %d names structures that do not exist\n", i + 1);
      return fault(w.nfault, 5);
    }
    g.code = code;
    g.nsect = n;
    structure_source(w, g.src, n, r);
  }
  if (g5vxxg(w.st.store, span<const GTerm>(gterms, nfactp), span<const double>(s.gammas.data(), w.ngamma),
             w.ssp, w.nfault))
    return StepResult::kFault;
  if (w.trace) g5vtme(6, "XXG done", 8);
  return StepResult::kNext;
}

// The search for an order by the method the option names.  Returns 1 when
// the search runs out of room.
int search_order(IterationWork& w, int method) {
  AiStructures& s = w.a.structures;
  OrderArgs oa;
  oa.store = &w.st.store;
  oa.iw = w.st.iw;
  oa.work = span<i32>(reinterpret_cast<i32*>(w.wk), 2 * static_cast<std::size_t>(w.lenwk));
  oa.maxlx = (2 * w.lenwk - 8 * static_cast<i64>(w.neq)) / 2;
  oa.err = &w.err;
  oa.lstruc = s.lstruc;
  oa.struc = s.struc;
  int rc = 0;
  if (method < 4) {
    oa.mode = method;
    rc = g5veorb(oa);
  } else if (method <= 6) {
    oa.mode = method - 2;
    rc = g5veora(oa);
  } else if (method <= 10) {
    g5vmetis();
  } else {
    oa.mode = method % 10;
    rc = g5veor(oa);
  }
  if (rc != 0) return 1;
  w.st.tail = oa.tail;
  return 0;
}

// 11. The order, found on the first iteration.  A large model may take its
// order from an earlier fit kept in "EQNORD.BIN", when the option asks for
// it and the file's header matches this model and work array.
StepResult order_equations(IterationWork& w) {
  AiOptions& o = w.a.options;
  IterationState& st = w.st;
  const int neq = w.neq;
  span<i32> iw = st.iw;
  if (!st.ordered) {
    for (int p = 1; p <= neq; ++p) {
      iw[2 * (p - 1)] = p;
      iw[2 * (p - 1) + 1] = p;
    }
    const int method = aiopt_at(o, kAioptOrderMethod);
    const bool keep_order =
        aiopt_at(o, kAioptProgress) == 1 && neq > 5000 && aiopt_at(o, kAioptOrderUnit) > 7;
    const i64 mark = static_cast<i64>(st.floor), total = static_cast<i64>(w.a.work.lenx[0]);
    const i32 ndense = static_cast<i32>(w.ndense);
    bool from_file = false;
    if (keep_order && neq > w.ndense + 2 && method >= 0)
      from_file = eqnord_read(iw, ndense, neq, w.nfactp, mark, total, w.trace) == 0;
    if (!from_file && neq > w.ndense + 2 && method >= 0) {
      if (search_order(w, method)) {
        g5verror("MME too large for workspace allocated", 3);
        return fault(w.nfault, 6);
      }
      if (w.trace) g5vtme(6, " Order found", 12);
      if (keep_order) eqnord_write(iw, ndense, neq, w.nfactp, mark, total, w.trace);
    }
    st.ordered = true;
  }
  // Absorption reads IW(1,e) as the term of equation e.
  for (int e = 1; e <= neq; ++e) iw[2 * (e - 1)] = st.eqterm[e - 1];
  return StepResult::kNext;
}

// 12-13. The scale of the equations, and absorption.
StepResult absorb_equations(IterationWork& w) {
  AiControlArgs& a = w.a;
  AiStructures& s = a.structures;
  AiOptions& o = a.options;
  IterationState& st = w.st;
  MmeStore& ms = st.store;
  const int neq = w.neq;
  w.sigma2 = 1.0;
  if (s.nsect + a.data.ntrt < 3 && s.rgmstr[st.scalepos - 1] == 4) w.sigma2 = s.gammas[st.scalepos - 1];

  if (w.trace) g5vtme(6, " Start Absorb", 13);
  AbsorbArgs ab;
  ab.iw = st.iw;
  ab.off = w.pool;
  ab.rank = span<i32>(w.rank, w.nfactp);
  ab.soln = span<double>(a.results.soln.data(), neq);
  ab.work = span<double>(w.solwork, neq);
  ab.dd = span<double>(w.dd, neq);
  ab.iter = w.iter;
  ab.e1 = aiopt_at(o, kAioptSingTol1);
  ab.e2 = aiopt_at(o, kAioptSingTol2);
  ab.negpiv = aiopt_at(o, kAioptNegPivots);
  ab.threads = std::max(1, aiopt_at(o, kAioptStrips));
  ab.status = span<i32>(w.status, 8);
  ab.err = &w.err;
  ab.tail = st.tail;
  ab.dense_copy = st.wald.tri;
  // The order search is over and the AI step has not begun: the rest of the
  // work array holds the square of the block.
  ab.room = span<double>(w.wk, static_cast<std::size_t>(w.lenwk));
  if (a.results.soln.size() < static_cast<std::size_t>(neq)) return fault(w.nfault, 4);
  if (g5vxxa(ms, ab, w.nfault)) {
    if (w.nfault == 0) w.nfault = w.err > 0 ? w.err : 6;
    return StepResult::kFault;
  }
  aiopt_set(o, kAioptNegPivots, ab.negpiv);
  st.off = w.pool;
  st.wald.captured = !st.wald.tri.empty();
  st.dd = span<double>(w.dd, neq);
  st.nsing = ab.nsing;
  st.logdet_c = ab.logdet;
  if (w.trace) g5vtme(6, " SSP absorbed", 13);
  if (!(ms.x[0] > 1e-10)) return fault(w.nfault, 2130);
  st.rss = ms.x[0];
  *a.results.nsing.data() = ab.nsing;
  return StepResult::kNext;
}

// 16. The first stage stops after solving.
StepResult stop_after_solving(IterationWork& w) {
  if (aiopt_at(w.a.options, kAioptStage) != kStageSolveOnly) return StepResult::kNext;
  AiStructures& s = w.a.structures;
  for (int k = 0; k < w.ngamma && static_cast<std::size_t>(k) < w.a.results.vsoln.size(); ++k)
    w.a.results.vsoln[k] = s.gammas[k];
  return StepResult::kStop;
}

// 17. Residual degrees of freedom: the records less those left out and the
// rank of the fixed terms.
StepResult residual_df(IterationWork& w) {
  AiControlArgs& a = w.a;
  AiTerms& t = a.terms;
  i64 nedf = w.st.design.records - w.st.skipped;
  for (int i = 0; i < w.nfactp; ++i) {
    if (static_cast<std::size_t>(i) < a.results.noeff.size()) a.results.noeff[i] = w.rank[i];
    const int code = i < static_cast<int>(t.tyfact.size()) ? t.tyfact[i] : 0;
    if (code == 0) nedf -= w.rank[i];
  }
  a.results.nedf[0] = static_cast<int>(nedf);
  w.nedf = nedf;
  return StepResult::kNext;
}

// 19-21, 23. The log-likelihood, and with the residual variance profiled
// its estimate.
StepResult log_likelihood(IterationWork& w) {
  AiControlArgs& a = w.a;
  AiStructures& s = a.structures;
  AiOptions& o = a.options;
  IterationState& st = w.st;
  st.logdet_g = logdet_g(a, st);
  double ll = st.logdet_c + st.logdet_r + st.logdet_g;
  optvec_set(o, kOptvecLogdetC, st.logdet_c);
  optvec_set(o, kOptvecLogdetRest, st.logdet_r + st.logdet_g);
  optvec_set(o, kOptvecLogdetG, st.logdet_g);
  const double r = st.rss, vdf = static_cast<double>(w.nedf);
  if (s.nsect + a.data.ntrt < 3) {
    if (s.rgmstr[st.scalepos - 1] == 4) {
      ll = -0.5 * (ll + r);
    } else {
      if (!(vdf > 0)) return fault(w.nfault, 280);
      w.sigma2 = r / vdf;
      ll = -0.5 * (ll + vdf * std::log(w.sigma2) + vdf);
    }
  } else {
    ll = -0.5 * (ll + r);
  }
  *a.results.loglik = ll;
  a.results.sigma2[0] = w.sigma2;
  optvec_set(o, kOptvecRss, r);
  const double last = optvec_at(o, kOptvecLoglik);
  optvec_set(o, kOptvecDloglik, w.iter > 1 ? ll - last : 0.0);
  optvec_set(o, kOptvecLoglik, ll);
  return StepResult::kNext;
}

// Predictions, in the last iteration of a run that asks for them, while the
// factor of C is still in the store.
StepResult accumulate_predictions(IterationWork& w) {
  AiControlArgs& a = w.a;
  IterationState& st = w.st;
  if (aiopt_at(a.options, kAioptPredict) <= 0) return StepResult::kNext;
  PraArgs pr{&st.store, w.pool, span<const i32>(st.iw.data(), st.iw.size()), span<const double>(w.dd, w.neq),
             span<const double>(a.results.soln.data(), w.neq), st.profiled ? w.sigma2 : 1.0, w.trace};
  return prediction_accumulate(a, pr, w.nfault) ? StepResult::kFault : StepResult::kNext;
}

// 25-29. Working variates, the AI matrix, the sparse inverse and the
// scores; the second and third stages stop before them.
StepResult average_information(IterationWork& w) {
  AiControlArgs& a = w.a;
  AiStructures& s = a.structures;
  AiTerms& t = a.terms;
  IterationState& st = w.st;
  const int neq = w.neq, nwv = st.nwv, nfactp = w.nfactp;
  std::fill(st.ai.begin(), st.ai.end(), 0.0);
  std::fill(st.score.begin(), st.score.end(), 0.0);
  const int stage = aiopt_at(a.options, kAioptStage);
  if (stage == kStageWorkingVariates || stage == kStageAverageInfo) return StepResult::kStop;
  if (nwv > 0) {
    AiPhaseArgs p;
    p.store = &st.store;
    p.off = w.pool;
    p.iw = st.iw;
    p.dd = span<double>(w.dd, neq);
    p.soln = span<const double>(a.results.soln.data(), neq);
    p.design = w.dv;
    p.records = st.design.records;
    p.nlev = span<const i32>(t.rlevel.data(), nfactp);
    p.tcode = span<const i32>(t.tyfact.data(), std::min<std::size_t>(nfactp, t.tyfact.size()));
    p.nrsect = span<const i32>(s.nrsect.data(), 3 * static_cast<std::size_t>(s.nsect));
    p.nsect = s.nsect;
    p.ntrt = std::max(1, a.data.ntrt);
    p.gammas = span<double>(s.gammas.data(), w.ngamma);
    p.rgmstr = span<const i32>(s.rgmstr.data(), w.ngamma);
    p.wvmap = span<const i32>(st.wvmap.data(), st.wvmap.size());
    p.nwv = nwv;
    p.sigma2 = st.profiled ? w.sigma2 : 1.0;
    p.skip_first_scale = st.profiled;
    p.var.struc = s.struc;
    p.var.lstruc = s.lstruc;
    p.var.nstruc = s.nstruc;
    p.var.secform = st.tabs.secform;
    p.var.parform = st.tabs.parform;
    p.var.logdet = st.tabs.logdet;
    p.var.work = &a.work.x;
    p.var.giv = &w.giv;
    p.var.row = g5vvrw;
    p.wk = w.wk;
    p.lenwk = w.lenwk;
    p.ai = span<double>(st.ai.data(), static_cast<std::size_t>(nwv) * (nwv + 1) / 2);
    p.score = span<double>(st.score.data(), nwv);
    p.resid = a.results.resid.subspan(0, std::min<std::size_t>(a.results.resid.size(), st.design.records));
    p.trace = w.trace;
    if (a.results.resid.size() < static_cast<std::size_t>(st.design.records)) return fault(w.nfault, 4);
    if (ai_phase(p)) {
      w.nfault = p.nfault != 0 ? p.nfault : 3000;
      return StepResult::kFault;
    }
    st.inverse_formed = p.inverse_formed;
  }
  if (w.trace) g5vtme(6, " Score formed", 13);
  return StepResult::kNext;
}

// The WV column of the residual scale (0: not in the update list).
int scale_column(const IterationState& st) { return st.wvmap[2 * (st.scalepos - 1)]; }

// 30. With the scale profiled its score is zero at the estimate; then the
// results of the iteration for the host.  Nothing to update stops here.
StepResult report_iteration(IterationWork& w) {
  AiControlArgs& a = w.a;
  AiStructures& s = a.structures;
  IterationState& st = w.st;
  const int nwv = st.nwv;
  const int cs = scale_column(st);
  if (st.profiled && cs > 0) st.score[cs - 1] = 0.0;
  for (int k = 0; k < w.ngamma && static_cast<std::size_t>(k) < a.results.prvgam.size(); ++k)
    a.results.prvgam[k] = s.gammas[k];
  const std::size_t nai = static_cast<std::size_t>(nwv) * (nwv + 1) / 2;
  for (std::size_t k = 0; k < nai && k < a.results.ai.size(); ++k) a.results.ai[k] = st.ai[k];
  std::fill(a.results.score.begin(), a.results.score.end(), 0.0);
  for (int c = 1; c <= nwv; ++c) {
    const int par = st.wvpar[c - 1];
    if (static_cast<std::size_t>(par - 1) < a.results.score.size()) a.results.score[par - 1] = st.score[c - 1];
  }
  a.results.nwv[0] = nwv;
  return nwv == 0 ? StepResult::kStop : StepResult::kNext;
}

// The information the update works with.  With the scale profiled, the
// others move by the Newton step of the profiled likelihood: the
// information of the other parameters is the Schur complement of the
// scale's, and the scale itself stays where it is.  The full matrix stays
// in st.ai for the host.
double* update_information(IterationWork& w) {
  IterationState& st = w.st;
  const int nwv = st.nwv;
  const std::size_t nai = static_cast<std::size_t>(nwv) * (nwv + 1) / 2;
  double* aiu = w.updwork + w.upd_words - (static_cast<i64>(nwv) * (nwv + 1) / 2 + 8) -
                (static_cast<i64>(nwv) * (nwv + 1) / 2 + 1);
  std::copy(st.ai.begin(), st.ai.begin() + nai, aiu);
  const int cs = scale_column(st);
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
  return aiu;
}

// 31. The update of the parameters.
StepResult update_parameters(IterationWork& w) {
  AiControlArgs& a = w.a;
  AiStructures& s = a.structures;
  IterationState& st = w.st;
  const int nwv = st.nwv, ngamma = w.ngamma;
  const std::size_t nai = static_cast<std::size_t>(nwv) * (nwv + 1) / 2;
  double* aiu = update_information(w);
  UpdateArgs u;
  u.gammas = span<double>(s.gammas.data(), ngamma);
  u.prev1 = span<double>(st.prev1.data(), ngamma);
  u.prev2 = span<double>(st.prev2.data(), ngamma);
  u.ai = span<const double>(aiu, nai);
  u.score = span<const double>(st.score.data(), nwv);
  u.wvpar = span<const int>(st.wvpar.data(), nwv);
  u.stepsz = a.options.stepsize;
  u.control = &st.control;
  u.iter = w.iter;
  u.dloglik = optvec_at(a.options, kOptvecDloglik);
  u.tgamma = span<int>(s.tgamma.data(), ngamma);
  u.rgmstr = s.rgmstr;
  u.gmcstr = span<const int>(s.gmcstr.data(), ngamma);
  u.struc = s.struc;
  u.lstruc = s.lstruc;
  u.nstruc = s.nstruc;
  if (a.constraints.gequal.size() >= static_cast<std::size_t>(ngamma)) u.gequal = a.constraints.gequal;
  u.gmcon = a.constraints.gmcon;
  u.ngmcon = a.constraints.ngmcon;
  u.aiinv = span<double>(w.aiinv, nai);
  u.work = span<double>(w.updwork, static_cast<std::size_t>(w.upd_words - static_cast<i64>(nwv) * (nwv + 1) - 16));
  u.debug = a.options.debug != 0;
  const double scale_before = s.gammas[st.scalepos - 1];
  std::copy(s.gammas.begin(), s.gammas.begin() + ngamma, w.before);
  st.control.nmodified = 0;
  if (g5vupd(u, w.nfault)) return StepResult::kFault;
  if (st.profiled) s.gammas[st.scalepos - 1] = scale_before;
  if (w.trace) g5vtme(6, "Update", 6);
  return StepResult::kNext;
}

// 33. What the driver reads: parameters still moving, restraints, and
// whether the step was a normal one.
StepResult report_update(IterationWork& w) {
  AiOptions& o = w.a.options;
  AiStructures& s = w.a.structures;
  IterationState& st = w.st;
  int moving = 0;
  for (int c = 1; c <= st.nwv; ++c) {
    const int k = st.wvpar[c - 1];
    const double g0 = w.before[k - 1], g1 = s.gammas[k - 1];
    if (std::fabs(g1 - g0) > 1e-3 * std::max(std::fabs(g0), 1e-6)) ++moving;
  }
  aiopt_set(o, kAioptMoving, moving);
  aiopt_set(o, kAioptRestrained, st.control.nmodified);
  aiopt_set(o, kAioptNormalStep, 1);
  aiopt_set(o, kAioptAiCondition, st.control.aicond);
  return StepResult::kNext;
}

// The steps of one iteration, in order.
using IterationStep = StepResult (*)(IterationWork&);
constexpr IterationStep kSteps[] = {
    find_update_list,    form_structures, carve_iteration_space, form_ssp,
    insert_g_structures, order_equations, absorb_equations,      stop_after_solving,
    residual_df,         log_likelihood,  accumulate_predictions, average_information, report_iteration,
    update_parameters,   report_update,
};

}  // namespace

int g5vitr(AiControlArgs& a, IterationState& st, int iter, int& nfault) {
  nfault = 0;
  IterationWork w(a, st, iter, nfault);
  for (IterationStep step : kSteps) {
    // The user may interrupt between the steps: the run ends in order with
    // the fault, and R gets the message.
    if (host_interrupt_pending()) {
      g5verror("Interrupted by the user", 4);
      fault(w.nfault, 1);
      return 1;
    }
    const StepResult r = step(w);
    if (r == StepResult::kFault) return 1;
    if (r == StepResult::kStop) return 0;
  }
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
