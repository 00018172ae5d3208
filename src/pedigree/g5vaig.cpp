// The inverse of the numerator relationship matrix, row by row.
//
// For row i with parents S and D, A^-1 gains (1/MV) t t', where t has 1 at
// i and minus the parent weights at S and D, and MV is the Mendelian
// sampling variance of i.  MV depends on the inbreeding of the parents, so
// the rows are taken in order and each row's inbreeding is found as it
// goes: from the diagonal of A, which is the sum over the row's ancestors j
// of (weight of j in i)^2 * MV(j).  The ancestors are visited deepest
// generation first (a row lies one generation below its deeper parent), so
// that every ancestor has received the weights of all its progeny on the
// path before it hands them on to its own parents.  Rows of full sibs that
// follow each other share their inbreeding without a walk.
//
// The walk costs one visit per ancestor, which is little in shallow or
// loosely connected pedigrees but grows with the square of the pedigree
// once generations overlap and mix (every earlier row an ancestor).  There
// the same coefficients come from a band of A kept by the tabular
// recursion (pedigree/band.h), in time n * lag, when the parents lie at most
// `lag` rows back and the band fits: `use_band` compares the walk's visits,
// estimated from a sample of rows, with the band's work.  The ancestor walk
// is the method for genetic groups, X-linked inheritance and inbred lines.
//
// Genetic groups are the first ngrp rows.  They have no variance of their
// own: they count as unknown parents in MV and inbreeding (F = -1, like the
// unknown parent, and MV 0), but their rows receive the contributions of
// their progeny.
#include "pedigree/g5vaig.h"

#include <cmath>
#include <cstdint>
#include <cstdio>

#include "host/console.h"
#include "pedigree/band.h"
#include "host/ctrn.h"
#include "host/messages.h"

