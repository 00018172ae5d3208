// Pedigree ordering.
//
// One loop is repeated until a whole pass moves nothing.  Each pass finds,
// for every identity, its own record and its first records as sire and as
// dam; parents without a record are inserted and individuals that appear as
// a parent before their own record are moved, all of these to the front in
// the order of `lvls`, with everyone else behind them in the old order.
// A deep chain of descent would take one pass per level, a pass over the
// whole pedigree each, so when two passes have moved records the rest are
// put in an order of descent at once (a depth-first walk up the parents,
// otherwise keeping the given order) and the third pass finds nothing to
// move.  A cycle of
// descent would keep the loop moving for ever, so after the second moving
// pass the pedigree is searched for one, and the loop has a hard bound
// besides.
#include "pedigree/psort.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "host/console.h"

namespace tarnel {

const char* const kUnknownParent = "0";

namespace {

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
template <class T>
using Buffer = std::unique_ptr<T[], FreeDeleter>;

// Allocates `count` elements of T, or sets `errmsg` to the allocation
// message (`what` names the use) and returns null.
template <class T>
Buffer<T> allocate(std::size_t count, const char* what, std::string& errmsg) {
  const std::size_t bytes = (count == 0 ? 1 : count) * sizeof(T);
  Buffer<T> p(static_cast<T*>(std::malloc(bytes)));
  if (!p) {
    char buf[160];
    std::snprintf(buf, sizeof buf, "Unable to allocate %lld bytes of dynamic memory%s\n",
                  static_cast<long long>(bytes), what);
    errmsg = buf;
  }
  return p;
}

int compare_ids(span<const char* const> lvls, int a, int b) {
  return std::strcmp(lvls[static_cast<std::size_t>(a)], lvls[static_cast<std::size_t>(b)]);
}

// Quick_sort below this depth of recursion on left parts; deeper ranges
// are finished by a sort with a guaranteed bound, so that no input can
// exhaust the stack.
constexpr int kMaxSortDepth = 64;

void quick_sort_depth(int low, int high, span<const char* const> lvls, span<int> order,
                      int depth) {
  while (low < high) {
    if (depth > kMaxSortDepth) {
      std::sort(order.data() + low, order.data() + high + 1, [&](int a, int b) {
        return compare_ids(lvls, a, b) < 0;
      });
      return;
    }
    const int p = Partition(low, high, lvls, order);
    quick_sort_depth(low, p - 1, lvls, order, depth + 1);
    low = p + 1;
  }
}

// Finds an identity on a cycle of descent in `rows` records (columns of
// stride `stride`, codes from 0, -1 unknown), or -1 when there is none.
// Identities whose parents have all been placed are placed in turn; any
// that are never placed descend from a cycle, and climbing from one of
// them through parents not placed must come back to an identity already
// met, which lies on the cycle.
int find_cycle(int rows, int nan, const int* ped, int stride, std::string& errmsg, bool& failed) {
  failed = false;
  const std::size_t n = static_cast<std::size_t>(nan);
  Buffer<int> mem = allocate<int>(5 * n + 1, "", errmsg);
  if (!mem) {
    failed = true;
    return -1;
  }
  int* pending = mem.get();          // parents not yet placed, by identity
  int* start = pending + n;          // n + 1 offsets of each identity's progeny
  int* progeny = start + n + 1;      // 2n entries
  int* queue = progeny + 2 * n;      // n entries
  std::fill(pending, pending + n, 0);
  std::fill(start, start + n + 1, 0);
  const int* ind = ped;
  const int* par[2] = {ped + stride, ped + 2 * stride};
  for (int r = 0; r < rows; ++r) {
    for (const int* p : par) {
      if (p[r] >= 0) {
        ++pending[ind[r]];
        ++start[p[r] + 1];
      }
    }
  }
  for (std::size_t k = 0; k < n; ++k) start[k + 1] += start[k];
  // Fill progeny lists using queue as a running cursor.
  for (std::size_t k = 0; k < n; ++k) queue[k] = start[k];
  for (int r = 0; r < rows; ++r)
    for (const int* p : par)
      if (p[r] >= 0) progeny[queue[p[r]]++] = ind[r];
  int head = 0, tail = 0;
  for (int k = 0; k < nan; ++k)
    if (pending[k] == 0) queue[tail++] = k;
  while (head < tail) {
    const int k = queue[head++];
    for (int e = start[k]; e < start[k + 1]; ++e)
      if (--pending[progeny[e]] == 0) queue[tail++] = progeny[e];
  }
  if (tail == nan) return -1;
  // Record of each identity, to climb through its parents.
  int* rec = queue;  // reuse: identity -> record, -1 none
  std::fill(rec, rec + n, -1);
  for (int r = 0; r < rows; ++r) rec[ind[r]] = r;
  int* seen = start;  // reuse: 0 not met, 1 met on this climb
  std::fill(seen, seen + n, 0);
  int k = 0;
  while (pending[k] == 0) ++k;
  for (;;) {
    if (seen[k]) return k;
    seen[k] = 1;
    const int r = rec[k];
    int next = -1;
    for (const int* p : par)
      if (r >= 0 && p[r] >= 0 && pending[p[r]] > 0) next = p[r];
    if (next < 0) return k;  // cannot happen for a pending identity
    k = next;
  }
}

// The pedigree being sorted and the tables of one pass.  `ped` holds three
// columns of stride nan (individual, sire, dam) with `rows` records in use;
// `fgen` (stride nan) may be null.
struct SortPass {
  int nan = 0;
  std::size_t n = 0;
  span<const char* const> lvls;
  int* ped = nullptr;
  double* fgen = nullptr;
  int rows = 0;
  int* own = nullptr;      // record of each identity as individual
  int* as_sire = nullptr;  // its first record as sire
  int* as_dam = nullptr;   // its first record as dam
  int* moved = nullptr;    // its new record
  int marked = 0;          // identities moved to the front (NEW)
  int inserted = 0;        // parents given a record of their own

