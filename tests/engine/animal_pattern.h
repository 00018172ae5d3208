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

namespace tarnel_test {

struct Triplets {
  int neq = 0, ndense = 2;
  std::vector<int> r, c;
  std::vector<double> v;
};

inline Triplets animal_model(int nanimal, int nherd, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> z(0, 1);
  std::map<std::pair<int, int>, double> m;  // (row, col) row >= col
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
  Triplets t;
  t.neq = neq;
  for (auto& kv : m) {
    t.r.push_back(kv.first.first);
    t.c.push_back(kv.first.second);
    t.v.push_back(kv.second);
  }
  return t;
}

}  // namespace tarnel_test

#endif
