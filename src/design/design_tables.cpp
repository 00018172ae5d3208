// Checks of the term table, the count of equations, the kept design, the
// row-order check and the list of high equations.
#include <algorithm>
#include <cstring>

#include "design/design.h"
#include "host/console.h"

namespace tarnel {

namespace {

const char* term_name(const DesignTerms& tt, int t) {
  if (static_cast<std::size_t>(t - 1) < tt.facnam.size() && tt.facnam[t - 1] != nullptr)
    return tt.facnam[t - 1];
  return "";
}

int bad(const DesignTerms& tt, int t, const char* why) {
  vprt(" Term %d (%s): %s\n", t, term_name(tt, t), why);
  return t;
}

bool in(long long v, long long lo, long long hi) { return v >= lo && v <= hi; }

// Equations a term makes, following interactions; -1 when the term walk
// is deeper than the stack allows or loops.
long long equations_of(const DesignTerms& tt, int t, int depth) {
  if (depth > 10 || !in(t, 1, tt.nfact)) return -1;
  const int code = tt.code(t);
  if (code > 0 && tt.nlev[t - 1] == 0) {
    if (tt.b(t) < 0) return tt.a(t) < 1 ? 1 : equations_of(tt, tt.a(t), depth + 1);
    const long long e1 = equations_of(tt, code, depth + 1);
    const long long e2 = equations_of(tt, tt.a(t), depth + 1);
    if (e1 < 0 || e2 < 0) return -1;
    return e1 * e2;
  }
  if (code == -40) return tt.b(t) == 0 ? tt.flev[t - 1] : equations_of(tt, tt.b(t), depth + 1);
  return tt.flev[t - 1];
}

}  // namespace

int check_terms(const DesignTerms& tt, int lbin, int nrow) {
  const long long nI = static_cast<long long>(tt.IBV.size());
  const long long nJ = static_cast<long long>(tt.JBV.size());
  auto col_ok = [&](long long c) { return in(c, 1, lbin); };
  for (int t = 1; t <= tt.nfact; ++t) {
    const int code = tt.code(t), a = tt.a(t), b = tt.b(t), c = tt.c(t);
    const int flev = tt.flev[t - 1], nlev = tt.nlev[t - 1];
    if (flev < 0) return bad(tt, t, "negative number of levels");
    if (nlev < -1) return bad(tt, t, "invalid data form");
    if (code > 0 && nlev == 0) {
      if (!in(code, 1, tt.nfact) || code == t) return bad(tt, t, "interaction names an invalid term");
      if (b < 0) {
        if (!in(a, 0, tt.nfact) || a == t) return bad(tt, t, "conditional term names an invalid term");
        if (tt.code(code) != -8 && !col_ok(tt.b(code)))
          return bad(tt, t, "condition factor reads outside the record");
      } else if (!in(a, 1, tt.nfact) || a == t) {
        return bad(tt, t, "interaction names an invalid term");
      }
      const long long e = equations_of(tt, t, 0);
      if (e < 0) return bad(tt, t, "interaction nests too deeply or loops");
      if (e != flev) return bad(tt, t, "number of levels differs from the product of its components");
      continue;
    }
    switch (code) {
      case -40:
        if (!in(b, 0, tt.nfact) || b == t) return bad(tt, t, "hands over to an invalid term");
        continue;
      case -12:
        if (!in(a, 1, tt.nfact) || tt.code(a) == -12 || a == t)
          return bad(tt, t, "scaled view of an invalid term");
        continue;
      case -2:
        if (b >= lbin) {
          if (!in(b + 1, 1, tt.nfact) || b + 1 == t) return bad(tt, t, "steps to an invalid term");
          continue;
        }
        break;
      case -8:
      case -9:
      case -28:
      case -32:
      case -4:
        continue;
      default:
        break;
    }
    if (nlev >= 1 && !col_ok(b)) return bad(tt, t, "reads a column outside the record");
    switch (code) {
      case -3: case -5: case -7: case -10: case -13: case -34:
        if (!in(a, 1, static_cast<long long>(tt.kzbkey.size() / 3)))
          return bad(tt, t, "names a basis table that does not exist");
        continue;
      case -26:
        if (!col_ok(b + 1)) return bad(tt, t, "reads a column outside the record");
        continue;
      case -31:
        if (!col_ok(b) || !col_ok(c)) return bad(tt, t, "reads a column outside the record");
        continue;
      case -27:
        if (nlev < 2) {
          if (a > 0) {
            if (c < 1 || !in(a, 1, nJ) || a + c - 1 > nJ) return bad(tt, t, "table outside its store");
          } else if (!col_ok(b + c - 1)) {
            return bad(tt, t, "reads a column outside the record");
          }
        } else {
          if (c < 1 || !in(a, 1, nI) || a + c - 1 > nI) return bad(tt, t, "table outside its store");
          for (int k = 0; k < c; ++k)
            if (!col_ok(tt.IBV[a - 1 + k])) return bad(tt, t, "table names a column outside the record");
        }
        continue;
      case -33:
        if (c < 0 || (c > 0 && (!in(a, 1, nI) || a + c - 1 > nI))) return bad(tt, t, "table outside its store");
        continue;
      case -35:
      case -37:
        if (c < 0 || (c > 0 && (!in(a, 1, nJ) || a + c - 1 > nJ))) return bad(tt, t, "table outside its store");
        continue;
      case -38: {
        if (!in(a, 1, nI) || a + 2 > nI) return bad(tt, t, "marker table outside its store");
        const long long nm = tt.IBV[a - 1], ni = tt.IBV[a], sd = tt.IBV[a + 1];
        if (nm < 0 || ni < 0 || sd < (nm + 3) / 4 || a + 2 + ni * sd > nI)
          return bad(tt, t, "marker table outside its store");
        continue;
      }
      default:
        break;
    }
    // Terms over several columns.
    const bool fn = (code <= -16 && code >= -23) || code == -36 || code == -30;
    long long ncol = 1;
    if (fn && nlev > 1) ncol = flev;
    else if (!fn && nlev == flev && c >= 0) ncol = flev;
    else if (!fn && nlev > 1 && c >= 0) ncol = nlev;
    if (ncol > 1 && (!col_ok(b) || !col_ok(b + ncol - 1))) return bad(tt, t, "reads columns outside the record");
    if (!fn && nlev > 1 && c >= 0 && nlev != flev && flev % nlev != 0)
      return bad(tt, t, "levels do not divide among its columns");
  }
  (void)nrow;
  for (int i = 0; i < tt.nfactp; ++i)
    if (!in(tt.neword[i], 0, tt.nfact)) return bad(tt, 0, "model position names no term");
  return 0;
}

int count_equations(const DesignTerms& tt) {
  long long neq = 1;
  for (int i = 0; i < tt.nfactp; ++i) {
    const int t = tt.neword[i];
    if (t < 1 || t > tt.nfact || tt.code(t) == -12) continue;
    neq += tt.flev[t - 1];
  }
  return neq > 2147483647LL ? -1 : static_cast<int>(neq);
}

i64 countdesign(const DesignStores& st, i64 records, int neq) {
  i64 count = 0;
  for (i64 r = 0; r < records; ++r) {
    const i64 from = st.x.i[st.rowbase + r], to = st.x.i[st.rowbase + r + 1];
    for (i64 k = from; k < to; ++k) {
      const int e = st.x.i[st.colbase + k];
      if (e >= 2 && e <= neq) ++count;
    }
  }
  return count;
}

void savedesign(const DesignStores& st, i64 records, int neq, span<const int> recno,
                span<double> out) {
  std::size_t q = 0;
  for (i64 r = 0; r < records; ++r) {
    const i64 from = st.x.i[st.rowbase + r], to = st.x.i[st.rowbase + r + 1];
    for (i64 k = from; k < to; ++k) {
      const int e = st.x.i[st.colbase + k];
      if (e < 2 || e > neq || q + 3 > out.size()) continue;
      out[q++] = recno[static_cast<std::size_t>(r)];
      out[q++] = e - 1;
      out[q++] = st.x.r[st.kyxz + k];
    }
  }
}

void sortix(span<const int> keys, span<int> order, int n) {
  for (int k = 0; k < n; ++k) order[k] = k + 1;
  std::stable_sort(order.begin(), order.begin() + n,
                   [&](int p, int q) { return keys[p - 1] < keys[q - 1]; });
}

void keynkey(span<const int> keys, span<int> order, int n) {
  bool rising = true;
  for (int k = 1; k < n; ++k)
    if (keys[k] < keys[k - 1]) rising = false;
  if (rising) {
    for (int k = 0; k < n; ++k) order[k] = k + 1;
    return;
  }
  // order[k] is the position of the k-th smallest key; turned in place into
  // the rank of each key by following the cycles, visited entries negative.
  sortix(keys, order, n);
  for (int start = 0; start < n; ++start) {
    if (order[start] < 0) continue;
    int k = start;
    int v = order[k];  // the key at position v has rank k+1
    while (v > 0) {
      const int next = order[v - 1];
      order[v - 1] = -(k + 1);
      k = v - 1;
      v = next;
    }
  }
  for (int k = 0; k < n; ++k) order[k] = -order[k];
}

int sethigh(span<const int> eqhigh, const DesignTerms& tt, span<int> out) {
  int nout = 0;
  auto put = [&](int e) {
    if (static_cast<std::size_t>(nout) < out.size()) out[nout++] = e;
  };
  for (int h = 0; h < 3 && 2 * static_cast<std::size_t>(h) + 1 < eqhigh.size(); ++h) {
    const int term = eqhigh[2 * h], m = eqhigh[2 * h + 1];
    if (term == 0) break;
    int eq = 1;
    for (int i = 0; i < tt.nfactp; ++i) {
      const int t = tt.neword[i];
      if (t < 1 || t > tt.nfact) continue;
      const int flev = tt.flev[t - 1];
      if (t == term) {
        for (int k = 1; k <= std::min(m, flev); ++k) put(eq + k);
      } else if (tt.code(t) > 0 && tt.nlev[t - 1] == 0 && tt.b(t) >= 0) {
        const int f1 = tt.flev[tt.code(t) - 1], f2 = tt.flev[tt.a(t) - 1];
        if (tt.code(t) == term) {
          for (int k = 1; k <= std::min(f1, m) * f2; ++k) put(eq + k);
        } else if (tt.a(t) == term) {
          for (int g = 0; g < f1; ++g)
            for (int k = 1; k <= std::min(f2, m); ++k) put(eq + g * f2 + k);
        }
      }
      if (tt.code(t) != -12) eq += flev;
    }
  }
  return nout;
}

void reset_design_state() { bisqucom = BisquCommon(); }

}  // namespace tarnel
