// The average information phase of one REML iteration: working variates,
// AI matrix, sparse inverse and scores, in that order.
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

static int bad(AiPhaseArgs& a, const char* what) {
  vprt(" AI step: inconsistent argument %s\n", what);
  g5verror(" Inconsistent arguments of the AI step", 3);
  return g5vflt(a.nfault, 2111);
}

static i64 int_words(i64 n) { return (n + 1) / 2; }

static int check_args(AiPhaseArgs& a, i64& maxblock, int& maxorder, i64& maxrblock) {
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
      maxrblock = std::max(maxrblock, nrec);
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

int ai_phase(AiPhaseArgs& a) {
  a.nfault = 0;
  a.logdetg = 0.0;
  a.inverse_formed = false;
  a.wvnodes = a.wvxpnodes = 0;
  i64 maxblock = 1, maxrblock = 0;
  int maxorder = 1;
  if (check_args(a, maxblock, maxorder, maxrblock)) return 1;
  MmeStore& st = *a.store;
  const i64 neq = st.neq;
  const int nwv = a.nwv;

  Carver cv{a.wk, a.wk ? a.lenwk : 0};
  AiScratch s;
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
  for (int f = 0; ok && f < 3; ++f) {
    span<i32> c;
    ok = reals(s.rowv[f], maxorder) && ints(c, maxorder);
    s.rowc[f] = span<int>(c.data(), c.size());
  }
  double* merge = ok ? cv.take(std::max(nwv, 1)) : nullptr;
  double* wbuf = merge ? cv.take(kTempwvLen + kTempwvLen / 2) : nullptr;
  double* rbuf = wbuf ? cv.take(kTempwvLen + kTempwvLen / 2) : nullptr;
  if (!ok || wbuf == nullptr || rbuf == nullptr) {
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
  for (int k = 0; k < nwv; ++k) s.wv[k] = 0.0;
  for (i64 e = 0; e < neq; ++e) s.pos[e] = 0;
  for (i64 p = 1; p <= neq; ++p) {
    i32 e = a.iw[2 * (p - 1) + 1];
    if (s.pos[e - 1] != 0) return bad(a, "IW (not a permutation)");
    s.pos[e - 1] = static_cast<i32>(p);
  }

  // The WV store takes the rest for the G side.
  i64 nodes = cv.left / 2;
  if (nodes < neq + 1) {
    vprt(" AI step: workspace too small for the WV store\n");
    return g5vflt(a.nfault, 6);
  }
  NodeStore wv(cv.p, nodes);
  for (i64 k = 1; k <= neq; ++k) wv.clear(k);
  i64 next = neq;
  for (int k = 0; k < nwv; ++k) a.score[k] = 0.0;
  for (i64 k = 0; k < static_cast<i64>(nwv) * (nwv + 1) / 2; ++k) a.ai[k] = 0.0;
  if (g5vwvg(a, s, wv, next, nodes)) return 1;
  if (a.trace) cprintc(" AIdggi done");
  a.wvnodes = next;
  // Rows of the records of a structured section sit above the G side.
  const i64 wvtop = next + maxrblock * (static_cast<i64>(nwv) + 1);
  if (wvtop >= nodes) {
    vprt(" AI step: workspace too small for the WV store\n");
    return g5vflt(a.nfault, 6);
  }

  // WVXP lists behind the used WV nodes.
  AverageInfoState& ls = g_aistate;
  close_tempwv(true);
  ls.lists = NodeStore(cv.p + 2 * wvtop, nodes - wvtop);
  ls.limit = nodes - wvtop;
  if (a.wvxplimit > 0 && a.wvxplimit < ls.limit) ls.limit = a.wvxplimit;
  if (ls.limit < neq + 2 * static_cast<i64>(nwv) + 2) {
    vprt(" AI step: workspace too small for the WVXP lists\n");
    return g5vflt(a.nfault, 6);
  }
  for (i64 k = 1; k <= neq; ++k) ls.lists.clear(k);
  ls.next = neq;
  ls.freehead = 0;
  ls.nfree = 0;
  ls.spills = 0;
  ls.rbufrec = -1;
  ls.bufr = wbuf;
  ls.bufi = reinterpret_cast<i32*>(wbuf + kTempwvLen);
  ls.rbuf = rbuf;
  ls.rbufi = reinterpret_cast<i32*>(rbuf + kTempwvLen);
  ls.merge = merge;
  a.wvxpnodes = ls.next;

  int rc = 0;
  // Record loop.
  const int ps1 = a.nrsect[1];
  const int c1 = admits(a, ps1) ? wvcol(a, ps1) : 0;
  i64 rec = 0;
  for (int k = 0; k < a.nsect && rc == 0; ++k) {
    i64 nrec = a.nrsect[3 * k];
    int ps = a.nrsect[3 * k + 1];
    int srow = a.nrsect[3 * k + 2];
    double g = a.gammas[ps - 1];
    if (!(g > 0.0)) {
      rc = g5vflt(a.nfault, 280);
      break;
    }
    int cs = (ps != ps1 && admits(a, ps)) ? wvcol(a, ps) : 0;
    double weight = 1.0 / g;
    int nf, rf;
    rcode(srow, nf, rf);
    if (nf > 0) {
      i64 wnext = next;
      if (nrec > 0 && g5vwvx(a, s, wv, wnext, wvtop, rec, nrec, nf, rf, g, c1, cs)) {
        rc = 1;
        break;
      }
      rec += nrec;
      continue;
    }
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
      if (g5vwv1(a, s, wv, s0 + 1, last, weight)) {
        rc = 1;
        break;
      }
    }
    rec += nrec;
    if (k == 0 && a.trace) cprintc(" G5VWVZ done");
  }
  if (rc == 0 && a.trace) cprintc(" WV formed");
  if (rc == 0) rc = g5vwvc(a, s, wv);
  if (rc == 0 && a.trace) cprintc(" AI ");
  if (rc == 0) rc = g5vwva(a, s);
  close_tempwv(true);
  if (rc != 0) return 1;
  // Scale: 0.5, or 0.5/sigma2 when the overall scale is free.
  double sc = (a.rgmstr[ps1 - 1] == 4) ? 0.5 : 0.5 / a.sigma2;
  for (i64 k = 0; k < static_cast<i64>(nwv) * (nwv + 1) / 2; ++k) a.ai[k] *= sc;
  if (a.trace) cprintc(" AI formed");
  if (nwv == 0) return 0;
  if (!a.inverse_formed) {
    g5verror(" No room for the sparse inverse: scores not formed", 3);
    return g5vflt(a.nfault, 6);
  }
  if (g5vscg(a, s)) return 1;
  if (g5vscr(a, s)) return 1;
  return 0;
}

}  // namespace tarnel
