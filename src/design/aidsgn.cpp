// Design formation: one pass over the records that leaves a sparse row of
// (value, equation) pairs for each record and trait.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "design/design.h"
#include "host/console.h"
#include "host/messages.h"

namespace tarnel {

namespace {

constexpr int kMaxStack = 10;
// pi as a single-precision value, for the periodic functions.
constexpr double kPi32 = 3.1415927410125732;

// State of one formation pass.
struct Former {
  const DesignStores& st;
  const DesignTerms& tt;
  DesignData& dd;
  int mvact, mvd, debug;
  span<char> errtxt;
  DesignResult& res;

  RowCursor cur;
  int record = 0;       // data record, from 1
  int trait = 1;
  double w = 1.0;       // the row's weight
  bool resp_missing = false;
  bool drop_row = false;
  int position = 0;     // model position being formed, from 1
  bool counts = true;   // the position counts as missing when a column is
  int listed[4] = {0, 0, 0, 0};
  int nlisted = 0;
  i64 nmiss_design = 0;
  int miss_count = 0;    // missing responses so far (mvact > 0)
  bool miss_pending = false;
  MarkerCommon marker;
  span<double> bisq;     // scratch for the bisquare basis

  Former(const DesignStores& s, const DesignTerms& t, DesignData& d, int ma, int md, int dbg,
         span<char> et, DesignResult& r)
      : st(s), tt(t), dd(d), mvact(ma), mvd(md), debug(dbg), errtxt(et), res(r) {
    cur.val = st.x.r + st.kyxz;
    cur.col = st.x.i + st.colbase;
    cur.limit = st.limit;
  }

  void fault_text(const char* text, int code) {
    put_text(errtxt.data(), errtxt.size(), text);
    res.ifault = code;
  }

  double col(int c) const { return dd.rvec[static_cast<std::size_t>(c)]; }

  // A design column is missing.
  void missaction(int column) {
    const bool takes_part = tt.submod != 0 || tt.submds[position - 1] != 1;
    if (!takes_part || !counts) return;
    for (int k = 0; k < nlisted; ++k)
      if (listed[k] == column) return;
    if (resp_missing && mvact >= 0) {
      drop_row = true;
      return;
    }
    if (nlisted < 4) listed[nlisted++] = column;
    ++nmiss_design;
    if (debug != 0 && nmiss_design <= 99)
      vprt(" Missing value: record %d, column %d, model position %d\n", record, column, position);
  }

  // Value of a function of one data value; kMissing when it has none.
  double transform(int code, double v, double fc, int c, bool response) const {
    switch (code) {
      case -16:
        return fc == 0.0 ? kMissing : std::sin(2.0 * kPi32 * v / fc);
      case -17:
        return fc == 0.0 ? kMissing : std::cos(2.0 * kPi32 * v / fc);
      case -18:
        return v + fc < 0 ? kMissing : std::sqrt(v + fc);
      case -19:
        return std::fabs(v + fc) <= 35.0 ? std::exp(v + fc) : kMissing;
      case -20:
        return v + fc == 0.0 ? kMissing : 1.0 / (v + fc);
      case -21:
        return v + fc <= 0.0 ? kMissing : std::log(v + fc);
      case -22:
        return v > fc ? 1.0 : 0.0;
      case -23:
        return v < fc ? 1.0 : 0.0;
      case -36:
        return std::fabs(v);
      case -30: {
        const double u = v + fc;
        if (c == 1000) return u;
        if (c == 2000) return u * u;
        if (c == 3000) return u * u * u;
        if (response) {
          if (u > 1e-08) return c == -1000 ? 1.0 / u : std::pow(u, c * 0.001);
          if (u >= -1e-08) return 0.0;
          return kMissing;
        }
        if (u < 1e-9) return 0.0;  // adds nothing
        return c == -1000 ? 1.0 / u : std::pow(u, c * 0.001);
      }
      default:
        return v;
    }
  }

  bool is_function(int code) const {
    return (code <= -16 && code >= -23) || code == -36 || code == -30;
  }

  // The level of a value read as a factor code.
  static int level_of(double v) {
    if (!(std::fabs(v) < 2.0e9)) return 0;
    return static_cast<int>(v);
  }

  span<const double> jtable(int a, int len) const {
    return tt.JBV.subspan(static_cast<std::size_t>(a - 1), static_cast<std::size_t>(len));
  }
  span<const int> itable(int a, int len) const {
    return tt.IBV.subspan(static_cast<std::size_t>(a - 1), static_cast<std::size_t>(len));
  }

