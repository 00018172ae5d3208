// aipvals: the tables of predicted values with their standard errors, SEDs
// and average SEDs, the back-transformation by the link, and the report.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "control/run_helpers.h"
#include "host/console.h"
#include "host/messages.h"
#include "host/rmath.h"
#include "prediction/prediction_internal.h"

namespace tarnel {

namespace {

inline i64 packed(i64 i, i64 j) {  // 1-based, j <= i
  return i * (i - 1) / 2 + j - 1;
}

std::string number(double v) {
  char buf[48];
  std::snprintf(buf, sizeof buf, "%g", v);
  return buf;
}

std::string cell_list(const std::vector<int>& cells) {
  std::string s;
  for (std::size_t k = 0; k < cells.size() && k < 200; ++k) s += " " + std::to_string(cells[k]);
  if (cells.size() > 200) s += " ...";
  return s;
}

// The sets of one table in words.
void report_sets(const AiControlArgs& a, const PredModel& m, const TableRequest& r, char* slot,
                 double zeroterms) {
  std::string cls;
  for (int v : r.cvar) cls += (cls.empty() ? "" : ":") + m.vars[v - 1].name;
  report_line(slot, " Predicted values of " + (cls.empty() ? std::string("the overall mean") : cls));
  // Where each variable takes part: a used fixed or random position, or an
  // ignored random one.
  const std::size_t nv = m.vars.size();
  std::vector<int> in_fixed(nv, 0), in_used_random(nv, 0), in_ignored(nv, 0);
  bool ignored_any = false;
  for (const PredPosition& pp : m.pos) {
    if (pp.kind != 0) continue;
    const bool used = !pp.random || random_used(m, r, pp);
    for (int v : pp.comps) {
      if (!pp.random) in_fixed[v - 1] = 1;
      else if (used) in_used_random[v - 1] = 1;
      else in_ignored[v - 1] = 1;
    }
    if (pp.random) {
      report_line(slot, pp.name + (used ? " is included in this prediction" : " is ignored in this prediction"));
      ignored_any = ignored_any || !used;
    }
  }
  std::string simple, weighted, present, assoc, ign;
  for (std::size_t v = 0; v < nv; ++v) {
    const PredVar& pv = m.vars[v];
    const int role = r.role[v];
    if (role == kRoleClassify) {
      if (pv.kind == 2) {
        std::string vals;
        for (int j = 0; j < static_cast<int>(r.cvar.size()); ++j)
          if (r.cvar[j] == static_cast<int>(v) + 1)
            for (int k = 0; k < r.ccount[j]; ++k) vals += " " + number(a.predict.pvals[r.clist[j] + k]);
        report_line(slot, pv.name + " is evaluated at " + vals);
      }
      continue;
    }
    const bool used = in_fixed[v] || in_used_random[v];
    if (pv.kind == 2) {
      if (!used) continue;
      if (r.valpos[v] >= 0)
        report_line(slot, pv.name + " is evaluated at " + number(a.predict.pvals[r.valpos[v]]));
      else
        report_line(slot, pv.name + " is in averaging set, evaluated at covariate means");
      continue;
    }
    if (role == kRoleIgnore || (!used && in_ignored[v])) {
      ign += " " + pv.name;
      continue;
    }
    if (!used) continue;
    if (role == kRolePresent) present += " " + pv.name;
    else if (role == kRoleAssociate) assoc += " " + pv.name;
    else if (r.valpos[v] >= 0) weighted += " " + pv.name;
    else simple += " " + pv.name;
    if (role == kRoleDefault && in_ignored[v])
      report_line(slot, pv.name + " is averaged in fixed factors, ignored in random factors");
    if (r.valpos[v] >= 0 && role != kRolePresent && role != kRoleAssociate) {
      std::string ws;
      double sum = 0;
      for (int l = 0; l < pv.nlev; ++l) {
        const double w = a.predict.pvals[r.valpos[v] + l];
        sum += w;
        if (l < 50) ws += " " + number(w);
      }
      report_line(slot, pv.name + " levels are weighted with weights " + ws);
      if (std::fabs(sum - 1.0) > 1e-6) report_line(slot, "Notice: The weights do not sum to 1 but to " + number(sum));
    }
  }
  if (!simple.empty()) report_line(slot, "The SIMPLE averaging set:" + simple);
  if (!weighted.empty()) report_line(slot, "The averaging set:  " + weighted.substr(1));
  if (!present.empty()) report_line(slot, "The PRESENT averaging set: " + present.substr(1));
  if (!assoc.empty()) {
    report_line(slot, "Associated factors: " + assoc.substr(1));
    report_line(slot, "Associated factors are all included unless model terms involving them");
    report_line(slot, "  are explicitly ignored.");
  }
  if (!ign.empty()) report_line(slot, "The ignored set: " + ign.substr(1));
  if (ignored_any) report_line(slot, "Use \"average\" to move ignored factors into the averaging set.");
  if (zeroterms > 0) report_line(slot, std::to_string(static_cast<int>(zeroterms)) + " terms have weights of ZERO");
}

}  // namespace

Retran retran(double eta, double s, int link, double offset, double power) {
  Retran r;
  auto halfdiff = [&](double (*f)(double)) {
    r.mean = f(eta);
    r.se = 0.5 * std::fabs(f(eta + s) - f(eta - s));
  };
  switch (link) {
    case 2:
      if (eta < -15) {
        r.mean = 3e-07;
      } else if (eta > 15) {
        r.mean = 0.9999997;
      } else {
        r.mean = 1.0 / (1.0 + std::exp(-eta));
        r.se = 1.0 / (1.0 + std::exp(s - eta)) - r.mean;
      }
      break;
    case 3:
      halfdiff([](double e) { return pnorm(e, 0.0, 1.0, 1, 0); });
      break;
    case 4:
      eta = std::min(2.5, std::max(-11.0, eta));
      halfdiff([](double e) { return 1.0 - std::exp(-std::exp(e)); });
      break;
    case 5:
      if (std::fabs(eta) < 38) halfdiff([](double e) { return std::exp(e); });
      break;
    case 6:
      if (eta <= 0) {
        r.se = s * s;
      } else {
        halfdiff([](double e) { return e * e; });
      }
      break;
    case 7:
      halfdiff([](double e) { return 1.0 / e; });
      break;
    case 11:
      if (power == 0) {
        if (std::fabs(eta) <= 38) {
          r.mean = std::exp(eta) - offset;
          r.se = 0.5 * std::fabs(std::exp(eta + s) - std::exp(eta - s));
        }
      } else if (eta <= 0) {
        r.se = std::pow(s, 1.0 / power);
      } else {
        auto f = [&](double e) { return e > 0 ? std::pow(e, 1.0 / power) : 0.0; };
        r.mean = f(eta) - offset;
        r.se = 0.5 * std::fabs(f(eta + s) - f(eta - s));
      }
      break;
    case 15:
      halfdiff([](double e) { return -1.0 / (1.0 - std::exp(e)); });
      break;
    case 17:
      halfdiff([](double e) { return 1.0 / e - 1.0; });
      break;
    default:
      break;
  }
  return r;
}

void g5vsed(int n, int c, span<const double> v, span<const int> status, span<double> sed,
            span<double> avsed) {
  double gmin[3] = {1e25, 1e25, 1e25}, gmax[3] = {0, 0, 0}, gsum[3] = {0, 0, 0};
  i64 gcnt[3] = {0, 0, 0};
  double sumsq = 0;
  i64 npair = 0;
  if (c < 1) c = 1;
  for (i64 i = 1; i <= n; ++i) {
    if (status[i - 1] <= 0) {
      if (!sed.empty())
        for (i64 j = 1; j <= i; ++j) sed[packed(i, j)] = kMissing;
      continue;
    }
    const double vii = v[packed(i, i)];
    if (!sed.empty()) sed[packed(i, i)] = 0.0;
    for (i64 j = 1; j < i; ++j) {
      const double vjj = v[packed(j, j)];
      const double d = vjj <= 0 ? 0.0 : std::sqrt(std::fabs(vii + vjj - 2 * v[packed(i, j)]));
      if (!sed.empty()) sed[packed(i, j)] = d;
      if (status[j - 1] <= 0) continue;
      int g = 0;
      if (c > 1) g = ((i - 1) % c == (j - 1) % c) ? 0 : ((i - 1) / c == (j - 1) / c) ? 1 : 2;
      gmin[g] = std::min(gmin[g], d);
      gmax[g] = std::max(gmax[g], d);
      gsum[g] += d;
      ++gcnt[g];
      sumsq += d * d;
      ++npair;
    }
  }
  if (avsed.size() < 10) return;
  avsed[0] = npair > 0 ? std::sqrt(sumsq / npair) : kMissing;
  for (int g = 0; g < 3; ++g) {
    const bool some = gcnt[g] > 0;
    avsed[1 + 3 * g] = some ? gmin[g] : kMissing;
    avsed[2 + 3 * g] = some ? gsum[g] / gcnt[g] : kMissing;
    avsed[3 + 3 * g] = some ? gmax[g] : kMissing;
  }
}

void aipvals(AiControlArgs& a) {
  AiPredict& p = a.predict;
  const WorkArray& xp = a.work.xp;
  const PredictionLayout L = read_layout(xp);
  PredModel m;
  if (read_pred_model(a, m)) return;
  const i64 nr = L.nrows;
  const int link = a.glm.link;
  const double off = a.glm.glmphi.size() > 1 ? a.glm.glmphi[1] : 0.0;
  const double pw = a.glm.glmphi.size() > 2 ? a.glm.glmphi[2] : 1.0;
  i64 vb = 0;
  for (int t = 0; t < L.ntab; ++t) {
    TableRequest r;
    if (read_table(a, m, t, r)) {
      vprt("Internal error: Aborting predict\n");
      return;
    }
    const int n = r.h.n;
    const double* v = xp.r + L.vmat + vb;
    vb += r.h.vwords();
    std::vector<int> est(n);
    std::vector<int> empty, aliased;
    bool negative = false;
    for (int i = 0; i < n; ++i) {
      const i64 g = r.h.first + i;
      const double var = r.h.diag ? v[i] : v[packed(i + 1, i + 1)];
      const bool ok = xp.r[L.flag + g] == 0.0 && var > 0.0;
      negative = negative || (xp.r[L.flag + g] == 0.0 && var < 0.0);
      est[i] = ok ? 1 : 0;
      const double status = ok ? 0.0 : (xp.r[L.count + g] < 1 ? 2.0 : 1.0);
      if (!ok) (status == 2.0 ? empty : aliased).push_back(i + 1);
      const double val = xp.r[L.value + g];
      const double se = ok ? std::sqrt(var) : kMissing;
      p.pvals[g] = val;
      p.pvals[nr + g] = ok ? var : kMissing;
      p.pvals[2 * nr + g] = se;
      p.pvals[3 * nr + g] = status;
      p.prdvals[g] = val;
      p.prdvals[nr + g] = se;
      p.prdvals[2 * nr + g] = status;
      if (link > 1 && ok) {
        const Retran b = retran(val, se, link, off, pw);
        p.prdvals[3 * nr + g] = b.mean;
        p.prdvals[4 * nr + g] = b.se;
      }
    }
    const int c = r.cvar.size() == 2 ? r.ccount[1] : 1;
    span<double> sed;
    if (r.h.mats >= 0) {
      const std::size_t np = static_cast<std::size_t>(n) * (n + 1) / 2;
      double* vm = p.vpvmat.data() + r.h.mats;
      for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= i; ++j)
          vm[packed(i, j)] = est[i - 1] && est[j - 1] ? v[packed(i, j)] : kMissing;
      sed = span<double>(vm + np, np);
    }
    span<double> av = p.avsed.subspan(10 * static_cast<std::size_t>(t), 10);
    if (r.h.diag)
      std::fill(av.begin(), av.end(), kMissing);
    else
      g5vsed(n, c, span<const double>(v, static_cast<std::size_t>(n) * (n + 1) / 2), est, sed, av);
    char* slot = p.pvtext.data() + kReportSlot * t;
    slot[0] = '\0';
    report_sets(a, m, r, slot, xp.r[L.zeroterms + t]);
    if (!empty.empty()) report_line(slot, "Empty cells: " + cell_list(empty));
    if (!aliased.empty()) report_line(slot, "Aliased cells: " + cell_list(aliased));
    if (negative) {
      report_line(slot, "Some of the predicted variances were negative. The sign has been preserved in the standard");
      report_line(slot, "  error.");
    }
  }
}

