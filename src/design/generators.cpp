// Term generators: the entries of a factor level, a contrast or a basis
// row, and the look-ups that turn a data value into a level.
#include <algorithm>
#include <cmath>

#include "design/design.h"
#include "host/messages.h"

namespace tarnel {

BisquCommon bisqucom;

void aixfac(RowCursor& cur, int r, int p, int level, int m, double w, int base) {
  if (w == 0.0) return;
  if (p < 0) {
    // The plain form: one factor of m levels; a level above m stands for
    // all of them at once, as a sum-to-zero row.
    if (r + p != 0) return;
    if (level >= 1 && level <= m) {
      cur.add(base + level, w);
    } else if (level > m) {
      for (int j = 1; j <= m; ++j) cur.add(base + j, -w);
    }
    return;
  }
  if (r < 1 || level < 1) return;
  if (p < r) {
    if (level <= m) {
      for (int k = 0; k < p; ++k) cur.add(base + level + k * m, -w);
    } else {
      for (int j = 1; j <= p * m; ++j) cur.add(base + j, w);
    }
    return;
  }
  if (level <= m) {
    cur.add(m * (r - 1) + base + level, w);
  } else {
    for (int j = (r - 1) * m + 1; j <= r * m; ++j) cur.add(base + j, -w);
  }
}

void aihelm(RowCursor& cur, int level, int m, double w, int base) {
  if (w == 0.0 || level < 1) return;
  if (level > 1) cur.add(base + level - 1, (level - 1) * w);
  for (int j = level; j <= m; ++j) cur.add(base + j, -w);
}

// Table k (from 1) of kzbkey: start s (word), end of the row map e and the
// row count n.  Record r's row is the map entry x.r[s + r - 1]; the table's
// values lie by columns from e: value (row, j) at x.r[e + row - 1 + (j-1)n];
// a spline's (code -3) lie by rows: value (row, j) at x.r[e + (row-1)m + j-1].
int aixspl(RowCursor& cur, int code, int m, int table, span<const int> kzbkey,
           const WorkArray& x, int record, int level, int base, int& nmiss) {
  const std::size_t k = 3 * static_cast<std::size_t>(table - 1);
  if (table < 1 || k + 2 >= kzbkey.size()) return 1;
  const i64 s = kzbkey[k], e = kzbkey[k + 1], n = kzbkey[k + 2];
  if (s < 0 || n < 0 || static_cast<u64>(s + n) > x.len) return 1;
  if (record < 1 || record > n) return 0;
  int row = static_cast<int>(x.r[s + record - 1]);
  if (row == 0) {
    nmiss = 0;
    return 0;
  }
  if (row == -1) row = level;
  if (row < 1 || row > n) return 0;
  if (code == -3) {
    // A spline's table lies by rows: row `row` holds its m values.
    const i64 first = e + static_cast<i64>(row - 1) * m;
    if (first < 0 || static_cast<u64>(first + m) > x.len) return 1;
    for (int j = 1; j <= m; ++j) cur.add(base + j, x.r[first + j - 1]);
    return 0;
  }
  // The table's last value must lie inside the work array.
  if (m > 0 && static_cast<u64>(e + row - 1 + static_cast<i64>(m - 1) * n) >= x.len) return 1;
  if (static_cast<u64>(s + n) > x.len) return 1;
  auto value = [&](int j) { return x.r[e + row - 1 + static_cast<i64>(j - 1) * n]; };
  switch (code) {
    case -5:
      cur.add(base + row, 1.0);
      return 0;
    case -7:
    case -13:
      for (int j = 1; j <= m; ++j) {
        const double v = value(j);
        if (v == kMissing) {
          ++nmiss;
        } else if (v != 0.0) {
          cur.add(base + j, v);
        }
      }
      return 0;
    default:
      // Sparse basis rows (code -34) come with the spline tables.
      return 1;
  }
}

namespace {
long round_away(double v) { return static_cast<long>(v < 0 ? v - 0.5 : v + 0.5); }
}  // namespace

int groupfac(double v, span<const double> table, int length) {
  if (!(std::fabs(v) < 2e9)) return 0;
  const int i = static_cast<int>(v);
  if (i < 1 || i > length || static_cast<std::size_t>(i) > table.size()) return 0;
  return static_cast<int>(round_away(table[i - 1]));
}

int subsetfac(double v, span<const double> table, int length) {
  constexpr double tol = 1e-07;
  if (length < 1 || static_cast<std::size_t>(length) > table.size()) return 0;
  auto at = [&](int k) { return table[k - 1]; };
  if (length < 9) {
    for (int k = 1; k <= length; ++k)
      if (std::fabs(v - at(k)) < tol) return k;
    return 0;
  }
  if (v < at(1) - tol || v > at(length) + tol) return 0;
  int low = 0;
  int step = length;
  while (step >= 6) {
    step /= 2;
    const int k = low + step;
    if (k > length) continue;
    if (std::fabs(v - at(k)) < tol) return k;
    if (v >= at(k) + tol) low = k;
  }
  for (int k = low + 1; k <= length; ++k) {
    if (std::fabs(v - at(k)) < tol) return k;
    if (at(k) > v) break;
  }
  return 0;
}

double snp(int individual, int marker, const MarkerCommon& mc) {
  if (individual < 1 || individual > mc.nind || marker < 1 || marker > mc.nmark) return -1e-37;
  const std::size_t w = static_cast<std::size_t>(individual - 1) * mc.stride + (marker - 1) / 4;
  if (w >= mc.table.size()) return -1e-37;
  const unsigned word = static_cast<unsigned>(mc.table[w]);
  const unsigned byte = (word >> (8 * ((marker - 1) % 4))) & 0xffu;
  return (static_cast<double>(byte) - 80.0) / 80.0;
}

int bisquare(int count, const double* xsum, const double* ysum) {
  BisquCommon& b = bisqucom;
  b = BisquCommon();
  if (ysum == nullptr) {
    g5verror("Need X and Y coords for BISQUARE function", 2);
    return 0;
  }
  while (count > 100) count /= 10;
  if (count < 5) count = 15;
  const double xmin = xsum[0], xmax = xsum[2], ymin = ysum[0], ymax = ysum[2];
  b.spacing = ((xmax - xmin) + (ymax - ymin)) / count;
  if (!(b.spacing > 0)) return 0;
  auto origin = [&](double mn) {
    double o = static_cast<double>(round_away(mn / b.spacing - 2)) * b.spacing;
    if (o + b.spacing < mn - b.spacing) o += b.spacing;
    return o;
  };
  auto lines = [&](double o, double mx) {
    int nl = static_cast<int>((mx - o) / b.spacing + 2);
    if (o + (nl - 1) * b.spacing > mx + b.spacing) --nl;
    return nl;
  };
  b.ox = origin(xmin);
  b.oy = origin(ymin);
  b.n1 = lines(b.ox, xmax);
  b.n2 = lines(b.oy, ymax);
  b.off1 = 8 - (b.n1 % 9) / 2;
  b.off2 = 8 - (b.n2 % 9) / 2;
  const double r[3] = {1.5 * b.spacing, 4.5 * b.spacing, 13.5 * b.spacing};
  for (int k = 0; k < 3; ++k) b.r2[k] = r[k] * r[k];
  b.nfine = b.n1 * b.n2;
  b.nmid = ((b.n1 + 2) / 3) * ((b.n2 + 2) / 3);
  b.ncoarse = ((b.n1 + 8) / 9) * ((b.n2 + 8) / 9);
  b.total = b.nfine + b.nmid + b.ncoarse;
  return b.total;
}

void bisqubasisfun(double x, double y, span<double> out) {
  const BisquCommon& b = bisqucom;
  for (double& v : out) v = 0.0;
  // Index of line i among the lines of its resolution (every third or
  // ninth line, counted from the offset).
  auto sub = [](int i, int off, int step) {
    const int first = (step - off % step) % step;
    return (i - first) / step;
  };
  const int n2m = (b.n2 + 2) / 3, n2c = (b.n2 + 8) / 9;
  for (int i = 0; i < b.n1; ++i) {
    const double gx = b.ox + i * b.spacing;
    for (int j = 0; j < b.n2; ++j) {
      const double gy = b.oy + j * b.spacing;
      const double d = (gx - x) * (gx - x) + (gy - y) * (gy - y);
      const bool l9 = (i + b.off1) % 9 == 0 && (j + b.off2) % 9 == 0;
      const bool l3 = (i + b.off1) % 3 == 0 && (j + b.off2) % 3 == 0;
      if (l9 && d < b.r2[2]) {
        const double f = 1 - d / b.r2[2];
        const std::size_t k = b.nfine + b.nmid + sub(i, b.off1, 9) * n2c + sub(j, b.off2, 9);
        if (k < out.size()) out[k] = f * f;
      }
      if (l3 && d < b.r2[1]) {
        const double f = 1 - d / b.r2[1];
        const std::size_t k = b.nfine + sub(i, b.off1, 3) * n2m + sub(j, b.off2, 3);
        if (k < out.size()) out[k] = f * f;
      }
      if (d < b.r2[0]) {
        const double f = 1 - d / b.r2[0];
        const std::size_t k = static_cast<std::size_t>(i) * b.n2 + j;
        if (k < out.size()) out[k] = f * f;
      }
    }
  }
}

int gorpol(int order, int flag, span<const double> scores, span<double> work, int n,
           span<double> values, int& count) {
  (void)flag;
  count = 0;
  if (n < 1 || scores.size() < static_cast<std::size_t>(n) ||
      work.size() < 2 * static_cast<std::size_t>(n) ||
      values.size() < static_cast<std::size_t>(n) * std::max(order, 1))
    return -1;
  double* prev = work.data();       // p(k-1)
  double* cur = work.data() + n;    // p(k)
  const double p0 = 1.0 / std::sqrt(static_cast<double>(n));
  for (int i = 0; i < n; ++i) {
    prev[i] = 0.0;
    cur[i] = p0;
  }
  if (order == 0) {
    for (int i = 0; i < n; ++i) values[i] = p0;
    count = 1;
    return 0;
  }
  double beta = 0.0;  // length of the unnormalised p(k)
  double scale = 0.0;
  for (int i = 0; i < n; ++i) scale += std::fabs(scores[i]);
  scale = scale / n + 1.0;
  for (int k = 1; k <= order; ++k) {
    double alpha = 0.0;
    for (int i = 0; i < n; ++i) alpha += scores[i] * cur[i] * cur[i];
    double len2 = 0.0;
    double* next = values.data() + static_cast<std::size_t>(k - 1) * n;
    for (int i = 0; i < n; ++i) {
      next[i] = (scores[i] - alpha) * cur[i] - beta * prev[i];
      len2 += next[i] * next[i];
    }
    const double len = std::sqrt(len2);
    // A polynomial of (numerically) zero length: fewer distinct scores than
    // the order asks for.
    if (!(len > 1e-10 * scale)) {
      for (int i = 0; i < n; ++i) next[i] = 0.0;
      return k;
    }
    for (int i = 0; i < n; ++i) next[i] /= len;
    beta = len;
    for (int i = 0; i < n; ++i) {
      prev[i] = cur[i];
      cur[i] = next[i];
    }
    count = k;
  }
  return 0;
}

}  // namespace tarnel