namespace tarnel {

namespace {

using u32 = std::uint32_t;

// A hint to bring memory into the cache before it is read.
inline void prefetch(const void* p) {
#if defined(__GNUC__)
  __builtin_prefetch(p);
#else
  (void)p;
#endif
}

// Floors and caps of the row values.
constexpr double kMinMV = 5e-06;
constexpr double kMaxF = 0.99999;
// 1 - 0.5^10: the inbreeding given to more than ten selfing generations.
constexpr double kLimit = 1.0 - 0.0009765625;

// 0.5^k for k = 1..10.
struct HalfPowers {
  double v[11];
  constexpr HalfPowers() : v() {
    double h = 1.0;
    v[0] = 1.0;
    for (int k = 1; k <= 10; ++k) {
      h *= 0.5;
      v[k] = h;
    }
  }
};
constexpr HalfPowers kHalf;

// X-linked method, by sex of the row (1 male, 2 female).  A male carries
// his dam's X only; a female carries her sire's whole X and a sampled half
// of her dam's.  With additive X variance 1 for a non-inbred female and
// 1/2 for a male, a founder's MV is 1.5 less the founder value.
struct XlinkRow {
  double pr[2];
  double founder;
};
constexpr XlinkRow kXlink[3] = {{{0.0, 0.0}, 0.0}, {{0.0, 0.5}, 1.0}, {{1.0, 0.5}, 0.5}};

// Row store access, slots from 1.
struct Store {
  span<double> x;
  span<i32> l;
  i64 lenai;
  i32& col(i64 s) const { return l[static_cast<std::size_t>(2 * (s - 1))]; }
  i32& link(i64 s) const { return l[static_cast<std::size_t>(2 * (s - 1) + 1)]; }
  double& val(i64 s) const { return x[static_cast<std::size_t>(s - 1)]; }
};

// Adds `v` to element (row, c), c not above row, walking the row from its
// head.  A missing column is inserted the way the sparse kernels insert:
// the element in its way moves to a new slot and its old slot takes the new
// element, so a head never moves.
int add_to_row(const Store& st, i64& NEXT, i32 row, i32 c, double v, int& flag,
               span<i32> dslot) {
  if (c == row && !dslot.empty()) {
    const i32 s = dslot[static_cast<std::size_t>(row)];
    if (s > 0) {
      st.val(s) += v;
      return 0;
    }
  }
  i64 s = row;
  for (;;) {
    const i32 cur = st.col(s);
    if (cur == c) {
      st.val(s) += v;
      return 0;
    }
    if (cur > c) {
      if (NEXT >= st.lenai) {
        flag = kAinvPoolFull;
        return 1;
      }
      ++NEXT;
      st.col(NEXT) = cur;
      st.link(NEXT) = st.link(s);
      st.val(NEXT) = st.val(s);
      if (cur == row && !dslot.empty()) dslot[static_cast<std::size_t>(row)] = static_cast<i32>(NEXT);
      st.col(s) = c;
      st.link(s) = static_cast<i32>(NEXT);
      st.val(s) = v;
      return 0;
    }
    const i32 next = st.link(s);
    if (next <= 0) {
      flag = kAinvBrokenRow;
      return 1;
    }
    s = next;
  }
}

// What the ancestor walk reads of a row, kept together in four words so
// that a visit touches one place in memory, two rows to a cache line.  The
// parent weights of a row are one of a few pairs, held in a small table
// and named by a code stored under the depth.
struct RowRec {
  i32 par[2];     // first and second parent, 0 unknown
  i32 spare;      // unused: keeps the record at four words
  u32 depth_code; // generation depth (0 founder) << kCodeBits | weight code
  double mv;      // MV of the row (the diagonal of D); 0 for groups
  double w;       // weight in the walk under way
};
static_assert(sizeof(RowRec) == 4 * sizeof(double), "a row record is four words");
constexpr int kCodeBits = 4;
constexpr int kCodes = 1 << kCodeBits;
constexpr u32 kMaxDepth = (1u << (32 - kCodeBits)) - 1;

struct WeightTable {
  double pr[kCodes][2] = {};
  int n = 1;  // code 0: no parents, weights 0
  int code(const double p[2]) {
    for (int k = 0; k < n; ++k)
      if (pr[k][0] == p[0] && pr[k][1] == p[1]) return k;
    if (n == kCodes) return -1;
    pr[n][0] = p[0];
    pr[n][1] = p[1];
    return n++;
  }
};

// Work vectors of g5vaig, carved from the work array.
struct AigWork {
  RowRec* rec;    // nan+1 records, on a 64-byte boundary; record 0 is the unknown parent
  i32* head;      // nan+1: first node waiting at each depth, 0 none
  i32* node_row;  // nan+1: the ancestor of each node of the walk
  i32* node_next; // nan+1: the next node at the same depth, 0 none
  i32* dslot;     // nan+1: slot of each row's diagonal
  i32* stack;     // 2(2nan+2): pairs of the coancestry stack (inbred lines)
  double* sw;     // 2nan+2: weights of those pairs
  i64 stack_cap;
};

i64 half_words(i64 ints) { return (ints + 1) / 2; }

// Layout of the work array: room to bring the records to a 64-byte
// boundary, the records, then four integer vectors of nan+1 (in words of
// two), then the coancestry stack of the inbred lines.
constexpr i64 kAlignWords = 8;
constexpr i64 kRecordWords = sizeof(RowRec) / sizeof(double);
constexpr i64 kIntVectors = 4;

int fault(AinvArgs& a, int code, int row, const char* text) {
  char buf[160];
  if (row > 0) {
    std::snprintf(buf, sizeof buf, "Pedigree row %d: %s", row, text);
  } else {
    std::snprintf(buf, sizeof buf, "%s", text);
  }
  g5verror(buf, 4);
  a.where = row;
  return g5vflt(a.ifault, code);
}

// Inbreeding after n selfing generations starting from g.
double selfing_series(double g, double fgen) {
  // Past a few thousand generations the series has long reached 1.
  const long n = fgen < 4000.0 ? static_cast<long>(fgen) : 4000L;
  for (long k = 0; k < n; ++k) g = (g + 1.0) * 0.5;
  return g;
}

}  // namespace

u64 g5vaig_work_words(i64 nan, int ibl) {
  if (nan < 0) return 0;
  const i64 n1 = nan + 1;
  u64 words = static_cast<u64>(kAlignWords + kRecordWords * n1 + kIntVectors * half_words(n1));
  if (ibl == 1) words += static_cast<u64>(2 * (2 * nan + 2));
  return words;
}

int g5vllin(span<double> ainv, span<i32> llainv, i64 lenai, i64& NEXT, i32 I, i32 S, i32 D,
            const double PR[2], double C, int& FLAG, span<i32> dslot) {
  const Store st{ainv, llainv, lenai};
  if (add_to_row(st, NEXT, I, I, C, FLAG, dslot)) return 1;
  const bool s_on = S > 0 && PR[0] != 0.0;
  const bool d_on = D > 0 && PR[1] != 0.0;
  if (s_on) {
    if (add_to_row(st, NEXT, S, S, C * PR[0] * PR[0], FLAG, dslot)) return 1;
    if (add_to_row(st, NEXT, I, S, -C * PR[0], FLAG, dslot)) return 1;
  }
  if (d_on) {
    if (add_to_row(st, NEXT, D, D, C * PR[1] * PR[1], FLAG, dslot)) return 1;
    if (add_to_row(st, NEXT, I, D, -C * PR[1], FLAG, dslot)) return 1;
  }
  if (s_on && d_on) {
    const double v = C * PR[0] * PR[1];
    if (S == D) {
      // Both parents the same: the cross term falls on its diagonal twice.
      if (add_to_row(st, NEXT, S, S, 2.0 * v, FLAG, dslot)) return 1;
    } else {
      const i32 hi = S > D ? S : D, lo = S > D ? D : S;
      if (add_to_row(st, NEXT, hi, lo, v, FLAG, dslot)) return 1;
    }
  }
  return 0;
}

namespace {

// What the rows of g5vaig share.
struct AigRun {
  AinvArgs& a;
  const AinvOptions& o;
  AigWork wk;
  WeightTable weights;
  Store st;
  span<i32> dslot;
  double* F = nullptr;     // inbreeding by row, [0] the unknown parent
  bool copy_sibs = false;  // full sibs in a row share their inbreeding
  InbreedingBand* band = nullptr;  // inbreeding from the band instead of the walk

