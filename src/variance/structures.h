// Variance structures: the shared vocabulary of the sections, the form
// records that say how to rebuild a matrix row by row, and the row routine
// that the equations, scores and working variates all call.
#ifndef TARNEL_VARIANCE_STRUCTURES_H
#define TARNEL_VARIANCE_STRUCTURES_H

#include "control/engine_types.h"

namespace tarnel {

// Fields of a section's row of `struc`, 1-based as they are numbered.
enum StrucField : int {
  kOrder = 1,      // dimension (twice the effective order when gform is 2)
  kNpar = 2,       // number of parameters
  kModel = 3,      // model code (negative: link to GIV row -model)
  kGfirst = 4,     // position in gammas of the first parameter (1-based)
  kNcor = 5,       // count of correlation parameters (written by g5vvsf)
  kBand = 6,       // time series form, or band order of CHOL/ANTE
  kField7 = 7,     // cleared at each formation
  kInited = 8,     // CHOL/ANTE: 0 = parameters still a general matrix
  kBlockrow = 9,   // GIV row whose levels split an AR1 into blocks
  kField10 = 10,   // reserved for the design side
  kShared = 11,    // -1: takes all results from an earlier equal section
  kUsfix = 12,     // running count of US repairs
  kScalepos = 13,  // position in gammas of the overall scale, 0 none
  kField14 = 14,   // log-determinant / half-order marks read by the AI code
  kGform = 15,     // 2: G carried uninverted in doubled equations
};

// A view of one section's row of `struc`: field(k) for k from 1.
struct StrucRow {
  int* p = nullptr;
  int& field(int k) const { return p[k - 1]; }
};

// Form record: six 64-bit integers that say how to rebuild a matrix (kind,
// scale, pos) and its inverse (kindi, scalei, posi).  For a parameter the
// first half describes dV/dtheta and the second V^-1 (dV/dtheta) V^-1.
// Positions are 1-based into the real work array.
struct FormRecord {
  i64 kind = 0, scale = 0, pos = 0;
  i64 kindi = 0, scalei = 0, posi = 0;
  const i64* first() const { return &kind; }
  const i64* second() const { return &kindi; }
};

// The table of known matrices (relationship inverses, distance matrices,
// own structures): five integers a row (size, type, start, index, rank),
// with its real and integer stores.
struct GivTable {
  span<int> table;     // 5 x count, by rows of five
  int count = 0;
  span<double> real;   // values; `start` is 1-based into it
  span<int> integer;   // integer store; `index` is 1-based into it
  int& size(int g) const { return table[5 * (g - 1) + 0]; }
  int& type(int g) const { return table[5 * (g - 1) + 1]; }
  int& start(int g) const { return table[5 * (g - 1) + 2]; }
  int& index(int g) const { return table[5 * (g - 1) + 3]; }
  int& rank(int g) const { return table[5 * (g - 1) + 4]; }
};

// Delivers one row of the matrix a half form record describes.
//   values:   scattered by column, 1-based: values[c-1] for each listed c
//   columns:  the columns delivered, ascending, 1-based
//   count:    how many; 0 for an empty row
//   rownum:   0-based running row of a direct product; the row within
//             this section is rownum % order and the quotient is left
//   record:   {kind, scale, pos} or {kindi, scalei, posi}
//   selector: 0 plain; otherwise the derivative with respect to a variance
//   link:     the section's model code (negative links to GIV row -link)
// Returns 0, or 1 after a fault (ifault set).
int g5vvrw(span<double> values, span<int> columns, int& count, i64& rownum, int order,
           const i64* record, StrucRow strucrow, const WorkArray& work, int selector, int link,
           const GivTable& giv, int unit, int& ifault);

}  // namespace tarnel

#endif
