// Sums of squares and products of the mixed model equations: X'R^-1 X by
// residual section (g5vxxs, with rows of R^-1 from g5vxxr and g5vxxm), then
// the G inverses of the random terms (g5vxxg).
#include <algorithm>
#include <cmath>

#include "host/console.h"
#include "host/messages.h"
#include "sparse/mme.h"
#include "variance/dense.h"

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

// ACC += rij times the record's design values b..e over its active columns;
// a column met for the first time is marked and appended to LIST (n
// entries so far).  Result 1 with err 130 for a column above NEQ.
int accumulate_record(const MmeStore& s, const SspSection& sec, SspScratch& w, i64 b, i64 e,
                      double rij, i64& n) {
  const DesignView& d = sec.design;
  i32 prev = 0;
  for (i64 t = b; t <= e; ++t) {
    const i32 c = d.col.at1(t);
    if (c <= prev) break;
    prev = c;
    if (c > s.neq) {
      *sec.err = 130;
      return 1;
    }
    if (!active(sec, c)) continue;
    if (w.links.at1(c) == 0) {
      w.links.at1(c) = 1;
      w.list.at1(++n) = c;
    }
    w.acc.at1(c) += rij * d.val.at1(t);
  }
  return 0;
}

// Takes each active column c of the record's design values b..e as a row
// and adds value(c) ACC(a) for a in LIST (the first n entries, at most c);
// then clears ACC and the marks over LIST.  Result 1 on a fault (err set:
// 130 a column above NEQ, 136 a broken row, +6 out of memory with `text`).
int rows_of_record(MmeStore& s, const SspSection& sec, SspScratch& w, const Pool& p, i64 b, i64 e,
                   i64 n, i64 limit, const char* text) {
  int& err = *sec.err;
  const DesignView& d = sec.design;
  i32 prev = 0;
  for (i64 t = b; t <= e; ++t) {
    const i32 c = d.col.at1(t);
    if (c <= prev) break;
    prev = c;
    if (c > s.neq) {
      err = 130;
      return 1;
    }
    if (!active(sec, c)) continue;
    const int r = add_to_row(s, p, c, d.val.at1(t), w.acc, w.list.data(), n);
    if (r == 136) {
      err = 136;
      return 1;
    }
    if (r == 6 || s.lx > limit) return out_of_memory(err, text);
  }
  for (i64 k = 1; k <= n; ++k) {
    w.acc.at1(w.list.at1(k)) = 0.0;
    w.links.at1(w.list.at1(k)) = 0;
  }
  return 0;
}

// Keeps the weighted design row of record `rec` (ACC over LIST) as an
// augmented row.  Rows of records that add nothing stay empty: the start
// of every record is written as the records go by.  Result 0; 1 when the
// store is full (err + 6).
int keep_augmented(const SspSection& sec, i64 rec, span<const double> acc, const i32* list,
                   i64 n) {
  AugmentedRows& a = *sec.aug;
  for (i64 k = 0; k < n; ++k) {
    if (a.used >= static_cast<i64>(a.val.size()) || a.used >= static_cast<i64>(a.col.size()))
      return out_of_memory(*sec.err, "Out of Memory forming SSP");
    a.val[a.used] = acc[list[k] - 1];
    a.col[a.used] = list[k];
    ++a.used;
  }
  a.start.at1(rec + 1) = a.used + 1;
  return 0;
}

bool augmenting(const SspSection& sec) { return (sec.flags & kSspAugment) && sec.aug != nullptr; }

// Marks an empty augmented row for a record that adds nothing.
void empty_augmented(const SspSection& sec, i64 rec) {
  if (augmenting(sec)) sec.aug->start.at1(rec + 1) = sec.aug->used + 1;
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
      if (accumulate_record(s, sec, w, b, e, rij, n)) return 1;
      if (s.lx > limit) return out_of_memory(err, "Out of Memory forming SSP");
    }
    std::sort(w.list.data(), w.list.data() + n);
    w.list.at1(n + 1) = neq + 1;
    if (augmenting(sec) && keep_augmented(sec, i, w.acc, w.list.data(), n)) return 1;
    i64 b = 0, e = 0;
    if (!record(i, b, e)) {
      err = 130;
      return 1;
    }
    if (rows_of_record(s, sec, w, p, b, e, n, limit, "Out of Memory forming SSP")) return 1;
  }
  return 0;
}

