// Forming, ordering and absorbing the mixed model equations.
//
// One iteration: g5vxxs once per R section adds X'R^-1 X (response as
// column 1) to the store of row_store.h; g5vxxg adds the G inverses; on the
// first iteration an ordering routine (g5veor family) chooses positions;
// g5vxxa factors the store in place from position NEQ down to 2 and solves.
//
// Orders: `iw` is a span of 2*NEQ 32-bit integers, pairs per index q:
//   IW(1,q) = iw[2(q-1)], IW(2,q) = iw[2(q-1)+1].
// During ordering IW(1,e) is the position of equation e and IW(2,p) the
// equation at position p.  Absorption reads IW(1,e) as the term of equation
// e (g5vmor sets it; negative: the equation takes no pivot) and IW(2,p) as
// the equation at position p.
// DD: one real per position: pivot tolerance before the pivot, reciprocal
// pivot after it, 0 when the position took none.
#ifndef TARNEL_SPARSE_MME_H
#define TARNEL_SPARSE_MME_H

#include "control/engine_types.h"
#include "sparse/random.h"
#include "sparse/row_store.h"
#include "variance/structures.h"

namespace tarnel {

// ---------------------------------------------------------------- ordering

// g5vmor: the natural order.  IW(1,1) = 0, IW(2,1) = 1; then for each term t
// (1-based) and each of its nlev[t-1] levels at running equation i:
// IW(2,i) = i and IW(1,i) = t, or -t when marker[t-1] == -999 (marker may be
// empty).  Result 0; 1 when the levels do not add up to NEQ-1 (nfault 7).
int g5vmor(span<i32> iw, i32 neq, span<const i32> nlev, span<const i32> marker, int& nfault);

// Arguments of the ordering routines.  The pattern is read from the store
// (L, and X only to recognise zero values); the store is not changed.
struct OrderArgs {
  const MmeStore* store = nullptr;
  span<i32> iw;               // out: 2*NEQ (IW(1,e) position, IW(2,p) equation)
  span<i32> work;             // integer scratch: 8*NEQ ints (ISZ, GRP, DLY
                              // pairs, two lists), then the working pattern
                              // as pairs (at least NEQ-NDENSE of them)
  i64 maxlx = 0;              // slot limit of the working pattern (MAXLX)
  int mode = 1;               // M; used as MO = (M mod 10) - 1
  span<const i32> priority;   // equations to absorb last, in order
  i32 nest[3] = {0, 0, 0};    // nesting record: first-1, two dimensions
  span<const i32> termcode;   // per term: structure code (>= 20000: product)
  span<const i32> nlev;       // per term: number of levels
  span<const int> struc;      // structure table (for XFA detection)
  int lstruc = 0;             // its leading dimension (fields per section)
  bool trace = false;
  int unit = 6;
  int* err = nullptr;         // set to 7 on failure
  i64 fill = 0;               // out: symbolic count of factor elements
                              // (lower triangle, sparse positions, with
                              // diagonals), as the elimination counted it
  i64 peak = 0;               // out: highest working-pattern slot used
  i32 tail = 0;               // out: rows left to fill in as a block (full
                              // rows and rows where the ordering stopped)
  i32 bitrows = -1;           // rows in selection at which the late bit-matrix
                              // stage starts (-1: the default, 0: never)
  i32 groups = 0;             // out: rows that joined a row group
  i32 complements = 0;        // out: rows turned into complement form
};

// g5veor: main minimum-degree ordering (mode 3 adds delays for zero
// diagonals).  On return IW(1,e) is the position of e and IW(2,p) the
// equation at p; before g5vxxa the caller sets IW(1,.) back to the terms
// (g5vmor) and keeps IW(2,.).  Positions 1..NDENSE stay; untouched rows
// take the highest positions; priority equations the lowest sparse ones.
// Result 0; 1 on failure (err = 7, also when the working pattern is full).
int g5veor(OrderArgs& a);
// g5veora: variant choosing by true fill counts.
int g5veora(OrderArgs& a);
// g5veorb: variant with its own trace words, choice as g5veor.
int g5veorb(OrderArgs& a);
// g5vmetis: entry for an external graph partitioner; does nothing, the order
// stays as it is.
void g5vmetis();

// Symbolic fill of absorbing the store's pattern in the order `iw`: the
// number of lower-triangle elements of the factor in sparse positions,
// diagonals included.  Needs 5*(NEQ-NDENSE)+2 ints plus one per
// off-diagonal sparse element of the store in `work`; result -1 when it
// does not fit or the order is not valid.
i64 symbolic_fill(const MmeStore& s, span<const i32> iw, span<i32> work);

// "EQNORD.BIN": an order kept for reuse.  The header holds NDENSE, NEQ, the
// number of terms, the integer space mark and the total space.
// eqnord_read: result 0 and IW(2,.) filled when the file exists and its
// header matches; 1 otherwise (a mismatching or unreadable file is deleted).
int eqnord_read(span<i32> iw, i32 ndense, i32 neq, i32 nterms, i64 mark, i64 total,
                bool trace);
// eqnord_write: result 0; 1 when the file could not be written.
int eqnord_write(span<const i32> iw, i32 ndense, i32 neq, i32 nterms, i64 mark, i64 total,
                 bool trace);

// Loads a lower triangle given as triplets (row >= col, 1-based, in
// equation order, sorted by row and then column, no repeats) into a
// cleared store.  Every sparse row named gets its diagonal and its column
// 1 head.  Result 0; 1 with nfault 130 for a bad triplet or 6 when the
// pool is full.
int mme_load_lower(MmeStore& s, span<const i32> row, span<const i32> col,
                   span<const double> val, int& nfault);

// ------------------------------------------------------------ SSP forming

// Design records: record i (1-based) runs from start[i-1] to start[i]-1
// (1-based indexes into val and col; start has records+1 entries) and ends
// earlier at a column not above its predecessor.  The first value of a
// record is the response, column 1.
struct DesignView {
  span<const double> val;
  span<const i32> col;
  span<const i64> start;
};

// Scratch of SSP formation: acc NEQ reals (kept clear between records),
// list NEQ+1 ints, links NEQ ints kept zero (marks of the general case and
// of the rows formed whole).  room: free words for an index of a section's
// records by column (ssp_index_words); with it a section of diagonal R
// forms each row of the equations in one go, otherwise record by record.
struct SspScratch {
  span<double> acc;
  span<i32> list;
  span<i32> links;
  span<double> room;
};

// Words of SspScratch::room that a diagonal section with `entries` design
// values needs to be formed row by row.
inline i64 ssp_index_words(i32 neq, i64 entries) { return static_cast<i64>(neq) + 2 + entries; }

// g5vxxr: one row of R^-1 (a direct product of nsect sections, handled last
// to first) for record `rec` (1-based).  values: dense over the section's
// records, cols: its non-zero columns (1-based), count.  `values` must be
// all zero on entry (callers clear the columns they have read), and so must
// the scratch row, which the routine keeps clear.  Result 1 on a fault of
// the structure rows.
struct RowSource {
  const FormRecord* records = nullptr;  // one per section of the product
  StrucRow* rows = nullptr;             // the sections' rows of struc
  int nsect = 0;
  const WorkArray* work = nullptr;
  const GivTable* giv = nullptr;
  bool second = true;                   // use the inverse half of the records
  int unit = 6;
  span<double> scratch;                 // one section row, scattered
  span<int> scols;                      // its columns
};
// Augmented rows: the weighted design row of each record, (R^-1 X)(r, .)
// over the columns that take part, kept beside the equations for the
// working variates.  Row r (a design record, 1-based over the whole design)
// holds its entries at val/col positions start(r) .. start(r+1)-1 (1-based,
// columns ascending); `used` is the fill so far.  Sections fill their
// records in order; a record that adds nothing (skipped, missing response)
// has an empty row.  `start` needs one entry more than the last record.
struct AugmentedRows {
  span<double> val;
  span<i32> col;
  span<i64> start;
  i64 used = 0;
};

// Flag bits of a section.
constexpr int kSspAugment = 1;  // store the augmented rows in *aug

// One R section for g5vxxs.
struct SspSection {
  DesignView design;
  span<const i32> colflag;     // per equation: below 1 takes part; empty: all
  span<const int> struc;       // structure table, rows of `lstruc` fields
  int lstruc = 0;
  int section = 1;             // this section's row of struc (1-based)
  int termcode = 0;            // -1 identity, -3 general, >= 0 diagonal type
  i64 first = 1, last = 0;     // record range (1-based, inclusive)
  double sigma2 = 1.0;         // scale
  span<const double> gammas;   // parameter values (1-based positions)
  span<const double> weights;  // per-record response weights; empty: none
  int ntraits = 0;             // traits count (0 or 1: univariate)
  RowSource rsrc;              // general case: the section's product
  span<double> rrow;           // general case: one row of R^-1, scattered
                               // over the section's records (records reals)
  span<int> rcols;             // general case: its columns (records ints)
  double sectlogdet = 0;       // general and multivariate cases: log |R| of
                               // the section's own structure over all its
                               // records, added as it stands (see below)
  double missing = kMissing;   // missing-value code of the response
  int flags = 0;               // kSspAugment: fill *aug
  AugmentedRows* aug = nullptr;
  span<double> mvwork;         // multivariate: mv_scratch_reals(T) reals
  span<int> mviwork;           // multivariate: mv_scratch_ints(T) ints
  double* logdet = nullptr;    // the R section's log determinant (adds)
  i64* skipped = nullptr;      // records skipped
  int* err = nullptr;          // error word
  bool trace = false;
};

// Multivariate sections (ntraits T > 1).  The section's records are units
// of T consecutive design records, one per trait (trait fastest).  R is
// block diagonal by unit: R_u = sigma2 * W_u^-1/2 Sigma_u W_u^-1/2 over the
// unit's observed traits, W_u the records' weights (none: 1).  Permitted:
//  - termcode -1: Sigma_u = gamma I (gamma the parameter named by word 4 of
//    the section's struc row, when it names one; otherwise 1);
//  - termcode -3 with rsrc a direct product whose last factor has order T
//    and whose earlier factors are identities or diagonals (model 0 or 8,
//    or of order 1): Sigma_u = c_u Sigma, c_u the product of the earlier
//    factors' elements at the unit.  With one factor the product is taken
//    as I x Sigma over the section's units; with several the orders must
//    multiply to the record count.
// A trait is observed when its response is not missing (the code above or
// a mark of 1e37) and its weight is not 0; unobserved records count as
// skipped.  R_u^-1 is the inverse of the observed block of Sigma_u, not
// the observed block of Sigma_u^-1.
// Log determinant: the caller passes in sectlogdet the log determinant the
// section would have with every record observed, as in the general case
// (for termcode -1: the record count times log gamma), and adds nothing
// itself; g5vxxs adds it and corrects it unit by unit, so that the result
// is the sum over units of log |R_u| of the observed records, including
// sigma2 and the weights.
// Anything else: "Invalid Multivariate Error Structure" (message store;
// with trace also "XXS 200" and the section's words on the console), error
// word + 1000.
inline i64 mv_scratch_reals(int t) {
  return 2 * static_cast<i64>(t) * t + static_cast<i64>(t) * (t + 1) / 2 + 3 * static_cast<i64>(t);
}
inline i64 mv_scratch_ints(int t) { return 5 * static_cast<i64>(t); }

// g5vxxs: adds the section's X'R^-1 X to the store.  Result 0; 1 on fault
// (err set: +6 out of memory, 130 column above NEQ or views too small, 136
// broken row, +1000 a multivariate section that cannot be handled, or the
// fault of the structure rows).
int g5vxxs(MmeStore& s, const SspSection& sec, SspScratch& w);

int g5vxxr(i64 rec, const RowSource& src, span<double> values, span<int> cols, int& count,
           double scale, int& ifault);

// g5vxxm: one block of R^-1 for a unit of a multivariate section.
//   startrow: 0-based running row of the product at the unit's first trait
//             ((unit-1) * t for a product over units x traits)
//   t:        trait order (the order of the product's last factor)
//   pattern:  t words, 0 for an unobserved trait
//   roots:    t square roots of the records' weights, or empty (none)
//   src:      the product (inverse halves); earlier factors must deliver a
//             single diagonal element at the unit
// Out: block, t*t reals by rows: the inverse of the observed block of
// Sigma_u (see SspSection), rows and columns of unobserved traits 0, row i
// and column j times roots(i) roots(j).  corr: log |P_mm|, P = Sigma_u^-1
// and m the unobserved traits (0 when all are observed), so that
// log |Sigma_u,oo| = log |Sigma_u| + corr.  The weights are not in corr.
// scratch: mv_scratch_reals(t) reals less t*t (the caller's block lies in
// front), iscratch: 3t ints.  Result 1 on fault: the fault of g5vvrw,
// 6 for views too small, 1000 + the factor's model for an earlier factor
// that is not diagonal at the unit ("Invalid Multivariate Error
// Structure"), 1000 + the model of the last factor when the unobserved
// block of Sigma_u^-1 is not positive definite.
int g5vxxm(i64 startrow, int t, span<const int> pattern, span<const double> roots,
           const RowSource& src, span<double> block, double& corr, span<double> scratch,
           span<int> iscratch, int& ifault);

// A G term for g5vxxg.
struct GTerm {
  i32 nlev = 0;        // equations of the term
  i32 code = 0;        // 0: no G; 1..10000: position in gammas of a scale
                       // parameter (scaled identity); >= 10000: direct product
  int nsect = 0;       // product: number of sections
  RowSource src;       // product: the sections (inverse halves)
};

// g5vxxg: adds the G inverses of the terms to the store.  Terms are laid out
// after the response: term t's equations follow those of term t-1.  Result
// 0; 1 on fault (nfault set, 6 for a full store).
int g5vxxg(MmeStore& s, span<const GTerm> terms, span<const double> gammas, SspScratch& w,
           int& nfault);

// ------------------------------------------------------------- absorption

struct AbsorbArgs {
  span<i32> iw;               // 2*NEQ; rows are permuted to this order
  i64 off = 0;                // offset in L of the tables behind the pool
                              // (needs off+NEQ pairs; off >= pool slots)
  double logdet = 0;          // out: log |C| of the pivoted part
  span<i32> rank;             // out: rank per term (NTERMS)
  i32 nsing = 0;              // out: singularity count
  span<double> soln;          // out: solution by equation (NEQ), and a
                              // sample behind it when impute[0] >= 1
                              // (then 2*NEQ reals: sample(e) at NEQ+e)
  span<double> work;          // NEQ reals
  span<double> dd;            // NEQ reals: DD by position
  i32 impute[2] = {0, 0};     // sampling range: equations e with
                              // impute[0] < e <= impute[1] take a normal
                              // draw; on when impute[0] >= 1
  NormalRng* rng = nullptr;   // generator of the draws (needed to sample)
  int marker = 0;             // term-code marker word (-113: DDF hook)
  int iter = 1;               // iteration number
  int e1 = 0, e2 = 0;         // tolerance options (aiopt[39], aiopt[40])
  int negpiv = 0;             // in/out: negative dense pivots (aiopt[48])
  int threads = 1;            // strip option (aiopt[56]): 2..100 hands
                              // out runs but absorbs on the single path;
                              // from 101 the row updates are dealt to
                              // min(threads - 100, 8) strips in turn
  i32 tail = 0;               // rows the order leaves to fill in as a block
                              // (OrderArgs::tail; 0 unknown): positions
                              // NDENSE+1..NDENSE+tail are then laid out
                              // complete before they are absorbed
  span<i32> status;           // per strip status (8; -99 a failed strip)
  int* err = nullptr;         // error word
  bool trace = false;
  int unit = 6;
  span<double> room;          // scratch of the block laid out complete: with
                              // room for its square (block_room_words), the
                              // block is absorbed by the BLAS; otherwise by
                              // the packed kernels
  span<double> dense_copy;    // when not empty: receives the dense triangle
                              // as it stands before its first pivot (the
                              // fixed equations with the others absorbed)
  i32 moves = 0;              // out: equations moved by the pivot search
  i64 peaklx = 0;             // out: highest slot used by the pool
};

// Words of AbsorbArgs::room that the block of positions 1..top needs to be
// absorbed by the BLAS.
i64 block_room_words(i32 top);

// g5vxxa: factors the store in place (positions NEQ down to 2) and solves.
// The store must be in equation order (as formed); the heads and columns are
// brought to the order of IW(2,.) here.  Linked rows may be moved within the
// pool (LX can fall).  L needs OFF+NEQ pairs: L(1,OFF+e) holds the new
// position of e during set-up, L(2,OFF+p) the start of packed row p.  After
// the call packed row p (positions above NDENSE) runs from slot L(2,OFF+p)
// down to its diagonal, column 1 first; DD(p) is its reciprocal pivot.
// Faults: 100000+p "Out of memory absorbing" when the pool is too small
// (error word 496 or 667), 6 for views too small, 7 for a bad order, 4 when
// sampling and soln has fewer than 2*NEQ reals, 101 when sampling without a
// generator.
// Result 0; 1 after a fault (err and/or nfault set).
int g5vxxa(MmeStore& s, AbsorbArgs& a, int& nfault);

}  // namespace tarnel

#endif
