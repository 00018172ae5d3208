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

// Error word of a column above NEQ or views too small.
constexpr int kBadDesign = 130;
// Error words of add_to_row.
constexpr int kBrokenRow = 136;
constexpr int kNoSlot = 6;
// Added to the error word by a multivariate section that cannot be handled.
constexpr int kInvalidMultivariate = 1000;

// The design values of record r: positions b..e.  False when they lie
// outside the views.
bool record_range(const DesignView& d, i64 r, i64& b, i64& e) {
  b = d.start.at1(r);
  e = d.start.at1(r + 1) - 1;
  return b >= 1 && e <= static_cast<i64>(d.val.size()) && e >= b - 1;
}

// Calls fn(c, value) for the active columns c of the record's design values
// b..e, which end early at a column not above its predecessor; stops when
// fn returns 1.  Result 1 on a fault (err 130 for a column above NEQ, or
// what fn set).
template <class Fn>
int for_each_column(const MmeStore& s, const SspSection& sec, i64 b, i64 e, Fn&& fn) {
  const DesignView& d = sec.design;
  i32 prev = 0;
  for (i64 t = b; t <= e; ++t) {
    const i32 c = d.col.at1(t);
    if (c <= prev) break;
    prev = c;
    if (c > s.neq) {
      *sec.err = kBadDesign;
      return 1;
    }
    if (!active(sec, c)) continue;
    if (fn(c, d.val.at1(t))) return 1;
  }
  return 0;
}

// Row c takes value(c) ACC(a) for a in LIST (n entries).  Result 1 on a
// fault (err set: 136 a broken row, +6 out of memory with `text`).
int add_row(MmeStore& s, const SspSection& sec, const SspScratch& w, const Pool& p, i32 c,
            double v, i64 n, i64 limit, const char* text) {
  const int r = add_to_row(s, p, c, v, w.acc, w.list.data(), n);
  if (r == kBrokenRow) {
    *sec.err = kBrokenRow;
    return 1;
  }
  if (r == kNoSlot || s.lx > limit) return out_of_memory(*sec.err, text);
  return 0;
}

// ACC += rij times the record's design values b..e over its active columns;
// a column met for the first time is marked and appended to LIST (n
// entries so far).  Result 1 with err 130 for a column above NEQ.
int accumulate_record(const MmeStore& s, const SspSection& sec, SspScratch& w, i64 b, i64 e,
                      double rij, i64& n) {
  return for_each_column(s, sec, b, e, [&](i32 c, double v) {
    if (w.links.at1(c) == 0) {
      w.links.at1(c) = 1;
      w.list.at1(++n) = c;
    }
    w.acc.at1(c) += rij * v;
    return 0;
  });
}

