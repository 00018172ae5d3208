// Pedigree ordering: every parent before its progeny, every parent with a
// record of its own.
//
// Two entries share one algorithm: `pdsort` works on identities given as
// text, `sortpedigree` on integer codes that the host has already made.
// `pmat` turns a sorted pedigree of text identities into row positions.
// These routines belong to the host layer; they print their insertion and
// move notes on the console and report failures as text in `errmsg`.
#ifndef TARNEL_PEDIGREE_PSORT_H
#define TARNEL_PEDIGREE_PSORT_H

#include <string>

#include "control/engine_types.h"

namespace tarnel {

// Position (from 0) within `lvls` of the identity `key`, searched through
// the sorted index vector `order` between order[low] and order[high]; -1
// when it is absent.
int binarySearch(span<const char* const> lvls, span<const int> order, int low, int high,
                 const char* key);

// Sorts order[low..high] so that the identities lvls[order[k]] ascend by
// strcmp; `lvls` itself stays in place.
void Quick_sort(int low, int high, span<const char* const> lvls, span<int> order);
// One partition step of Quick_sort: returns the final place of the pivot.
int Partition(int low, int high, span<const char* const> lvls, span<int> order);

// Outcome of a sort.
struct PedigreeSortResult {
  int status = 0;   // 0 done, 1 failed (text in errmsg)
  int rows = 0;     // records in the sorted pedigree (nan when done)
  int passes = 0;   // passes of the ordering loop
  int cycle = -1;   // an identity (from 0) on a cycle of descent, or -1
};

// The text identity of an unknown parent.
extern const char* const kUnknownParent;

// Sorts a pedigree of text identities.
//   lped     records in `oldped`
//   nan      number of distinct identities in `lvls` (parents without a
//            record of their own included, the unknown "0" excluded)
//   oldped   the pedigree by columns: individual, sire, dam, lped each
//   col4     the generation or selfing value of each record (fgen); it is
//            in use only when its first element is NaN or above -1
//   fg       the default fgen value (NaN allowed)
//   newped   receives the sorted pedigree by columns, nan rows each, as
//            pointers into lvls (kUnknownParent for an unknown parent)
//   newcol4  receives fgen of each sorted row (when fgen is in use)
//   newcodes optional: the sorted pedigree as identity positions (from 0,
//            -1 unknown), by columns of nan rows
PedigreeSortResult pdsort(int lped, int nan, span<const char* const> lvls,
                          span<const char* const> oldped, span<const double> col4, double fg,
                          span<const char*> newped, span<double> newcol4, std::string& errmsg,
                          span<int> newcodes = span<int>());

// Sorts a pedigree of integer codes in place.  `ped` holds three columns of
// nan rows each (individual, sire, dam); the first lped rows are the
// records, as codes from 1 into `lvls` with 0 for an unknown parent.  On
// success all nan rows are filled, parents first.  `col4` (nan values) is
// the fgen column, used under the same rule as in pdsort; when `fg` is NaN
// a selfing generation number is not converted to an inbreeding
// coefficient.
PedigreeSortResult sortpedigree(int lped, int nan, span<const char* const> lvls, span<int> ped,
                                span<double> col4, double fg, std::string& errmsg);

// Turns a sorted pedigree of text identities (lped rows by columns:
// individual, sire, dam) into positions: pedMat gets sire and dam as row
// numbers from 1 (0 for unknown), two columns of lped rows; idx[r] is the
// rank (from 1) of row r's identity in strcmp order.  Returns 0, or 1 with
// the text in errmsg.
int pmat(span<const char* const> pedigree, int lped, span<int> pedMat, span<int> idx, int nan,
         std::string& errmsg);

}  // namespace tarnel

#endif