  // `table` holds 4*nan ints: own, as_sire, as_dam and moved.
  SortPass(int nan_, span<const char* const> lvls_, int* ped_, double* fgen_, int rows_, int* table)
      : nan(nan_), n(static_cast<std::size_t>(nan_)), lvls(lvls_), ped(ped_), fgen(fgen_),
        rows(rows_), own(table), as_sire(table + n), as_dam(table + 2 * n), moved(table + 3 * n) {}
};

// Each identity's own record and its first records as sire and as dam.
// Result 1 (with the text) when an identity has two records.
int index_records(SortPass& sp, std::string& errmsg) {
  std::fill(sp.own, sp.own + 4 * sp.n, -1);
  for (int r = 0; r < sp.rows; ++r) {
    const int id = sp.ped[r];
    if (sp.own[id] != -1) {
      errmsg = std::string("Pedigree individual \"") + sp.lvls[id] +
               "\" has more than one record\n";
      return 1;
    }
    sp.own[id] = r;
  }
  int* const first_of[2] = {sp.as_sire, sp.as_dam};
  for (int c = 1; c < 3; ++c) {
    const int* col = sp.ped + static_cast<std::size_t>(c) * sp.n;
    int* first = first_of[c - 1];
    for (int r = 0; r < sp.rows; ++r) {
      const int id = col[r];
      if (id >= 0 && first[id] == -1) first[id] = r;
    }
  }
  return 0;
}

// Parents without a record are inserted and individuals that appear as a
// parent before their own record are moved, to the front in the order of
// `lvls`; each is reported.
void mark_moves(SortPass& sp) {
  sp.marked = 0;
  sp.inserted = 0;
  for (int i = 0; i < sp.nan; ++i) {
    const int REC = sp.own[i], SIRE = sp.as_sire[i], DAM = sp.as_dam[i];
    if (REC == -1 && (SIRE != -1 || DAM != -1)) {
      sp.moved[i] = sp.marked++;
      ++sp.inserted;
      vprt("Pedigree insert: Individual \"%s\" inserted at record %d\n", sp.lvls[i], sp.marked);
    } else if (SIRE != -1 && SIRE < REC) {
      sp.moved[i] = sp.marked++;
      vprt("Pedigree  order (P1): Individual \"%s\" moved to record %d\n", sp.lvls[i], sp.marked);
    } else if (DAM != -1 && DAM < REC) {
      sp.moved[i] = sp.marked++;
      vprt("Pedigree  order (P2): Individual \"%s\" moved to record %d\n", sp.lvls[i], sp.marked);
    }
  }
}

// New order: marked rows first, then the rest in old record order.
void place_rest(SortPass& sp, int* recid) {
  for (int i = 0; i < sp.nan; ++i)
    if (sp.own[i] >= 0) recid[sp.own[i]] = i;
  int next = sp.marked;
  for (int r = 0; r < sp.rows; ++r) {
    const int i = recid[r];
    if (sp.moved[i] == -1) sp.moved[i] = next++;
  }
}

// The pedigree in the new order into newped (and fgen into newfgen, when in
// use): an inserted parent has unknown parents and the default value fg;
// `convert` turns a selfing generation number into the inbreeding
// coefficient of a founder.
void rebuild(const SortPass& sp, int* newped, double* newfgen, double fg, bool convert) {
  const std::size_t n = sp.n;
  int* nind = newped;
  int* nsire = nind + n;
  int* ndam = nsire + n;
  for (int i = 0; i < sp.nan; ++i) {
    const int k = sp.moved[i];
    if (k < 0) continue;
    const int REC = sp.own[i];
    double value = fg;
    if (REC == -1) {
      nind[k] = i;
      nsire[k] = -1;
      ndam[k] = -1;
    } else {
      nind[k] = sp.ped[REC];
      nsire[k] = sp.ped[n + REC];
      ndam[k] = sp.ped[2 * n + REC];
      if (sp.fgen) {
        const double v = sp.fgen[REC];
        const bool unknown_parent = nsire[k] < 0 || ndam[k] < 0;
        value = (std::isnan(v) && unknown_parent) ? fg : v;
      }
    }
    if (sp.fgen) {
      if (convert && value >= 1 && (nsire[k] < 0 || ndam[k] < 0))
        value = 1.0 - std::pow(0.5, value);
      newfgen[k] = value;
    }
  }
}

// Puts the records in an order of descent: each record goes as soon as the
// records of its parents have gone, found by a depth-first walk up the
// parents that keeps one path on `stack` (nan ints), so that the walk is
// linear in the pedigree whatever its depth.  A parent met again on the
// path closes a cycle and is passed over here (the passes find it).
// `state` (nan ints) gets -1 unvisited, -2 on the path, else the new
// position; `newped`/`newfgen` receive the reordered records, copied back.
// Result: the records that moved.
int order_by_descent(SortPass& sp, int* stack, int* newped, double* newfgen) {
  const std::size_t n = sp.n;
  const int* sire = sp.ped + n;
  const int* dam = sp.ped + 2 * n;
  bool ordered = true;
  for (int r = 0; r < sp.rows && ordered; ++r)
    for (const int p : {sire[r], dam[r]})
      if (p >= 0 && sp.own[p] > r) ordered = false;
  if (ordered) return 0;
  int* state = sp.moved;
  std::fill(state, state + n, -1);
  int next = 0, moved = 0;
  for (int r0 = 0; r0 < sp.rows; ++r0) {
    if (state[sp.ped[r0]] != -1) continue;
    int top = 0;
    stack[top++] = sp.ped[r0];
    state[sp.ped[r0]] = -2;
    while (top > 0) {
      const int id = stack[top - 1];
      const int r = sp.own[id];
      int up = -1;
      for (const int p : {sire[r], dam[r]})
        if (up < 0 && p >= 0 && sp.own[p] >= 0 && state[p] == -1) up = p;
      if (up >= 0) {
        state[up] = -2;
        stack[top++] = up;
        continue;
      }
      state[id] = next++;
      --top;
    }
  }
  for (int id = 0; id < sp.nan; ++id) {
    const int r = sp.own[id];
    if (r < 0) continue;
    const int k = state[id];
    if (k != r) ++moved;
    for (int c = 0; c < 3; ++c) newped[c * n + k] = sp.ped[c * n + r];
    if (sp.fgen) newfgen[k] = sp.fgen[r];
  }
  const std::size_t used = static_cast<std::size_t>(sp.rows);
  for (std::size_t c = 0; c < 3; ++c) std::memcpy(sp.ped + c * n, newped + c * n, used * sizeof(int));
  if (sp.fgen) std::memcpy(sp.fgen, newfgen, used * sizeof(double));
  return moved;
}

// The ordering loop over identity codes (from 0, -1 unknown).  `ped` holds
// three columns of stride nan with `lped` records in use; `fgen` (stride
// nan) may be null.  `convert` turns a selfing generation number into the
// inbreeding coefficient of a founder.
PedigreeSortResult sort_codes(int lped, int nan, span<const char* const> lvls, int* ped,
                              double* fgen, double fg, bool convert, std::string& errmsg) {
  PedigreeSortResult res;
  res.status = 1;
  const std::size_t n = static_cast<std::size_t>(nan);
  Buffer<int> newped = allocate<int>(3 * n, " for pedigree", errmsg);
  if (!newped) return res;
  Buffer<int> table = allocate<int>(4 * n, " for pedigree index", errmsg);
  if (!table) return res;
  Buffer<double> newfgen;
  if (fgen) {
    newfgen = allocate<double>(n, " for fgen", errmsg);
    if (!newfgen) return res;
  }
  Buffer<int> recid = allocate<int>(n, "", errmsg);
  if (!recid) return res;
  SortPass sp(nan, lvls, ped, fgen, lped, table.get());

  bool cycle_checked = false;
  for (int pass = 1;; ++pass) {
    res.passes = pass;
    if (index_records(sp, errmsg)) return res;
    // Two passes have moved records and found no cycle: a deep line of
    // descent, one pass a level.  The rest is ordered in one walk.
    if (pass == 3) {
      const int moved = order_by_descent(sp, recid.get(), newped.get(), newfgen.get());
      if (moved > 0) vprt("Pedigree order: %d records placed after their parents\n", moved);
      if (index_records(sp, errmsg)) return res;
    }
    mark_moves(sp);
    if (nan != sp.inserted + sp.rows) {
      errmsg = "nrow(pedigree)+insertions != number of individuals\n";
      return res;
    }
    // A second pass that still moves rows: make sure it is not a cycle.
    if (sp.marked > 0 && pass >= 2 && !cycle_checked) {
      bool failed = false;
      const int k = find_cycle(sp.rows, nan, ped, nan, errmsg, failed);
      if (failed) return res;
      cycle_checked = true;
      if (k >= 0) {
        res.cycle = k;
        errmsg = std::string("Pedigree contains a cycle: individual \"") + lvls[k] +
                 "\" is its own ancestor\n";
        return res;
      }
    }
    if (pass > nan + 2) {
      errmsg = "Pedigree could not be ordered\n";
      return res;
    }
    place_rest(sp, recid.get());
    rebuild(sp, newped.get(), newfgen.get(), fg, convert);
    // The rebuilt pedigree replaces the input; a pass that moved nothing
    // ends the loop.
    sp.rows += sp.inserted;
    std::memcpy(ped, newped.get(), 3 * n * sizeof(int));
    if (fgen) std::memcpy(fgen, newfgen.get(), n * sizeof(double));
    if (sp.marked == 0) break;
  }
  res.status = 0;
  res.rows = sp.rows;
  return res;
}
bool fgen_in_use(span<const double> col4) {
  return !col4.empty() && (std::isnan(col4[0]) || col4[0] > -1);
}

}  // namespace

int binarySearch(span<const char* const> lvls, span<const int> order, int low, int high,
                 const char* key) {
  while (low <= high) {
    const int mid = low + (high - low) / 2;
    const int id = order[static_cast<std::size_t>(mid)];
    const int c = std::strcmp(key, lvls[static_cast<std::size_t>(id)]);
    if (c == 0) return id;
    if (c < 0) {
      high = mid - 1;
    } else {
      low = mid + 1;
    }
  }
  return -1;
}

int Partition(int low, int high, span<const char* const> lvls, span<int> order) {
  // Median of three as the pivot, so that sorted input partitions evenly.
  const int mid = low + (high - low) / 2;
  int* o = order.data();
  if (compare_ids(lvls, o[mid], o[low]) < 0) std::swap(o[mid], o[low]);
  if (compare_ids(lvls, o[high], o[low]) < 0) std::swap(o[high], o[low]);
  if (compare_ids(lvls, o[high], o[mid]) < 0) std::swap(o[high], o[mid]);
  std::swap(o[mid], o[high]);
  const int pivot = o[high];
  int i = low - 1;
  for (int j = low; j < high; ++j) {
    if (compare_ids(lvls, o[j], pivot) < 0) std::swap(o[++i], o[j]);
  }
  std::swap(o[i + 1], o[high]);
  return i + 1;
}

void Quick_sort(int low, int high, span<const char* const> lvls, span<int> order) {
  quick_sort_depth(low, high, lvls, order, 0);
}

PedigreeSortResult pdsort(int lped, int nan, span<const char* const> lvls,
                          span<const char* const> oldped, span<const double> col4, double fg,
                          span<const char*> newped, span<double> newcol4, std::string& errmsg,
                          span<int> newcodes) {
  PedigreeSortResult res;
  res.status = 1;
  errmsg.clear();
  if (lped < 0 || nan < lped || lvls.size() < static_cast<std::size_t>(nan) ||
      oldped.size() < 3 * static_cast<std::size_t>(lped) ||
      newped.size() < 3 * static_cast<std::size_t>(nan)) {
    errmsg = "Pedigree sizes are inconsistent\n";
    return res;
  }
  const std::size_t n = static_cast<std::size_t>(nan);
  const bool use_fgen = fgen_in_use(col4);
  if (use_fgen && (col4.size() < static_cast<std::size_t>(lped) || newcol4.size() < n)) {
    errmsg = "Pedigree sizes are inconsistent\n";
    return res;
  }
  Buffer<int> order = allocate<int>(n, "", errmsg);
  if (!order) return res;
  Buffer<int> codes = allocate<int>(3 * n, " for pedigree", errmsg);
  if (!codes) return res;
  Buffer<double> fgen;
  if (use_fgen) {
    fgen = allocate<double>(n, " for fgen", errmsg);
    if (!fgen) return res;
  }
  span<int> ord(order.get(), n);
  for (int k = 0; k < nan; ++k) ord[k] = k;
  if (nan > 0) Quick_sort(0, nan - 1, lvls, ord);
  for (int c = 0; c < 3; ++c) {
    for (int r = 0; r < lped; ++r) {
      const char* s = oldped[static_cast<std::size_t>(c) * lped + r];
      int id = -1;
      if (s == nullptr || std::strcmp(s, kUnknownParent) != 0) {
        id = s ? binarySearch(lvls, ord, 0, nan - 1, s) : -1;
        if (id < 0) {
          errmsg = std::string("Pedigree identity \"") + (s ? s : "") + "\" is not among the levels\n";
          return res;
        }
      } else if (c == 0) {
        errmsg = "Pedigree individual \"0\" is the mark of an unknown parent\n";
        return res;
      }
      codes[static_cast<std::size_t>(c) * n + r] = id;
    }
  }
  if (use_fgen)
    for (int r = 0; r < lped; ++r) fgen[r] = col4[static_cast<std::size_t>(r)];
  res = sort_codes(lped, nan, lvls, codes.get(), use_fgen ? fgen.get() : nullptr, fg, true,
                   errmsg);
  if (res.status != 0) return res;
  for (std::size_t k = 0; k < 3 * n; ++k) {
    const int id = codes[k];
    newped[k] = id < 0 ? kUnknownParent : lvls[static_cast<std::size_t>(id)];
    if (newcodes.size() >= 3 * n) newcodes[k] = id;
  }
  if (use_fgen)
    for (std::size_t k = 0; k < n; ++k) newcol4[k] = fgen[k];
  return res;
}

PedigreeSortResult sortpedigree(int lped, int nan, span<const char* const> lvls, span<int> ped,
                                span<double> col4, double fg, std::string& errmsg) {
  PedigreeSortResult res;
  res.status = 1;
  errmsg.clear();
  const std::size_t n = static_cast<std::size_t>(nan);
  if (lped < 0 || nan < lped || lvls.size() < n || ped.size() < 3 * n) {
    errmsg = "Pedigree sizes are inconsistent\n";
    return res;
  }
  const bool use_fgen = fgen_in_use(col4);
  if (use_fgen && col4.size() < n) {
    errmsg = "Pedigree sizes are inconsistent\n";
    return res;
  }
  // Codes come from 1 with 0 unknown; they are lowered by one for the loop.
  for (int c = 0; c < 3; ++c) {
    for (int r = 0; r < lped; ++r) {
      const int v = ped[static_cast<std::size_t>(c) * n + r];
      if (v < 0 || v > nan || (c == 0 && v == 0)) {
        char buf[120];
        std::snprintf(buf, sizeof buf, "Pedigree code %d in record %d is not an identity\n", v,
                      r + 1);
        errmsg = buf;
        return res;
      }
    }
  }
  for (int c = 0; c < 3; ++c)
    for (int r = 0; r < lped; ++r) --ped[static_cast<std::size_t>(c) * n + r];
  res = sort_codes(lped, nan, lvls, ped.data(), use_fgen ? col4.data() : nullptr, fg,
                   !std::isnan(fg), errmsg);
  const int rows = res.status == 0 ? nan : lped;
  for (int c = 0; c < 3; ++c)
    for (int r = 0; r < rows; ++r) ++ped[static_cast<std::size_t>(c) * n + r];
  return res;
}

int pmat(span<const char* const> pedigree, int lped, span<int> pedMat, span<int> idx, int nan,
         std::string& errmsg) {
  errmsg.clear();
  const std::size_t n = static_cast<std::size_t>(lped);
  if (lped < 0 || nan != lped || pedigree.size() < 3 * n || pedMat.size() < 2 * n ||
      idx.size() < n) {
    errmsg = "Pedigree sizes are inconsistent\n";
    return 1;
  }
  Buffer<int> order = allocate<int>(n, "", errmsg);
  if (!order) return 1;
  span<int> ord(order.get(), n);
  for (int k = 0; k < lped; ++k) ord[k] = k;
  span<const char* const> ids = pedigree.subspan(0, n);
  if (lped > 0) Quick_sort(0, lped - 1, ids, ord);
  for (int k = 0; k < lped; ++k) idx[static_cast<std::size_t>(ord[k])] = k + 1;
  for (int c = 1; c <= 2; ++c) {
    for (int r = 0; r < lped; ++r) {
      const char* s = pedigree[static_cast<std::size_t>(c) * n + r];
      int row = 0;
      if (s != nullptr && std::strcmp(s, kUnknownParent) != 0) {
        const int id = binarySearch(ids, ord, 0, lped - 1, s);
        if (id < 0) {
          errmsg = "Programming error: Missing individuals in pmat\n";
          return 1;
        }
        row = id + 1;
      }
      pedMat[static_cast<std::size_t>(c - 1) * n + r] = row;
    }
  }
  return 0;
}

}  // namespace tarnel
