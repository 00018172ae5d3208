// Generated animal-model equations: a response, a mean (dense block), herd
// levels and animals with a pedigree, as the lower triangle of
// X'X + alpha A^-1 in triplets sorted by row and column.  Animal equation
// numbers are shuffled so that the natural order knows nothing of the
// pedigree.
#ifndef TARNEL_TESTS_ANIMAL_PATTERN_H
#define TARNEL_TESTS_ANIMAL_PATTERN_H

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "sparse_harness.h"

namespace tarnel_test {

struct Triplets {
  int neq = 0, ndense = 2;
  std::vector<int> r, c;
  std::vector<double> v;
};

using Cells = std::map<std::pair<int, int>, double>;  // (row, col), row >= col

inline Triplets from_cells(const Cells& m, int neq, int ndense = 2) {
  Triplets t;
  t.neq = neq;
  t.ndense = ndense;
  for (auto& kv : m) {
    t.r.push_back(kv.first.first);
    t.c.push_back(kv.first.second);
    t.v.push_back(kv.second);
  }
  return t;
}

inline Dense dense_of(const Triplets& t) {
  Dense c(t.neq);
  for (size_t k = 0; k < t.r.size(); ++k) c.add_sym(t.r[k], t.c[k], t.v[k]);
  return c;
}

inline bool load_triplets(Store& st, const Triplets& t) {
  int nf = 0;
  return tarnel::mme_load_lower(st.s, tarnel::span<const i32>(t.r.data(), t.r.size()),
                                tarnel::span<const i32>(t.c.data(), t.c.size()),
                                tarnel::span<const double>(t.v.data(), t.v.size()), nf) == 0;
}

// One run of an ordering routine (0 g5veor, 1 g5veora, 2 g5veorb); `more`
// may change the arguments before the call.
struct OrderRun {
  int rc = 0, err = 0;
  std::vector<i32> iw, work;
  tarnel::OrderArgs a;
  std::vector<int> ord() const {  // equation at each position
    std::vector<int> o(iw.size() / 2 + 1, 0);
    for (size_t p = 1; p < o.size(); ++p) o[p] = iw[2 * (p - 1) + 1];
    return o;
  }
};
inline OrderRun order(const Store& st, int which, int mode,
                      const std::function<void(OrderRun&)>& more = nullptr) {
  OrderRun o;
  const int n = st.s.neq;
  o.iw.assign(2 * n, 0);
  o.work.assign(8 * n + 2 * 400 * static_cast<size_t>(n), 0);
  o.a.store = &st.s;
  o.a.iw = tarnel::span<i32>(o.iw.data(), o.iw.size());
  o.a.mode = mode;
  o.a.err = &o.err;
  if (more) more(o);
  o.a.work = tarnel::span<i32>(o.work.data(), o.work.size());
  o.rc = which == 0 ? tarnel::g5veor(o.a) : which == 1 ? tarnel::g5veora(o.a) : tarnel::g5veorb(o.a);
  return o;
}

inline Triplets animal_model(int nanimal, int nherd, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> z(0, 1);
  Cells m;
  auto add = [&](int a, int b, double x) {
    if (a < b) std::swap(a, b);
    m[{a, b}] += x;
  };
  const int herd0 = 3, an0 = herd0 + nherd;
  const int neq = an0 + nanimal - 1;
  std::vector<int> eq(nanimal);
  for (int i = 0; i < nanimal; ++i) eq[i] = an0 + i;
  std::shuffle(eq.begin(), eq.end(), rng);
  // Generations of equal size; sires are few, dams come from the same herd
  // in the previous generation and offspring stay in the dam's herd.
  const int gen = std::max(20, nanimal / 10);
  const double alpha = 1.5;
  std::vector<int> herd(nanimal);
  for (int i = 0; i < nanimal; ++i) {
    const int g = i / gen;
    if (g == 0) {
      herd[i] = static_cast<int>(rng() % nherd);
      add(eq[i], eq[i], alpha);
      if (i < nherd) add(herd0 + i, herd0 + i, 0.5);  // herds are random
      continue;
    }
    const int lo = (g - 1) * gen;
    const int nsire = std::max(2, gen / 50);
    const int s = lo + static_cast<int>(rng() % nsire);
    int d = lo + static_cast<int>(rng() % gen);
    if (d == s) d = s + nsire < lo + gen ? s + nsire : lo + nsire;
    herd[i] = herd[d];
    const int a = eq[i], sa = eq[s], da = eq[d];
    add(a, a, 2 * alpha);
    add(a, sa, -alpha);
    add(a, da, -alpha);
    add(sa, sa, 0.5 * alpha);
    add(da, da, 0.5 * alpha);
    add(sa, da, 0.5 * alpha);
    // One record in the herd.
    const int h = herd0 + herd[i];
    const double y = 10 + z(rng);
    add(1, 1, y * y);
    add(2, 1, y);
    add(2, 2, 1);
    add(h, 1, y);
    add(h, 2, 1);
    add(h, h, 1);
    add(a, 1, y);
    add(a, 2, 1);
    add(a, h, 1);
    add(a, a, 1);
  }
  return from_cells(m, neq);
}

}  // namespace tarnel_test

#endif
