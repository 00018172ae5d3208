// One row of a structure matrix, its inverse or a derivative, rebuilt from
// a form record.  The callers multiply rows of several sections to build
// the rows of a direct product, which is never formed.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "host/messages.h"
#include "variance/dense.h"
#include "variance/formation.h"
#include "variance/structures.h"

namespace tarnel {

namespace {

// Work-array word at a 1-based position.
inline double W(const WorkArray& work, i64 pos) { return work.r[pos - 1]; }

// Packed element (i,j) of the matrix stored from position `pos`.
inline double PW(const WorkArray& work, i64 pos, i64 i, i64 j) {
  return work.r[pos - 1 + packed_index(i, j)];
}

inline void put(span<double> values, span<int> columns, int& count, int c, double v) {
  columns[count++] = c;
  values[c - 1] = v;
}

// Unpacks packed element number t (1-based) into (r, c), c <= r.  The
// square root is taken in single precision, as the stored codes assume.
void unpack_element(i64 t, int& r, int& c) {
  r = static_cast<int>(std::sqrt(static_cast<float>(2 * t)));
  c = static_cast<int>(t - static_cast<i64>(r) * (r - 1) / 2);
  if (c > r) {
    c -= r;
    r += 1;
  }
}

int undefined(int& count, int& ifault) {
  count = 0;
  g5verror(" G5VVRW Undefined Scructure ", 4);
  return g5vflt(ifault, kFaultUndefinedStructure);
}

}  // namespace

GivLayout giv_layout(const GivTable& giv, int g) {
  GivLayout L;
  if (g < 1 || g > giv.count) return L;
  L.size = giv.size(g);
  int type = giv.type(g);
  if (L.size < 1 || type < 1 || type > 20) return L;
  const bool behind = type > 10;
  if (behind) type -= 10;
  L.type = type;
  const i64 start = giv.start(g);
  const i64 nreal = static_cast<i64>(giv.real.size());
  const i64 nint = static_cast<i64>(giv.integer.size());
  i64 nval = 0;
  if (type == 3) {
    nval = 2 * static_cast<i64>(L.size);
  } else if (type == 8) {
    nval = L.size;
  } else if (type == 9) {
    nval = packed_size(L.size);
  } else if (type == 7) {
    L.rowstart = giv.index(g);
    if (L.rowstart < 1 || L.rowstart + L.size > nint) return L;
    const i64 nnz = static_cast<i64>(giv.integer.at1(L.rowstart + L.size)) - 1;
    if (nnz < L.size) return L;
    L.colindex = L.rowstart + L.size + 1;
    L.cursor = L.colindex + nnz;
    if (L.cursor + L.size - 1 > nint) return L;
    const int mark = giv.integer.at1(L.cursor);
    if (mark < -1) return L;
    if (mark == -1) {
      L.tstart = L.cursor + L.size;
      if (L.tstart + L.size > nint) return L;
      L.ntrans = static_cast<i64>(giv.integer.at1(L.tstart + L.size)) - 1;
      if (L.ntrans != nnz - L.size) return L;
      L.trow = L.tstart + L.size + 1;
      L.tpos = L.trow + L.ntrans;
      if (L.tpos + L.ntrans - 1 > nint) return L;
    }
    nval = nnz;
  } else {
    return L;
  }
  L.first = behind ? start : start + 1;
  L.slot = behind ? start + nval : start;
  L.nval = nval;
  if (start < 1 || L.first + nval - 1 > nreal || L.slot > nreal) return L;
  L.ok = true;
  return L;
}

bool sparse_giv_valid(const GivTable& giv, const GivLayout& L) {
  if (!L.ok || L.type != 7) return false;
  auto rs = [&](int k) { return static_cast<i64>(giv.integer.at1(L.rowstart + k - 1)); };
  if (rs(1) != 1) return false;
  for (int r = 1; r <= L.size; ++r) {
    const i64 a = rs(r), b = rs(r + 1);
    if (b <= a || b - 1 > L.nval) return false;  // each row ends with its diagonal
    int prev = 0;
    for (i64 q = a; q < b; ++q) {
      const int c = giv.integer.at1(L.colindex + q - 1);
      if (c <= prev || c > r) return false;
      prev = c;
    }
    if (prev != r) return false;
  }
  if (L.tstart == 0) return true;
  // The transposed index: each column's rows ascending below the diagonal,
  // each pointing at the value of its row in that column.  There are as
  // many entries as strict lower values and no pair repeats, so each value
  // is listed exactly once.
  auto ts = [&](int k) { return static_cast<i64>(giv.integer.at1(L.tstart + k - 1)); };
  if (ts(1) != 1 || ts(L.size + 1) - 1 != L.ntrans) return false;
  for (int c = 1; c <= L.size; ++c) {
    const i64 a = ts(c), b = ts(c + 1);
    if (b < a || b - 1 > L.ntrans) return false;
    int prev = c;
    for (i64 k = a; k < b; ++k) {
      const int j = giv.integer.at1(L.trow + k - 1);
      if (j <= prev || j > L.size) return false;
      prev = j;
      const i64 q = giv.integer.at1(L.tpos + k - 1);
      if (q < rs(j) || q >= rs(j + 1) - 1) return false;  // before row j's diagonal
      if (giv.integer.at1(L.colindex + q - 1) != c) return false;
    }
  }
  return true;
}

void g5vvar(span<double> values, span<int> columns, int& count, int i, int n, span<const double> store,
            double scale, span<const int> rowstart, span<const int> colindex, int lower, span<int> cursor,
            const SparseTranspose& trans) {
  const bool transposed = !trans.tstart.empty();
  if (i == 1 && !transposed)
    for (int j = 1; j <= n; ++j) cursor.at1(j) = rowstart.at1(j);
  for (int q = rowstart.at1(i); q < rowstart.at1(i + 1); ++q) {
    const int c = colindex.at1(q);
    columns[count++] = c;
    values[c - 1] = scale * store.at1(q);
  }
  if (lower) return;
  if (transposed) {
    for (int k = trans.tstart.at1(i); k < trans.tstart.at1(i + 1); ++k) {
      const int j = trans.trow.at1(k);
      columns[count++] = j;
      values[j - 1] = scale * store.at1(trans.tpos.at1(k));
    }
    return;
  }
  for (int j = i + 1; j <= n; ++j) {
    int& q = cursor.at1(j);
    while (q < rowstart.at1(j + 1) && colindex.at1(q) < i) ++q;
    if (q < rowstart.at1(j + 1) && colindex.at1(q) == i) {
      columns[count++] = j;
      values[j - 1] = scale * store.at1(q);
      ++q;
    }
  }
}

int block_level(const GivTable& giv, int g, int k) {
  return giv.integer.at1(static_cast<std::size_t>(giv.index(g)) + 2 * static_cast<std::size_t>(k - 1));
}

bool block_levels_valid(const GivTable& giv, int g, int order) {
  if (g < 1 || g > giv.count) return false;
  const i64 first = giv.index(g);
  return first >= 1 && first + 2 * static_cast<i64>(order - 1) <= static_cast<i64>(giv.integer.size());
}

// Row i of the derivative of a factor product with respect to one element
// of the packed factor at |pos|.  CHOL (6001 to 7000): L D L', L unit
// lower.  ANTE (7001 to 10000): U D U', U unit upper with U(j,i) held at
// packed (i,j); a negative pos delivers the row negated (the inverse side,
// -d(G^-1)).
int factor_derivative_row(span<double> values, span<int> columns, int& count, int i, int n,
                          const i64* record, const WorkArray& work, int& ifault) {
  const i64 kind = record[0];
  const bool ante = kind > 7000;
  const i64 pos = record[2] < 0 ? -record[2] : record[2];
  const double sign = record[2] < 0 ? -1.0 : 1.0;
  int r = 0, c = 0;
  unpack_element(kind - (ante ? 7000 : 6000), r, c);
  if (r > n || c < 1 || pos == 0) return undefined(count, ifault);
  auto F = [&](int a, int b) { return PW(work, pos, a, b); };
  auto col = [&](int k, int a) -> double {
    if (a == k) return 1.0;
    if (!ante) return a > k ? F(a, k) : 0.0;
    return a < k ? F(k, a) : 0.0;
  };
  for (int j = 1; j <= n; ++j) {
    double v;
    if (r == c) {
      v = col(r, i) * col(r, j);
    } else if (!ante) {
      v = F(c, c) * ((i == r ? col(c, j) : 0.0) + (j == r ? col(c, i) : 0.0));
    } else {
      v = F(r, r) * ((i == c ? col(r, j) : 0.0) + (j == c ? col(r, i) : 0.0));
    }
    if (std::fabs(v) <= 1e-16) v = 0.0;
    put(values, columns, count, j, sign * v);
  }
  return 0;
}

namespace {

// One row of a section's matrix, as g5vvrw delivers it before scaling.
struct RowJob {
  span<double> values;
  span<int> columns;
  int& count;
  int i, n;                 // row (1-based) and order
  i64 kind, scale, pos;
  int gform;
  StrucRow strucrow;
  const WorkArray& work;
  const GivTable& giv;
  int& ifault;
  void put(int c, double v) { tarnel::put(values, columns, count, c, v); }
  double P(i64 r, i64 c) const { return PW(work, pos, r, c); }
};

// kind 0: a single value, times the row of a linked known matrix.
int linked_row(RowJob& J, int link) {
  const double v = W(J.work, J.pos);
  if (link >= 0) {
    J.put(J.i, v);
    return 0;
  }
  const GivTable& giv = J.giv;
  const GivLayout L = giv_layout(giv, -link);
  if (!L.ok || L.size != J.n) return undefined(J.count, J.ifault);
  auto val = [&](i64 k) { return giv.real.at1(static_cast<std::size_t>(L.first + k - 1)); };
  if (L.type == 7) {
    SparseTranspose tr;
    if (L.tstart != 0) {
      auto ints = [&](i64 from, i64 len) {
        return span<const int>(giv.integer.data() + from - 1, static_cast<std::size_t>(len));
      };
      tr.tstart = ints(L.tstart, L.size + 1);
      tr.trow = ints(L.trow, L.ntrans);
      tr.tpos = ints(L.tpos, L.ntrans);
    }
    g5vvar(J.values, J.columns, J.count, J.i, L.size, giv.real.subspan(static_cast<std::size_t>(L.first - 1)), v,
           giv.integer.subspan(static_cast<std::size_t>(L.rowstart - 1), L.size + 1),
           giv.integer.subspan(static_cast<std::size_t>(L.colindex - 1)), 0,
           giv.integer.subspan(static_cast<std::size_t>(L.cursor - 1), L.size), tr);
  } else if (L.type == 8) {
    J.put(J.i, v * val(J.i));
  } else if (L.type == 9) {
    for (int j = 1; j <= L.size; ++j) J.put(j, v * val(packed_index(J.i, j) + 1));
  } else {
    return undefined(J.count, J.ifault);
  }
  return 0;
}

// kind 2: a Toeplitz row, within its block when the section has blocks.
int toeplitz_row(RowJob& J) {
  const int blockrow = J.strucrow.p ? J.strucrow.field(kBlockrow) : 0;
  if (blockrow > 0) {
    if (!block_levels_valid(J.giv, blockrow, J.n)) return undefined(J.count, J.ifault);
    const int lev = block_level(J.giv, blockrow, J.i);
    for (int j = 1; j <= J.n; ++j)
      if (block_level(J.giv, blockrow, j) == lev) J.put(j, W(J.work, J.pos + std::abs(J.i - j)));
  } else {
    for (int j = 1; j <= J.n; ++j) J.put(j, W(J.work, J.pos + std::abs(J.i - j)));
  }
  return 0;
}

// kinds 3 to 5: a band of half-width w = kind - 2; vector d holds the
// elements (m, m+d) at position pos + d*n + m - 1.
void band_row(RowJob& J) {
  const int w = static_cast<int>(J.kind) - 2;
  for (int j = std::max(1, J.i - w); j <= std::min(J.n, J.i + w); ++j) {
    const int d = std::abs(J.i - j);
    const int m = std::min(J.i, j);
    J.put(j, W(J.work, J.pos + static_cast<i64>(d) * J.n + m - 1));
  }
}

// kinds 8 and 9: diagonal or dense, or the doubled form [0 I; I -G] of a
// G carried uninverted.
void dense_row(RowJob& J) {
  const int i = J.i, n = J.n;
  if (J.gform == 2) {
    const int h = n / 2;
    if (i <= h) {
      J.put(h + i, 1.0);
      return;
    }
    const int r = i - h;
    J.put(r, 1.0);
    if (J.kind == 8) {
      J.put(i, -W(J.work, J.pos + r - 1));
    } else {
      for (int j = 1; j <= h; ++j) J.put(h + j, -J.P(r, j));
    }
  } else if (J.kind == 8) {
    J.put(i, W(J.work, J.pos + i - 1));
  } else {
    for (int j = 1; j <= n; ++j) J.put(j, J.P(i, j));
  }
}

// kinds 101 to 1000: the derivative with respect to one diagonal element.
int diagonal_derivative_row(RowJob& J) {
  const int k = static_cast<int>(J.kind) - 100;
  if (J.i != k) return 0;
  if (J.pos != 0) {
    if (J.scale < 1) {
      const double v = W(J.work, J.pos + k - 1);
      J.put(J.i, v * v);
    } else if (J.scale + k == J.i) {
      J.put(J.i, -1.0);
    }
    return 0;
  }
  if (J.gform > 1) {
    g5verror(" G5VVRW DERIV DIAG SING G", 4);
    return g5vflt(J.ifault, 108);
  }
  J.put(J.i, 1.0);
  return 0;
}

// kinds 1001 to 5000 and 5101 to 6000: the derivative with respect to one
// packed element (r, c) of a symmetric matrix, or row i of M (E_rc + E_cr) M.
int element_derivative_row(RowJob& J) {
  int r = 0, c = 0;
  if (J.kind <= 5000) {
    unpack_element(J.kind - 1000, r, c);
  } else {
    unpack_element(J.kind - 5100, r, c);
    r += 1;
  }
  if (r > J.n || c < 1) return undefined(J.count, J.ifault);
  const int i = J.i;
  if (J.pos == 0) {
    if (i == r) J.put(c, 1.0);
    if (i == c && r != c) J.put(r, 1.0);
    return 0;
  }
  const double mic = J.P(i, c), mir = J.P(i, r);
  for (int j = 1; j <= J.n; ++j) {
    const double v = r == c ? mir * J.P(r, j) : mic * J.P(r, j) + mir * J.P(c, j);
    J.put(j, v);
  }
  return 0;
}

// kinds 5001 to 5100: the derivative with respect to band k of a banded
// correlation, or row i of M B M with B the indicator of the band.
void band_derivative_row(RowJob& J) {
  const int k = static_cast<int>(J.kind) - 5000;
  const int i = J.i, n = J.n;
  if (J.pos == 0) {
    if (i - k >= 1) J.put(i - k, 1.0);
    if (i + k <= n) J.put(i + k, 1.0);
    return;
  }
  for (int j = 1; j <= n; ++j) {
    double v = 0.0;
    for (int l = 1; l <= n; ++l) {
      double u = 0.0;
      if (l - k >= 1) u += J.P(i, l - k);
      if (l + k <= n) u += J.P(i, l + k);
      if (u != 0.0) v += u * J.P(l, j);
    }
    J.put(j, v);
  }
}

// The scale stage: an overall scale (scale below 0) or a vector of square
// roots of variances (above 1000), and their derivatives by selector.
void scale_stage(RowJob& J, int selector) {
  span<double> values = J.values;
  const int n = J.n, i = J.i;
  if (J.scale < 0) {
    const double s = W(J.work, -J.scale);
    double f = 0.0;
    if (selector == 0 || (n > 2 && selector == n - 1)) {
      f = s;
    } else if (selector < 0) {
      f = s * s;
    }
    if (f != 0.0)
      for (int q = 0; q < J.count; ++q) values[J.columns[q] - 1] *= f;
    return;
  }
  if (J.scale <= 1000) return;
  auto d = [&](int k) { return W(J.work, J.scale + k - 1); };
  const double di = d(i);
  for (int q = 0; q < J.count; ++q) {
    const int j = J.columns[q];
    double& v = values[j - 1];
    if (selector == 0) {
      v *= di * d(j);
    } else if (selector == -i) {
      v *= j == i ? di * di * di * di : 0.5 * di * di * di * d(j);
    } else if (selector < 0) {
      const int k = -selector;
      v = j == k ? v * 0.5 * di * d(k) * d(k) * d(k) : 0.0;
    } else if (selector == i) {
      if (j != i) v *= 0.5 * d(j) / di;
    } else {
      const int k = selector;
      v = j == k ? v * 0.5 * di / d(k) : 0.0;
    }
  }
}

}  // namespace

int g5vvrw(span<double> values, span<int> columns, int& count, i64& rownum, int order,
           const i64* record, StrucRow strucrow, const WorkArray& work, int selector, int link,
           const GivTable& giv, int unit, int& ifault) {
  count = 0;
  // The caller's row must hold every column of the section.
  if (order < 1 || values.size() < static_cast<std::size_t>(order) ||
      columns.size() < static_cast<std::size_t>(order))
    return undefined(count, ifault);
  const int i = static_cast<int>(rownum % order) + 1;
  rownum /= order;
  RowJob J{values, columns, count, i, order, record[0], record[1], record[2],
           strucrow.p ? strucrow.field(kGform) : 1, strucrow, work, giv, ifault};
  const i64 kind = J.kind;
  int rc = 0;
  if (J.pos == 0 && kind < 100) {
    J.put(i, 1.0);
  } else if (kind == -1) {
    J.put(i, 0.0);
  } else if (kind == 0) {
    rc = linked_row(J, link);
  } else if (kind == 2) {
    rc = toeplitz_row(J);
  } else if (kind >= 3 && kind <= 5) {
    band_row(J);
  } else if (kind == 8 || kind == 9) {
    dense_row(J);
  } else if (kind >= 101 && kind <= 1000) {
    rc = diagonal_derivative_row(J);
  } else if ((kind >= 1001 && kind <= 5000) || (kind >= 5101 && kind <= 6000)) {
    rc = element_derivative_row(J);
  } else if (kind >= 5001 && kind <= 5100) {
    band_derivative_row(J);
  } else if (kind >= 6001 && kind <= 10000) {
    rc = factor_derivative_row(values, columns, count, i, order, record, work, ifault);
  } else if (kind >= 10001) {
    g5verror(" G5VVRW factor analytic rows not available in this version", 4);
    return g5vflt(ifault, kFaultUndefinedStructure);
  } else {
    return undefined(count, ifault);
  }
  if (rc) return rc;
  scale_stage(J, selector);
  return 0;
}

}  // namespace tarnel