  // A leaf term at base s: its table fields and the value and level read
  // from the record.
  struct Leaf {
    int t = 0, s = 0;
    int code = 0, a = 0, b = 0, c = 0, flev = 0, nlev = 0;
    double fc = 0.0;  // the term's centring constant
    double v = 0.0;   // the value of a one-column term
    int level = 0;    // that value as a level, else the trait
  };
  // Result of leaf_coded for a code it does not handle.
  static constexpr int kNotCoded = -1;

  // Adds the entries of a leaf term at base s.  Returns 1 on a fault.
  int leaf(int t, int s) {
    Leaf f;
    f.t = t;
    f.s = s;
    f.code = tt.code(t);
    f.a = tt.a(t);
    f.b = tt.b(t);
    f.c = tt.c(t);
    f.flev = tt.flev[t - 1];
    f.nlev = tt.nlev[t - 1];
    f.fc = tt.faconst[t - 1];
    f.level = trait;
    if (f.nlev == 1) {
      f.v = col(f.b);
      if (is_missing(f.v)) {
        missaction(f.b);
        return 0;
      }
      f.level = level_of(f.v);
    }
    if (f.code == -15) {
      if (f.level == f.c) {
        cur.add(s + 1, w);
      } else {
        counts = false;
      }
      return 0;
    }
    if (f.a == -1 && f.code == 0 && f.level > tt.nan) {
      vprt("Recoded pedigree identifier %d\n", f.level);
      vprt("in data record %d\n", record);
      vprt("exceeds maximum %d\n", tt.nan);
      res.ifault = static_cast<int>(res.records);
      return 1;
    }
    int r = leaf_coded(f);
    if (r == kNotCoded) r = leaf_tabled(f);
    if (r != kNotCoded) return r;
    if (is_function(f.code)) return leaf_function(f);
    return leaf_data(f);
  }

  // Leaves of the basis, record, trait and level codes.  Result 0, 1 on a
  // fault, or kNotCoded.
  int leaf_coded(const Leaf& f) {
    const int s = f.s, flev = f.flev;
    switch (f.code) {
      case -3:
      case -5:
      case -7:
      case -10:
      case -13:
      case -34: {
        int nmiss = 0;
        if (aixspl(cur, f.code, flev, f.a, tt.kzbkey, st.x, record, f.level, s, nmiss) != 0) {
          vprt("Basis table term %d (code %d) is not available yet\n", f.t, f.code);
          fault_text("Faulted forming design matrix", record);
          return 1;
        }
        if (nmiss > 0) missaction(f.b);
        return 0;
      }
      case -4:
        if (miss_pending) {
          cur.add(s + miss_count, -w);
          miss_pending = false;
        }
        return 0;
      case -6:
        aixfac(cur, 1, -1, f.level, flev, w, s);
        aixfac(cur, 1, -1, f.level + 1, flev, w, s);
        return 0;
      case -8:
        if (flev == 1) {
          const char* name =
              static_cast<std::size_t>(f.t - 1) < tt.facnam.size() ? tt.facnam[f.t - 1] : nullptr;
          const bool icpt = name != nullptr && std::strcmp(name, "(Intercept)") == 0;
          cur.add(s + 1, icpt ? static_cast<double>(trait) : w);
        } else {
          aixfac(cur, 1, -1, trait, flev, w, s);
        }
        return 0;
      case -9:
        return leaf_record(f);
      case -25:
        if (f.level >= 1 && f.level <= f.c) cur.add(s + 1, w);
        return 0;
      case -26: {
        const double v2 = col(f.b + 1);
        if (is_missing(v2)) {
          missaction(f.b + 1);
          return 0;
        }
        cur.add(s + 1, f.v * f.a + f.c * v2);
        return 0;
      }
      case -27:
        return lookup(f.t, s, f.v, f.level);
      case -28:
        if (record == f.c && trait == f.a) cur.add(s + 1, w);
        return 0;
      default:
        return kNotCoded;
    }
  }

  // Code -9: the record itself, or the first flev records of a trait.
  int leaf_record(const Leaf& f) {
    const int t = f.t, flev = f.flev;
    if (flev == 1) {
      cur.add(f.s + 1, static_cast<double>(record));
      return 0;
    }
    if (f.c > 0 && trait != f.c) return 0;
    if (flev == dd.nrow) {
      aixfac(cur, 1, -1, record, flev, w, f.s);
    } else {
      if (dd.lastseen[t - 1] != record) {
        dd.lastseen[t - 1] = record;
        ++dd.counter[t - 1];
      }
      if (dd.counter[t - 1] <= flev) aixfac(cur, 1, -1, dd.counter[t - 1], flev, w, f.s);
    }
    return 0;
  }