int prediction_setup(AiControlArgs& a) {
  if (a.predict.npred == nullptr || *a.predict.npred <= 0) return 0;
  const i64 neq = *a.terms.neq;
  const i64 lenxp = static_cast<i64>(a.work.xp.len);
  if (!a.work.xp.valid() || 11 * neq + 3000 > lenxp / 4) {
    vprt("Insufficient workspace for predict\n");
    *a.predict.npred = 0;
    return 0;
  }
  const int status = g5vprd(a);
  if (status < 0) {
    a.status.runTrn = -static_cast<double>(lenxp);
    return 1;
  }
  if (status > 0) {
    vprt("Predict terminating with %d errors\n", status);
    std::string first;
    for (int k = 0; k < MessageStore::kSlots; ++k)
      if (g5vxer.severity[k] > 0 && first.empty()) first = message_text(k);
    clear_message_store();
    set_errtxt(a, first.c_str());
    a.status.ifault = 1;
    return 1;
  }
  return 0;
}

int prediction_accumulate(AiControlArgs& a, const PraArgs& r, int& nfault) {
  if (a.predict.npred == nullptr || *a.predict.npred <= 0 || !a.work.xp.valid()) return 0;
  int nf = 0;
  if (g5vpra(a, r, nf) == 0) return 0;
  if (read_layout(a.work.xp).shortage) return 0;  // told by prediction_finish
  nfault = nf;
  return 1;
}

void prediction_finish(AiControlArgs& a) {
  if (a.predict.npred == nullptr || *a.predict.npred <= 0 || !a.work.xp.valid()) return;
  const PredictionLayout L = read_layout(a.work.xp);
  if (L.shortage) {
    a.status.runTrn = -static_cast<double>(a.work.xp.len);
    return;
  }
  if (!L.done) return;
  if (a.work.xp.r[L.vmat + L.vlen] != kRowsMark) {
    vprt("Insufficient space for prediction: increase pworkspace\n");
    a.status.ifault = 6;
    return;
  }
  aipvals(a);
}

}  // namespace tarnel
