// Formation of the variance structures for one REML iteration.
//
// Results of g5vvsf, all in spans that the caller owns:
//   secform[s-1]   form record of section s (matrix and inverse);
//   logdet[s-1]    log determinant of section s (of its effective order);
//   parform[p-1]   form record of parameter p, in gammas order: dV/dtheta
//                  and V^-1 (dV/dtheta) V^-1;
//   trdrri[p-1]    tr(V^-1 dV/dtheta), the derivative of logdet;
//   givlogdet[g-1] log determinant of GIV row g, kept across iterations.
// Positions in the records point into the real work array, between the
// `floor` and the `top` the caller gave, in the words g5vvsf takes from the
// top downward.  The caller passes the same `top` at every iteration (all
// structure words are rebuilt), and the words below the returned `top` are
// free for the rest of the iteration.  The run driver is expected to carve
// the four result tables out of the top of the work array (or out of
// `strucm`) before that: FormRecord is six 8-byte words, so secform and
// logdet take 7 words a section and parform and trdrri 7 a parameter.
//
// What the records point at (n the effective order):
//   kind 2      a Toeplitz first row, n words;
//   kind 3,4,5  bands of half-width 1, 2, 3: (kind-1) vectors of n words,
//               vector d (from 0) holds element (m, m+d) at pos + d*n + m-1;
//   kind 8      n diagonal values;  kind 9  packed lower triangle by rows.
// Sections: IDEN and links kind 0 (sigma, 1/sigma); AR1 2/3, AR2 and SAR
// 2/4, AR3 and SAR2 2/5, MA1 MA2 ARMA 2/9, CORU 2/2, CORB 2/9, CORG 9/9,
// DIAG 8/8, US CHOL ANTE 9/9.  Parameters: time series 2 with 3, 4, 5 or 9;
// CORU 2/2; CORB 5000+k; CORG and US 1000+t; DIAG 100+k; CHOL 6000+t with
// a packed V^-1 dV V^-1 (9) on the inverse side; ANTE a packed dV (9) with
// 7000+t on the inverse side (pos negative: the rows are negated).
// Variances and scales copy the section record; their rows need the
// selector: +k / -k for variance k of the section (V side / inverse side),
// a positive selector other than order-1 / a negative one for the scale.
// Correlation parameters use selector 0.
#ifndef TARNEL_VARIANCE_FORMATION_H
#define TARNEL_VARIANCE_FORMATION_H

#include "control/engine_types.h"
#include "variance/structures.h"

