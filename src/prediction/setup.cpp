// g5vprd: the coefficient rows of every table, kept in xp until the last
// iteration meets them with the solution.
//
// xp from word 0: the layout (32 words), then NR+1 row starts, the record
// count, the coefficient sum, the value and the flag of each row, the
// zero-term count of each table, the V blocks, the mark kRowsMark, the
// entries (two words each: equation, coefficient) and the mark
// kRowsEndMark.  While the rows are formed a scratch area sits at the top.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "control/run_helpers.h"
#include "host/console.h"
#include "host/messages.h"
#include "prediction/prediction_internal.h"

namespace tarnel {

namespace {

constexpr i64 kLayoutWords = 32;

// The scratch of one table, carved from the top of xp.
struct CellScratch {
  std::vector<double*> w;    // by variable: weights by level
  std::vector<i32*> nz;      // by variable: levels with a weight
  std::vector<int> nnz;      // by variable
  std::vector<i32*> selmap;  // by classify variable: level -> selection, -1
  std::vector<i32*> present; // by variable: F x levels marks, or null
  i32* fcount = nullptr;     // F records counts
  i64 F = 1;                 // cells over the classify factors
};

bool is_absent(double v, double mv) { return v == mv || v >= kMissingThreshold; }

// Words of scratch a table needs.
i64 scratch_words(const PredModel& m, const TableRequest& r, i64 F) {
  i64 ints = F;
  i64 reals = 0;
  for (std::size_t v = 0; v < m.vars.size(); ++v) {
    const i64 L = m.vars[v].nlev;
    reals += L;
    ints += L;
    if (r.role[v] == kRolePresent || r.role[v] == kRoleAssociate) ints += F * L;
  }
  for (int cv : r.cvar) ints += m.vars[cv - 1].nlev;
  return reals + (ints + 1) / 2 + 2 * static_cast<i64>(m.vars.size()) + 8;
}

void carve_scratch(const WorkArray& xp, i64 top, const PredModel& m, const TableRequest& r, i64 F,
                   CellScratch& s) {
  const std::size_t nv = m.vars.size();
  double* rp = xp.r + top;
  s.w.assign(nv, nullptr);
  s.nz.assign(nv, nullptr);
  s.nnz.assign(nv, 0);
  s.present.assign(nv, nullptr);
  s.selmap.assign(r.cvar.size(), nullptr);
  for (std::size_t v = 0; v < nv; ++v) {
    s.w[v] = rp;
    rp += m.vars[v].nlev;
  }
  i32* ip = reinterpret_cast<i32*>(rp);
  s.F = F;
  s.fcount = ip;
  ip += F;
  for (std::size_t v = 0; v < nv; ++v) {
    s.nz[v] = ip;
    ip += m.vars[v].nlev;
    if (r.role[v] == kRolePresent || r.role[v] == kRoleAssociate) {
      s.present[v] = ip;
      ip += F * m.vars[v].nlev;
    }
  }
  for (std::size_t j = 0; j < r.cvar.size(); ++j) {
    s.selmap[j] = ip;
    ip += m.vars[r.cvar[j] - 1].nlev;
  }
}

// Records a cell over the classify factors, and the levels of PRESENT and
// associated variables that occur with each such cell.
void count_cells(const AiControlArgs& a, const PredModel& m, const TableRequest& r, CellScratch& s) {
  const AiData& d = a.data;
  const AiPredict& p = a.predict;
  const double mv = d.dpmv.empty() ? kMissing : d.dpmv[0];
  const int ycol = a.terms.inter[4 * static_cast<std::size_t>(d.nycol - 1) + 2];
  std::fill(s.fcount, s.fcount + s.F, 0);
  for (std::size_t v = 0; v < m.vars.size(); ++v)
    if (s.present[v]) std::fill(s.present[v], s.present[v] + s.F * m.vars[v].nlev, 0);
  for (std::size_t j = 0; j < r.cvar.size(); ++j) {
    const PredVar& pv = m.vars[r.cvar[j] - 1];
    if (pv.kind != 1) continue;
    std::fill(s.selmap[j], s.selmap[j] + pv.nlev, -1);
    for (int k = 0; k < r.ccount[j]; ++k) s.selmap[j][p.ivals[r.clist[j] + k] - 1] = k;
  }
  auto level = [&](i64 rec, const PredVar& pv) -> int {
    const double v = d.datafr[rec * d.lbin + pv.col - 1];
    if (is_absent(v, mv) || !(v >= 1) || v > pv.nlev) return 0;
    return static_cast<int>(v);
  };
  for (i64 rec = 0; rec < d.nrow; ++rec) {
    if (ycol >= 1 && ycol <= d.lbin && is_absent(d.datafr[rec * d.lbin + ycol - 1], mv)) continue;
    i64 fi = 0;
    bool in = true;
    for (std::size_t j = 0; j < r.cvar.size() && in; ++j) {
      const PredVar& pv = m.vars[r.cvar[j] - 1];
      if (pv.kind != 1) continue;
      const int lev = level(rec, pv);
      const int sel = lev >= 1 ? s.selmap[j][lev - 1] : -1;
      if (sel < 0) in = false;
      fi = fi * r.ccount[j] + sel;
    }
    if (!in) continue;
    ++s.fcount[fi];
    for (std::size_t v = 0; v < m.vars.size(); ++v) {
      if (!s.present[v]) continue;
      const int lev = level(rec, m.vars[v]);
      if (lev >= 1) s.present[v][fi * m.vars[v].nlev + lev - 1] = 1;
    }
  }
}

// The weights of every variable that does not change from cell to cell.
void fixed_weights(const AiControlArgs& a, const PredModel& m, const TableRequest& r, CellScratch& s) {
  const AiPredict& p = a.predict;
  for (std::size_t v = 0; v < m.vars.size(); ++v) {
    const PredVar& pv = m.vars[v];
    s.nnz[v] = 0;
    if (pv.kind == 1 && r.role[v] == kRoleClassify) {
      std::fill(s.w[v], s.w[v] + pv.nlev, 0.0);
      continue;
    }
    if (pv.kind == 2) {
      s.w[v][0] = r.valpos[v] >= 0 ? p.pvals[r.valpos[v]] : a.data.summry[4 * static_cast<std::size_t>(pv.col - 1) + 1];
      s.nz[v][0] = 1;
      s.nnz[v] = 1;
      continue;
    }
    for (int l = 0; l < pv.nlev; ++l) {
      const double w = r.valpos[v] >= 0 ? p.pvals[r.valpos[v] + l] : 1.0 / pv.nlev;
      s.w[v][l] = w;
      if (w != 0.0) s.nz[v][s.nnz[v]++] = l + 1;
    }
  }
}

// The weights that belong to cell c: classify levels and values, and the
// PRESENT and associated levels of the cell.  Returns the factor cell.
i64 cell_weights(const AiControlArgs& a, const PredModel& m, const TableRequest& r, i64 c,
                 CellScratch& s) {
  const AiPredict& p = a.predict;
  const int nc = static_cast<int>(r.cvar.size());
  i64 stride = 1, fi = 0;
  std::vector<int> idx(nc);
  for (int j = nc - 1; j >= 0; --j) {
    idx[j] = static_cast<int>((c / stride) % r.ccount[j]);
    stride *= r.ccount[j];
  }
  for (int j = 0; j < nc; ++j) {
    const int v = r.cvar[j] - 1;
    if (m.vars[v].kind == 1) {
      fi = fi * r.ccount[j] + idx[j];
      s.nz[v][0] = p.ivals[r.clist[j] + idx[j]];
      s.w[v][s.nz[v][0] - 1] = 1.0;
    } else {
      s.w[v][0] = p.pvals[r.clist[j] + idx[j]];
      s.nz[v][0] = 1;
    }
    s.nnz[v] = 1;
  }
  for (std::size_t v = 0; v < m.vars.size(); ++v) {
    if (!s.present[v]) continue;
    const int L = m.vars[v].nlev;
    const i32* mark = s.present[v] + fi * L;
    int n = 0;
    for (int l = 0; l < L; ++l) n += mark[l] != 0;
    s.nnz[v] = 0;
    for (int l = 0; l < L; ++l) {
      s.w[v][l] = mark[l] ? 1.0 / n : 0.0;
      if (mark[l]) s.nz[v][s.nnz[v]++] = l + 1;
    }
  }
  return fi;
}

// Where the entries grow: the next entry goes to word `at`, below `top`.
struct EntrySink {
  const WorkArray* xp;
  i64 at, top;
  i64 count = 0;
  bool full = false;
  double norm = 0;
  void put(i64 eq, double v) {
    if (v == 0.0) return;
    if (at + 2 > top) {
      full = true;
      return;
    }
    xp->i[2 * at] = static_cast<i32>(eq);
    xp->i[2 * at + 1] = 0;
    xp->r[at + 1] = v;
    at += 2;
    ++count;
    norm += std::fabs(v);
  }
};

// The coefficients of one position for the current cell: the products of
// the weights over the crossed variables, equations in their order.
// Returns true when any coefficient is not zero.
bool position_row(const PredModel& m, const PredPosition& pp, const CellScratch& s, EntrySink& out) {
  const int nc = static_cast<int>(pp.comps.size());
  std::vector<int> k(nc, 0);
  std::vector<i64> stride(nc, 1);
  for (int j = nc - 2; j >= 0; --j) stride[j] = stride[j + 1] * m.vars[pp.comps[j + 1] - 1].nlev;
  for (int j = 0; j < nc; ++j)
    if (s.nnz[pp.comps[j] - 1] == 0) return false;
  bool any = false;
  for (;;) {
    double w = 1.0;
    i64 e = pp.first;
    for (int j = 0; j < nc; ++j) {
      const int v = pp.comps[j] - 1;
      const int lev = s.nz[v][k[j]];
      w *= s.w[v][lev - 1];
      e += (lev - 1) * stride[j];
    }
    if (w != 0.0) any = true;
    out.put(e, w);
    int j = nc - 1;
    while (j >= 0 && ++k[j] == s.nnz[pp.comps[j] - 1]) k[j--] = 0;
    if (j < 0) break;
  }
  return any;
}

// The rows of one table.  Returns 1 when the entries reach the scratch.
int table_rows(AiControlArgs& a, const PredModel& m, const TableRequest& r, int t, CellScratch& s,
               PredictionLayout& L, EntrySink& out) {
  const WorkArray& xp = a.work.xp;
  i64* rowstart = reinterpret_cast<i64*>(xp.r + L.rowstart);
  count_cells(a, m, r, s);
  fixed_weights(a, m, r, s);
  int zero = 0;
  for (i64 c = 0; c < r.h.n; ++c) {
    const i64 row = r.h.first + c;
    const i64 fi = cell_weights(a, m, r, c, s);
    xp.r[L.count + row] = s.fcount[fi];
    rowstart[row] = out.count;
    out.norm = 0;
    for (const PredPosition& pp : m.pos) {
      if (pp.kind == 2 || (pp.kind == 3 && pp.random)) continue;
      if (pp.kind == 1) {
        if (!pp.random) out.put(pp.first, 1.0);
        continue;
      }
      if (pp.random && !random_used(m, r, pp)) continue;
      bool ignored = false;
      for (int v : pp.comps) ignored = ignored || r.role[v - 1] == kRoleIgnore;
      if (ignored) continue;
      if (!position_row(m, pp, s, out) && c == 0) ++zero;
    }
    xp.r[L.norm + row] = out.norm;
    // The classify weights go back to zero for the next cell.
    for (std::size_t j = 0; j < r.cvar.size(); ++j) {
      const int v = r.cvar[j] - 1;
      if (m.vars[v].kind == 1) s.w[v][s.nz[v][0] - 1] = 0.0;
    }
    if (out.full) return 1;
  }
  xp.r[L.zeroterms + t] = zero;
  return 0;
}

}  // namespace

int g5vprd(AiControlArgs& a) {
  AiPredict& p = a.predict;
  const WorkArray& xp = a.work.xp;
  const i64 lenxp = static_cast<i64>(xp.len);
  PredModel m;
  int errors = read_pred_model(a, m);
  if (errors) return errors;
  const int ntab = *p.npred;
  std::vector<TableRequest> req(ntab);
  i64 nr = 0, vlen = 0;
  for (int t = 0; t < ntab; ++t) {
    errors += read_table(a, m, t, req[t]);
    if (errors) continue;
    const TableHeader& h = req[t].h;
    if (h.first != nr) errors += pred_error("Internal error: Aborting predict");
    nr += h.n;
    vlen += h.vwords();
    for (const PredPosition& pp : m.pos)
      if (pp.kind == 3 && !pp.random)
        errors += pred_error("[predict " + std::to_string(t + 1) + "] Internal error: Invalid PREDICT design for value " + pp.name);
  }
  if (errors) return errors;
  if (p.lpvals.empty() || p.lpvals[0] != nr || p.pvals.size() < 4 * static_cast<std::size_t>(nr) ||
      p.pvrow != nr || p.prdvals.size() < 5 * static_cast<std::size_t>(nr) ||
      p.avsed.size() < 10 * static_cast<std::size_t>(ntab) || p.pvtext.size() < kReportSlot * ntab)
    return pred_error("Internal error: Aborting predict");
  for (int t = 0; t < ntab; ++t) {
    const TableHeader& h = req[t].h;
    if (h.mats >= 0 && h.diag) return pred_error("Internal error: Aborting predict");
    if (h.mats >= 0 && static_cast<std::size_t>(h.mats) + static_cast<std::size_t>(h.n) * (h.n + 1) > p.vpvmat.size())
      return pred_error("Internal error: Aborting predict");
  }

  PredictionLayout L;
  L.nrows = nr;
  L.ntab = ntab;
  L.neq = *a.terms.neq;
  L.rowstart = kLayoutWords;
  L.count = L.rowstart + nr + 1;
  L.norm = L.count + nr;
  L.value = L.norm + nr;
  L.flag = L.value + nr;
  L.zeroterms = L.flag + nr;
  L.vmat = L.zeroterms + ntab;
  L.vlen = vlen;
  const i64 mark = L.vmat + vlen;
  L.entries = mark + 1;
  if (L.entries + 2 >= lenxp) {
    g5verror("****Insufficient space for setting up predict table", 3);
    return -1;
  }
  std::fill(xp.r, xp.r + L.entries, 0.0);
  xp.r[mark] = kRowsMark;
  EntrySink out{&xp, L.entries, lenxp};
  for (int t = 0; t < ntab; ++t) {
    const TableRequest& r = req[t];
    i64 F = 1;
    for (std::size_t j = 0; j < r.cvar.size(); ++j)
      if (m.vars[r.cvar[j] - 1].kind == 1) F *= r.ccount[j];
    const i64 need = scratch_words(m, r, F);
    const i64 top = lenxp - need;
    if (top <= out.at + 2) {
      vprt(" Predict failure: !PRESENT Workspace %lld available %lld required;\n",
           static_cast<long long>(std::max<i64>(0, lenxp - out.at)), static_cast<long long>(need));
      return -1;
    }
    out.top = top;
    CellScratch s;
    carve_scratch(xp, top, m, r, F, s);
    if (table_rows(a, m, r, t, s, L, out)) {
      g5verror("Predict table overflow. PREDICT statement(s) skipped.", 3);
      return -1;
    }
  }
  i64* rowstart = reinterpret_cast<i64*>(xp.r + L.rowstart);
  rowstart[nr] = out.count;
  L.nentries = out.count;
  xp.r[out.at] = kRowsEndMark;
  L.free = out.at + 1;
  write_layout(xp, L);
  if (a.options.trace == 1 && aiopt_at(a.options, 3) == 1) {
    vprt("Leaving PRD\n");
    vprt("LCOUNT %lld\n", static_cast<long long>(out.count));
  }
  return 0;
}

}  // namespace tarnel
