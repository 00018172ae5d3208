// A weak stand-in for the structure rows of the variance code, for linking
// the tests of the equations until the variance code is linked in (the real
// routine then replaces this one).  It knows only the forms these tests use:
// the identity (pos 0), a stored multiple of the identity (kind 0) and a
// tridiagonal with constant off-diagonal (kind 3), with the scale stage for
// a negative scale.
#include "variance/structures.h"

namespace tarnel {

__attribute__((weak)) int g5vvrw(span<double> values, span<int> columns, int& count, i64& rownum,
                                 int order, const i64* record, StrucRow, const WorkArray& work,
                                 int, int, const GivTable&, int, int& ifault) {
  const i64 kind = record[0], scale = record[1], pos = record[2];
  const int i = static_cast<int>(rownum % order) + 1;
  rownum /= order;
  count = 0;
  if (pos == 0 && kind < 100) {
    values.at1(i) = 1.0;
    columns[count++] = i;
  } else if (kind == 0) {
    values.at1(i) = work.r[pos - 1];
    columns[count++] = i;
  } else if (kind == 3) {
    const double off = work.r[pos - 1 + order];
    if (i > 1) {
      values.at1(i - 1) = off;
      columns[count++] = i - 1;
    }
    values.at1(i) = work.r[pos - 1 + i - 1];
    columns[count++] = i;
    if (i < order) {
      values.at1(i + 1) = off;
      columns[count++] = i + 1;
    }
  } else {
    ifault = 1;
    return 1;
  }
  if (scale < 0)
    for (int k = 0; k < count; ++k) values.at1(columns[k]) *= work.r[-scale - 1];
  return 0;
}

}  // namespace tarnel