  // Leaves of the basis functions, the tables and the markers.  Result 0,
  // 1 on a fault, or kNotCoded.
  int leaf_tabled(const Leaf& f) {
    const int s = f.s, flev = f.flev, a = f.a, c = f.c, level = f.level;
    switch (f.code) {
      case -31: {
        const double y = col(c);
        if (is_missing(y)) {
          missaction(c);
          return 0;
        }
        span<double> out = bisq.subspan(0, static_cast<std::size_t>(flev));
        bisqubasisfun(f.v, y, out);
        for (int j = 1; j <= flev; ++j)
          if (out[j - 1] != 0.0) cur.add(s + j, out[j - 1]);
        return 0;
      }
      case -32:
        cur.add(s + (flev < 2 ? 1 : trait), w);
        return 0;
      case -33:
        if (level >= 1 && level <= c) {
          const int e = itable(a, c)[level - 1];
          if (e > 0 && e <= flev) cur.add(s + e, w);
        }
        return 0;
      case -35: {
        if (level < 1 || level > c) return 0;
        const double tv = jtable(a, c)[level - 1];
        if (is_missing(tv)) {
          missaction(f.b);
          return 0;
        }
        const int l = level_of(tv);
        if (l >= 1) aixfac(cur, 1, -1, l, flev, w, s);
        return 0;
      }
      case -37: {
        const int l = groupfac(f.v, jtable(a, c), c);
        if (l >= 1) aixfac(cur, 1, -1, l, flev, w, s);
        return 0;
      }
      case -38: {
        const span<const int> hdr = tt.IBV.subspan(static_cast<std::size_t>(a - 1));
        marker.nmark = hdr[0];
        marker.nind = hdr[1];
        marker.stride = hdr[2];
        marker.table = hdr.subspan(3);
        const double sc = snp(level, c, marker);
        if (sc != 0.0) cur.add(s + 1, sc * w);
        return 0;
      }
      default:
        return kNotCoded;
    }
  }

  // A function of one or more covariate columns.
  int leaf_function(const Leaf& f) {
    const int ncol = f.nlev > 1 ? f.flev : 1;
    for (int j = 1; j <= ncol; ++j) {
      const double vj = col(f.b + j - 1);
      if (is_missing(vj)) {
        missaction(f.b + j - 1);
        continue;
      }
      const double tv = transform(f.code, vj, f.fc, f.c, false);
      if (is_missing(tv)) {
        missaction(f.b + j - 1);
      } else if (tv != 0.0) {
        cur.add(f.s + j, tv * w);
      }
    }
    return 0;
  }

  // Plain data terms: covariates over flev columns, indicator columns, or a
  // factor.  Returns 1 on a fault.
  int leaf_data(const Leaf& f) {
    const int s = f.s, flev = f.flev, nlev = f.nlev, c = f.c, b = f.b;
    if (nlev == flev && c >= 0) {
      for (int j = 1; j <= flev; ++j) {
        const double vj = col(b + j - 1);
        if (is_missing(vj)) {
          missaction(b + j - 1);
        } else if (vj != 0.0) {
          cur.add(s + j, vj * w);
        } else if (f.fc != 0.0) {
          cur.add(s + j, (0.0 - f.fc) * w);
        }
      }
      return 0;
    }
    if (nlev > 1 && c >= 0) {
      const int per = flev / nlev;
      for (int j = 1; j <= nlev; ++j) {
        const double vj = col(b + j - 1);
        if (is_missing(vj)) {
          missaction(b + j - 1);
        } else if (vj != 0.0) {
          const int l = level_of(vj);
          if (l >= 1 && l <= per) cur.add(s + (j - 1) * per + l, w);
        }
      }
      return 0;
    }
    if (nlev == 1) {
      if (c == -29) {
        aihelm(cur, f.level, flev, w, s);
      } else {
        aixfac(cur, 1, -1, f.level, flev, w, s);
      }
      return 0;
    }
    fault_text("Faulted forming design matrix", record);
    return 1;
  }
  // Code -27: a level or a value looked up through a table or a column.
  int lookup(int t, int s, double v, int level) {
    const int a = tt.a(t), b = tt.b(t), c = tt.c(t);
    const int flev = tt.flev[t - 1], nlev = tt.nlev[t - 1];
    if (nlev < 2) {
      if (a > 0) {
        const int l = subsetfac(v, jtable(a, c), c);
        if (l >= 1) aixfac(cur, 1, -1, l, flev, w, s);
        return 0;
      }
      const int cc = b + c - 1;
      const double vc = col(cc);
      if (is_missing(vc)) {
        missaction(cc);
        return 0;
      }
      if (flev == 1) {
        if (vc != 0.0) cur.add(s + 1, vc * w);
      } else {
        aixfac(cur, 1, -1, level_of(vc), flev, w, s);
      }
      return 0;
    }
    (void)level;
    const span<const int> cols = itable(a, c);
    for (int k = 1; k <= c; ++k) {
      const int cc = cols[k - 1];
      const double vc = col(cc);
      if (is_missing(vc)) {
        missaction(cc);
        continue;
      }
      if (flev == c) {
        if (vc != 0.0) cur.add(s + k, vc * w);
      } else {
        aixfac(cur, 1, -1, level_of(vc), flev, w, s);
      }
    }
    return 0;
  }

