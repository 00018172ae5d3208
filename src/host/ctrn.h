// The model-fit entry, below the R layer.
//
// `ctrn_run` does everything the entry does once R's objects have been
// turned into views: sizes and allocates the work arrays, summarises the
// data columns, calls the run driver and tidies the results.  It includes no
// R header, so that its failure paths can be tested without R.
#ifndef TARNEL_HOST_CTRN_H
#define TARNEL_HOST_CTRN_H

#include <cstddef>

#include "control/aicontrol.h"

namespace tarnel {

// Where the entry's memory comes from; tests replace it to make each
// allocation fail in turn.
struct CtrnAllocator {
  void* (*alloc_zeroed)(std::size_t count, std::size_t size);
  void (*release)(void* p);
};
CtrnAllocator default_allocator();

using RunDriver = void (*)(AiControlArgs&);

struct CtrnInput {
  // Views of R's objects.  The work arrays, the host work tables
  // (flainv, plusnn, rlevel, rgmstr, optvec, rvec, summry, strucm, kzbkey)
  // and the derived sizes are filled by ctrn_run.
  AiControlArgs args;
  double workspace = 0;   // words, as R gave them
  double pworkspace = 0;
  span<int> mbfAddr;      // two values per basis table: rows n, columns m
  span<double> mbfX;      // the tables back to back
  span<double> design;    // receives the saved design (may be empty)
  span<int> xcol;         // equations kept in design, 1-based
  int keep_design = 0;
  double na_real = 0;     // the host's missing real
  // Called after a successful run while the work arrays still live, to
  // read what the driver left in them; it may throw.
  void (*after_run)(const CtrnInput& in, void* context) = nullptr;
  void* after_context = nullptr;
};

// Converts a workspace size in words to an unsigned 64-bit count: above
// 2^64 the largest count; from 2^63 the value less 2^63 with the top bit set.
u64 workspace_words(double v);

// Runs the entry.  Returns the status: 0 success, -1 a failure in the entry
// or a shortage of workspace, otherwise the engine's fault.
int ctrn_run(CtrnInput& in, RunDriver driver = aicontrol,
             CtrnAllocator alloc = default_allocator());

// Text of the licence check: this system needs no entitlement, so the
// check passes.
bool licence_check();

}  // namespace tarnel

#endif