// Takes each active column c of the record's design values b..e as a row
// and adds value(c) ACC(a) for a in LIST (the first n entries, at most c);
// then clears ACC and the marks over LIST.  Result 1 on a fault (err set:
// 130 a column above NEQ, 136 a broken row, +6 out of memory with `text`).
int rows_of_record(MmeStore& s, const SspSection& sec, SspScratch& w, const Pool& p, i64 b, i64 e,
                   i64 n, i64 limit, const char* text) {
  if (for_each_column(s, sec, b, e, [&](i32 c, double v) {
        return add_row(s, sec, w, p, c, v, n, limit, text);
      }))
    return 1;
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

// Record `rec` after ACC holds (R^-1 X)(rec, .) over LIST (n entries): LIST
// sorted and closed, the augmented row kept, and each column c of the
// record as a row gets x_rec(c) ACC(a), a <= c.  Result 1 on a fault.
int close_record(MmeStore& s, const SspSection& sec, SspScratch& w, const Pool& p, i64 limit,
                 i64 rec, i64 n, const char* text) {
  std::sort(w.list.data(), w.list.data() + n);
  w.list.at1(n + 1) = s.neq + 1;
  if (augmenting(sec) && keep_augmented(sec, rec, w.acc, w.list.data(), n)) return 1;
  i64 b = 0, e = 0;
  if (!record_range(sec.design, rec, b, e)) {
    *sec.err = kBadDesign;
    return 1;
  }
  return rows_of_record(s, sec, w, p, b, e, n, limit, text);
}

// The weight of record i of a diagonal section: w0, times the record's own
// weight when the section has weights (termcode >= 0).
double record_weight(const SspSection& sec, double w0, i64 i) {
  return sec.termcode >= 0 ? w0 * sec.weights.at1(i) : w0;
}

// A record of weight 0 adds nothing and is counted as skipped; a weighted
// record's weight enters the log determinant.  True when the record is
// skipped.
bool skip_record(const SspSection& sec, double wt, i64 i) {
  if (sec.termcode < 0) return false;
  if (wt == 0.0) {
    ++*sec.skipped;
    empty_augmented(sec, i);
    return true;
  }
  if (wt > 0) *sec.logdet -= std::log(sec.weights.at1(i));
  return false;
}

// Diagonal R, record by record: each record's columns as rows, against the
// record itself.
int diagonal_by_records(MmeStore& s, const SspSection& sec, SspScratch& w, const Pool& p, i64 limit,
                        double w0) {
  for (i64 i = sec.first; i <= sec.last; ++i) {
    const double wt = record_weight(sec, w0, i);
    if (skip_record(sec, wt, i)) continue;
    i64 b = 0, e = 0;
    if (!record_range(sec.design, i, b, e)) {
      *sec.err = kBadDesign;
      return 1;
    }
    i64 n = 0;
    if (for_each_column(s, sec, b, e, [&](i32 c, double v) {
          w.acc.at1(c) = wt * v;
          w.list.at1(n + 1) = c;
          ++n;
          return add_row(s, sec, w, p, c, v, n, limit, "Out of Memory forming SSP");
        }))
      return 1;
    if (augmenting(sec) && keep_augmented(sec, i, w.acc, w.list.data(), n)) return 1;
    for (i64 k = 1; k <= n; ++k) w.acc.at1(w.list.at1(k)) = 0.0;
  }
  return 0;
}

// The records of a diagonal section by column: the records that hold
// column c (active, weight not 0) are rec[at[c-1]] .. rec[at[c]-1], in
// record order.  Also does what each record owes once: the skipped count,
// the log determinant of the weights and the augmented row.  Result 1 on a
// fault.
int index_by_column(const MmeStore& s, const SspSection& sec, SspScratch& w, double w0, i64* at,
                    i64* rec) {
  const i32 neq = s.neq;
  std::fill(at, at + neq + 2, 0);
  for (int pass = 0; pass < 2; ++pass) {
    for (i64 i = sec.first; i <= sec.last; ++i) {
      const double wt = record_weight(sec, w0, i);
      if (pass == 0 ? skip_record(sec, wt, i) : wt == 0.0 && sec.termcode >= 0) continue;
      i64 b = 0, e = 0;
      if (!record_range(sec.design, i, b, e)) {
        *sec.err = kBadDesign;
        return 1;
      }
      i64 n = 0;
      if (for_each_column(s, sec, b, e, [&](i32 c, double v) {
            if (pass == 1) {
              rec[at[c]++] = i;
            } else {
              ++at[c + 1];
              w.acc.at1(c) = wt * v;
              w.list.at1(++n) = c;
            }
            return 0;
          }))
        return 1;
      if (pass == 1) continue;
      if (augmenting(sec) && keep_augmented(sec, i, w.acc, w.list.data(), n)) return 1;
      for (i64 k = 1; k <= n; ++k) w.acc.at1(w.list.at1(k)) = 0.0;
    }
    // After the counts at[c+1] holds column c's count: their running sums
    // give each column's first entry in at[c], the cursor of the second
    // pass, which leaves at[c] at the end of column c.
    if (pass == 0)
      for (i32 c = 1; c <= neq + 1; ++c) at[c] += at[c - 1];
  }
  return 0;
}

// Row c of the equations from the records that hold column c: ACC(a) sums
// x_i(c) (w_i x_i(a)) over them, for the columns a <= c of each, in record
// order as the record-by-record path adds them; LIST holds the columns
// touched (n of them), marked in LINKS.
void accumulate_row(const SspSection& sec, SspScratch& w, double w0, i32 c, const i64* rec, i64 nrec,
                    i64& n) {
  const DesignView& d = sec.design;
  // The records lie anywhere in the design: their starts are fetched eight
  // records ahead and their values four ahead.
  constexpr i64 kAhead = 4;
  for (i64 k = 0; k < nrec; ++k) {
    if (k + 2 * kAhead < nrec) __builtin_prefetch(&d.start.at1(rec[k + 2 * kAhead]));
    if (k + kAhead < nrec) {
      const i64 bn = d.start.at1(rec[k + kAhead]);
      __builtin_prefetch(&d.col.at1(bn));
      __builtin_prefetch(&d.val.at1(bn));
    }
    const i64 i = rec[k];
    const double wt = record_weight(sec, w0, i);
    const i64 b = d.start.at1(i);
    i64 tc = b;
    while (d.col.at1(tc) != c) ++tc;  // the index says the record holds c
    const double vc = d.val.at1(tc);
    for (i64 t = b; t <= tc; ++t) {
      const i32 a = d.col.at1(t);
      if (!active(sec, a)) continue;
      if (w.links.at1(a) == 0) {
        w.links.at1(a) = 1;
        w.list.at1(++n) = a;
      }
      w.acc.at1(a) += vc * (wt * d.val.at1(t));
    }
  }
}

// Writes ACC over LIST (sorted, n entries) into row c: added to the dense
// triangle, appended as a new chain to an untouched row, or merged into
// the row's chain.  Result 0, or the error word (136 a broken row, 6 no
// slot).
int write_row(MmeStore& s, const Pool& p, i32 c, span<const double> acc, const i32* list, i64 n) {
  if (c <= s.ndense) {
    const i64 base = static_cast<i64>(c) * (c - 1) / 2;
    for (i64 k = 0; k < n; ++k) s.x[base + list[k] - 1] += acc[list[k] - 1];
    return 0;
  }
  const i64 head = s.head(c);
  if (p.lnk(head) != -1) {
    i64 pos = head;
    for (i64 k = 0; k < n; ++k) {
      const int r = g5vlli(p, s.lx, pos, list[k], acc[list[k] - 1]);
      if (r == 1) return kBrokenRow;
      if (r == 2) return kNoSlot;
    }
    return 0;
  }
  i64 k = 0;
  if (n > 0 && list[0] == 1) {
    p.val(head) += acc[0];
    ++k;
  }
  if (!p.ok(s.lx + (n - k))) return kNoSlot;
  i64 last = head;
  for (; k < n; ++k) {
    const i64 slot = ++s.lx;
    p.val(slot) = acc[list[k] - 1];
    p.col(slot) = list[k];
    p.lnk(slot) = 0;
    p.lnk(last) = static_cast<i32>(slot);
    last = slot;
  }
  return 0;
}

// Diagonal R, row by row: the records are indexed by column, and each row
// of the equations is summed in ACC and then written once, instead of
// walking the row's chain for every record.  The sums are those of the
// record-by-record path, in the same order.
int diagonal_by_rows(MmeStore& s, const SspSection& sec, SspScratch& w, const Pool& p, i64 limit,
                     double w0) {
  const i32 neq = s.neq;
  i64* at = reinterpret_cast<i64*>(w.room.data());
  i64* rec = at + neq + 2;
  if (index_by_column(s, sec, w, w0, at, rec)) return 1;
  for (i32 c = 1; c <= neq; ++c) {
    const i64 nrec = at[c] - at[c - 1];
    if (nrec == 0) continue;
    i64 n = 0;
    accumulate_row(sec, w, w0, c, rec + at[c - 1], nrec, n);
    i32* list = w.list.data();
    std::sort(list, list + n);
    const int r = write_row(s, p, c, w.acc, list, n);
    for (i64 k = 0; k < n; ++k) {
      w.acc.at1(list[k]) = 0.0;
      w.links.at1(list[k]) = 0;
    }
    if (r == kBrokenRow) {
      *sec.err = kBrokenRow;
      return 1;
    }
    if (r == kNoSlot || s.lx > limit) return out_of_memory(*sec.err, "Out of Memory forming SSP");
  }
  return 0;
}

// The scale parameter of an identity section: the parameter named by the
// kGfirst word of the section's struc row, when it names a positive one;
// otherwise 1.
double identity_gamma(const SspSection& sec) {
  if (sec.lstruc < kGfirst) return 1.0;
  const i64 at = static_cast<i64>(sec.section - 1) * sec.lstruc + (kGfirst - 1);
  if (at < 0 || static_cast<size_t>(at) >= sec.struc.size()) return 1.0;
  const int g = sec.struc[at];
  if (g > 0 && static_cast<size_t>(g) <= sec.gammas.size() && sec.gammas.at1(g) > 0)
    return sec.gammas.at1(g);
  return 1.0;
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
    err = kBadDesign;
    return 1;
  }
  *sec.logdet += sec.sectlogdet;
  if (nrec > 0 && sec.sigma2 > f32(1e-9)) *sec.logdet += nrec * std::log(sec.sigma2);
  for (i64 k = 0; k < nrec; ++k) sec.rrow[k] = 0.0;
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
        err = kBadDesign;
        return 1;
      }
      const double rij = sec.rrow[jj - 1];
      sec.rrow[jj - 1] = 0.0;
      if (rij == 0.0) continue;
      i64 b = 0, e = 0;
      if (!record_range(d, sec.first + jj - 1, b, e)) {
        err = kBadDesign;
        return 1;
      }
      if (accumulate_record(s, sec, w, b, e, rij, n)) return 1;
      if (s.lx > limit) return out_of_memory(err, "Out of Memory forming SSP");
    }
    if (close_record(s, sec, w, p, limit, i, n, "Out of Memory forming SSP")) return 1;
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
  *sec.err += kInvalidMultivariate;
  return 1;
}