  // Multiplies the entries [from, mid) of the components so far (m
  // equations) with the new component's entries [mid, n), in place.
  void combine(i64 from, i64 mid, int m, int s) {
    const i64 n = mid - from, k = cur.n - mid;
    double* val = cur.val;
    i32* col = cur.col;
    if (n == 0 || k == 0) {
      cur.n = from;
      return;
    }
    if (n == 1) {
      const double pv = val[from];
      const int pj = col[from] - s;
      for (i64 i = 0; i < k; ++i) {
        const int li = col[mid + i] - s;
        val[from + i] = val[mid + i] * pv;
        col[from + i] = s + (li - 1) * m + pj;
      }
      cur.n = from + k;
      return;
    }
    const i64 total = n * k;
    if (from + total > cur.limit) {
      cur.full = true;
      return;
    }
    // From the back, so that nothing still needed is overwritten; the first
    // new entry is kept aside because the second's products cover it.
    const double v1 = val[mid];
    const int l1 = col[mid] - s;
    for (i64 i = k - 1; i >= 0; --i) {
      const double vi = i == 0 ? v1 : val[mid + i];
      const int li = (i == 0 ? l1 : col[mid + i] - s);
      for (i64 j = n - 1; j >= 0; --j) {
        const i64 at = from + i * n + j;
        val[at] = vi * val[from + j];
        col[at] = s + (li - 1) * m + (col[from + j] - s);
      }
    }
    cur.n = from + total;
  }

  // Evaluates one model position at base s.  Returns 1 on a fault.
  int walk(int t, int s) {
    const i64 from = cur.n;
    int stack[kMaxStack];
    int depth = 0;
    int m = 0;  // equations of the components so far; 0 none yet
    int term = t;
    for (int guard = 0; guard < 64; ++guard) {
      const int code = tt.code(term);
      if (code == -40) {
        if (tt.b(term) == 0) {
          cur.n = from;
          return 0;
        }
        term = tt.b(term);
        continue;
      }
      if (code == -2 && tt.b(term) >= dd.lbin) {
        term = tt.b(term) + 1;
        continue;
      }
      if (tt.flev[term - 1] == 0) return 0;
      if (code > 0 && tt.nlev[term - 1] == 0) {
        const int b = tt.b(term);
        if (b < 0) {
          const int ct = code;
          int lev;
          if (tt.code(ct) == -8) {
            lev = std::min(tt.flev[ct - 1], trait);
          } else {
            const double v = col(tt.b(ct));
            if (is_missing(v)) {
              missaction(tt.b(ct));
              cur.n = from;
              return 0;
            }
            lev = level_of(v);
          }
          if (lev != -b) {
            cur.n = from;
            return 0;
          }
          if (tt.a(term) < 1) {
            cur.add(s + 1, w);
            return 0;
          }
          term = tt.a(term);
          continue;
        }
        if (depth >= kMaxStack) {
          fault_text("Faulted forming design matrix", record);
          return 1;
        }
        stack[depth++] = code;
        term = tt.a(term);
        continue;
      }
      const i64 mid = cur.n;
      if (leaf(term, s) != 0) return 1;
      if (cur.full) {
        fault_text("Out of memory: forming design", static_cast<int>(res.records));
        return 1;
      }
      if (m > 0) {
        combine(from, mid, m, s);
        if (cur.full) {
          fault_text("Out of memory: forming design", static_cast<int>(res.records));
          return 1;
        }
        m *= tt.flev[term - 1];
      } else {
        m = tt.flev[term - 1];
      }
      if (depth == 0) return 0;
      term = stack[--depth];
    }
    fault_text("Faulted forming design matrix", record);
    return 1;
  }

