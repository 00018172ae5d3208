// Sums of squares and products of the mixed model equations: X'R^-1 X by
// residual section (g5vxxs, with rows of R^-1 from g5vxxr and g5vxxm), then
// the G inverses of the random terms (g5vxxg).
#include <algorithm>
#include <cmath>

#include "host/console.h"
#include "host/messages.h"
#include "sparse/mme.h"

namespace tarnel {

namespace {

// Adds value(c) * ACC(a) for a in list[0..n) (all at most c) to row c.
// Result 0, or the error word to set (136 broken row, 6 no slot).
int add_to_row(MmeStore& s, const Pool& p, i32 c, double vc, span<const double> acc,
               const i32* list, i64 n) {
  if (c <= s.ndense) {
    const i64 base = static_cast<i64>(c) * (c - 1) / 2;
    for (i64 k = 0; k < n; ++k) {
      const i32 a = list[k];
      if (a > c) break;
      s.x[base + a - 1] += vc * acc[a - 1];
    }
    return 0;
  }
  const i64 head = s.head(c);
  if (p.lnk(head) == -1) {
    if (g5vlld(p, s.lx, head, c, 0.0)) return 6;
  }
  i64 pos = head;
  for (i64 k = 0; k < n; ++k) {
    const i32 a = list[k];
    if (a > c) break;
    const int r = g5vlli(p, s.lx, pos, a, vc * acc[a - 1]);
    if (r == 1) return 136;
    if (r == 2) return 6;
  }
  return 0;
}

bool active(const SspSection& sec, i32 c) {
  return sec.colflag.empty() || static_cast<size_t>(c) > sec.colflag.size() ||
         sec.colflag.at1(c) < 1;
}

int out_of_memory(int& err, const char* text) {
  g5verror(text, 3);
  err += 6;
  return 1;
}

// The general case: R^-1 rows from the section's structure.  For record i,
// ACC = sum over records j of R^-1(i,j) x_j, over the columns of LIST;
// then each column c of record i as a row gets x_i(c) ACC(a), a <= c.
int general_case(MmeStore& s, const SspSection& sec, SspScratch& w, const Pool& p, i64 limit,
                 i64 nrec) {
  int& err = *sec.err;
  const i32 neq = s.neq;
  const DesignView& d = sec.design;
  if (w.links.size() < static_cast<size_t>(neq) || sec.rrow.size() < static_cast<size_t>(nrec) ||
      sec.rcols.size() < static_cast<size_t>(nrec)) {
    err = 130;
    return 1;
  }
  *sec.logdet += sec.sectlogdet;
  if (nrec > 0 && sec.sigma2 > f32(1e-9)) *sec.logdet += nrec * std::log(sec.sigma2);
  for (i64 k = 0; k < nrec; ++k) sec.rrow[k] = 0.0;
  auto record = [&](i64 r, i64& b, i64& e) {
    b = d.start.at1(r);
    e = d.start.at1(r + 1) - 1;
    return b >= 1 && e <= static_cast<i64>(d.val.size()) && e >= b - 1;
  };
  for (i64 i = sec.first; i <= sec.last; ++i) {
    int cnt = 0, ifault = 0;
    if (g5vxxr(i - sec.first + 1, sec.rsrc, sec.rrow, sec.rcols, cnt, sec.sigma2, ifault)) {
      err = ifault ? ifault : 1;
      return 1;
    }
    i64 n = 0;
    for (int k = 0; k < cnt; ++k) {
      const int jj = sec.rcols[k];
      if (jj < 1 || jj > nrec) {
        err = 130;
        return 1;
      }
      const double rij = sec.rrow[jj - 1];
      sec.rrow[jj - 1] = 0.0;
      if (rij == 0.0) continue;
      i64 b = 0, e = 0;
      if (!record(sec.first + jj - 1, b, e)) {
        err = 130;
        return 1;
      }
      i32 prev = 0;
      for (i64 t = b; t <= e; ++t) {
        const i32 c = d.col.at1(t);
        if (c <= prev) break;
        prev = c;
        if (c > neq) {
          err = 130;
          return 1;
        }
        if (!active(sec, c)) continue;
        if (w.links.at1(c) == 0) {
          w.links.at1(c) = 1;
          w.list.at1(++n) = c;
        }
        w.acc.at1(c) += rij * d.val.at1(t);
      }
      if (s.lx > limit) return out_of_memory(err, "Out of Memory forming SSP");
    }
    std::sort(w.list.data(), w.list.data() + n);
    w.list.at1(n + 1) = neq + 1;
    i64 b = 0, e = 0;
    if (!record(i, b, e)) {
      err = 130;
      return 1;
    }
    i32 prev = 0;
    for (i64 t = b; t <= e; ++t) {
      const i32 c = d.col.at1(t);
      if (c <= prev) break;
      prev = c;
      if (c > neq) {
        err = 130;
        return 1;
      }
      if (!active(sec, c)) continue;
      const int r = add_to_row(s, p, c, d.val.at1(t), w.acc, w.list.data(), n);
      if (r == 136) {
        err = 136;
        return 1;
      }
      if (r == 6 || s.lx > limit) return out_of_memory(err, "Out of Memory forming SSP");
    }
    for (i64 k = 1; k <= n; ++k) {
      w.acc.at1(w.list.at1(k)) = 0.0;
      w.links.at1(w.list.at1(k)) = 0;
    }
  }
  return 0;
}

}  // namespace

int g5vxxs(MmeStore& s, const SspSection& sec, SspScratch& w) {
  int& err = *sec.err;
  const i32 neq = s.neq;
  Pool p = s.pool();
  // Formation keeps a third of the store for the fill of absorption.
  const i64 limit = s.len / 3;
  if (p.nval > limit) p.nval = limit;
  const DesignView& d = sec.design;
  if (w.acc.size() < static_cast<size_t>(neq) || w.list.size() < static_cast<size_t>(neq) + 1 ||
      sec.first < 1 || sec.last > static_cast<i64>(d.start.size()) - 1 ||
      d.col.size() != d.val.size()) {
    err = 130;
    return 1;
  }
  if (sec.ntraits > 1) {
    g5verror(" Multivariate residual sections not available yet", 3);
    err += 1000;
    return 1;
  }
  // Choose the case.
  int kase = sec.termcode;
  double w0 = sec.sigma2 > 0 ? 1.0 / sec.sigma2 : 0.0;
  if (kase == -1 && sec.lstruc >= 4) {
    const i64 at = static_cast<i64>(sec.section - 1) * sec.lstruc + 3;
    if (at >= 0 && static_cast<size_t>(at) < sec.struc.size()) {
      const int g = sec.struc[at];
      if (g > 0 && static_cast<size_t>(g) <= sec.gammas.size() && sec.gammas.at1(g) > 0)
        w0 /= sec.gammas.at1(g);
    }
  }
  if (kase >= 0 && sec.weights.size() < static_cast<size_t>(sec.last)) {
    err = 130;
    return 1;
  }
  const i64 nrec = sec.last - sec.first + 1;
  if (kase == -3) return general_case(s, sec, w, p, limit, nrec);
  if (nrec > 0 && sec.sigma2 > f32(1e-9)) *sec.logdet += nrec * std::log(sec.sigma2);

  for (i64 i = sec.first; i <= sec.last; ++i) {
    double wt = w0;
    if (kase >= 0) {
      wt = w0 * sec.weights.at1(i);
      if (wt == 0.0) {
        ++*sec.skipped;
        continue;
      }
      if (wt > 0) *sec.logdet -= std::log(sec.weights.at1(i));
    }
    const i64 b = d.start.at1(i), e = d.start.at1(i + 1) - 1;
    if (b < 1 || e > static_cast<i64>(d.val.size()) || e < b - 1) {
      err = 130;
      return 1;
    }
    i64 n = 0;
    i32 prev = 0;
    for (i64 k = b; k <= e; ++k) {
      const i32 c = d.col.at1(k);
      if (c <= prev) break;
      prev = c;
      if (c > neq) {
        err = 130;
        return 1;
      }
      if (!active(sec, c)) continue;
      const double v = d.val.at1(k);
      w.acc.at1(c) = wt * v;
      w.list.at1(n + 1) = c;
      ++n;
      const int r = add_to_row(s, p, c, v, w.acc, w.list.data(), n);
      if (r == 136) {
        err = 136;
        return 1;
      }
      if (r == 6 || s.lx > limit) return out_of_memory(err, "Out of Memory forming SSP");
    }
    for (i64 k = 1; k <= n; ++k) w.acc.at1(w.list.at1(k)) = 0.0;
  }
  return 0;
}

int g5vxxr(i64 rec, const RowSource& src, span<double> values, span<int> cols, int& count,
           double scale, int& ifault) {
  count = 0;
  if (src.nsect < 1 || src.records == nullptr || src.rows == nullptr || src.work == nullptr ||
      src.giv == nullptr) {
    ifault = 1;
    return 1;
  }
  i64 rownum = rec - 1;
  i64 order = 1;
  for (int k = src.nsect - 1; k >= 0; --k) {
    const StrucRow row = src.rows[k];
    const int ordk = row.field(kOrder);
    const i64* rec6 = src.second ? src.records[k].second() : src.records[k].first();
    if (ordk < 1 || static_cast<size_t>(ordk) > src.scratch.size() ||
        static_cast<size_t>(ordk) > src.scols.size() ||
        static_cast<size_t>(order * ordk) > values.size() ||
        static_cast<size_t>(order * ordk) > cols.size()) {
      ifault = 6;
      return 1;
    }
    if (k == src.nsect - 1) {
      for (int j = 0; j < ordk; ++j) values[j] = 0.0;
      int cnt = 0;
      if (g5vvrw(values, cols, cnt, rownum, ordk, rec6, row, *src.work, 0, row.field(kModel),
                 *src.giv, src.unit, ifault))
        return 1;
      count = cnt;
      order = ordk;
      if (count == 0) return 0;
      continue;
    }
    for (int j = 0; j < ordk; ++j) src.scratch[j] = 0.0;
    int cnt = 0;
    if (g5vvrw(src.scratch, src.scols, cnt, rownum, ordk, rec6, row, *src.work, 0,
               row.field(kModel), *src.giv, src.unit, ifault))
      return 1;
    if (cnt == 0) {
      count = 0;
      return 0;
    }
    // Multiply out from the back: new column (cs-1)*order + c.  Each of the
    // row's entries is read before any product lands on it: the products of
    // entry c fall on columns congruent to c, so no other entry is touched.
    for (int ic = count - 1; ic >= 0; --ic) {
      const int c = cols[ic];
      const double v = values[c - 1];
      values[c - 1] = 0.0;
      for (int is = cnt - 1; is >= 0; --is) {
        const int cs = src.scols[is];
        const i64 nc = static_cast<i64>(cs - 1) * order + c;
        cols[static_cast<size_t>(is) * count + ic] = static_cast<int>(nc);
        values[nc - 1] = src.scratch[cs - 1] * v;
      }
    }
    count *= cnt;
    order *= ordk;
  }
  if (scale != 1.0 && scale != 0.0)
    for (int k = 0; k < count; ++k) values[cols[k] - 1] /= scale;
  return 0;
}

int g5vxxm(i64, int, int, span<const int>, const RowSource&, span<double>, int& ifault) {
  g5verror(" Multivariate residual blocks not available yet", 3);
  ifault = 1000;
  return 1;
}

int g5vxxg(MmeStore& s, span<const GTerm> terms, span<const double> gammas, SspScratch& w,
           int& nfault) {
  Pool p = s.pool();
  if (p.nval > s.len) p.nval = s.len;
  i64 total = 1;
  for (const GTerm& t : terms) total += t.nlev;
  if (total > s.neq) return g5vflt(nfault, 130);
  // Term t starts after the response and the terms before it.
  i64 base = total;
  for (i64 ti = static_cast<i64>(terms.size()) - 1; ti >= 0; --ti) {
    const GTerm& t = terms[ti];
    base -= t.nlev;
    if (t.code <= 0) continue;
    if (t.code < 10000) {
      if (static_cast<size_t>(t.code) > gammas.size()) return g5vflt(nfault, 130);
      const double g = gammas.at1(t.code);
      if (g == 0.0) continue;
      const double add = 1.0 / g;
      for (i32 k = 1; k <= t.nlev; ++k) {
        const i32 c = static_cast<i32>(base + k);
        if (c <= s.ndense) {
          s.dense(c, c) += add;
          continue;
        }
        const i64 h = s.head(c);
        if (p.lnk(h) == -1) {
          if (g5vlld(p, s.lx, h, c, add)) return g5vflt(nfault, 6);
        } else {
          const i64 d = g5vxii(c, p, s.ndense, 0);
          if (d == 0) return g5vflt(nfault, 136);
          p.val(d) += add;
        }
      }
    } else {
      // Direct product: one row of the G inverse at a time.
      if (w.acc.size() < static_cast<size_t>(t.nlev) || w.list.size() < static_cast<size_t>(t.nlev))
        return g5vflt(nfault, 6);
      for (i32 k = 1; k <= t.nlev; ++k) {
        int cnt = 0;
        int ifault = 0;
        if (g5vxxr(k, t.src, w.acc, span<int>(w.list.data(), w.list.size()), cnt, 1.0, ifault)) {
          for (i32 j = 0; j < t.nlev; ++j) w.acc[j] = 0.0;
          return g5vflt(nfault, ifault ? ifault : 1);
        }
        const i32 r = static_cast<i32>(base + k);
        std::sort(w.list.data(), w.list.data() + cnt);
        for (int j = 0; j < cnt; ++j) {
          const i32 cl = w.list[j];
          if (cl < 1 || cl > t.nlev) return g5vflt(nfault, 130);
        }
        if (r <= s.ndense) {
          for (int j = 0; j < cnt && w.list[j] <= k; ++j)
            s.dense(r, base + w.list[j]) += w.acc[w.list[j] - 1];
        } else {
          const i64 h = s.head(r);
          if (p.lnk(h) == -1 && g5vlld(p, s.lx, h, r, 0.0)) return g5vflt(nfault, 6);
          i64 pos = h;
          for (int j = 0; j < cnt && w.list[j] <= k; ++j) {
            const int rr = g5vlli(p, s.lx, pos, static_cast<i32>(base + w.list[j]),
                                  w.acc[w.list[j] - 1]);
            if (rr == 1) return g5vflt(nfault, 136);
            if (rr == 2) return g5vflt(nfault, 6);
          }
        }
        for (int j = 0; j < cnt; ++j) w.acc[w.list[j] - 1] = 0.0;
      }
    }
    if (s.lx >= s.len) return g5vflt(nfault, 6);
  }
  return 0;
}

int g5vmor(span<i32> iw, i32 neq, span<const i32> nlev, span<const i32> marker, int& nfault) {
  if (neq < 1 || iw.size() < 2u * static_cast<size_t>(neq)) return g5vflt(nfault, 7);
  iw[0] = 0;
  iw[1] = 1;
  i64 i = 1;
  for (size_t t = 0; t < nlev.size(); ++t) {
    const bool out = t < marker.size() && marker[t] == -999;
    for (i32 k = 0; k < nlev[t]; ++k) {
      ++i;
      if (i > neq) return g5vflt(nfault, 7);
      iw[2 * (i - 1) + 1] = static_cast<i32>(i);
      iw[2 * (i - 1)] = out ? -static_cast<i32>(t + 1) : static_cast<i32>(t + 1);
    }
  }
  if (i != neq) return g5vflt(nfault, 7);
  return 0;
}

}  // namespace tarnel
