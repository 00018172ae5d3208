// The average information phase of one REML iteration: working variates,
// AI matrix, sparse inverse and scores, in that order.  `ai_phase` checks
// its arguments (`check_args`), carves its scratch (`carve_scratch`),
// places the equations (`position_table`), forms the G side's working
// variates (`g_side_working_variates`), opens the WVXP lists
// (`open_wvxp_lists`), forms the records' working variates and the AI
// matrix (`assemble_ai`), and last the scores (g5vscg, g5vscr).
//
// Space, carved from the words the iteration hands over, in this order:
// the small vectors (3 NWV reals), the position table (NEQ ints), the
// term-block scratch (3 blocks and 2 Kronecker lists of the largest term),
// rows of up to three factors, the TEMPWV write and read buffers (10200
// words each), the inverse scratch (2 NEQ reals and NEQ ints), then the WV
// store (2 words a node, heads 1..NEQ, as many nodes as the G side needs),
// and last the WVXP lists in all that is left.
#include <algorithm>
#include <cmath>

#include "average_info/ai_internal.h"
#include "host/console.h"
#include "host/messages.h"

namespace tarnel {

namespace {

int bad(AiPhaseArgs& a, const char* what) {
  vprt(" AI step: inconsistent argument %s\n", what);
  g5verror(" Inconsistent arguments of the AI step", 3);
  return g5vflt(a.nfault, 2111);
}

i64 int_words(i64 n) { return (n + 1) / 2; }

int check_args(AiPhaseArgs& a, i64& maxblock, int& maxorder, i64& maxrblock) {
  if (a.store == nullptr) return bad(a, "store");
  const MmeStore& st = *a.store;
  i64 neq = st.neq;
  if (neq < 1 || st.ndense < 1 || st.ndense > neq) return bad(a, "NEQ");
  if (static_cast<i64>(st.x.size()) < st.lssp) return bad(a, "X");
  if (static_cast<i64>(a.iw.size()) < 2 * neq) return bad(a, "IW");
  if (static_cast<i64>(a.dd.size()) < neq) return bad(a, "DD");
  if (static_cast<i64>(a.soln.size()) < neq) return bad(a, "solution");
  if (a.nwv < 0) return bad(a, "NWV");
  i64 nai = static_cast<i64>(a.nwv) * (a.nwv + 1) / 2;
  if (static_cast<i64>(a.ai.size()) < nai) return bad(a, "AI");
  if (static_cast<i64>(a.score.size()) < a.nwv) return bad(a, "score");
  if (static_cast<i64>(a.wvmap.size()) < 2 * static_cast<i64>(std::max<std::size_t>(a.gammas.size(), a.nwv)))
    return bad(a, "WV map");
  if (a.rgmstr.size() < a.gammas.size()) return bad(a, "rgmstr");
  if (a.sigma2 <= 0.0 || !std::isfinite(a.sigma2)) return bad(a, "sigma2");
  // Design rows.
  if (a.records < 0 || static_cast<i64>(a.design.start.size()) < a.records + 1) return bad(a, "design starts");
  if (static_cast<i64>(a.resid.size()) < a.records) return bad(a, "residuals");
  i64 nval = static_cast<i64>(std::min(a.design.val.size(), a.design.col.size()));
  for (i64 r = 0; r < a.records; ++r) {
    i64 s0 = a.design.start[r], s1 = a.design.start[r + 1];
    if (s0 < 1 || s1 <= s0 || s1 - 1 > nval) return bad(a, "design starts");
  }
  for (i64 k = 0; k < nval; ++k)
    if (a.design.col[k] < 1 || a.design.col[k] > neq) return bad(a, "design columns");
  // Order: a permutation of the equations.
  for (i64 p = 1; p <= neq; ++p) {
    i32 e = a.iw[2 * (p - 1) + 1];
    if (e < 1 || e > neq) return bad(a, "IW");
  }
  // Sections.
  if (a.nsect < 1 || static_cast<i64>(a.nrsect.size()) < 3 * static_cast<i64>(a.nsect))
    return bad(a, "nrsect");
  i64 total = 0;
  maxrblock = 0;
  for (int k = 0; k < a.nsect; ++k) {
    i64 nrec = a.nrsect[3 * k];
    if (nrec < 0) return bad(a, "nrsect");
    int ps = a.nrsect[3 * k + 1];
    if (ps < 1 || static_cast<std::size_t>(ps) > a.gammas.size()) return bad(a, "section scale");
    int n, r;
    rcode(a.nrsect[3 * k + 2], n, r);
    if (n > 0) {
      if (n > 3 || r < 1 || r + n - 1 > a.var.nstruc ||
          a.var.secform.size() < static_cast<std::size_t>(r + n - 1))
        return bad(a, "section structure");
      i64 nn = 1;
      for (int f = 0; f < n; ++f) {
        int o = a.var.field(r + f, kOrder);
        int gf = a.var.field(r + f, kGfirst), np = a.var.field(r + f, kNpar);
        if (o < 1) return bad(a, "structure order");
        if (np < 0 || (np > 0 && (gf < 1 || static_cast<std::size_t>(gf + np - 1) > a.gammas.size())))
          return bad(a, "structure parameters");
        nn *= o;
      }
      if (nn != nrec) return bad(a, "section order differs from its records");
      if (!multitrait_section(a, n, r, nrec)) maxrblock = std::max(maxrblock, nrec);
    }
    total += nrec;
  }
  if (total != a.records) return bad(a, "section records");
  // WV map.
  for (int c = 1; c <= a.nwv; ++c) {
    int p = a.wvmap[2 * (c - 1) + 1];
    if (p < 1 || static_cast<std::size_t>(p) > a.gammas.size()) return bad(a, "WV map");
  }
  // Terms.
  if (a.nlev.size() != a.tcode.size()) return bad(a, "terms");
  i64 eqs = 1;
  maxblock = 1;
  maxorder = 1;
  for (std::size_t t = 0; t < a.tcode.size(); ++t) {
    if (a.nlev[t] < 0) return bad(a, "nlev");
    eqs += a.nlev[t];
    i64 q = a.nlev[t];
    for (std::size_t u = t + 1; u < a.tcode.size() && a.tcode[u] < 0; ++u) q += a.nlev[u];
    maxblock = std::max(maxblock, q);
    int c = a.tcode[t];
    if (c >= 1 && c <= 10000 && static_cast<std::size_t>(c) > a.gammas.size()) return bad(a, "term code");
    if (c > 10000) {
      int n = c / 10000, r = c % 10000;
      if (n > 3) {
        g5verror("G Structure too complex", 3);
        return g5vflt(a.nfault, 3002);
      }
      if (r < 1 || r + n - 1 > a.var.nstruc || a.var.secform.size() < static_cast<std::size_t>(r + n - 1))
        return bad(a, "term structure");
      for (int k = 0; k < n; ++k) {
        int gf = a.var.field(r + k, kGfirst), np = a.var.field(r + k, kNpar);
        if (a.var.field(r + k, kOrder) < 1) return bad(a, "structure order");
        if (np < 0 || (np > 0 && (gf < 1 || static_cast<std::size_t>(gf + np - 1) > a.gammas.size())))
          return bad(a, "structure parameters");
      }
    }
  }
  if (eqs > neq) return bad(a, "nlev");
  maxblock = std::max(maxblock, maxrblock);
  for (int r = 1; r <= a.var.nstruc; ++r) maxorder = std::max(maxorder, a.var.field(r, kOrder));
  return 0;
}

// The space of the phase and what its steps hand on: the carver over the
// words the iteration handed over, the scratch, the sizes of the largest
// blocks, the TEMPWV buffers, and the WV store with its high-water marks.
struct PhaseSpace {
  Carver cv;
  AiScratch s;
  i64 maxblock = 1, maxrblock = 0;
  int maxorder = 1;
  double* merge = nullptr;  // NWV
  double* wbuf = nullptr;   // TEMPWV write buffer
  double* rbuf = nullptr;   // TEMPWV read buffer
  NodeStore wv;             // the WV store, heads 1..NEQ
  i64 nodes = 0;            // its nodes
  i64 next = 0;             // nodes the G side used
  i64 wvtop = 0;            // above them, the rows of structured sections
};

// The scratch of the phase, in the order told at the head of this file;
// the inverse scratch only when there is room for it.
int carve_scratch(AiPhaseArgs& a, PhaseSpace& ps) {
  const i64 neq = a.store->neq;
  const int nwv = a.nwv;
  Carver& cv = ps.cv;
  AiScratch& s = ps.s;
  const i64 maxblock = ps.maxblock, maxrblock = ps.maxrblock;
  const int maxorder = ps.maxorder;
  auto reals = [&](span<double>& out, i64 n) {
    double* p = cv.take(std::max<i64>(n, 1));
    if (p == nullptr) return false;
    out = span<double>(p, static_cast<std::size_t>(n));
    return true;
  };
  auto ints = [&](span<i32>& out, i64 n) {
    double* p = cv.take(std::max<i64>(int_words(n), 1));
    if (p == nullptr) return false;
    out = span<i32>(reinterpret_cast<i32*>(p), static_cast<std::size_t>(n));
    return true;
  };
  bool ok = reals(s.wv, nwv) && reals(s.t, nwv) && reals(s.v, nwv) && ints(s.pos, neq) &&
            reals(s.xblk, maxblock) && reals(s.bblk, maxblock) && reals(s.tblk, maxblock) &&
            reals(s.kv[0], maxblock) && reals(s.kv[1], maxblock) && ints(s.kc[0], maxblock) &&
            ints(s.kc[1], maxblock);
  ok = ok && reals(s.wd, maxrblock * nwv) && reals(s.td, maxrblock * nwv);
  if (ok && a.ntrt > 1) {
    int npar = 0;
    for (int r = 1; r <= a.var.nstruc; ++r)
      if (a.var.field(r, kOrder) == a.ntrt) npar = std::max(npar, a.var.field(r, kNpar));
    span<i32> c;
    ok = reals(s.mv, static_cast<i64>(multitrait_words(a.ntrt, npar, nwv))) && ints(c, 5 * static_cast<i64>(a.ntrt));
    s.mvi = span<int>(c.data(), c.size());
  }
  for (int f = 0; ok && f < 3; ++f) {
    span<i32> c;
    ok = reals(s.rowv[f], maxorder) && ints(c, maxorder);
    s.rowc[f] = span<int>(c.data(), c.size());
  }
  ps.merge = ok ? cv.take(std::max(nwv, 1)) : nullptr;
  ps.wbuf = ps.merge ? cv.take(kTempwvLen + kTempwvLen / 2) : nullptr;
  ps.rbuf = ps.wbuf ? cv.take(kTempwvLen + kTempwvLen / 2) : nullptr;
  if (!ok || ps.wbuf == nullptr || ps.rbuf == nullptr) {
    vprt(" AI step: workspace too small for scratch (%lld words)\n", static_cast<long long>(a.lenwk));
    return g5vflt(a.nfault, 6);
  }
  if (a.want_inverse) {
    Carver save = cv;
    span<i32> c;
    if (!(reals(s.lrow, neq) && reals(s.zrow, neq) && ints(c, neq))) {
      cv = save;
      s.lrow = s.zrow = span<double>();
      a.want_inverse = false;
    } else {
      s.crow = c;
    }
  }
  return 0;
}

// The position of each equation in the order.
int position_table(AiPhaseArgs& a, AiScratch& s) {
  const i64 neq = a.store->neq;
  for (int k = 0; k < a.nwv; ++k) s.wv[k] = 0.0;
  for (i64 e = 0; e < neq; ++e) s.pos[e] = 0;
  for (i64 p = 1; p <= neq; ++p) {
    i32 e = a.iw[2 * (p - 1) + 1];
    if (s.pos[e - 1] != 0) return bad(a, "IW (not a permutation)");
    s.pos[e - 1] = static_cast<i32>(p);
  }
  return 0;
}

// The WV store takes the rest, and the G side fills it first; the rows of
// the records of a structured section sit above the G side.
int g_side_working_variates(AiPhaseArgs& a, PhaseSpace& ps) {
  const i64 neq = a.store->neq;
  const int nwv = a.nwv;
  ps.nodes = ps.cv.left / 2;
  if (ps.nodes < neq + 1) {
    vprt(" AI step: workspace too small for the WV store\n");
    return g5vflt(a.nfault, 6);
  }
  ps.wv = NodeStore(ps.cv.p, ps.nodes);
  for (i64 k = 1; k <= neq; ++k) ps.wv.clear(k);
  ps.next = neq;
  for (int k = 0; k < nwv; ++k) a.score[k] = 0.0;
  for (i64 k = 0; k < static_cast<i64>(nwv) * (nwv + 1) / 2; ++k) a.ai[k] = 0.0;
  if (g5vwvg(a, ps.s, ps.wv, ps.next, ps.nodes)) return 1;
  if (a.trace) cprintc(" AIdggi done");
  a.wvnodes = ps.next;
  ps.wvtop = ps.next + ps.maxrblock * (static_cast<i64>(nwv) + 1);
  if (ps.wvtop >= ps.nodes) {
    vprt(" AI step: workspace too small for the WV store\n");
    return g5vflt(a.nfault, 6);
  }
  return 0;
}

// The WVXP lists behind the used WV nodes, with the TEMPWV buffers.
int open_wvxp_lists(AiPhaseArgs& a, PhaseSpace& ps) {
  const i64 neq = a.store->neq;
  AverageInfoState& ls = g_aistate;
  close_tempwv(true);
  ls.lists = NodeStore(ps.cv.p + 2 * ps.wvtop, ps.nodes - ps.wvtop);
  ls.limit = ps.nodes - ps.wvtop;
  if (a.wvxplimit > 0 && a.wvxplimit < ls.limit) ls.limit = a.wvxplimit;
  if (ls.limit < neq + 2 * static_cast<i64>(a.nwv) + 2) {
    vprt(" AI step: workspace too small for the WVXP lists\n");
    return g5vflt(a.nfault, 6);
  }
  for (i64 k = 1; k <= neq; ++k) ls.lists.clear(k);
  ls.next = neq;
  ls.freehead = 0;
  ls.nfree = 0;
  ls.spills = 0;
  ls.rbufrec = -1;
  ls.bufr = ps.wbuf;
  ls.bufi = reinterpret_cast<i32*>(ps.wbuf + kTempwvLen);
  ls.rbuf = ps.rbuf;
  ls.rbufi = reinterpret_cast<i32*>(ps.rbuf + kTempwvLen);
  ls.merge = ps.merge;
  a.wvxpnodes = ls.next;
  return 0;
}

// The records rec..rec+nrec-1 of an unstructured section, one by one: the
// residual, and the working variates of the first section's scale (column
// c1, the response) and of this section's own (column cs) at `weight`.
int record_by_record(AiPhaseArgs& a, PhaseSpace& ps, i64 rec, i64 nrec, double g, int c1, int cs,
                     double weight) {
  const i64 neq = a.store->neq;
  const int nwv = a.nwv;
  AiScratch& s = ps.s;
  for (i64 r = rec; r < rec + nrec; ++r) {
    i64 s0 = a.design.start[r], last = a.design.start[r + 1] - 1;
    double y = a.design.val[s0 - 1];
    if (is_missing(y)) {
      a.resid[r] = kMissing;
      continue;
    }
    double e = y - g5vybr(a.design.val, a.design.col, a.soln, static_cast<i32>(neq), s0 + 1, last);
    a.resid[r] = e;
    if (nwv == 0) continue;
    for (int q = 0; q < nwv; ++q) s.wv[q] = 0.0;
    if (c1 > 0) s.wv[c1 - 1] = y;
    if (cs > 0) s.wv[cs - 1] += e / g;
    if (g5vwv1(a, s, ps.wv, s0 + 1, last, weight)) return 1;
  }
  return 0;
}

// The working variates of the records, section by section: a structured
// section as a block, any other record by record.
int record_working_variates(AiPhaseArgs& a, PhaseSpace& ps) {
  const int ps1 = a.nrsect[1];
  const int c1 = admits(a, ps1) ? wvcol(a, ps1) : 0;
  i64 rec = 0;
  for (int k = 0; k < a.nsect; ++k) {
    i64 nrec = a.nrsect[3 * k];
    int pk = a.nrsect[3 * k + 1];
    int srow = a.nrsect[3 * k + 2];
    double g = a.gammas[pk - 1];
    if (!(g > 0.0)) return g5vflt(a.nfault, 280);
    int cs = (pk != ps1 && admits(a, pk)) ? wvcol(a, pk) : 0;
    double weight = 1.0 / g;
    int nf, rf;
    rcode(srow, nf, rf);
    if (nf > 0 && multitrait_section(a, nf, rf, nrec)) {
      if (nrec > 0 && g5vwvm(a, ps.s, ps.wv, rec, nrec, rf, g, c1, cs)) return 1;
      rec += nrec;
      continue;
    }
    if (nf > 0) {
      i64 wnext = ps.next;
      if (nrec > 0 && g5vwvx(a, ps.s, ps.wv, wnext, ps.wvtop, rec, nrec, nf, rf, g, c1, cs)) return 1;
      rec += nrec;
      continue;
    }
    const int rc = record_by_record(a, ps, rec, nrec, g, c1, cs, weight);
    rec += nrec;
    if (k == 0 && a.trace) cprintc(" G5VWVZ done");
    if (rc != 0) return 1;
  }
  return 0;
}

// The AI matrix from the working variates, then its scale: 0.5, or
// 0.5/sigma2 when the overall scale is free.  TEMPWV is closed on every
// path.
int assemble_ai(AiPhaseArgs& a, PhaseSpace& ps) {
  int rc = record_working_variates(a, ps);
  if (rc == 0 && a.trace) cprintc(" WV formed");
  if (rc == 0) rc = g5vwvc(a, ps.s, ps.wv);
  if (rc == 0 && a.trace) cprintc(" AI ");
  if (rc == 0) rc = g5vwva(a, ps.s);
  close_tempwv(true);
  if (rc != 0) return 1;
  const int nwv = a.nwv;
  double sc = (a.rgmstr[a.nrsect[1] - 1] == 4) ? 0.5 : 0.5 / a.sigma2;
  for (i64 k = 0; k < static_cast<i64>(nwv) * (nwv + 1) / 2; ++k) a.ai[k] *= sc;
  if (a.trace) cprintc(" AI formed");
  return 0;
}

}  // namespace

int ai_phase(AiPhaseArgs& a) {
  a.nfault = 0;
  a.logdetg = 0.0;
  a.inverse_formed = false;
  a.wvnodes = a.wvxpnodes = 0;
  PhaseSpace ps;
  if (check_args(a, ps.maxblock, ps.maxorder, ps.maxrblock)) return 1;
  ps.cv = Carver{a.wk, a.wk ? a.lenwk : 0};
  if (carve_scratch(a, ps)) return 1;
  if (position_table(a, ps.s)) return 1;
  if (g_side_working_variates(a, ps)) return 1;
  if (open_wvxp_lists(a, ps)) return 1;
  if (assemble_ai(a, ps)) return 1;
  if (a.nwv == 0) return 0;
  if (!a.inverse_formed) {
    g5verror(" No room for the sparse inverse: scores not formed", 3);
    return g5vflt(a.nfault, 6);
  }
  if (g5vscg(a, ps.s)) return 1;
  if (g5vscr(a, ps.s)) return 1;
  return 0;
}

}  // namespace tarnel