  // Sorts a row's entries after the response by equation, merging repeats.
  void sort_row(i64 start) {
    double* val = cur.val;
    i32* col = cur.col;
    for (i64 i = start + 2; i < cur.n; ++i) {
      for (i64 j = i; j > start + 1 && col[j - 1] > col[j]; --j) {
        std::swap(col[j - 1], col[j]);
        std::swap(val[j - 1], val[j]);
      }
    }
    i64 out = start + 1;
    for (i64 i = start + 1; i < cur.n; ++i) {
      if (out > start + 1 && col[out - 1] == col[i]) {
        val[out - 1] += val[i];
      } else {
        col[out] = col[i];
        val[out] = val[i];
        ++out;
      }
    }
    cur.n = out;
  }

  int response(int k, double& value) {
    const int yt = dd.ytable[k - 1];
    const int yc = dd.ycol[k - 1];
    value = kMissing;
    if (yc >= 1 && yc <= dd.lbin) value = col(yc);
    if (yt < 1 || yt > tt.nfact) return 0;
    const int code = tt.code(yt);
    if (is_missing(value) && code != -27) return 0;
    const double fc = tt.faconst[yt - 1];
    switch (code) {
      case 1:
        if (dd.ntrt > 1 && dd.ycol[0] == dd.ycol[dd.ntrt - 1]) value = value == k ? 1.0 : 0.0;
        break;
      case -27:
        if (tt.nlev[yt - 1] >= 2) {
          const int cc = tt.b(yt) + k - 1;
          value = cc >= 1 && cc <= dd.lbin ? col(cc) : kMissing;
        }
        break;
      case -37:
        if (dd.ntrt > 1)
          value = groupfac(value, jtable(tt.a(yt), tt.c(yt)), tt.c(yt)) == k ? 1.0 : 0.0;
        break;
      case -15:
        value = std::fabs(value - tt.c(yt)) <= 1e-08 ? 1.0 : 0.0;
        break;
      default:
        if (is_function(code)) value = transform(code, value, fc, tt.c(yt), true);
        break;
    }
    return 0;
  }

  // Dropped terms: a component of code -40 with no term to hand over to.
  void mark_dropped() {
    for (int t = 1; t <= tt.nfact; ++t) dd.dropped[t - 1] = 0;
    for (int i = 1; i <= tt.nfactp; ++i) {
      const int t = tt.neword[i - 1];
      if (t == 0 || tt.nlev[t - 1] != 0) continue;
      int stack[kMaxStack];
      int depth = 0;
      stack[depth++] = t;
      while (depth > 0) {
        const int u = stack[--depth];
        const int code = tt.code(u);
        if (code == -40 && tt.b(u) == 0) {
          dd.dropped[t - 1] = 1;
          break;
        }
        if (code > 0 && tt.nlev[u - 1] == 0 && depth + 2 <= kMaxStack) {
          stack[depth++] = code;
          if (tt.a(u) >= 1) stack[depth++] = tt.a(u);
        }
      }
    }
  }

  // The terms of the current row, in their order, from column 2 on.  A
  // scaled term (code -12) takes the columns of the term before it, so the
  // row must then be sorted: `order` is set.  Result 1 on a fault.
  int add_terms(bool& order) {
    int base = 1;
    for (int i = 1; i <= tt.nfactp; ++i) {
      position = i;
      int t = tt.neword[i - 1];
      if (t == 0) continue;
      counts = true;
      nlisted = 0;
      if (tt.nlev[t - 1] == -1 || dd.dropped[t - 1] != 0) {
        base += tt.flev[t - 1];
        continue;
      }
      double factor = 1.0;
      if (tt.code(t) == -12) {
        factor = static_cast<double>(static_cast<float>(tt.b(t)) *
                                     std::pow(10.0f, static_cast<float>(-tt.c(t))));
        t = tt.a(t);
        base -= tt.flev[t - 1];
        order = true;
      }
      const i64 before = cur.n;
      if (walk(t, base) != 0) return 1;
      if (factor != 1.0)
        for (i64 q = before; q < cur.n; ++q) cur.val[q] *= factor;
      base += tt.flev[t - 1];
    }
    return 0;
  }

