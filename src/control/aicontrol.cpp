// The run driver.
//
// `aicontrol` walks the set-up in its order: marks and switches
// (`start_run`), the offsets of the design in the work array
// (`design_offsets`), the terms it cannot fit yet (`refuse_unavailable`),
// the term table and its checks (`design_terms`, `check_term_table`), the
// running codes, the scratch at the top of the work array
// (`carve_design_scratch`), design formation (`form_design`), the kept
// design (`keep_design`) and the layout of the rows for the equations
// (`lay_out_rows`).  Then `run_iterations` (driver.cpp) fits the model.
// `aidesign` walks the same set-up as far as design formation and stops.
#include "control/aicontrol.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "control/driver.h"
#include "control/run_helpers.h"
#include "design/design.h"
#include "design/spline.h"
#include "host/console.h"
#include "host/messages.h"

namespace tarnel {

namespace {

// The saved design: the one allocation of a run.  The host copies it after
// the driver returns, so it lives until the start of the next run.
struct SavedDesign {
  double* xz = nullptr;  // 3 doubles a nonzero: record, equation, value
  i64 tupl = 0;
};
SavedDesign saved_design;

// Design formation in the work array: where everything goes, and what
// formation is given and gives back.
struct DesignRun {
  explicit DesignRun(AiControlArgs& args) : a(args) {}
  AiControlArgs& a;
  u64 kyxz0 = 0;  // first word after the host's basis tables
  u64 nrows = 0;  // design rows: records x traits
  u64 K = 0;      // the row starts, as integers from 2K
  u64 kyxz = 0;   // the values
  u64 half = 0;   // the equation numbers, from the middle
  u64 top = 0;    // formation's scratch, at the top
  DesignTerms tt;
  DesignData dd;
  DesignStores ds;
  DesignResult res;
  int mvact = 0, mvd = 0;  // the missing-value words
};

// The fault exit with ifault set.
void fault_with(AiControlArgs& a, int ifault) {
  a.status.ifault = ifault;
  fault_exit(a);
}

// 1-2. Marks and switches; the levels of each position.
void start_run(AiControlArgs& a) {
  AiTerms& t = a.terms;
  AiOptions& o = a.options;
  etime(1);
  aiopt_set(o, kAioptStrips, 1);
  clear_message_store();
  if (o.maxiter != nullptr && *o.maxiter == 0) *o.maxiter = 10;
  aiopt_set(o, kAioptDdfPass, 0);
  for (int i = 0; i < t.nfactp; ++i) {
    const int term = t.neword[i];
    t.rlevel[i] = term >= 1 && term <= t.nfact ? t.flev[term - 1] : 0;
  }
  if (!a.data.rvec.empty()) a.data.rvec[0] = 1.0;
  a.status.ifault = -1;
}

// 2b. The spline tables, in the low end of x after the host's tables; the
// levels of each position again, since a spline sets its own.  Returns false
// after the fault exit.
bool spline_tables(AiControlArgs& a) {
  AiTerms& t = a.terms;
  bool any = false;
  for (int k = 0; k < t.nfact; ++k) any = any || t.inter[4 * static_cast<std::size_t>(k)] == -3;
  if (!any) return true;
  SplineTables s;
  s.x = a.work.x;
  s.kyxz = t.kyxz;
  s.inter = t.inter;
  s.flev = t.flev;
  s.nlev = t.nlev;
  s.JBV = t.JBV;
  s.kzbkey = t.kzbkey;
  s.mxSpline = t.mxSpline;
  s.ncspln = t.ncspln;
  s.datafr = a.data.datafr;
  s.lbin = a.data.lbin;
  s.nrow = a.data.nrow;
  s.splinescale = t.splinescale;
  const int rc = aidsum(s, a.results.errtxt);
  if (rc == 6) {
    vprt("Insufficient workspace.\n");
    a.status.runTrn = static_cast<double>(a.work.lenx[0]);
    a.status.ifault = 6;
    return false;
  }
  if (rc != 0) {
    vprt("Fault %d\n", rc);
    fault_with(a, rc);
    return false;
  }
  t.kyxz = s.kyxz;
  t.ncspln = s.ncspln;
  for (int i = 0; i < t.nfactp; ++i) {
    const int term = t.neword[i];
    t.rlevel[i] = term >= 1 && term <= t.nfact ? t.flev[term - 1] : 0;
  }
  return true;
}

// 3. Offsets: a word a row for each row's data record, the row starts,
// and the values from kyxz.
void design_offsets(DesignRun& run) {
  const AiData& d = run.a.data;
  run.kyxz0 = run.a.terms.kyxz;
  run.nrows = static_cast<u64>(std::max(d.nrow, 0)) * static_cast<u64>(std::max(d.ntrt, 1));
  run.K = run.kyxz0 + run.nrows;
  run.kyxz = run.nrows + run.K + 1;
}

// 4. Spline tables come with the smoothing splines; a model without spline
// terms needs none.  Returns false after the fault exit.
bool refuse_unavailable(AiControlArgs& a) {
  const AiTerms& t = a.terms;
  for (int k = 0; k < t.nfact; ++k) {
    if (t.inter[4 * static_cast<std::size_t>(k)] == -24) {
      vprt("Spline terms are not available yet\n");
      set_errtxt(a, "Spline terms are not available yet");
      fault_with(a, 1);
      return false;
    }
  }
  if (a.data.nrow == 0) {
    fault_exit(a);
    return false;
  }
  return true;
}

// 5. The texts that stand if formation stops early, and the term table as
// formation reads it.
void design_terms(DesignRun& run) {
  AiControlArgs& a = run.a;
  const AiTerms& t = a.terms;
  set_errtxt(a, "Invalid factor in model");
  set_errtxt(a, "Invalid model factor");
  DesignTerms& tt = run.tt;
  tt.nfact = t.nfact;
  tt.nfactp = t.nfactp;
  tt.inter = t.inter;
  tt.flev = t.flev;
  tt.nlev = t.nlev;
  tt.IBV = t.IBV;
  tt.JBV = t.JBV;
  tt.neword = t.neword;
  tt.submds = t.submds;
  tt.submod = t.submod != nullptr ? *t.submod : 0;
  tt.faconst = t.faconst;
  tt.facnam = t.facnam;
  tt.kzbkey = t.kzbkey.subspan(0, 3 * static_cast<std::size_t>(t.ncspln));
  tt.nan = t.nan;
}

// Every index the table holds is checked before any record is read; then
// 6, flainv and rlevel by term.  Returns false after the fault exit.
bool check_term_table(DesignRun& run) {
  AiControlArgs& a = run.a;
  const AiData& d = a.data;
  AiTerms& t = a.terms;
  const DesignTerms& tt = run.tt;
  run.mvact = aiopt_at(a.options, kAioptMvact);
  run.mvd = aiopt_at(a.options, kAioptMvd);
  const int mvact = run.mvact;
  bool sound = d.ntrt >= 1 && d.lbin >= 1 && d.nycol >= 1 && d.nycol <= t.nfact && d.wtcol >= 0 &&
               d.wtcol <= d.lbin && run.nrows < (1ull << 30);
  if (!sound) vprt(" The response term, weight column or trait count is out of range\n");
  if (sound && check_terms(tt, d.lbin, d.nrow) != 0) sound = false;
  if (sound && mvact > 0 && (mvact > t.nfact || tt.code(mvact) != -4)) {
    vprt(" The missing-response action names term %d, which is not a missing-value term\n", mvact);
    sound = false;
  }
  if (sound && mvact < -1) {
    vprt(" Unknown missing-response action %d\n", mvact);
    sound = false;
  }
  for (int i = 0; i < t.nfactp && sound; ++i) {
    const int term = t.neword[i];
    if (term < 1) {
      t.rlevel[i] = 0;
      continue;
    }
    const int code = tt.code(term);
    if (code == -12) {
      t.rlevel[i] = 0;
      t.flainv[term - 1] = 0;
    } else if (code == -1) {
      t.flainv[term - 1] = 1;
    } else if (code > 0 && t.nlev[term - 1] == 0 && tt.a(term) > 0) {
      t.flainv[term - 1] = (tt.code(code) == -1 || tt.code(tt.a(term)) == -1) ? 1 : 0;
    } else {
      t.flainv[term - 1] = 0;
    }
    if (t.rlevel[i] < 0) sound = false;
  }
  if (!sound) fault_with(a, 1);
  return sound;
}

// 7. Constraint codes and trait offsets.
void running_codes(AiControlArgs& a) {
  for (int k = 0; k < a.structures.ngamma; ++k) a.structures.rgmstr[k] = a.structures.gmcstr[k];
  if (a.glm.id != 9 && a.data.ntrt > 1)
    for (int k = 0; k < a.terms.nfact; ++k) a.terms.plusnn[k] = k + 2;
}

// 8. Scratch from the top of x: the response tables, the per-term tables,
// and room for the widest bisquare basis.  Returns false when x is too
// small.
bool carve_design_scratch(DesignRun& run) {
  AiControlArgs& a = run.a;
  const AiData& d = a.data;
  const AiTerms& t = a.terms;
  const WorkArray& x = a.work.x;
  const u64 lenx = a.work.lenx[0];
  const int m = std::max(d.lbin, d.ntrt);
  int nbisq = 0;
  for (int k = 1; k <= t.nfact; ++k)
    if (run.tt.code(k) == -31) nbisq = std::max(nbisq, t.flev[k - 1]);
  const u64 nints = 2 * static_cast<u64>(m) + 3 * static_cast<u64>(t.nfact);
  const u64 topwords = (nints + 1) / 2 + static_cast<u64>(nbisq) + 1;
  run.half = lenx / 2;
  if (lenx < topwords || run.kyxz + 2 > run.half || lenx - topwords <= run.half + 1) {
    vprt("Insufficient workspace.\n");
    a.status.runTrn = static_cast<double>(lenx);
    a.status.ifault = 6;
    return false;
  }
  run.top = lenx - topwords;
  i32* ti = x.i + 2 * run.top;
  DesignData& dd = run.dd;
  dd.datafr = d.datafr;
  dd.lbin = d.lbin;
  dd.nrow = d.nrow;
  dd.ntrt = d.ntrt;
  dd.nycol = d.nycol;
  dd.rvec = d.rvec;
  dd.summry = d.summry;
  dd.ytable = span<int>(ti, m);
  dd.ycol = span<int>(ti + m, m);
  dd.lastseen = span<int>(ti + 2 * m, t.nfact);
  dd.counter = span<int>(ti + 2 * m + t.nfact, t.nfact);
  dd.dropped = span<int>(ti + 2 * m + 2 * t.nfact, t.nfact);
  dd.scratch = span<double>(x.r + run.top + (nints + 1) / 2, static_cast<std::size_t>(nbisq));
  for (int k = 0; k < m; ++k) {
    dd.ytable[k] = d.nycol;
    dd.ycol[k] = run.tt.b(d.nycol);
  }
  if (a.structures.nsect > 0 && run.mvact == 0) run.mvact = -1;
  return true;
}

// 9. Formation.  Values from kyxz up to the middle of x, their equation
// numbers from the middle up to the scratch at the top.  Returns false
// after the fault exit.
bool form_design(DesignRun& run) {
  AiControlArgs& a = run.a;
  set_errtxt(a, "Forming design matrices");
  DesignStores& ds = run.ds;
  ds.x = a.work.x;
  ds.kyxz = run.kyxz;
  ds.colbase = 2 * run.half;
  ds.rowbase = 2 * run.K;
  ds.recbase = 2 * run.kyxz0;
  ds.limit = static_cast<i64>(std::min<u64>(run.half - run.kyxz, 2 * (run.top - run.half)));
  ds.rowlimit = static_cast<i64>(run.nrows);
  DesignResult& res = run.res;
  const int rc = aidsgn(ds, run.tt, run.dd, run.mvact, run.mvd, a.options.debug, a.results.errtxt, res);
  if (rc != 0 || res.ifault >= 1) {
    fault_with(a, res.ifault >= 1 ? res.ifault : 1);
    return false;
  }
  if (res.neq < 1) {
    fault_with(a, 1);
    return false;
  }
  *a.terms.neq = res.neq;
  return true;
}

// 10. The kept design, when the host asks for it.  Returns false when the
// memory for it is refused.
bool keep_design(DesignRun& run) {
  AiControlArgs& a = run.a;
  AiStatus& st = a.status;
  st.saved_design = nullptr;
  st.tupl = 0;
  if (a.options.savedgn != 1) return true;
  const DesignResult& res = run.res;
  const i64 tupl = countdesign(run.ds, res.records, res.neq);
  double* xz = static_cast<double*>(std::malloc(static_cast<std::size_t>(std::max<i64>(tupl, 1)) * 3 * sizeof(double)));
  if (xz == nullptr) {
    st.ifault = 6;
    vprt("Insufficient memory to save design.\n");
    return false;
  }
  saved_design.xz = xz;
  saved_design.tupl = tupl;
  savedesign(run.ds, res.records, res.neq,
             span<const int>(a.work.x.i + run.ds.recbase, static_cast<std::size_t>(res.records)),
             span<double>(xz, static_cast<std::size_t>(tupl) * 3));
  st.saved_design = xz;
  st.tupl = tupl;
  return true;
}

// 11-12. Room for the rows, and the equation numbers moved next to the
// values.  The rows then lie as follows (words of x, from 0):
//   [kyxz0, kyxz0 + nrow*ntrt)  as integers from 2*kyxz0: data record of each row
//   [K, K + records + 1)        as integers from 2*K: row starts, counted
//                               from kyxz, with the end of the last row behind
//   [kyxz, kyxz + nonzero)      values; the first of each row is the response
//   from word kyxz + nonzero    as integers: the equation of each value
// Returns false when the run cannot go on.
bool lay_out_rows(DesignRun& run, DesignLayout& layout) {
  AiControlArgs& a = run.a;
  AiOptions& o = a.options;
  const u64 lenx = a.work.lenx[0];
  const DesignResult& res = run.res;
  const i64 nonzero = res.nonzero;
  if (static_cast<double>(lenx) < 3.0 * static_cast<double>(nonzero)) {
    vprt("Insufficient workspace.\n");
    a.status.ifault = 6;
    return false;
  }
  std::memmove(a.work.x.i + 2 * (run.kyxz + static_cast<u64>(nonzero)), a.work.x.i + run.ds.colbase,
               static_cast<std::size_t>(nonzero) * sizeof(i32));
  const double used = static_cast<double>(static_cast<float>(run.kyxz + 2.0 + 1.5 * nonzero));
  const double neqd = a.terms.neqd != nullptr ? *a.terms.neqd : 0;
  const double need = static_cast<double>(a.data.lbin) * res.neq + 2.0 * (neqd * (neqd + 1) / 2) + used;
  if (static_cast<double>(lenx) < need) {
    set_errtxt(a, "Not enough space: set workspace option");
    fault_exit(a);
    return false;
  }
  if (o.aiopt.size() > kAioptNonzero) {
    o.aiopt[kAioptRecords] = static_cast<int>(res.records);
    o.aiopt[kAioptNonzero] = static_cast<int>(std::min<i64>(nonzero, 2147483647));
  }
  layout.kyxz = run.kyxz;
  layout.K = run.K;
  layout.records = res.records;
  layout.nonzero = nonzero;
  return true;
}

}  // namespace

void reset_control_state() {
  std::free(saved_design.xz);
  saved_design = SavedDesign();
}

namespace {

// The set-up and design formation that a fit and a design alone share:
// steps 1 to 9.  Returns false after the fault exit.
bool form_rows(DesignRun& run) {
  AiControlArgs& a = run.a;
  reset_control_state();
  reset_design_state();
  start_run(a);
  if (!spline_tables(a)) return false;
  design_offsets(run);
  if (!refuse_unavailable(a)) return false;
  design_terms(run);
  if (!check_term_table(run)) return false;
  running_codes(a);
  if (!carve_design_scratch(run)) return false;
  return form_design(run);
}

}  // namespace

void aidesign(AiControlArgs& a) {
  a.status.rows = DesignRowsAt();
  DesignRun run(a);
  if (!form_rows(run)) return;
  DesignRowsAt& at = a.status.rows;
  at.kyxz = run.ds.kyxz;
  at.colbase = run.ds.colbase;
  at.rowbase = run.ds.rowbase;
  at.recbase = run.ds.recbase;
  at.records = run.res.records;
  at.nonzero = run.res.nonzero;
  AiOptions& o = a.options;
  if (o.aiopt.size() > kAioptNonzero) {
    o.aiopt[kAioptRecords] = static_cast<int>(run.res.records);
    o.aiopt[kAioptNonzero] = static_cast<int>(std::min<i64>(run.res.nonzero, 2147483647));
  }
  a.status.ifault = 0;
}

void aicontrol(AiControlArgs& a) {
  DesignRun run(a);
  if (!form_rows(run) || !keep_design(run)) return;
  DesignLayout layout;
  if (!lay_out_rows(run, layout)) return;
  const i64 floor = static_cast<i64>(layout.kyxz) + layout.nonzero + (layout.nonzero + 1) / 2 + 1;
  run_iterations(a, layout, floor);
}

}  // namespace tarnel
