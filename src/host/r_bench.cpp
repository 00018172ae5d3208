// Internal entry for the benchmark of ordering plus absorption: loads a
// lower triangle given as triplets, orders it with g5veor and absorbs it.
#include <R.h>
#include <Rinternals.h>

#include <chrono>
#include <vector>

#include "host/messages.h"
#include "host/r_sexp.h"
#include "sparse/mme.h"

using namespace tarnel;

extern "C" {

// neq, ndense: counts; i, j, x: triplets (row >= col, sorted by row and
// column); slots: pool slots; mode: 0 the fill of the natural order only,
// else the g5veor mode.
// Returns c(logdet, rss, nsing, fill, order seconds, absorb seconds, peak
// slots of the pool, ordering's fault word, rows the ordering left as a
// block).
SEXP tarnel_bench_absorb(SEXP neq_, SEXP ndense_, SEXP i_, SEXP j_, SEXP x_, SEXP slots_,
                         SEXP mode_) {
  return guarded("tarnel_bench_absorb", [&] {
    const int neq = arg_int(neq_, "neq", 1)[0];
    const int nd = arg_int(ndense_, "ndense", 1)[0];
    span<int> ii = arg_int(i_, "i"), jj = arg_int(j_, "j");
    span<double> xx = arg_real(x_, "x");
    const double slotsd = arg_real(slots_, "slots", 1)[0];
    const int mode = arg_int(mode_, "mode", 1)[0];
    if (neq < 2 || nd < 1 || nd >= neq) throw ArgError("'neq' and 'ndense' must satisfy 1 <= ndense < neq");
    if (jj.size() != ii.size() || xx.size() != ii.size())
      throw ArgError("'i', 'j' and 'x' must have the same length");
    if (!(slotsd >= neq) || slotsd > 1.5e9) throw ArgError("'slots' must lie between neq and 1.5e9");
    const i64 slots = static_cast<i64>(slotsd);
    const i64 lssp = static_cast<i64>(nd) * (nd + 1) / 2;
    std::vector<double> x(static_cast<size_t>(lssp + slots));
    std::vector<i32> l(static_cast<size_t>(2 * (slots + neq + 2)));
    MmeStore s;
    s.x = span<double>(x.data(), x.size());
    s.l = span<i32>(l.data(), l.size());
    s.neq = neq;
    s.ndense = nd;
    s.lssp = lssp;
    s.len = slots;
    int nfault = 0;
    if (s.clear(nfault) ||
        mme_load_lower(s, span<const i32>(ii.data(), ii.size()), span<const i32>(jj.data(), jj.size()),
                       span<const double>(xx.data(), xx.size()), nfault))
      throw ArgError(std::string("loading the equations failed: ") + errortext_of(nfault));
    std::vector<i32> iw(2 * static_cast<size_t>(neq));
    using clk = std::chrono::steady_clock;
    // The working pattern takes the room the pool does not use yet.  In a
    // fit that room is part of the work array the caller hands the engine,
    // so it is set up outside the timing.
    std::vector<i32> work(mode > 0 ? static_cast<size_t>(8 * static_cast<i64>(neq) + 2 * slots) : 0);
    auto t0 = clk::now();
    int err = 0;
    i64 fill = 0;
    i32 tail = 0;
    if (mode > 0) {
      OrderArgs a;
      a.store = &s;
      a.iw = span<i32>(iw.data(), iw.size());
      a.work = span<i32>(work.data(), work.size());
      a.mode = mode;
      a.err = &err;
      if (g5veor(a)) throw ArgError("ordering failed (error 7): more slots needed");
      tail = a.tail;
    } else {
      for (int p = 1; p <= neq; ++p) iw[2 * (p - 1) + 1] = p;
      std::vector<i32> work(static_cast<size_t>(8 * static_cast<i64>(neq) + s.lx + 16));
      fill = symbolic_fill(s, span<const i32>(iw.data(), iw.size()), span<i32>(work.data(), work.size()));
    }
    auto t1 = clk::now();
    if (mode > 0) {  // the fill of the order, outside the timing
      std::vector<i32> work(static_cast<size_t>(8 * static_cast<i64>(neq) + s.lx + 16));
      fill = symbolic_fill(s, span<const i32>(iw.data(), iw.size()), span<i32>(work.data(), work.size()));
    }
    if (mode <= 0) {  // the natural order's fill only
      SEXP out = PROTECT(Rf_allocVector(REALSXP, 9));
      for (int k = 0; k < 9; ++k) REAL(out)[k] = NA_REAL;
      REAL(out)[3] = static_cast<double>(fill);
      UNPROTECT(1);
      return out;
    }
    // Room for the square of the block, as a fit has it in the rest of its
    // work array once the order is found.
    std::vector<double> room(tail > 0 ? static_cast<size_t>(block_room_words(nd + tail)) : 0);
    const auto t1b = clk::now();
    for (int p = 1; p <= neq; ++p) iw[2 * (p - 1)] = p == 1 ? 0 : 1;
    std::vector<double> soln(neq), wk(neq), dd(neq);
    std::vector<i32> rank(1), status(8);
    AbsorbArgs ab;
    ab.iw = span<i32>(iw.data(), iw.size());
    ab.off = slots;
    ab.rank = span<i32>(rank.data(), rank.size());
    ab.soln = span<double>(soln.data(), soln.size());
    ab.work = span<double>(wk.data(), wk.size());
    ab.dd = span<double>(dd.data(), dd.size());
    ab.status = span<i32>(status.data(), status.size());
    ab.err = &err;
    ab.tail = tail;
    ab.room = span<double>(room.data(), room.size());
    const int rc = g5vxxa(s, ab, nfault);
    auto t2 = clk::now();
    if (rc) throw ArgError(std::string("absorption failed: ") + errortext_of(nfault));
    SEXP out = PROTECT(Rf_allocVector(REALSXP, 9));
    double* o = REAL(out);
    o[0] = ab.logdet;
    o[1] = x[0];
    o[2] = ab.nsing;
    o[3] = static_cast<double>(fill);
    o[4] = std::chrono::duration<double>(t1 - t0).count();
    o[5] = std::chrono::duration<double>(t2 - t1b).count();
    o[6] = static_cast<double>(ab.peaklx);
    o[7] = err;
    o[8] = tail;
    UNPROTECT(1);
    return out;
  });
}

}  // extern "C"