// Whether a multivariate section's structure is one of those permitted
// (see SspSection); `constant` is cleared when the block of a unit may
// differ between units of the same pattern.
bool permitted_multivariate(const SspSection& sec, i64 nrec, bool& constant) {
  const RowSource& src = sec.rsrc;
  const int t = sec.ntraits;
  if (nrec % t != 0) return false;
  if (sec.termcode == -1) return true;
  if (!(sec.termcode == -3 && src.nsect >= 1 && src.records != nullptr && src.rows != nullptr &&
        src.work != nullptr && src.giv != nullptr))
    return false;
  const StrucRow last = src.rows[src.nsect - 1];
  if (!(last.p != nullptr && last.field(kOrder) == t && last.field(kGform) != 2)) return false;
  i64 prod = t;
  for (int k = 0; k < src.nsect - 1; ++k) {
    const StrucRow r = src.rows[k];
    if (r.p == nullptr || r.field(kGform) == 2 || r.field(kOrder) < 1) return false;
    const int m = r.field(kModel), ord = r.field(kOrder);
    if (m != 0 && m != 8 && ord != 1) return false;
    if (m == 8 && ord > 1) constant = false;
    prod *= ord;
  }
  return !(src.nsect > 1 && prod != nrec);
}

// One unit of a multivariate section and the scratch its steps share.
struct MvUnit {
  int t = 0;
  span<double> block;      // t*t: R_u^-1 before the scale
  span<double> roots;      // t: square roots of the weights
  span<double> mscratch;   // g5vxxm's scratch
  span<int> pattern;       // t: 1 for an observed trait
  span<int> prevpat;       // t: the pattern the block was formed for
  span<int> iscr;          // g5vxxm's integer scratch
  i64 r0 = 0;              // the unit's first record
  int nobs = 0;            // observed traits
  double logw = 0.0;       // sum of the log weights of the observed traits
  double corr = 0.0;       // log-determinant correction of the block
};

