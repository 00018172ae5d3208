// One row of a structure matrix, its inverse or a derivative, rebuilt from
// a form record.  The callers multiply rows of several sections to build
// the rows of a direct product, which is never formed.
#include <cmath>

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
  const i64 kind = record[0], scale = record[1], pos = record[2];
  const int n = order;
  const int gform = strucrow.p ? strucrow.field(kGform) : 1;

  if (pos == 0 && kind < 100) {
    put(values, columns, count, i, 1.0);
  } else if (kind == -1) {
    put(values, columns, count, i, 0.0);
  } else if (kind == 0) {
    const double v = W(work, pos);
    if (link < 0) {
      const GivLayout L = giv_layout(giv, -link);
      if (!L.ok || L.size != n) return undefined(count, ifault);
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
        g5vvar(values, columns, count, i, L.size, giv.real.subspan(static_cast<std::size_t>(L.first - 1)), v,
               giv.integer.subspan(static_cast<std::size_t>(L.rowstart - 1), L.size + 1),
               giv.integer.subspan(static_cast<std::size_t>(L.colindex - 1)), 0,
               giv.integer.subspan(static_cast<std::size_t>(L.cursor - 1), L.size), tr);
      } else if (L.type == 8) {
        put(values, columns, count, i, v * val(i));
      } else if (L.type == 9) {
        for (int j = 1; j <= L.size; ++j) put(values, columns, count, j, v * val(packed_index(i, j) + 1));
      } else {
        return undefined(count, ifault);
      }
    } else {
      put(values, columns, count, i, v);
    }
  } else if (kind == 2) {
    const int blockrow = strucrow.p ? strucrow.field(kBlockrow) : 0;
    if (blockrow > 0) {
      if (!block_levels_valid(giv, blockrow, n)) return undefined(count, ifault);
      const int lev = block_level(giv, blockrow, i);
      for (int j = 1; j <= n; ++j)
        if (block_level(giv, blockrow, j) == lev) put(values, columns, count, j, W(work, pos + std::abs(i - j)));
    } else {
      for (int j = 1; j <= n; ++j) put(values, columns, count, j, W(work, pos + std::abs(i - j)));
    }
  } else if (kind >= 3 && kind <= 5) {
    // Band of half-width w = kind - 2: vector d holds the elements
    // (m, m+d) at position pos + d*n + m - 1.
    const int w = static_cast<int>(kind) - 2;
    for (int j = std::max(1, i - w); j <= std::min(n, i + w); ++j) {
      const int d = std::abs(i - j);
      const int m = std::min(i, j);
      put(values, columns, count, j, W(work, pos + static_cast<i64>(d) * n + m - 1));
    }
  } else if (kind == 8 || kind == 9) {
    if (gform == 2) {
      const int h = n / 2;
      if (i <= h) {
        put(values, columns, count, h + i, 1.0);
      } else {
        const int r = i - h;
        put(values, columns, count, r, 1.0);
        if (kind == 8) {
          put(values, columns, count, i, -W(work, pos + r - 1));
        } else {
          for (int j = 1; j <= h; ++j) put(values, columns, count, h + j, -PW(work, pos, r, j));
        }
      }
    } else if (kind == 8) {
      put(values, columns, count, i, W(work, pos + i - 1));
    } else {
      for (int j = 1; j <= n; ++j) put(values, columns, count, j, PW(work, pos, i, j));
    }
  } else if (kind >= 101 && kind <= 1000) {
    const int k = static_cast<int>(kind) - 100;
    if (i == k) {
      if (pos != 0) {
        if (scale < 1) {
          const double v = W(work, pos + k - 1);
          put(values, columns, count, i, v * v);
        } else if (scale + k == i) {
          put(values, columns, count, i, -1.0);
        }
      } else {
        if (gform > 1) {
          g5verror(" G5VVRW DERIV DIAG SING G", 4);
          return g5vflt(ifault, 108);
        }
        put(values, columns, count, i, 1.0);
      }
    }
  } else if ((kind >= 1001 && kind <= 5000) || (kind >= 5101 && kind <= 6000)) {
    int r = 0, c = 0;
    if (kind <= 5000) {
      unpack_element(kind - 1000, r, c);
    } else {
      unpack_element(kind - 5100, r, c);
      r += 1;
    }
    if (r > n || c < 1) return undefined(count, ifault);
    if (pos == 0) {
      if (i == r) put(values, columns, count, c, 1.0);
      if (i == c && r != c) put(values, columns, count, r, 1.0);
    } else {
      // Row i of M (E_rc + E_cr) M.
      const double mic = PW(work, pos, i, c), mir = PW(work, pos, i, r);
      for (int j = 1; j <= n; ++j) {
        const double v = r == c ? mir * PW(work, pos, r, j)
                                : mic * PW(work, pos, r, j) + mir * PW(work, pos, c, j);
        put(values, columns, count, j, v);
      }
    }
  } else if (kind >= 5001 && kind <= 5100) {
    const int k = static_cast<int>(kind) - 5000;
    if (pos == 0) {
      if (i - k >= 1) put(values, columns, count, i - k, 1.0);
      if (i + k <= n) put(values, columns, count, i + k, 1.0);
    } else {
      // Row i of M B M, B the indicator of band k.
      for (int j = 1; j <= n; ++j) {
        double v = 0.0;
        for (int l = 1; l <= n; ++l) {
          double u = 0.0;
          if (l - k >= 1) u += PW(work, pos, i, l - k);
          if (l + k <= n) u += PW(work, pos, i, l + k);
          if (u != 0.0) v += u * PW(work, pos, l, j);
        }
        put(values, columns, count, j, v);
      }
    }
  } else if (kind >= 6001 && kind <= 10000) {
    if (int rc = factor_derivative_row(values, columns, count, i, n, record, work, ifault)) return rc;
  } else if (kind >= 10001) {
    g5verror(" G5VVRW factor analytic rows not available in this version", 4);
    return g5vflt(ifault, kFaultUndefinedStructure);
  } else {
    return undefined(count, ifault);
  }

  // Scale stage.
  if (scale < 0) {
    const double s = W(work, -scale);
    double f = 0.0;
    if (selector == 0 || (n > 2 && selector == n - 1)) {
      f = s;
    } else if (selector < 0) {
      f = s * s;
    }
    if (f != 0.0)
      for (int q = 0; q < count; ++q) values[columns[q] - 1] *= f;
  } else if (scale > 1000) {
    auto d = [&](int k) { return W(work, scale + k - 1); };
    const double di = d(i);
    for (int q = 0; q < count; ++q) {
      const int j = columns[q];
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
  return 0;
}

}  // namespace tarnel