  AigRun(AinvArgs& args, const AigWork& w)
      : a(args), o(args.opt), wk(w), st{args.ainv, args.llainv, args.lenai},
        dslot(w.dslot, static_cast<std::size_t>(args.nan + 1)), F(args.inbreeding.data()),
        copy_sibs(args.opt.fmode == 0 && args.opt.xlink == 0) {}

  // A sex code is 1 or 2; any other value, NaN included, reads as 0.
  int sex_of(i64 r) const {
    const double v = a.fgsx[static_cast<std::size_t>(r - 1)];
    return v == 1.0 ? 1 : (v == 2.0 ? 2 : 0);
  }
  i32 parent(i64 r, int k) const { return a.plist[static_cast<std::size_t>(2 * (r - 1) + k)]; }
  int fail(int code, i64 row, const char* text) {
    return fault(a, code, static_cast<int>(row), text);
  }
};

// What one row contributes: parents and their weights, the Mendelian
// sampling variance and the row's inbreeding, found from the ancestors
// when `walk` is set.
struct RowValues {
  i32 S = 0, D = 0;
  double fgen = 0.0;  // generation or selfing value (fgen in use)
  double PR[2] = {0.5, 0.5};
  double MV = 1.0, Fi = 0.0;
  bool walk = false;
  int sex = 0;
};

// The sizes of the views and the options.  Result 0 or the fault.
int check_args(AinvArgs& a, WorkArray work) {
  const AinvOptions& o = a.opt;
  const i64 nan = a.nan;
  if (nan < 0 || o.ngrp < 0 || o.ngrp > nan || a.lenai < nan ||
      a.llainv.size() < static_cast<std::size_t>(2 * a.lenai) ||
      a.ainv.size() < static_cast<std::size_t>(a.lenai) ||
      a.plist.size() < static_cast<std::size_t>(2 * nan) ||
      a.inbreeding.size() < static_cast<std::size_t>(nan + 1) ||
      ((o.fmode > 0 || o.xlink > 0) && a.fgsx.size() < static_cast<std::size_t>(nan))) {
    // A store shorter than one slot a row is a shortage like any other.
    if (a.lenai < nan && a.lenai >= 0) return fault(a, kAinvPoolFull, 0, "Pedigree row store is full");
    return fault(a, kAinvSizes, 0, "Pedigree sizes are inconsistent");
  }
  if (o.ngrp > 0 && (o.xlink > 0 || o.ibl == 1))
    return fault(a, kAinvGroupMethod, 0,
                 "Genetic groups cannot be combined with the X-linked or inbred-line methods");
  if (!work.valid() || work.len < g5vaig_work_words(nan, o.ibl))
    return fault(a, kAinvWorkShort, 0, "Pedigree work array is too short");
  return 0;
}

// The work vectors, carved from the work array (see g5vaig_work_words).
AigWork carve_work(WorkArray work, i64 nan) {
  const std::size_t n1 = static_cast<std::size_t>(nan + 1);
  AigWork wk;
  const i64 hw = half_words(static_cast<i64>(n1));
  const std::size_t skip = (64 - reinterpret_cast<std::uintptr_t>(work.r) % 64) % 64 / 8;
  double* const base = work.r + kAlignWords + kRecordWords * n1;
  wk.rec = reinterpret_cast<RowRec*>(work.r + skip);
  wk.head = reinterpret_cast<i32*>(base);
  wk.dslot = reinterpret_cast<i32*>(base + hw);
  wk.node_row = reinterpret_cast<i32*>(base + 2 * hw);
  wk.node_next = reinterpret_cast<i32*>(base + 3 * hw);
  double* after = base + kIntVectors * hw;
  wk.stack_cap = 2 * nan + 2;
  wk.stack = reinterpret_cast<i32*>(after);
  wk.sw = after + wk.stack_cap;
  return wk;
}

// Every row starts as its own diagonal, 0; the records are cleared.  The
// unknown parent and the groups have no variance and inbreeding -1, so
// that 1 + F, their diagonal of A, is 0.
void clear_rows(AigRun& x) {
  const i64 nan = x.a.nan;
  for (i64 r = 1; r <= nan; ++r) {
    x.st.col(r) = static_cast<i32>(r);
    x.st.link(r) = 0;
    x.st.val(r) = 0.0;
    x.dslot[static_cast<std::size_t>(r)] = static_cast<i32>(r);
  }
  x.a.NEXT = nan;
  for (std::size_t k = 0; k < static_cast<std::size_t>(nan + 1); ++k) {
    x.wk.rec[k] = RowRec{{0, 0}, 0, 0u, 0.0, 0.0};
    x.wk.head[k] = 0;
  }
  for (i64 g = 0; g <= x.o.ngrp; ++g) x.F[g] = -1.0;
}

// Generation depth of row i: one more than the deeper parent; groups and
// unknown parents stand at 0.  Result 1 when the pedigree is too deep.
int set_depth(AigRun& x, i64 i, i32 S, i32 D) {
  RowRec* rec = x.wk.rec;
  const u32 dS = S > x.o.ngrp ? (rec[S].depth_code >> kCodeBits) + 1 : 0;
  const u32 dD = D > x.o.ngrp ? (rec[D].depth_code >> kCodeBits) + 1 : 0;
  const u32 depth = dS > dD ? dS : dD;
  if (depth > kMaxDepth) return x.fail(kAinvSizes, i, "the pedigree is too deep");
  rec[i].depth_code = depth << kCodeBits;
  rec[i].par[0] = S;
  rec[i].par[1] = D;
  return 0;
}

// An inbred line: MV from the coancestry of its parents, found with a
// stack of pairs.  Result 1 on a fault.
int inbred_line_row(AigRun& x, i64 i, RowValues& v) {
  const i32 S = v.S, D = v.D;
  if (S == D && S > 0)
    return x.fail(kAinvLineParents, i, "an inbred line needs two different parents");
  v.PR[1] = 0.5;
  if (S == 0 && D == 0) {
    v.MV = 2.0;
  } else if (S == 0 || D == 0) {
    v.MV = 1.5;
  } else {
    AigWork& wk = x.wk;
    double sum = 0.0;
    wk.stack[0] = S;
    wk.stack[1] = D;
    wk.sw[0] = 1.0;
    i64 top = 1;
    while (top > 0) {
      --top;
      const i32 p = wk.stack[2 * top], q = wk.stack[2 * top + 1];
      const double w = wk.sw[top];
      if (p == q) {
        sum += w;
        continue;
      }
      const i32 later = p > q ? p : q, earlier = p > q ? q : p;
      for (int k = 0; k < 2; ++k) {
        const i32 par = x.parent(later, k);
        if (par <= 0) continue;
        if (top >= wk.stack_cap)
          return x.fail(kAinvWorkShort, i, "Pedigree work array is too short");
        wk.stack[2 * top] = par;
        wk.stack[2 * top + 1] = earlier;
        wk.sw[top] = 0.5 * w;
        ++top;
      }
    }
    v.MV = 1.0 - sum;
  }
  v.Fi = x.o.dib;
  return 0;
}

// The X-linked method: weights and MV by the sex of the row and of its
// parents.  Result 1 on a fault.
int xlinked_row(AigRun& x, i64 i, RowValues& v) {
  const i32 S = v.S, D = v.D;
  v.sex = x.sex_of(i);
  if (v.sex != 1 && v.sex != 2)
    return x.fail(kAinvBadSex, i, "the X-linked method needs a sex code of 1 or 2");
  v.PR[0] = kXlink[v.sex].pr[0];
  v.PR[1] = kXlink[v.sex].pr[1];
  v.Fi = 0.0;
  if (S == 0 && D == 0) {
    v.MV = 1.5 - kXlink[v.sex].founder;
  } else if (S > 0 && D == 0) {
    if (x.sex_of(S) != 1)
      return x.fail(kAinvSexMismatch, i,
                    "the first parent must be of sex 1 under the X-linked method");
    v.MV = 0.5;
  } else if (S == 0 && D > 0) {
    if (v.sex != 2 || x.sex_of(D) != 2)
      return x.fail(kAinvSexMismatch, i,
                    "a second parent alone needs sex 2 of the row and of that parent");
    v.MV = (3.0 - x.F[D]) / 4.0;
  } else {
    if (x.sex_of(S) != 1 || x.sex_of(D) != 2)
      return x.fail(kAinvSexMismatch, i,
                    "parents must be of sex 1 and 2 under the X-linked method");
    v.MV = (1.0 - x.F[D]) / 4.0;
    v.walk = true;
  }
  return 0;
}

// The standard method (and the maternal grandsire): both parents or the
// first alone, founders with their selfing value, and the first parent
// with partial selfing.
void standard_row(const AigRun& x, RowValues& v) {
  const AinvOptions& o = x.o;
  const i32 S = v.S, D = v.D;
  const double FS = x.F[S], FD = x.F[D];
  if (D > 0 || (o.pself <= 0 && S > 0)) {
    if (o.fmode < 1 && o.mgs == 0) {
      v.MV = 0.5 - (FS + FD) / 4.0;
    } else if (o.fmode < 1) {
      v.MV = (11.0 - FD - 4.0 * FS) / 16.0;
    } else {
      v.PR[0] = v.PR[1] = 0.5;
      v.MV = 0.5 - (FS + FD) / 4.0;
      if (S == 0 || D == 0) {
        const double G = v.fgen >= 1 ? selfing_series(0.0, v.fgen) : v.fgen;
        v.MV += G;
        v.Fi = G;
      }
    }
    v.walk = S > 0 && D > 0;
  } else if (S == 0 && D == 0) {
    v.Fi = 0.0;
    if (o.fmode > 0 && v.fgen > 0) {
      if (v.fgen <= 1) {
        v.Fi = v.fgen;
      } else if (v.fgen <= 10) {
        v.Fi = 1.0 - kHalf.v[static_cast<int>(v.fgen)];
      } else {
        v.Fi = kLimit;
      }
    }
    v.MV = 1.0 + v.Fi;
  } else {
    // First parent known, second unknown, partial selfing.
    v.PR[0] = (1.0 + o.pself) / 2.0;
    v.MV = 1.0 - ((o.pself * o.pself + 1.0) / 4.0) * (FS + 1.0);
    v.Fi = (FS + 1.0) * o.pself / 2.0;
  }
}

// Stores MV and the code of the parent weights in row i's record.  Result
// 1 when the weights table is full.
int set_record(AigRun& x, i64 i, const RowValues& v) {
  const int code = x.weights.code(v.PR);
  if (code < 0) return x.fail(kAinvSizes, i, "too many parent weights");
  RowRec& me = x.wk.rec[i];
  me.mv = v.MV;
  me.depth_code = (me.depth_code & ~static_cast<u32>(kCodes - 1)) | static_cast<u32>(code);
  return 0;
}

// Row i's inbreeding from its ancestors, walked deepest generation first:
// every ancestor lies deeper than its parents, so it has received the
// weights of all its progeny on the path before it hands them on.  The
// waiting ancestors of each depth are a list of nodes in a small pool, so
// that the records themselves are read in an order known ahead and can be
// fetched early.  Result: the inbreeding.
double walk_ancestors(AigRun& x, i64 i, const RowValues& v) {
  AigWork& wk = x.wk;
  RowRec& me = wk.rec[i];
  double acc = (x.o.xlink > 0 && v.sex == 1) ? -0.5 : -1.0;
  const i32 top = static_cast<i32>(me.depth_code >> kCodeBits);
  me.w = 1.0;
  i32 nodes = 1;
  wk.node_row[1] = static_cast<i32>(i);
  wk.node_next[1] = 0;
  wk.head[top] = 1;
  for (i32 level = top; level >= 0; --level) {
    for (i32 nd = wk.head[level]; nd != 0; nd = wk.node_next[nd]) {
      const i32 ahead = wk.node_next[nd];
      if (ahead != 0) {
        const RowRec& ra = wk.rec[wk.node_row[ahead]];
        prefetch(&wk.rec[ra.par[0]]);
        prefetch(&wk.rec[ra.par[1]]);
      }
      RowRec& rj = wk.rec[wk.node_row[nd]];
      const double W = rj.w;
      rj.w = 0.0;
      const double* pr = x.weights.pr[rj.depth_code & (kCodes - 1)];
      for (int k = 0; k < 2; ++k) {
        const i32 p = rj.par[k];
        const double add = W * pr[k];
        if (p <= x.o.ngrp || add == 0.0) continue;
        RowRec& rp = wk.rec[p];
        if (rp.w == 0.0) {
          const u32 d = rp.depth_code >> kCodeBits;
          ++nodes;
          wk.node_row[nodes] = p;
          wk.node_next[nodes] = wk.head[d];
          wk.head[d] = nodes;
        }
        rp.w += add;
      }
      acc += W * W * rj.mv;
    }
    wk.head[level] = 0;
  }
  return acc;
}

// The inbreeding of a row whose parents are both known: that of the full
// sib just before it, or from the walk; then its selfing generations.
// Result 1 on a fault.
int inbreeding(AigRun& x, i64 i, RowValues& v) {
  const i32 pS = x.parent(i - 1, 0), pD = x.parent(i - 1, 1);
  if (x.copy_sibs && i - 1 > x.o.ngrp && pS == v.S && pD == v.D) {
    v.Fi = x.F[i - 1];
  } else {
    if (set_record(x, i, v)) return 1;
    v.Fi = x.band ? x.band->inbreeding(v.S, v.D, v.PR, v.MV) : walk_ancestors(x, i, v);
  }
  if (x.o.fmode >= 1 && v.fgen >= 1) {
    const double G = selfing_series(v.Fi, v.fgen);
    v.MV += G - v.Fi;
    v.Fi = G;
  }
  return 0;
}

// Row i's values capped and kept, and its contribution added to A^-1.
// Result 1 on a fault.
int add_row(AigRun& x, i64 i, RowValues& v) {
  if (v.MV < kMinMV) v.MV = kMinMV;
  if (v.Fi > kMaxF) v.Fi = kMaxF;
  x.F[i] = v.Fi;
  if (set_record(x, i, v)) return 1;
  x.a.det -= std::log(1.0 / v.MV);
  int flag = 0;
  if (g5vllin(x.a.ainv, x.a.llainv, x.a.lenai, x.a.NEXT, static_cast<i32>(i), v.S, v.D, v.PR,
              1.0 / v.MV, flag, x.dslot)) {
    if (flag == kAinvPoolFull) return x.fail(flag, i, "Pedigree row store is full");
    return x.fail(flag, i, "Pedigree row store is corrupt");
  }
  return 0;
}

// One row of the pedigree.  Result 1 on a fault.
int pedigree_row(AigRun& x, i64 i) {
  const AinvOptions& o = x.o;
  RowValues v;
  v.S = x.parent(i, 0);
  v.D = x.parent(i, 1);
  if (v.S < 0 || v.S >= i || v.D < 0 || v.D >= i)
    return x.fail(kAinvBadParent, i, "a parent does not come before its progeny");
  if (set_depth(x, i, v.S, v.D)) return 1;
  if (o.ngrp > 0 && v.S == 0)
    return x.fail(kAinvGroupParent, i, "first parent unknown in a pedigree with genetic groups");
  v.fgen = o.fmode > 0 ? x.a.fgsx[static_cast<std::size_t>(i - 1)] : 0.0;
  if (std::isnan(v.fgen)) v.fgen = 0.0;  // no value: no selfing
  v.PR[1] = o.mgs != 0 ? 0.25 : 0.5;
  if (o.ibl == 1) {
    if (inbred_line_row(x, i, v)) return 1;
  } else if (o.xlink > 0) {
    if (xlinked_row(x, i, v)) return 1;
  } else {
    standard_row(x, v);
  }
  if (v.walk && inbreeding(x, i, v)) return 1;
  if (add_row(x, i, v)) return 1;
  if (x.band) x.band->add_row(i, v.S, v.D, v.PR, v.MV);
  return 0;
}

// Genetic groups with no progeny: each is reported; with `method` set, one
// that closes a run of more than one group since the last empty one becomes
// the constraint that their effects sum to zero.  Result 1 on a fault.
int empty_groups(AigRun& x) {
  const AinvOptions& o = x.o;
  const Store& st = x.st;
  i64 last = 0;  // the last empty group
  for (i64 g = 1; g <= o.ngrp; ++g) {
    // A group row holds only columns of groups up to its own.
    for (i64 s = g; s > 0; s = st.link(s)) {
      const i32 c = st.col(s);
      if (c < 1 || c > g) {
        g5verror("Possible error in genetic group pedigree.", 3);
        vprt("%ld\n", std::lround(4.0 * st.val(s)));
      }
    }
    if (st.val(x.dslot[static_cast<std::size_t>(g)]) != 0.0) continue;
    ++x.a.empty_groups;
    char buf[80];
    if (o.method >= 0 && g - last > 2) {
      for (i64 c = last + 1; c < g; ++c) {
        int flag = 0;
        if (add_to_row(st, x.a.NEXT, static_cast<i32>(g), static_cast<i32>(c), 1.0, flag, x.dslot))
          return x.fail(flag, g, "Pedigree row store is full");
      }
      st.val(x.dslot[static_cast<std::size_t>(g)]) = 0.0;
      ++x.a.constraints;
      std::snprintf(buf, sizeof buf, "Empty Genetic Group%2d generated a Constraint",
                    static_cast<int>(g));
      g5verror(buf, 2);
    } else {
      std::snprintf(buf, sizeof buf, "Empty Genetic Group%2d", static_cast<int>(g));
      g5vcormsg(buf, 3);
    }
    last = g;
  }
  return 0;
}

// The band applies to the standard method, the maternal grandsire and
// selfing; not to genetic groups, the X-linked method or inbred lines,
// whose rows the walk treats apart.
bool band_applies(const AinvOptions& o) { return o.ngrp == 0 && o.xlink <= 0 && o.ibl != 1; }

// The walk visits each ancestor of each row with both parents, a visit a
// random read; the band reads and writes about three contiguous values per
// row and column of the band.  The walk stays where its estimated visits
// are fewer than the band's work (shallow pedigrees, few ancestors a row),
// the band takes the deep, well-mixed ones.  The node vectors serve as the
// estimate's scratch before the rows are cleared.
bool use_band(const AinvArgs& a, WorkArray work, const AigWork& wk) {
  const AinvOptions& o = a.opt;
  if (o.inbreeding_method == 1 || o.band_lag <= 0 || !band_applies(o)) return false;
  if (work.len < g5vaig_work_words(a.nan, o.ibl) + band_words(o.band_lag)) return false;
  if (pedigree_lag(a.plist, a.nan) > o.band_lag) return false;
  if (o.inbreeding_method == 2) return true;
  const double visits = walk_visits_estimate(a.plist, a.nan, 32, wk.head, wk.node_row);
  return visits > 0.5 * static_cast<double>(a.nan) * static_cast<double>(o.band_lag);
}

}  // namespace

i64 g5vaig_band_lag(span<const i32> plist, i64 nan, const AinvOptions& o) {
  if (!band_applies(o) || o.inbreeding_method == 1 ||
      plist.size() < static_cast<std::size_t>(2 * nan))
    return 0;
  const i64 lag = pedigree_lag(plist, nan);
  return band_words(lag) <= kBandMaxWords ? lag : 0;
}

int g5vaig(AinvArgs& a, WorkArray work) {
  a.ifault = 0;
  a.band_used = 0;
  a.where = 0;
  a.empty_groups = 0;
  a.constraints = 0;
  if (check_args(a, work)) return 1;
  const AinvOptions& o = a.opt;
  if (o.debug) vprt("G5VAIG #IDs= %d Group= %d Xlink= %d\n", a.nan, o.ngrp, o.xlink);
  AigRun x(a, carve_work(work, a.nan));
  InbreedingBand band(work.r + g5vaig_work_words(a.nan, o.ibl), o.band_lag);
  if (use_band(a, work, x.wk)) {
    x.band = &band;
    a.band_used = 1;
  }
  clear_rows(x);
  for (i64 i = o.ngrp + 1; i <= a.nan; ++i)
    if (pedigree_row(x, i)) return 1;
  if (o.ngrp > 0 && o.groupOffset <= 0 && empty_groups(x)) return 1;
  return 0;
}
int pedigree_triples(AinvArgs& a, span<double> ginv, i64& linv) {
  const Store st{a.ainv, a.llainv, a.lenai};
  const std::size_t cap = ginv.size() / 3;
  linv = 0;
  for (i64 r = 1; r <= a.nan; ++r) {
    for (i64 s = r; s > 0; s = st.link(s)) {
      if (static_cast<std::size_t>(linv) >= cap)
        return fault(a, kAinvTriplesShort, static_cast<int>(r), "Pedigree triple store is too short");
      double* rec = ginv.data() + 3 * linv;
      rec[0] = static_cast<double>(r);
      rec[1] = static_cast<double>(st.col(s));
      rec[2] = st.val(s);
      ++linv;
    }
  }
  return 0;
}

int pedigree(AinvArgs& a, WorkArray work, span<double> ginv, i64& linv) {
  linv = 0;
  if (!licence_check()) return fault(a, kAinvSizes, 0, "Licence check failed");
  a.det = 2.0 - a.det;
  if (g5vaig(a, work)) return 1;
  if (ginv.empty()) return 0;
  return pedigree_triples(a, ginv, linv);
}

}  // namespace tarnel