// The unit's pattern of observed traits, the roots of their weights and
// their log sum.  Result 1 on a fault.
int unit_pattern(const SspSection& sec, MvUnit& u) {
  const DesignView& d = sec.design;
  u.nobs = 0;
  u.logw = 0.0;
  for (int i = 0; i < u.t; ++i) {
    i64 b = 0, e = 0;
    if (!record_range(d, u.r0 + i, b, e)) {
      *sec.err = kBadDesign;
      return 1;
    }
    const double y = (e >= b && d.col.at1(b) == 1) ? d.val.at1(b) : 0.0;
    bool obs = !(y == sec.missing || is_missing(y));
    u.roots[i] = 1.0;
    if (obs && !sec.weights.empty()) {
      const double wt = sec.weights.at1(u.r0 + i);
      if (wt < 0 || !std::isfinite(wt)) {
        g5verror(" Negative or undefined weight in a multivariate section", 3);
        *sec.err += kInvalidMultivariate;
        return 1;
      }
      if (wt == 0.0) {
        obs = false;
      } else {
        u.roots[i] = std::sqrt(wt);
        u.logw += std::log(wt);
      }
    }
    u.pattern[i] = obs ? 1 : 0;
    if (obs) {
      ++u.nobs;
    } else {
      ++*sec.skipped;
    }
  }
  return 0;
}