  // The design row of record r (read into dd.rvec) for trait k: the
  // response in column 1, then the terms.  A record whose response is
  // missing is left out, or kept with the missing-value term counting it;
  // a row that a term drops is taken back.  Result 1 on a fault.
  int form_row(int r, int k) {
    trait = k;
    dd.rvec[0] = k;
    double value;
    response(k, value);
    resp_missing = is_missing(value);
    drop_row = false;
    if (resp_missing) {
      if (mvact > 0) {
        ++miss_count;
        if (miss_count > tt.flev[mvact - 1]) {
          fault_text("Missing Value Miscount forming design", static_cast<int>(res.records));
          return 1;
        }
        miss_pending = true;
        value = 0.0;
      } else if (mvact == 0) {
        return 0;
      }
    } else {
      miss_pending = false;
    }
    if (res.records >= st.rowlimit) {
      fault_text("Out of memory: forming design", static_cast<int>(res.records));
      return 1;
    }
    const i64 start = cur.n;
    res.records += 1;
    st.x.i[st.rowbase + res.records - 1] = static_cast<i32>(start);
    st.x.i[st.recbase + res.records - 1] = r;
    cur.add(1, value);
    w = 1.0;
    bool order = false;
    if (add_terms(order)) return 1;
    if (cur.full) {
      fault_text("Out of memory: forming design", static_cast<int>(res.records));
      return 1;
    }
    if (drop_row) {
      cur.n = start;
      res.records -= 1;
      return 0;
    }
    if (order) sort_row(start);
    return 0;
  }

  int run() {
    res.records = 0;
    res.nonzero = 0;
    for (int t = 1; t <= tt.nfact; ++t) {
      dd.lastseen[t - 1] = 0;
      dd.counter[t - 1] = 0;
    }
    mark_dropped();
    for (int r = 1; r <= dd.nrow; ++r) {
      record = r;
      rstore(dd.datafr, r, dd.lbin, dd.rvec);
      for (int k = 1; k <= dd.ntrt; ++k)
        if (form_row(r, k)) return 1;
    }
    st.x.i[st.rowbase + res.records] = static_cast<i32>(cur.n);  // end of the last row
    res.nonzero = cur.n;
    // Record terms (code -9) over fewer levels than the records they met.
    for (int t = 1; t <= tt.nfact; ++t) {
      if (tt.code(t) == -9 && tt.flev[t - 1] > 1 && tt.flev[t - 1] != dd.nrow &&
          tt.flev[t - 1] < dd.counter[t - 1]) {
        res.ifault = 9;
        return 1;
      }
    }
    if (nmiss_design > 0 && mvd < 1) {
      fault_text("Missing values in design variables/factors", static_cast<int>(nmiss_design));
      return 1;
    }
    return 0;
  }
};

}  // namespace

void rstore(span<const double> data, int record, int lbin, span<double> rvec) {
  const std::size_t from = static_cast<std::size_t>(record - 1) * lbin;
  std::memcpy(rvec.data() + 1, data.data() + from, static_cast<std::size_t>(lbin) * sizeof(double));
}

int aidsgn(const DesignStores& st, const DesignTerms& tt, DesignData& dd, int mvact, int mvd,
           int debug, span<char> errtxt, DesignResult& res) {
  res.ifault = 0;
  Former f(st, tt, dd, mvact, mvd, debug, errtxt, res);
  f.bisq = dd.scratch;
  // bisquare bases are set up from the coordinates' summaries.
  for (int t = 1; t <= tt.nfact; ++t) {
    if (tt.code(t) != -31) continue;
    const double* xs = dd.summry.data() + 4 * static_cast<std::size_t>(tt.b(t) - 1);
    const double* ys = tt.c(t) >= 1 ? dd.summry.data() + 4 * static_cast<std::size_t>(tt.c(t) - 1) : nullptr;
    const int nb = bisquare(tt.a(t) > 0 ? tt.a(t) : tt.flev[t - 1], xs, ys);
    if (nb != tt.flev[t - 1] || static_cast<std::size_t>(nb) > dd.scratch.size()) {
      vprt("Term %d: the bisquare basis has %d functions, the term %d\n", t, nb, tt.flev[t - 1]);
      put_text(errtxt.data(), errtxt.size(), "Faulted forming design matrix");
      res.ifault = 1;
      return 1;
    }
  }
  const int rc = f.run();
  res.nonzero = f.cur.n;
  res.neq = count_equations(tt);
  return rc;
}

}  // namespace tarnel