namespace tarnel {

// Fault of g5vvrw for a record it cannot deliver.
constexpr int kFaultUndefinedStructure = 109;

struct VsfArgs {
  int nsect = 0;          // sections
  span<int> struc;        // nsect rows of lstruc integers
  int lstruc = 15;
  span<double> gammas;    // parameters, changed in place when moved
  span<double> prvgam;    // the previous iteration's parameters
  span<int> tgamma;       // kind of each parameter (written)
  span<int> rgmstr;       // running constraint codes (read and written)
  WorkArray work;         // the real work array
  i64 top = 0;            // in: words floor+1 .. top are free; out: lowered
  i64 floor = 0;          // words at or below this are the caller's
  span<FormRecord> secform;
  span<FormRecord> parform;
  span<double> logdet;
  span<double> trdrri;
  GivTable giv;
  span<double> givlogdet;  // one per GIV row, held across iterations
  double sentinel = kMissing;  // a GIV log determinant still to be found
  int iteration = 1;
  int debug = 0;
  int unit = 6;
  int variance_kind = 1;  // tgamma of variances and scales: 1 or 2
};

// The result tables of g5vvsf carved out of the top of the work array:
// secform (6 words a section), logdet (1), parform (6 a parameter), trdrri
// (1) and givlogdet (1 a GIV row), from the top down in that order.  The
// run driver carves them once per fit, before the first formation, since
// the GIV log determinants are kept from one iteration to the next, and
// then passes the lowered top to g5vvsf at every iteration.
struct StructureTables {
  span<FormRecord> secform, parform;
  span<double> logdet, trdrri, givlogdet;
};
// Returns 1 with ifault 6 when the words are not there.
int carve_structure_tables(const WorkArray& work, i64& top, i64 floor, int nsect, int ngamma, int ngiv,
                           StructureTables& t, int& ifault);

// Forms all sections.  Returns 0, or 1 with ifault set (6 out of
// workspace, 1000 + model for a section that cannot be formed).
int g5vvsf(VsfArgs& a, int& ifault);

// Writes a section record for sigma times the identity: pushes sigma and
// 1/sigma onto the top of the work array and points pos and posi at them.
// Returns 1 with ifault 6 when the words are not there.
int g5vva0(FormRecord& rec, double sigma, const WorkArray& work, i64& top, i64 floor,
           int& ifault);

// Takes m words from the top: returns the first position (1-based), or 0
// when fewer than m words lie above the floor.
i64 take_top(i64& top, i64 floor, i64 m);

// Blocked AR1: the block level of row k is the integer at index(g) +
// 2(k-1) of the GIV integer store (levels two entries apart).
int block_level(const GivTable& giv, int g, int k);
bool block_levels_valid(const GivTable& giv, int g, int order);

// Where the values of GIV row g lie.  A type above 10 is read as type - 10
// with the stored log determinant behind the values instead of in front.
//   type 3: pairs (a, b) per level;  type 8: the diagonal;  type 9: the
//   packed lower triangle;  type 7: a sparse lower triangle by rows, its
//   values in the real store and, from index(g) in the integer store,
//   rowstart (size+1 positions, 1-based, rowstart(size+1) - 1 = nnz),
//   then the column of each value (ascending, each row ending with its
//   diagonal), then `size` cursor words used by g5vvar.
//   Optionally a transposed index of the strict lower triangle follows the
//   cursor words; its presence is marked by -1 in the first cursor word
//   (cursor words are otherwise 0 as delivered or row starts, never
//   negative).  It holds tstart (size+1 entries, 1-based into the next two
//   runs, tstart(size+1) - 1 = nnz - size), then for each column i the rows
//   j > i holding a value (j, i), ascending (trow), then the position of
//   each such value in the real store, 1-based as rowstart counts (tpos).
//   With it a row costs its own length; without it the part right of the
//   diagonal is found by scanning the cursors of all later rows.
struct GivLayout {
  bool ok = false;
  int type = 0, size = 0;
  i64 first = 0, slot = 0, nval = 0;   // real store, 1-based
  i64 rowstart = 0, colindex = 0, cursor = 0;  // integer store, 1-based
  i64 tstart = 0, trow = 0, tpos = 0;  // transposed index; 0 when absent
  i64 ntrans = 0;                      // entries of trow and tpos
};
GivLayout giv_layout(const GivTable& giv, int g);
// Checks the row starts and columns of a type 7 row, and the transposed
// index when present (every strict lower value listed once, at its place).
bool sparse_giv_valid(const GivTable& giv, const GivLayout& L);

// The transposed index of a sparse lower triangle (see GivLayout); empty
// spans when the table has none.
struct SparseTranspose {
  span<const int> tstart, trow, tpos;
};

// Row i of a sparse symmetric matrix held by its lower triangle, times
// `scale`; see GivLayout.  With a transposed index any row may be asked
// for at any time.  Without one, rows must be asked for in ascending order
// from row 1 (the cursors follow the part right of the diagonal).
void g5vvar(span<double> values, span<int> columns, int& count, int i, int n, span<const double> store,
            double scale, span<const int> rowstart, span<const int> colindex, int lower, span<int> cursor,
            const SparseTranspose& trans = SparseTranspose{});

// Spreads a packed band of half-width 3 (row i holds (i, max(1,i-3)) to
// (i,i): 1, 2, 3 entries in the first three rows, then 4) into the four
// diagonals of a heptadiagonal record: element (m, m+d) at d*n + m - 1.
void g5vvp7(span<const double> band, span<double> diags, int n);

// Row i of a CHOL or ANTE derivative (kinds 6001 to 10000).
int factor_derivative_row(span<double> values, span<int> columns, int& count, int i, int n,
                          const i64* record, const WorkArray& work, int& ifault);

}  // namespace tarnel

#endif