int invalid_multivariate(const SspSection& sec) {
  g5verror("Invalid Multivariate Error Structure", 3);
  if (sec.trace) {
    vprt("XXS 200 section %d term code %d traits %d\n", sec.section, sec.termcode, sec.ntraits);
    for (int k = 0; k < sec.rsrc.nsect && sec.rsrc.rows != nullptr; ++k) {
      const StrucRow r = sec.rsrc.rows[k];
      if (r.p == nullptr) continue;
      vprt("XXS 200 factor %d:", k + 1);
      const int nf = sec.lstruc > 0 ? std::min(sec.lstruc, 15) : 15;
      for (int f = 1; f <= nf; ++f) vprt(" %d", r.field(f));
      vprt("\n");
    }
  }
  *sec.err += 1000;
  return 1;
}

// The multivariate path: R block diagonal by unit of T traits.
int multivariate(MmeStore& s, const SspSection& sec, SspScratch& w, const Pool& p, i64 limit,
                 i64 nrec) {
  int& err = *sec.err;
  const i32 neq = s.neq;
  const int t = sec.ntraits;
  const DesignView& d = sec.design;
  const RowSource& src = sec.rsrc;
  const bool identity = sec.termcode == -1;
  // A caller that hands no multivariate scratch has not set the section up
  // for several traits (views and the log-determinant convention above).
  if (sec.mvwork.empty() && sec.mviwork.empty()) {
    g5verror(" Multivariate residual sections not available yet", 3);
    err += 1000;
    return 1;
  }

  // Permitted structures.
  bool ok = nrec % t == 0;
  bool constant = sec.weights.empty();  // the same block for every unit of a pattern
  if (ok && !identity) {
    ok = sec.termcode == -3 && src.nsect >= 1 && src.records != nullptr && src.rows != nullptr &&
         src.work != nullptr && src.giv != nullptr;
    if (ok) {
      const StrucRow last = src.rows[src.nsect - 1];
      ok = last.p != nullptr && last.field(kOrder) == t && last.field(kGform) != 2;
      i64 prod = t;
      for (int k = 0; ok && k < src.nsect - 1; ++k) {
        const StrucRow r = src.rows[k];
        if (r.p == nullptr || r.field(kGform) == 2 || r.field(kOrder) < 1) {
          ok = false;
          break;
        }
        const int m = r.field(kModel), ord = r.field(kOrder);
        if (m != 0 && m != 8 && ord != 1) ok = false;
        if (m == 8 && ord > 1) constant = false;
        prod *= ord;
      }
      if (ok && src.nsect > 1 && prod != nrec) ok = false;
    }
  }
  if (!ok) return invalid_multivariate(sec);
  if (w.links.size() < static_cast<size_t>(neq) ||
      sec.mvwork.size() < static_cast<size_t>(mv_scratch_reals(t)) ||
      sec.mviwork.size() < static_cast<size_t>(mv_scratch_ints(t)) ||
      (!sec.weights.empty() && sec.weights.size() < static_cast<size_t>(sec.last)) ||
      (augmenting(sec) && sec.aug->start.size() < static_cast<size_t>(sec.last) + 1)) {
    err = 130;
    return 1;
  }
  const size_t tt = static_cast<size_t>(t) * t;
  span<double> block(sec.mvwork.data(), tt);
  span<double> roots(sec.mvwork.data() + tt, static_cast<size_t>(t));
  span<double> mscratch(sec.mvwork.data() + tt + t, sec.mvwork.size() - tt - t);
  span<int> pattern(sec.mviwork.data(), static_cast<size_t>(t));
  span<int> prevpat(sec.mviwork.data() + t, static_cast<size_t>(t));
  span<int> iscr(sec.mviwork.data() + 2 * t, sec.mviwork.size() - 2 * static_cast<size_t>(t));

  // Identity: gamma from word 4 of the section's row, as in the univariate case.
  double gam = 1.0;
  if (identity && sec.lstruc >= 4) {
    const i64 at = static_cast<i64>(sec.section - 1) * sec.lstruc + 3;
    if (at >= 0 && static_cast<size_t>(at) < sec.struc.size()) {
      const int g = sec.struc[at];
      if (g > 0 && static_cast<size_t>(g) <= sec.gammas.size() && sec.gammas.at1(g) > 0)
        gam = sec.gammas.at1(g);
    }
  }
  const double scl = (sec.sigma2 != 1.0 && sec.sigma2 != 0.0) ? 1.0 / sec.sigma2 : 1.0;
  const bool logs2 = sec.sigma2 > f32(1e-9);
  *sec.logdet += sec.sectlogdet;
  if (augmenting(sec)) sec.aug->start.at1(sec.first) = sec.aug->used + 1;

  auto record = [&](i64 r, i64& b, i64& e) {
    b = d.start.at1(r);
    e = d.start.at1(r + 1) - 1;
    return b >= 1 && e <= static_cast<i64>(d.val.size()) && e >= b - 1;
  };

  const i64 units = nrec / t;
  bool have = false;  // block holds the previous unit's pattern
  double corr = 0.0;
  for (i64 u = 1; u <= units; ++u) {
    const i64 r0 = sec.first + (u - 1) * t;
    // The unit's pattern of observed traits.
    int nobs = 0;
    double logw = 0.0;
    for (int i = 0; i < t; ++i) {
      i64 b = 0, e = 0;
      if (!record(r0 + i, b, e)) {
        err = 130;
        return 1;
      }
      const double y = (e >= b && d.col.at1(b) == 1) ? d.val.at1(b) : 0.0;
      bool obs = !(y == sec.missing || is_missing(y));
      roots[i] = 1.0;
      if (obs && !sec.weights.empty()) {
        const double wt = sec.weights.at1(r0 + i);
        if (wt < 0 || !std::isfinite(wt)) {
          g5verror(" Negative or undefined weight in a multivariate section", 3);
          err += 1000;
          return 1;
        }
        if (wt == 0.0) {
          obs = false;
        } else {
          roots[i] = std::sqrt(wt);
          logw += std::log(wt);
        }
      }
      pattern[i] = obs ? 1 : 0;
      if (obs) {
        ++nobs;
      } else {
        ++*sec.skipped;
      }
    }
    bool same = have && constant;
    for (int i = 0; same && i < t; ++i) same = pattern[i] == prevpat[i];
    if (!same) {
      if (identity) {
        int m = 0;
        for (int i = 0; i < t; ++i) {
          for (int j = 0; j < t; ++j) block[static_cast<size_t>(i) * t + j] = 0.0;
          if (pattern[i]) {
            block[static_cast<size_t>(i) * t + i] = roots[i] * roots[i] / gam;
          } else {
            ++m;
          }
        }
        corr = -m * std::log(gam);
      } else {
        int ifault = 0;
        if (g5vxxm((u - 1) * t, t, span<const int>(pattern.data(), pattern.size()),
                   sec.weights.empty() ? span<const double>()
                                       : span<const double>(roots.data(), roots.size()),
                   src, block, corr, mscratch, iscr,
                   ifault)) {
          err = ifault ? ifault : 1;
          return 1;
        }
      }
      for (int i = 0; i < t; ++i) prevpat[i] = pattern[i];
      have = constant;
    }
    *sec.logdet += corr - logw;
    if (logs2) *sec.logdet += nobs * std::log(sec.sigma2);
    if (nobs == 0) {
      for (int i = 0; i < t; ++i) empty_augmented(sec, r0 + i);
      continue;
    }
    // Each observed trait i: ACC = sum over observed j of R^-1(i,j) x_j,
    // then the columns of x_i as rows.
    for (int i = 0; i < t; ++i) {
      if (!pattern[i]) {
        empty_augmented(sec, r0 + i);
        continue;
      }
      i64 n = 0;
      for (int j = 0; j < t; ++j) {
        const double rij = pattern[j] ? block[static_cast<size_t>(i) * t + j] * scl : 0.0;
        if (rij == 0.0) continue;
        i64 b = 0, e = 0;
        record(r0 + j, b, e);
        if (accumulate_record(s, sec, w, b, e, rij, n)) return 1;
        if (s.lx > limit) return out_of_memory(err, "Out of Memory forming SSP (MultiV)");
      }
      std::sort(w.list.data(), w.list.data() + n);
      w.list.at1(n + 1) = neq + 1;
      if (augmenting(sec) && keep_augmented(sec, r0 + i, w.acc, w.list.data(), n)) return 1;
      i64 b = 0, e = 0;
      record(r0 + i, b, e);
      if (rows_of_record(s, sec, w, p, b, e, n, limit, "Out of Memory forming SSP (MultiV)")) return 1;
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
  const i64 nrec = sec.last - sec.first + 1;
  if (augmenting(sec) && sec.aug->start.size() < static_cast<size_t>(sec.last) + 1) {
    err = 130;
    return 1;
  }
  if (sec.ntraits > 1) return multivariate(s, sec, w, p, limit, nrec);
  if (kase >= 0 && sec.weights.size() < static_cast<size_t>(sec.last)) {
    err = 130;
    return 1;
  }
  if (augmenting(sec)) sec.aug->start.at1(sec.first) = sec.aug->used + 1;
  if (kase == -3) return general_case(s, sec, w, p, limit, nrec);
  if (nrec > 0 && sec.sigma2 > f32(1e-9)) *sec.logdet += nrec * std::log(sec.sigma2);

  for (i64 i = sec.first; i <= sec.last; ++i) {
    double wt = w0;
    if (kase >= 0) {
      wt = w0 * sec.weights.at1(i);
      if (wt == 0.0) {
        ++*sec.skipped;
        empty_augmented(sec, i);
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
    if (augmenting(sec) && keep_augmented(sec, i, w.acc, w.list.data(), n)) return 1;
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
      // `values` comes in clear: the callers clear the columns they read,
      // so a row costs its own length, not the section's order.
      int cnt = 0;
      if (g5vvrw(values, cols, cnt, rownum, ordk, rec6, row, *src.work, 0, row.field(kModel),
                 *src.giv, src.unit, ifault))
        return 1;
      count = cnt;
      order = ordk;
      if (count == 0) return 0;
      continue;
    }
    // The scratch row is kept clear the same way: its columns are cleared
    // once they have been multiplied out.
    int cnt = 0;
    if (g5vvrw(src.scratch, src.scols, cnt, rownum, ordk, rec6, row, *src.work, 0,
               row.field(kModel), *src.giv, src.unit, ifault)) {
      for (int is = 0; is < cnt; ++is) src.scratch[src.scols[is] - 1] = 0.0;
      return 1;
    }
    if (cnt == 0) {
      for (int ic = 0; ic < count; ++ic) values[cols[ic] - 1] = 0.0;
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
    for (int is = 0; is < cnt; ++is) src.scratch[src.scols[is] - 1] = 0.0;
    count *= cnt;
    order *= ordk;
  }
  if (scale != 1.0 && scale != 0.0)
    for (int k = 0; k < count; ++k) values[cols[k] - 1] /= scale;
  return 0;
}

int g5vxxm(i64 startrow, int t, span<const int> pattern, span<const double> roots,
           const RowSource& src, span<double> block, double& corr, span<double> scratch,
           span<int> iscratch, int& ifault) {
  corr = 0.0;
  const size_t tt = static_cast<size_t>(t) * t;
  const size_t np = static_cast<size_t>(t) * (t + 1) / 2;
  if (t < 1 || src.nsect < 1 || src.records == nullptr || src.rows == nullptr ||
      src.work == nullptr || src.giv == nullptr || pattern.size() < static_cast<size_t>(t) ||
      (!roots.empty() && roots.size() < static_cast<size_t>(t)) || block.size() < tt ||
      scratch.size() < tt + np + 2 * static_cast<size_t>(t) ||
      iscratch.size() < 3 * static_cast<size_t>(t))
    return g5vflt(ifault, 6);
  const StrucRow lrow = src.rows[src.nsect - 1];
  if (lrow.p == nullptr || lrow.field(kOrder) != t) return g5vflt(ifault, 6);
  const i64* lrec = src.second ? src.records[src.nsect - 1].second()
                               : src.records[src.nsect - 1].first();
  span<double> P(scratch.data(), tt);
  span<double> packed(scratch.data() + tt, np);
  span<double> dscr(scratch.data() + tt + np, static_cast<size_t>(t));
  span<double> vals(scratch.data() + tt + np + t, static_cast<size_t>(t));
  span<int> perm(iscratch.data(), static_cast<size_t>(t));
  span<int> perm2(iscratch.data() + t, static_cast<size_t>(t));
  span<int> cols(iscratch.data() + 2 * t, static_cast<size_t>(t));
  for (int j = 0; j < t; ++j) vals[j] = 0.0;

  // A tridiagonal inverse of the traits' order is read straight from its
  // two stored diagonals.
  const i64 kind = lrec[0], scale = lrec[1], pos = lrec[2];
  const bool band = kind == 3 && pos > 0 && scale <= 1000;
  const WorkArray& work = *src.work;
  if (band && static_cast<u64>(pos + 2 * static_cast<i64>(t) - 1) > work.len) return g5vflt(ifault, 6);
  if (band && scale < 0 && static_cast<u64>(-scale) > work.len) return g5vflt(ifault, 6);

  // P = Sigma_u^-1, row by row: the traits' factor times the earlier
  // factors' single elements at the unit.
  for (int i = 1; i <= t; ++i) {
    double* row = P.data() + static_cast<size_t>(i - 1) * t;
    for (int j = 0; j < t; ++j) row[j] = 0.0;
    i64 rownum = startrow + i - 1;
    if (band) {
      const int ii = static_cast<int>(rownum % t) + 1;
      rownum /= t;
      const double f = scale < 0 ? work.r[-scale - 1] : 1.0;
      row[ii - 1] = f * work.r[pos + ii - 2];
      if (ii > 1) row[ii - 2] = f * work.r[pos + t + ii - 3];
      if (ii < t) row[ii] = f * work.r[pos + t + ii - 2];
    } else {
      int cnt = 0;
      if (g5vvrw(vals, cols, cnt, rownum, t, lrec, lrow, work, 0, lrow.field(kModel), *src.giv,
                 src.unit, ifault))
        return 1;
      for (int q = 0; q < cnt; ++q) {
        const int c = cols[q];
        row[c - 1] = vals[c - 1];
        vals[c - 1] = 0.0;
      }
    }
    for (int k = src.nsect - 2; k >= 0; --k) {
      const StrucRow r = src.rows[k];
      const int ord = r.field(kOrder);
      const i64* rec = src.second ? src.records[k].second() : src.records[k].first();
      if (ord < 1 || src.scratch.size() < static_cast<size_t>(ord) ||
          src.scols.size() < static_cast<size_t>(ord))
        return g5vflt(ifault, 6);
      const int want = static_cast<int>(rownum % ord) + 1;
      int cnt = 0;
      if (g5vvrw(src.scratch, src.scols, cnt, rownum, ord, rec, r, work, 0, r.field(kModel),
                 *src.giv, src.unit, ifault))
        return 1;
      double v = 0.0;
      bool diag = true;
      for (int q = 0; q < cnt; ++q) {
        const int c = src.scols[q];
        if (c == want) {
          v = src.scratch[c - 1];
        } else {
          diag = false;
        }
        src.scratch[c - 1] = 0.0;
      }
      if (!diag || cnt != 1) {
        g5verror("Invalid Multivariate Error Structure", 3);
        return g5vflt(ifault, 1000 + r.field(kModel));
      }
      for (int j = 0; j < t; ++j) row[j] *= v;
    }
  }

  // The inverse of the observed block of Sigma_u is the Schur complement
  // P_oo - P_om P_mm^-1 P_mo, and |Sigma_u,oo| = |Sigma_u| |P_mm|.
  int m = 0;
  for (int i = 0; i < t; ++i)
    if (!pattern[i]) perm2[m++] = i;  // unobserved traits, 0-based
  for (size_t k = 0; k < tt; ++k) block[k] = 0.0;
  if (m > 0) {
    for (int a = 0; a < m; ++a)
      for (int b = 0; b <= a; ++b)
        packed[packed_index(a + 1, b + 1)] = P[static_cast<size_t>(perm2[a]) * t + perm2[b]];
    // Keep the unobserved positions: g5vsmi uses both integer views.
    for (int a = 0; a < m; ++a) cols[a] = perm2[a];
    int mode = 0, rank = m, neg = 0;
    double ld = 0.0;
    g5vsmi(span<double>(packed.data(), packed_size(m)), dscr, perm, perm2, mode, rank, ld, neg);
    const int nonpos = neg >= 0 ? neg : -1 - neg;
    if (mode != 0 || nonpos != 0) {
      g5verror(" Residual matrix of the missing traits not positive definite", 3);
      return g5vflt(ifault, 1000 + lrow.field(kModel));
    }
    corr = ld;
    for (int i = 0; i < t; ++i) {
      if (!pattern[i]) continue;
      // dscr = P_mm^-1 P_m,i
      for (int a = 0; a < m; ++a) {
        double sum = 0.0;
        for (int b = 0; b < m; ++b)
          sum += packed[packed_index(a + 1, b + 1)] * P[static_cast<size_t>(cols[b]) * t + i];
        dscr[a] = sum;
      }
      for (int j = 0; j < t; ++j) {
        if (!pattern[j]) continue;
        double sum = P[static_cast<size_t>(i) * t + j];
        for (int a = 0; a < m; ++a) sum -= P[static_cast<size_t>(j) * t + cols[a]] * dscr[a];
        block[static_cast<size_t>(i) * t + j] = sum;
      }
    }
  } else {
    for (size_t k = 0; k < tt; ++k) block[k] = P[k];
  }
  if (!roots.empty())
    for (int i = 0; i < t; ++i)
      for (int j = 0; j < t; ++j) block[static_cast<size_t>(i) * t + j] *= roots[i] * roots[j];
  return 0;
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
