// The run driver.
//
// Set-up and design formation are in place: the driver checks the term
// table, forms the design rows, keeps them for the host when asked, and
// lays the rows out for the equations.  The REML iteration, prediction and
// the results stage follow the design and are not part of this driver yet.
#include "control/aicontrol.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "control/driver.h"
#include "control/run_helpers.h"
#include "design/design.h"
#include "host/console.h"
#include "host/messages.h"

namespace tarnel {

namespace {

// The driver's state across its one call.
struct DriverState {
  int IWORK[2000] = {};
  int EQHIGH[6] = {};
  double* XZ = nullptr;  // the saved design, 3 doubles a nonzero
  i64 tupl = 0;
};
DriverState driver_state;

}  // namespace

void reset_control_state() {
  std::free(driver_state.XZ);
  driver_state = DriverState();
}

void aicontrol(AiControlArgs& a) {
  AiData& d = a.data;
  AiTerms& t = a.terms;
  AiOptions& o = a.options;
  AiStatus& st = a.status;
  const WorkArray& x = a.work.x;
  const u64 lenx = a.work.lenx[0];

  reset_control_state();
  reset_design_state();

  // 1. Marks and switches.
  etime(1);
  if (o.aiopt.size() > 56) o.aiopt[56] = 1;
  clear_message_store();
  const int trait_flag = a.glm.id == 9 ? 2 : 1;
  (void)trait_flag;
  if (o.maxiter != nullptr && *o.maxiter == 0) *o.maxiter = 10;
  const int saved41 = aiopt_at(o, 41);
  (void)saved41;
  if (o.aiopt.size() > 41) o.aiopt[41] = 0;

  // 2. Levels of each position; counters.
  for (int i = 0; i < t.nfactp; ++i) {
    const int term = t.neword[i];
    t.rlevel[i] = term >= 1 && term <= t.nfact ? t.flev[term - 1] : 0;
  }
  if (!d.rvec.empty()) d.rvec[0] = 1.0;
  st.ifault = -1;

  // 3. Offsets: a word a row for each row's data record, the row starts,
  // and the values from kyxz.
  const u64 kyxz0 = t.kyxz;
  const u64 nrows = static_cast<u64>(std::max(d.nrow, 0)) * static_cast<u64>(std::max(d.ntrt, 1));
  const u64 K = kyxz0 + nrows;
  const u64 kyxz = nrows + K + 1;

  // 4. Spline tables come with the smoothing splines; a model without
  // spline terms needs none.
  for (int k = 0; k < t.nfact; ++k) {
    if (t.inter[4 * static_cast<std::size_t>(k)] == -24) {
      vprt("Spline terms are not available yet\n");
      set_errtxt(a, "Spline terms are not available yet");
      st.ifault = 1;
      fault_exit(a);
      return;
    }
  }
  if (d.nrow == 0) {
    fault_exit(a);
    return;
  }

  // 5. Texts that stand if formation stops early.
  set_errtxt(a, "Invalid factor in model");
  set_errtxt(a, "Invalid model factor");

  DesignTerms tt;
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

  // Every index the table holds is checked before any record is read.
  const int mvact_in = aiopt_at(o, kAioptMvact);
  int mvd = aiopt_at(o, kAioptMvd);
  bool sound = d.ntrt >= 1 && d.lbin >= 1 && d.nycol >= 1 && d.nycol <= t.nfact &&
               d.wtcol >= 0 && d.wtcol <= d.lbin && nrows < (1ull << 30);
  if (!sound) vprt(" The response term, weight column or trait count is out of range\n");
  if (sound && check_terms(tt, d.lbin, d.nrow) != 0) sound = false;
  if (sound && mvact_in > 0 && (mvact_in > t.nfact || tt.code(mvact_in) != -4)) {
    vprt(" The missing-response action names term %d, which is not a missing-value term\n", mvact_in);
    sound = false;
  }
  if (sound && mvact_in < -1) {
    vprt(" Unknown missing-response action %d\n", mvact_in);
    sound = false;
  }

  // 6. flainv and rlevel by term.
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
  if (!sound) {
    st.ifault = 1;
    fault_exit(a);
    return;
  }

  // 7. Constraint codes and trait offsets.
  for (int k = 0; k < a.structures.ngamma; ++k) a.structures.rgmstr[k] = a.structures.gmcstr[k];
  if (a.glm.id != 9 && d.ntrt > 1)
    for (int k = 0; k < t.nfact; ++k) t.plusnn[k] = k + 2;

  // 8. Scratch from the top of x: the response tables, the per-term
  // tables, and room for the widest bisquare basis.
  const int m = std::max(d.lbin, d.ntrt);
  int nbisq = 0;
  for (int k = 1; k <= t.nfact; ++k)
    if (tt.code(k) == -31) nbisq = std::max(nbisq, t.flev[k - 1]);
  const u64 nints = 2 * static_cast<u64>(m) + 3 * static_cast<u64>(t.nfact);
  const u64 topwords = (nints + 1) / 2 + static_cast<u64>(nbisq) + 1;
  const u64 half = lenx / 2;
  if (lenx < topwords || kyxz + 2 > half || lenx - topwords <= half + 1) {
    vprt("Insufficient workspace.\n");
    st.runTrn = static_cast<double>(lenx);
    st.ifault = 6;
    return;
  }
  const u64 top = lenx - topwords;
  i32* ti = x.i + 2 * top;
  DesignData dd;
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
  dd.scratch = span<double>(x.r + top + (nints + 1) / 2, static_cast<std::size_t>(nbisq));
  for (int k = 0; k < m; ++k) {
    dd.ytable[k] = d.nycol;
    dd.ycol[k] = tt.b(d.nycol);
  }
  int mvact = mvact_in;
  if (a.structures.nsect > 0 && mvact == 0) mvact = -1;

  // 9. Formation.  Values from kyxz up to the middle of x, their equation
  // numbers from the middle up to the scratch at the top.
  set_errtxt(a, "Forming design matrices");
  std::memset(driver_state.IWORK, 0, sizeof driver_state.IWORK);
  DesignStores ds;
  ds.x = x;
  ds.kyxz = kyxz;
  ds.colbase = 2 * half;
  ds.rowbase = 2 * K;
  ds.recbase = 2 * kyxz0;
  ds.limit = static_cast<i64>(std::min<u64>(half - kyxz, 2 * (top - half)));
  ds.rowlimit = static_cast<i64>(nrows);
  DesignResult res;
  const int rc = aidsgn(ds, tt, dd, mvact, mvd, o.debug, a.results.errtxt, res);
  if (rc != 0 || res.ifault >= 1) {
    st.ifault = res.ifault >= 1 ? res.ifault : 1;
    fault_exit(a);
    return;
  }
  if (res.neq < 1) {
    st.ifault = 1;
    fault_exit(a);
    return;
  }
  *t.neq = res.neq;

  // 10. The kept design.
  st.saved_design = nullptr;
  st.tupl = 0;
  if (o.savedgn == 1) {
    const i64 tupl = countdesign(ds, res.records, res.neq);
    double* xz = static_cast<double*>(std::malloc(static_cast<std::size_t>(std::max<i64>(tupl, 1)) * 3 * sizeof(double)));
    if (xz == nullptr) {
      st.ifault = 6;
      vprt("Insufficient memory to save design.\n");
      return;
    }
    driver_state.XZ = xz;
    driver_state.tupl = tupl;
    savedesign(ds, res.records, res.neq,
               span<const int>(x.i + ds.recbase, static_cast<std::size_t>(res.records)),
               span<double>(xz, static_cast<std::size_t>(tupl) * 3));
    st.saved_design = xz;
    st.tupl = tupl;
  }

  // 11. Room for the rows.
  const i64 nonzero = res.nonzero;
  if (static_cast<double>(lenx) < 3.0 * static_cast<double>(nonzero)) {
    vprt("Insufficient workspace.\n");
    st.ifault = 6;
    return;
  }

  // 12. Equation numbers next to the values.
  std::memmove(x.i + 2 * (kyxz + static_cast<u64>(nonzero)), x.i + ds.colbase,
               static_cast<std::size_t>(nonzero) * sizeof(i32));
  const double used = static_cast<double>(static_cast<float>(kyxz + 2.0 + 1.5 * nonzero));
  const double neqd = t.neqd != nullptr ? *t.neqd : 0;
  const double need = static_cast<double>(d.lbin) * res.neq + 2.0 * (neqd * (neqd + 1) / 2) + used;
  if (static_cast<double>(lenx) < need) {
    set_errtxt(a, "Not enough space: set workspace option");
    fault_exit(a);
    return;
  }
  if (o.aiopt.size() > kAioptNonzero) {
    o.aiopt[kAioptRecords] = static_cast<int>(res.records);
    o.aiopt[kAioptNonzero] = static_cast<int>(std::min<i64>(nonzero, 2147483647));
  }

  // The rows now lie as follows (words of x, from 0):
  //   [kyxz0, kyxz0 + nrow*ntrt)  as integers from 2*kyxz0: data record of each row
  //   [K, K + records + 1)        as integers from 2*K: row starts, counted
  //                               from kyxz, with the end of the last row behind
  //   [kyxz, kyxz + nonzero)      values; the first of each row is the response
  //   from word kyxz + nonzero    as integers: the equation of each value
  DesignLayout layout;
  layout.kyxz = kyxz;
  layout.K = K;
  layout.records = res.records;
  layout.nonzero = nonzero;
  const i64 floor = static_cast<i64>(kyxz) + nonzero + (nonzero + 1) / 2 + 1;
  run_iterations(a, layout, floor);
}

}  // namespace tarnel