// The unit's block of R^-1 (unit `unit`, from 1) and its log-determinant
// correction: gamma I over the observed traits for an identity section,
// otherwise from the product.  Result 1 on a fault.
int unit_block(const SspSection& sec, MvUnit& u, i64 unit, double gam) {
  const int t = u.t;
  if (sec.termcode == -1) {
    int m = 0;
    for (int i = 0; i < t; ++i) {
      for (int j = 0; j < t; ++j) u.block[static_cast<size_t>(i) * t + j] = 0.0;
      if (u.pattern[i]) {
        u.block[static_cast<size_t>(i) * t + i] = u.roots[i] * u.roots[i] / gam;
      } else {
        ++m;
      }
    }
    u.corr = -m * std::log(gam);
    return 0;
  }
  int ifault = 0;
  if (g5vxxm((unit - 1) * t, t, span<const int>(u.pattern.data(), u.pattern.size()),
             sec.weights.empty() ? span<const double>()
                                 : span<const double>(u.roots.data(), u.roots.size()),
             sec.rsrc, u.block, u.corr, u.mscratch, u.iscr, ifault)) {
    *sec.err = ifault ? ifault : 1;
    return 1;
  }
  return 0;
}

// Each observed trait i of the unit: ACC = sum over observed j of
// R^-1(i,j) x_j (R^-1 the block times `scl`), then the columns of x_i as
// rows.  Result 1 on a fault.
int unit_rows(MmeStore& s, const SspSection& sec, SspScratch& w, const Pool& p, i64 limit,
              const MvUnit& u, double scl) {
  static const char* const text = "Out of Memory forming SSP (MultiV)";
  const int t = u.t;
  for (int i = 0; i < t; ++i) {
    if (!u.pattern[i]) {
      empty_augmented(sec, u.r0 + i);
      continue;
    }
    i64 n = 0;
    for (int j = 0; j < t; ++j) {
      const double rij = u.pattern[j] ? u.block[static_cast<size_t>(i) * t + j] * scl : 0.0;
      if (rij == 0.0) continue;
      i64 b = 0, e = 0;
      record_range(sec.design, u.r0 + j, b, e);
      if (accumulate_record(s, sec, w, b, e, rij, n)) return 1;
      if (s.lx > limit) return out_of_memory(*sec.err, text);
    }
    if (close_record(s, sec, w, p, limit, u.r0 + i, n, text)) return 1;
  }
  return 0;
}

