// Prediction design: the coefficient rows of each table, one row a cell.
//
// A cell fixes the level (or value) of every classify variable.  Every
// other variable gets a weight for each of its levels: equal weights, the
// user's weights, or for a PRESENT or associated variable 1/n over the n
// levels that occur in the data together with the cell's classify levels.
// A covariate takes its mean over the records or the value asked for.  The
// coefficients of a model position are then the products of the weights of
// the variables it crosses (last variable fastest, as its equations run).
// Random positions take part only when each of their factors is
// classified, averaged explicitly or associated.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "control/run_helpers.h"
#include "host/console.h"
#include "host/messages.h"
#include "prediction/prediction_internal.h"

namespace tarnel {

int pred_error(const std::string& text) {
  g5verror(text, 3);
  vprt("%s\n", text.c_str());
  return 1;
}

namespace {

// Variables a term crosses, from the term table: leaves are read through
// the map of npfact, interactions of two terms in order.  Returns false for
// a term prediction cannot expand.
bool term_comps(const AiControlArgs& a, span<const int> termvar, int k, std::vector<int>& out,
                int depth) {
  const AiTerms& t = a.terms;
  if (k < 1 || k > t.nfact || depth > 16) return false;
  const int* w = t.inter.data() + 4 * static_cast<std::size_t>(k - 1);
  if (w[0] > 0) {
    if (w[2] != 0 || t.nlev[k - 1] != 0) return false;  // conditioned on levels
    return term_comps(a, termvar, w[0], out, depth + 1) &&
           term_comps(a, termvar, w[1], out, depth + 1);
  }
  const int v = k <= static_cast<int>(termvar.size()) ? termvar[k - 1] : 0;
  if (v < 1) return false;
  out.push_back(v);
  return true;
}

}  // namespace

TableHeader table_header(const AiPredict& p, int t) {
  TableHeader h;
  const std::size_t b = 16 * static_cast<std::size_t>(t);
  if (b + 16 > p.nptabl.size()) return h;
  h.nc = p.nptabl[b];
  h.n = p.nptabl[b + 1];
  h.block = p.nptabl[b + 2];
  h.first = p.nptabl[b + 4];
  h.mats = p.nptabl[b + 5];
  h.diag = p.nptabl[b + 6] == 1;
  return h;
}

PredictionLayout read_layout(const WorkArray& xp) {
  PredictionLayout l;
  std::memcpy(static_cast<void*>(&l), xp.r, sizeof l);
  return l;
}

void write_layout(const WorkArray& xp, const PredictionLayout& l) { std::memcpy(xp.r, &l, sizeof l); }

void report_line(char* slot, const std::string& line) {
  const std::size_t have = std::strlen(slot);
  if (have + line.size() + 2 > kReportSlot) return;
  std::memcpy(slot + have, line.data(), line.size());
  slot[have + line.size()] = '\n';
  slot[have + line.size() + 1] = '\0';
}

int read_pred_model(const AiControlArgs& a, PredModel& m) {
  const AiPredict& p = a.predict;
  const AiTerms& t = a.terms;
  int errors = 0;
  m.vars.clear();
  m.pos.clear();
  if (p.npfact.empty()) return pred_error("Internal error: Invalid PREDICT design!");
  const int nv = p.npfact[0];
  if (nv < 0 || p.npfact.size() < 1 + 3 * static_cast<std::size_t>(nv) + t.nfact)
    return pred_error("Internal error: Invalid PREDICT design!");
  for (int v = 0; v < nv; ++v) {
    PredVar pv;
    pv.kind = p.npfact[1 + 3 * v];
    pv.col = p.npfact[2 + 3 * v];
    pv.nlev = p.npfact[3 + 3 * v];
    if ((pv.kind != 1 && pv.kind != 2) || pv.col < 1 || pv.col > a.data.lbin || pv.nlev < 1 ||
        (pv.kind == 2 && pv.nlev != 1))
      errors += pred_error(" Internal error: Invalid PREDICT design for value " + std::to_string(v + 1));
    m.vars.push_back(pv);
  }
  span<const int> termvar(p.npfact.data() + 1 + 3 * nv, t.nfact);
  for (int k = 1; k <= t.nfact; ++k) {
    const int v = termvar[k - 1];
    if (v > nv) errors += pred_error(" Internal error: Invalid PREDICT design for value " + std::to_string(v));
    if (v >= 1 && v <= nv && m.vars[v - 1].name.empty() && k - 1 < static_cast<int>(t.facnam.size()))
      m.vars[v - 1].name = t.facnam[k - 1] ? t.facnam[k - 1] : "";
  }
  if (errors) return errors;
  int first = 2;
  for (int i = 0; i < t.nfactp; ++i) {
    PredPosition pp;
    const int k = t.neword[i];
    pp.first = first;
    pp.nlev = t.rlevel[i];
    first += pp.nlev;
    const int code = i < static_cast<int>(t.tyfact.size()) ? t.tyfact[i] : 0;
    pp.random = code != 0;
    if (k >= 1 && k <= t.nfact && k - 1 < static_cast<int>(t.facnam.size()) && t.facnam[k - 1])
      pp.name = t.facnam[k - 1];
    const int tcode = k >= 1 && k <= t.nfact ? t.inter[4 * static_cast<std::size_t>(k - 1)] : 0;
    if (tcode == -8) {
      pp.kind = 1;
    } else if (tcode == -4) {
      pp.kind = 2;
    } else if (!term_comps(a, termvar, k, pp.comps, 0)) {
      pp.kind = 3;
      pp.comps.clear();
    } else {
      long long n = 1;
      for (int v : pp.comps) n *= m.vars[v - 1].nlev;
      if (n != pp.nlev) {
        pp.kind = 3;
        pp.comps.clear();
      }
    }
    m.pos.push_back(pp);
  }
  return 0;
}

int read_table(const AiControlArgs& a, const PredModel& m, int t, TableRequest& r) {
  const AiPredict& p = a.predict;
  const int nv = static_cast<int>(m.vars.size());
  r.h = table_header(p, t);
  const std::string tab = "[predict " + std::to_string(t + 1) + "] ";
  const std::size_t b = static_cast<std::size_t>(r.h.block);
  if (r.h.nc < 0 || r.h.n < 1 || r.h.block < 0 || b + 2 * nv + 3 * static_cast<std::size_t>(r.h.nc) > p.ivals.size())
    return pred_error(tab + "Internal error: Invalid PREDICT design!");
  r.role.assign(p.ivals.data() + b, p.ivals.data() + b + nv);
  r.valpos.assign(p.ivals.data() + b + nv, p.ivals.data() + b + 2 * nv);
  r.cvar.clear();
  r.ccount.clear();
  r.clist.clear();
  int errors = 0;
  long long cells = 1;
  for (int j = 0; j < r.h.nc; ++j) {
    const int v = p.ivals[b + 2 * nv + 3 * j], cnt = p.ivals[b + 2 * nv + 3 * j + 1],
              at = p.ivals[b + 2 * nv + 3 * j + 2];
    if (v < 1 || v > nv || cnt < 1 || at < 0) {
      errors += pred_error(tab + "Internal error: Invalid PREDICT design!");
      continue;
    }
    const PredVar& pv = m.vars[v - 1];
    if (pv.kind == 1) {
      if (static_cast<std::size_t>(at) + cnt > p.ivals.size()) {
        errors += pred_error(tab + "Internal error: Invalid PREDICT design!");
        continue;
      }
      for (int k = 0; k < cnt; ++k) {
        const int lev = p.ivals[at + k];
        if (lev < 1 || lev > pv.nlev)
          errors += pred_error(tab + "Invalid levels specified for " + pv.name);
      }
    } else if (static_cast<std::size_t>(at) + cnt > p.pvals.size()) {
      errors += pred_error(tab + "Internal error: Invalid PREDICT design!");
    }
    r.cvar.push_back(v);
    r.ccount.push_back(cnt);
    r.clist.push_back(at);
    cells *= cnt;
  }
  if (errors == 0 && cells != r.h.n) errors += pred_error(tab + "Warning: Inconsistent labels count in predict");
  for (int v = 0; v < nv && errors == 0; ++v) {
    const int at = r.valpos[v];
    const std::size_t len = m.vars[v].kind == 1 ? m.vars[v].nlev : 1;
    if (at >= 0 && static_cast<std::size_t>(at) + len > p.pvals.size())
      errors += pred_error(tab + "Internal error: Invalid PREDICT design!");
    if (r.role[v] < kRoleDefault || r.role[v] > kRoleIgnore)
      errors += pred_error(tab + "Internal error: Invalid PREDICT design!");
  }
  return errors;
}

bool random_used(const PredModel& m, const TableRequest& r, const PredPosition& p) {
  if (p.kind != 0) return false;
  for (int v : p.comps) {
    if (m.vars[v - 1].kind != 1) continue;
    const int role = r.role[v - 1];
    if (role != kRoleClassify && role != kRoleAverage && role != kRoleAssociate) return false;
  }
  return true;
}

}  // namespace tarnel
