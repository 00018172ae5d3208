// Model terms and design rows.
//
// `aidsgn` walks the data records once and appends one sparse design row a
// record and trait to the work array: (value, equation) pairs, the response
// first with equation 1, then the terms in model order.  Everything after
// design formation reads only these rows.  The small generators below make
// the entries of one level or basis function, or turn a value into a level.
#ifndef TARNEL_DESIGN_DESIGN_H
#define TARNEL_DESIGN_DESIGN_H

#include "control/engine_types.h"

namespace tarnel {

// Positions in the option vector `aiopt` that the design reads and writes.
enum DesignAiopt : int {
  kAioptMvact = 60,    // missing response: 0 drop the row, -1 keep it, >0 term of
                       // code -4 that gives each missing response an equation
  kAioptMvd = 61,      // missing design value: below 1 a fault, 1 or more left out
  kAioptRecords = 62,  // out: design rows formed
  kAioptNonzero = 63,  // out: nonzeros in the value store (response included)
};

// Where the rows lie in the work array.  Value k (from 1) of the store is
// x.r[kyxz + k - 1]; its equation is x.i[colbase + k - 1]; row r (from 1)
// starts at x.i[rowbase + r - 1], the count of values before it.
struct DesignStores {
  WorkArray x;
  u64 kyxz = 0;      // word of the first value
  u64 colbase = 0;   // integer index of the first equation number
  u64 rowbase = 0;   // integer index of the first row start
  u64 recbase = 0;   // integer index of each row's data record (from 1)
  i64 limit = 0;     // most values the stores can take
  i64 rowlimit = 0;  // most rows the row store can take
};

// The term table and the data, as aidsgn reads them.
struct DesignTerms {
  int nfact = 0;
  int nfactp = 0;
  span<const int> inter;   // 4 x nfact: code, a, b, c
  span<const int> flev;
  span<int> nlev;          // -1 is set here for dropped terms
  span<const int> IBV;     // integer tables of term functions (1-based offsets)
  span<const double> JBV;  // real tables of term functions (1-based offsets)
  span<const int> neword;
  span<const int> submds;
  int submod = 0;
  span<const double> faconst;
  span<const char* const> facnam;
  span<const int> kzbkey;  // three values per basis table
  int nan = 0;             // individuals of the relationship tables
  int code(int t) const { return inter[4 * static_cast<std::size_t>(t - 1)]; }
  int a(int t) const { return inter[4 * static_cast<std::size_t>(t - 1) + 1]; }
  int b(int t) const { return inter[4 * static_cast<std::size_t>(t - 1) + 2]; }
  int c(int t) const { return inter[4 * static_cast<std::size_t>(t - 1) + 3]; }
};

struct DesignData {
  span<const double> datafr;  // record r, column c at r*lbin + c (from 0)
  int lbin = 0;
  int nrow = 0;
  int ntrt = 1;
  int nycol = 0;
  span<double> rvec;          // [0] trait, [1..lbin] the record
  span<const double> summry;  // four per data column
  span<int> ytable;           // term of each trait's response
  span<int> ycol;             // data column of each trait's response
  span<int> lastseen;         // nfact: last record seen by each term
  span<int> counter;          // nfact: running counters of record terms
  span<int> dropped;          // nfact: 1 for a position whose term is dropped
  span<double> scratch;       // room for the widest bisquare basis
};

struct DesignResult {
  i64 records = 0;  // rows formed
  i64 nonzero = 0;  // values stored
  int neq = 0;      // equations, the response's included
  int ifault = 0;
};

// Forms the design rows.  `mvact` and `mvd` are the missing-value words.
// Returns 1 on a fault (result.ifault set, errtxt filled), else 0.
int aidsgn(const DesignStores& st, const DesignTerms& tt, DesignData& dd, int mvact, int mvd,
           int debug, span<char> errtxt, DesignResult& res);

// Checks that every index the term table holds lies in range of the data,
// the term table and the function tables.  A bad term prints a line that
// names it and returns its number; 0 means all are sound.
int check_terms(const DesignTerms& tt, int lbin, int nrow);

// Equations of the model: 1 for the response plus the levels of every
// model position; scaled views share the equations of their real term.
int count_equations(const DesignTerms& tt);

// Copies record `record` (from 1) into rvec[1..lbin].
void rstore(span<const double> data, int record, int lbin, span<double> rvec);

// Nonzeros with equation above 1, taken in equation order within a row.
i64 countdesign(const DesignStores& st, i64 records, int neq);
// Writes the triples (record, equation - 1, value) into `out`.  `recno`
// gives the data record of each row (from 1).
void savedesign(const DesignStores& st, i64 records, int neq, span<const int> recno,
                span<double> out);

// Sorts the integer keys' order: order[k] (from 1) comes back as the
// permutation that puts keys in rising order (the identity when they rise).
void keynkey(span<const int> keys, span<int> order, int n);
// Index sort: order[0..n) gets the positions (from 1) of keys in rising order.
void sortix(span<const int> keys, span<int> order, int n);

// High equations: for up to three (term, count) pairs of `eqhigh`, lists
// the first equations of that term.  Returns the number listed in `out`.
int sethigh(span<const int> eqhigh, const DesignTerms& tt, span<int> out);

// ---- generators ---------------------------------------------------------

// An append cursor over the value and column stores.
struct RowCursor {
  double* val = nullptr;  // val[k] for k from 0
  i32* col = nullptr;
  i64 n = 0;              // values stored
  i64 limit = 0;          // capacity; an append beyond it is refused
  bool full = false;      // set when an append was refused
  void add(int eq, double v) {
    if (n >= limit) {
      full = true;
      return;
    }
    val[n] = v;
    col[n] = eq;
    ++n;
  }
};

void aixfac(RowCursor& cur, int r, int p, int level, int m, double w, int base);
void aihelm(RowCursor& cur, int level, int m, double w, int base);
// Copies a row of a basis table; adds missing entries to `nmiss`.  Returns
// 1 when the table code is not available.
int aixspl(RowCursor& cur, int code, int m, int table, span<const int> kzbkey,
           const WorkArray& x, int record, int level, int base, int& nmiss);
int groupfac(double v, span<const double> table, int length);
int subsetfac(double v, span<const double> table, int length);

// The marker table: a header of (markers, individuals, stride in words)
// and then one byte a score, four to a 32-bit word, a row an individual.
struct MarkerCommon {
  int nmark = 0;
  int nind = 0;
  int stride = 0;
  span<const int> table;
};
double snp(int individual, int marker, const MarkerCommon& mc);

// The bisquare basis over two coordinates at three resolutions.
struct BisquCommon {
  double spacing = 0, ox = 0, oy = 0, scratch = 0;
  double r2[3] = {0, 0, 0};
  int n1 = 0, n2 = 0;
  int off1 = 0, off2 = 0;
  int nfine = 0, nmid = 0, ncoarse = 0, total = 0;
};
extern BisquCommon bisqucom;
// Sets up bisqucom from the summaries of the two coordinate columns (four
// values each: min, mean, max, missing); returns the number of functions.
int bisquare(int count, const double* xsum, const double* ysum);
void bisqubasisfun(double x, double y, span<double> out);

// Orthonormal polynomial scores of the n values `scores` for degrees 1 to
// `order`: values[(k-1)*n + i].  `work` holds 2n doubles.  Returns 0, or the
// degree at which a polynomial of zero length stopped the recurrence.
int gorpol(int order, int flag, span<const double> scores, span<double> work, int n,
           span<double> values, int& count);

// Clears the design's statics.
void reset_design_state();

}  // namespace tarnel

#endif