// The multivariate path: R block diagonal by unit of T traits.
int multivariate(MmeStore& s, const SspSection& sec, SspScratch& w, const Pool& p, i64 limit,
                 i64 nrec) {
  const int t = sec.ntraits;
  // A caller that hands no multivariate scratch has not set the section up
  // for several traits (views and the log-determinant convention above).
  if (sec.mvwork.empty() && sec.mviwork.empty()) {
    g5verror(" Multivariate residual sections not available yet", 3);
    *sec.err += kInvalidMultivariate;
    return 1;
  }
  bool constant = sec.weights.empty();  // the same block for every unit of a pattern
  if (!permitted_multivariate(sec, nrec, constant)) return invalid_multivariate(sec);
  if (w.links.size() < static_cast<size_t>(s.neq) ||
      sec.mvwork.size() < static_cast<size_t>(mv_scratch_reals(t)) ||
      sec.mviwork.size() < static_cast<size_t>(mv_scratch_ints(t)) ||
      (!sec.weights.empty() && sec.weights.size() < static_cast<size_t>(sec.last)) ||
      (augmenting(sec) && sec.aug->start.size() < static_cast<size_t>(sec.last) + 1)) {
    *sec.err = kBadDesign;
    return 1;
  }
  MvUnit u;
  u.t = t;
  const size_t tt = static_cast<size_t>(t) * t;
  u.block = span<double>(sec.mvwork.data(), tt);
  u.roots = span<double>(sec.mvwork.data() + tt, static_cast<size_t>(t));
  u.mscratch = span<double>(sec.mvwork.data() + tt + t, sec.mvwork.size() - tt - t);
  u.pattern = span<int>(sec.mviwork.data(), static_cast<size_t>(t));
  u.prevpat = span<int>(sec.mviwork.data() + t, static_cast<size_t>(t));
  u.iscr = span<int>(sec.mviwork.data() + 2 * t, sec.mviwork.size() - 2 * static_cast<size_t>(t));

  const double gam = sec.termcode == -1 ? identity_gamma(sec) : 1.0;
  const double scl = (sec.sigma2 != 1.0 && sec.sigma2 != 0.0) ? 1.0 / sec.sigma2 : 1.0;
  const bool logs2 = sec.sigma2 > f32(1e-9);
  *sec.logdet += sec.sectlogdet;
  if (augmenting(sec)) sec.aug->start.at1(sec.first) = sec.aug->used + 1;

  const i64 units = nrec / t;
  bool have = false;  // block holds the previous unit's pattern
  for (i64 unit = 1; unit <= units; ++unit) {
    u.r0 = sec.first + (unit - 1) * t;
    if (unit_pattern(sec, u)) return 1;
    bool same = have && constant;
    for (int i = 0; same && i < t; ++i) same = u.pattern[i] == u.prevpat[i];
    if (!same) {
      if (unit_block(sec, u, unit, gam)) return 1;
      for (int i = 0; i < t; ++i) u.prevpat[i] = u.pattern[i];
      have = constant;
    }
    *sec.logdet += u.corr - u.logw;
    if (logs2) *sec.logdet += u.nobs * std::log(sec.sigma2);
    if (u.nobs == 0) {
      for (int i = 0; i < t; ++i) empty_augmented(sec, u.r0 + i);
      continue;
    }
    if (unit_rows(s, sec, w, p, limit, u, scl)) return 1;
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
    err = kBadDesign;
    return 1;
  }
  // Choose the case.
  const int kase = sec.termcode;
  double w0 = sec.sigma2 > 0 ? 1.0 / sec.sigma2 : 0.0;
  if (kase == -1) w0 /= identity_gamma(sec);
  const i64 nrec = sec.last - sec.first + 1;
  if (augmenting(sec) && sec.aug->start.size() < static_cast<size_t>(sec.last) + 1) {
    err = kBadDesign;
    return 1;
  }
  if (sec.ntraits > 1) return multivariate(s, sec, w, p, limit, nrec);
  if (kase >= 0 && sec.weights.size() < static_cast<size_t>(sec.last)) {
    err = kBadDesign;
    return 1;
  }
  if (augmenting(sec)) sec.aug->start.at1(sec.first) = sec.aug->used + 1;
  if (kase == -3) return general_case(s, sec, w, p, limit, nrec);
  if (nrec > 0 && sec.sigma2 > f32(1e-9)) *sec.logdet += nrec * std::log(sec.sigma2);

  const i64 entries = std::max<i64>(0, d.start.at1(sec.last + 1) - d.start.at1(sec.first));
  if (static_cast<i64>(w.room.size()) >= ssp_index_words(neq, entries) &&
      w.links.size() >= static_cast<size_t>(neq))
    return diagonal_by_rows(s, sec, w, p, limit, w0);
  return diagonal_by_records(s, sec, w, p, limit, w0);
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

namespace {

// What the steps of g5vxxm share: the product's last factor (the traits)
// and the views carved from the scratch.
struct UnitInverse {
  const RowSource& src;
  int t = 0;
  StrucRow lrow;           // the traits' factor
  const i64* lrec = nullptr;
  bool band = false;       // a tridiagonal inverse read from its diagonals
  i64 scale = 0, pos = 0;  // its scale word and the first diagonal
  span<double> P;          // t*t: Sigma_u^-1
  span<double> packed;     // t(t+1)/2: P_mm, packed
  span<double> dscr;       // t
  span<double> vals;       // t: one row of the traits' factor, scattered
  span<int> perm, perm2, cols;  // t each

  explicit UnitInverse(const RowSource& s) : src(s) {}
};

// Row i (from 1) of P = Sigma_u^-1: the traits' factor times the earlier
// factors' single elements at the unit.  Result 1 on a fault.
int unit_inverse_row(UnitInverse& ui, i64 startrow, int i, int& ifault) {
  const RowSource& src = ui.src;
  const WorkArray& work = *src.work;
  const int t = ui.t;
  double* row = ui.P.data() + static_cast<size_t>(i - 1) * t;
  for (int j = 0; j < t; ++j) row[j] = 0.0;
  i64 rownum = startrow + i - 1;
  if (ui.band) {
    const int ii = static_cast<int>(rownum % t) + 1;
    rownum /= t;
    const double f = ui.scale < 0 ? work.r[-ui.scale - 1] : 1.0;
    row[ii - 1] = f * work.r[ui.pos + ii - 2];
    if (ii > 1) row[ii - 2] = f * work.r[ui.pos + t + ii - 3];
    if (ii < t) row[ii] = f * work.r[ui.pos + t + ii - 2];
  } else {
    int cnt = 0;
    if (g5vvrw(ui.vals, ui.cols, cnt, rownum, t, ui.lrec, ui.lrow, work, 0, ui.lrow.field(kModel),
               *src.giv, src.unit, ifault))
      return 1;
    for (int q = 0; q < cnt; ++q) {
      const int c = ui.cols[q];
      row[c - 1] = ui.vals[c - 1];
      ui.vals[c - 1] = 0.0;
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
      return g5vflt(ifault, kInvalidMultivariate + r.field(kModel));
    }
    for (int j = 0; j < t; ++j) row[j] *= v;
  }
  return 0;
}

// The inverse of the observed block of Sigma_u is the Schur complement
// P_oo - P_om P_mm^-1 P_mo, and |Sigma_u,oo| = |Sigma_u| |P_mm|.  Fills
// `block` and `corr` (log |P_mm|).  Result 1 on a fault.
int observed_inverse(UnitInverse& ui, span<const int> pattern, span<double> block, double& corr,
                     int& ifault) {
  const int t = ui.t;
  const span<double> P = ui.P;
  int m = 0;
  for (int i = 0; i < t; ++i)
    if (!pattern[i]) ui.perm2[m++] = i;  // unobserved traits, 0-based
  for (size_t k = 0; k < static_cast<size_t>(t) * t; ++k) block[k] = 0.0;
  if (m == 0) {
    for (size_t k = 0; k < static_cast<size_t>(t) * t; ++k) block[k] = P[k];
    return 0;
  }
  for (int a = 0; a < m; ++a)
    for (int b = 0; b <= a; ++b)
      ui.packed[packed_index(a + 1, b + 1)] = P[static_cast<size_t>(ui.perm2[a]) * t + ui.perm2[b]];
  // Keep the unobserved positions: g5vsmi uses both integer views.
  for (int a = 0; a < m; ++a) ui.cols[a] = ui.perm2[a];
  int mode = 0, rank = m, neg = 0;
  double ld = 0.0;
  g5vsmi(span<double>(ui.packed.data(), packed_size(m)), ui.dscr, ui.perm, ui.perm2, mode, rank, ld,
         neg);
  const int nonpos = neg >= 0 ? neg : -1 - neg;
  if (mode != 0 || nonpos != 0) {
    g5verror(" Residual matrix of the missing traits not positive definite", 3);
    return g5vflt(ifault, kInvalidMultivariate + ui.lrow.field(kModel));
  }
  corr = ld;
  for (int i = 0; i < t; ++i) {
    if (!pattern[i]) continue;
    // dscr = P_mm^-1 P_m,i
    for (int a = 0; a < m; ++a) {
      double sum = 0.0;
      for (int b = 0; b < m; ++b)
        sum += ui.packed[packed_index(a + 1, b + 1)] * P[static_cast<size_t>(ui.cols[b]) * t + i];
      ui.dscr[a] = sum;
    }
    for (int j = 0; j < t; ++j) {
      if (!pattern[j]) continue;
      double sum = P[static_cast<size_t>(i) * t + j];
      for (int a = 0; a < m; ++a) sum -= P[static_cast<size_t>(j) * t + ui.cols[a]] * ui.dscr[a];
      block[static_cast<size_t>(i) * t + j] = sum;
    }
  }
  return 0;
}

}  // namespace

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
  UnitInverse ui(src);
  ui.t = t;
  ui.lrow = src.rows[src.nsect - 1];
  if (ui.lrow.p == nullptr || ui.lrow.field(kOrder) != t) return g5vflt(ifault, 6);
  ui.lrec = src.second ? src.records[src.nsect - 1].second() : src.records[src.nsect - 1].first();
  ui.P = span<double>(scratch.data(), tt);
  ui.packed = span<double>(scratch.data() + tt, np);
  ui.dscr = span<double>(scratch.data() + tt + np, static_cast<size_t>(t));
  ui.vals = span<double>(scratch.data() + tt + np + t, static_cast<size_t>(t));
  ui.perm = span<int>(iscratch.data(), static_cast<size_t>(t));
  ui.perm2 = span<int>(iscratch.data() + t, static_cast<size_t>(t));
  ui.cols = span<int>(iscratch.data() + 2 * t, static_cast<size_t>(t));
  for (int j = 0; j < t; ++j) ui.vals[j] = 0.0;

  // A tridiagonal inverse of the traits' order is read straight from its
  // two stored diagonals.
  const i64 kind = ui.lrec[0];
  ui.scale = ui.lrec[1];
  ui.pos = ui.lrec[2];
  ui.band = kind == 3 && ui.pos > 0 && ui.scale <= 1000;
  const WorkArray& work = *src.work;
  if (ui.band && static_cast<u64>(ui.pos + 2 * static_cast<i64>(t) - 1) > work.len)
    return g5vflt(ifault, 6);
  if (ui.band && ui.scale < 0 && static_cast<u64>(-ui.scale) > work.len) return g5vflt(ifault, 6);

  for (int i = 1; i <= t; ++i)
    if (unit_inverse_row(ui, startrow, i, ifault)) return 1;
  if (observed_inverse(ui, pattern, block, corr, ifault)) return 1;
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
