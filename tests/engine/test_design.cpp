// Design formation and the term generators.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "console_capture.h"
#include "design/design.h"

using namespace tarnel;

namespace {

struct Term {
  int code, a, b, c, flev, nlev;
  double fc;
  const char* name;
};

// A small model run through aidsgn on its own stores.
struct Harness {
  std::vector<Term> terms;
  std::vector<int> neword;
  std::vector<double> data;  // records by row
  int lbin = 1;
  int nrow = 0;
  std::vector<int> IBV{0};
  std::vector<double> JBV{0};
  int mvact = 0, mvd = 0;
  u64 words = 4096;

  std::vector<double> x;
  std::vector<int> inter, flev, nlev, submds, tables;
  std::vector<double> fc, rvec, summry;
  std::vector<const char*> names;
  DesignStores st;
  DesignResult res;
  std::string errtxt = std::string(80, ' ');
  int rc = 0;

  void run() {
    const int nfact = static_cast<int>(terms.size());
    for (const Term& t : terms) {
      inter.insert(inter.end(), {t.code, t.a, t.b, t.c});
      flev.push_back(t.flev);
      nlev.push_back(t.nlev);
      fc.push_back(t.fc);
      names.push_back(t.name);
    }
    submds.assign(neword.size(), 0);
    DesignTerms tt;
    tt.nfact = nfact;
    tt.nfactp = static_cast<int>(neword.size());
    tt.inter = span<const int>(inter.data(), inter.size());
    tt.flev = span<const int>(flev.data(), flev.size());
    tt.nlev = span<int>(nlev.data(), nlev.size());
    tt.IBV = span<const int>(IBV.data(), IBV.size());
    tt.JBV = span<const double>(JBV.data(), JBV.size());
    tt.neword = span<const int>(neword.data(), neword.size());
    tt.submds = span<const int>(submds.data(), submds.size());
    tt.faconst = span<const double>(fc.data(), fc.size());
    tt.facnam = span<const char* const>(names.data(), names.size());
    tt.nan = 100;
    ASSERT_EQ(check_terms(tt, lbin, nrow), 0);
    x.assign(words, 0.0);
    tables.assign(8 * static_cast<std::size_t>(nfact + lbin) + 8, 0);
    rvec.assign(static_cast<std::size_t>(lbin) + 1, 0.0);
    summry.assign(4 * static_cast<std::size_t>(lbin), 0.0);
    DesignData dd;
    dd.datafr = span<const double>(data.data(), data.size());
    dd.lbin = lbin;
    dd.nrow = nrow;
    dd.ntrt = 1;
    dd.nycol = 1;
    dd.rvec = span<double>(rvec.data(), rvec.size());
    dd.summry = span<const double>(summry.data(), summry.size());
    int* p = tables.data();
    dd.ytable = span<int>(p, 1);
    dd.ycol = span<int>(p + 1, 1);
    dd.lastseen = span<int>(p + 2, nfact);
    dd.counter = span<int>(p + 2 + nfact, nfact);
    dd.dropped = span<int>(p + 2 + 2 * nfact, nfact);
    dd.ytable[0] = 1;
    dd.ycol[0] = terms[0].b;
    st.x = WorkArray(x.data(), words);
    st.recbase = 0;
    st.rowbase = 2 * static_cast<u64>(nrow);
    st.kyxz = 2 * static_cast<u64>(nrow) + 1;
    st.colbase = words;  // the upper half as integers
    st.limit = static_cast<i64>(words / 2 - st.kyxz);
    st.rowlimit = nrow;
    rc = aidsgn(st, tt, dd, mvact, mvd, 0, span<char>(&errtxt[0], errtxt.size()), res);
  }

  // Row r (from 1) as a map from equation to value.
  std::map<int, double> row(int r) const {
    std::map<int, double> m;
    const i64 from = st.x.i[st.rowbase + r - 1], to = st.x.i[st.rowbase + r];
    for (i64 k = from; k < to; ++k) m[st.x.i[st.colbase + k]] += st.x.r[st.kyxz + k];
    return m;
  }
  std::string text() const { return errtxt.substr(0, errtxt.find_last_not_of(' ') + 1); }
};

using Row = std::map<int, double>;

// A term table on its own vectors (inter by terms of four).
struct Table {
  std::vector<int> inter, flev, nlev, neword, submds = std::vector<int>(8, 0);
  std::vector<double> fc = std::vector<double>(8, 0.0);
  DesignTerms tt() {
    DesignTerms t;
    t.nfact = static_cast<int>(flev.size());
    t.nfactp = static_cast<int>(neword.size());
    t.inter = span<const int>(inter.data(), inter.size());
    t.flev = span<const int>(flev.data(), flev.size());
    t.nlev = span<int>(nlev.data(), nlev.size());
    t.neword = span<const int>(neword.data(), neword.size());
    t.submds = span<const int>(submds.data(), neword.size());
    t.faconst = span<const double>(fc.data(), flev.size());
    return t;
  }
};

}  // namespace

TEST(Generators, AixfacForms) {
  double v[64];
  i32 c[64];
  auto run = [&](int r, int p, int level, int m, double w) {
    RowCursor cur{v, c, 0, 64};
    aixfac(cur, r, p, level, m, w, 10);
    Row out;
    for (i64 k = 0; k < cur.n; ++k) out[c[k]] += v[k];
    return out;
  };
  EXPECT_EQ(run(1, -1, 2, 3, 1.5), (Row{{12, 1.5}}));
  EXPECT_EQ(run(1, -1, 4, 3, 1.0), (Row{{11, -1.0}, {12, -1.0}, {13, -1.0}}));  // absent level
  EXPECT_TRUE(run(1, -1, 0, 3, 1.0).empty());
  EXPECT_TRUE(run(2, -1, 2, 3, 1.0).empty());  // r + p not 0
  EXPECT_TRUE(run(1, -1, 2, 3, 0.0).empty());  // zero weight
  EXPECT_EQ(run(3, 2, 2, 3, 1.0), (Row{{12, -1.0}, {15, -1.0}}));
  EXPECT_EQ(run(3, 1, 4, 2, 1.0), (Row{{11, 1.0}, {12, 1.0}}));
  EXPECT_EQ(run(3, 3, 2, 3, 2.0), (Row{{18, 2.0}}));
  EXPECT_EQ(run(2, 5, 3, 2, 1.0), (Row{{13, -1.0}, {14, -1.0}}));
}

TEST(Generators, HelmertMatchesContrastTable) {
  // Helmert contrasts of 5 levels: column j is -1 for levels up to j,
  // j for level j+1 and 0 above.
  const int L = 5;
  for (int k = 1; k <= L; ++k) {
    double v[16];
    i32 c[16];
    RowCursor cur{v, c, 0, 16};
    aihelm(cur, k, L - 1, 1.0, 0);
    std::vector<double> got(L - 1, 0.0);
    for (i64 q = 0; q < cur.n; ++q) got[c[q] - 1] += v[q];
    for (int j = 1; j < L; ++j) {
      const double want = k <= j ? -1.0 : (k == j + 1 ? j : 0.0);
      EXPECT_EQ(got[j - 1], want) << "level " << k << " column " << j;
    }
  }
}

TEST(Generators, LookupsGroupSubsetMarker) {
  const double g[] = {2.4, -1.5, 3.5, 0.0};
  EXPECT_EQ(groupfac(1.9, span<const double>(g, 4), 4), 2);
  EXPECT_EQ(groupfac(2, span<const double>(g, 4), 4), -2);  // away from 0
  EXPECT_EQ(groupfac(3, span<const double>(g, 4), 4), 4);
  EXPECT_EQ(groupfac(5, span<const double>(g, 4), 4), 0);
  EXPECT_EQ(groupfac(1e37, span<const double>(g, 4), 4), 0);

  std::vector<double> t8{1, 2, 3, 5, 8, 13, 21, 34};
  EXPECT_EQ(subsetfac(13 + 5e-8, span<const double>(t8.data(), 8), 8), 6);
  EXPECT_EQ(subsetfac(4, span<const double>(t8.data(), 8), 8), 0);
  std::vector<double> big;
  for (int k = 0; k < 200; ++k) big.push_back(0.5 * k * k);
  for (int k = 0; k < 200; ++k)
    EXPECT_EQ(subsetfac(0.5 * k * k, span<const double>(big.data(), 200), 200), k + 1);
  EXPECT_EQ(subsetfac(3.0, span<const double>(big.data(), 200), 200), 0);
  EXPECT_EQ(subsetfac(-1.0, span<const double>(big.data(), 200), 200), 0);

  // Three individuals, six markers: byte 80 + 80 * score.
  const double sc[3][6] = {{0, 1, 2, 0.5, 1, 0}, {2, 2, 0, 0, 1, 1}, {1, 0, 1, 2, 0, 2}};
  std::vector<int> tab(6, 0);
  for (int i = 0; i < 3; ++i)
    for (int m = 0; m < 6; ++m) {
      const unsigned byte = static_cast<unsigned>(80 + 80 * sc[i][m]);
      tab[i * 2 + m / 4] |= static_cast<int>(byte << (8 * (m % 4)));
    }
  MarkerCommon mc{6, 3, 2, span<const int>(tab.data(), tab.size())};
  for (int i = 0; i < 3; ++i)
    for (int m = 0; m < 6; ++m) EXPECT_DOUBLE_EQ(snp(i + 1, m + 1, mc), sc[i][m]);
  EXPECT_EQ(snp(4, 1, mc), -1e-37);
  EXPECT_EQ(snp(1, 7, mc), -1e-37);
}

TEST(Generators, GorpolIsOrthonormalPolynomial) {
  const int n = 12, order = 4;
  std::vector<double> s, work(2 * n), val(n * order);
  for (int i = 0; i < n; ++i) s.push_back(std::pow(1.3, i) - 2.0);
  int count = 0;
  ASSERT_EQ(gorpol(order, 0, span<const double>(s.data(), n), span<double>(work.data(), work.size()), n,
                   span<double>(val.data(), val.size()), count), 0);
  EXPECT_EQ(count, order);
  for (int a = 0; a < order; ++a) {
    double sum = 0;
    for (int i = 0; i < n; ++i) sum += val[a * n + i];
    EXPECT_NEAR(sum, 0.0, 1e-10);  // orthogonal to the constant
    for (int b = 0; b <= a; ++b) {
      double dot = 0;
      for (int i = 0; i < n; ++i) dot += val[a * n + i] * val[b * n + i];
      EXPECT_NEAR(dot, a == b ? 1.0 : 0.0, 1e-10);
    }
  }
  // Degree k lies in the span of 1, s, ..., s^k: its residual after a
  // dense least-squares fit on those powers is zero (Gram-Schmidt here).
  for (int k = 0; k < order; ++k) {
    std::vector<std::vector<double>> basis;
    for (int p = 0; p <= k + 1; ++p) {
      std::vector<double> v(n);
      for (int i = 0; i < n; ++i) v[i] = std::pow(s[i], p);
      for (auto& q : basis) {
        double d = 0;
        for (int i = 0; i < n; ++i) d += v[i] * q[i];
        for (int i = 0; i < n; ++i) v[i] -= d * q[i];
      }
      double len = 0;
      for (double e : v) len += e * e;
      for (double& e : v) e /= std::sqrt(len);
      basis.push_back(v);
    }
    std::vector<double> r(val.begin() + k * n, val.begin() + (k + 1) * n);
    for (auto& q : basis) {
      double d = 0;
      for (int i = 0; i < n; ++i) d += r[i] * q[i];
      for (int i = 0; i < n; ++i) r[i] -= d * q[i];
    }
    for (double e : r) EXPECT_NEAR(e, 0.0, 1e-8);
  }
  // Two distinct values carry no quadratic.
  std::vector<double> two{1, 2, 1, 2, 1};
  EXPECT_EQ(gorpol(2, 0, span<const double>(two.data(), 5), span<double>(work.data(), 10), 5,
                   span<double>(val.data(), 10), count), 2);
}

TEST(Generators, BisquareBasis) {
  const double xs[4] = {0, 5, 10, 0}, ys[4] = {0, 2.5, 5, 0};
  const int nb = bisquare(30, xs, ys);
  EXPECT_EQ(nb, bisqucom.nfine + bisqucom.nmid + bisqucom.ncoarse);
  EXPECT_DOUBLE_EQ(bisqucom.spacing, 0.5);
  std::vector<double> out(nb);
  bisqubasisfun(3.2, 1.7, span<double>(out.data(), nb));
  // Every finest function is (1 - d/r^2)^2 of its grid point, within 1.5 spacings.
  const BisquCommon& b = bisqucom;
  for (int i = 0; i < b.n1; ++i)
    for (int j = 0; j < b.n2; ++j) {
      const double dx = b.ox + i * b.spacing - 3.2, dy = b.oy + j * b.spacing - 1.7;
      const double d = dx * dx + dy * dy, r2 = 2.25 * b.spacing * b.spacing;
      const double want = d < r2 ? (1 - d / r2) * (1 - d / r2) : 0.0;
      EXPECT_NEAR(out[i * b.n2 + j], want, 1e-14);
    }
  tarnel_test::capture_begin();
  EXPECT_EQ(bisquare(30, xs, nullptr), 0);
  tarnel_test::capture_end();
}

TEST(Design, FactorsCovariatesAndInteractions) {
  // Terms: 1 response, 2 factor A (3), 3 factor B (2), 4 covariate x,
  // 5 A:B (B fastest), 6 x:A, 7 intercept, 8 (A:B):x three-way.
  Harness h;
  h.lbin = 4;
  h.terms = {{0, 0, 1, 0, 1, 1, 0, "y"},      {0, 0, 2, 0, 3, 1, 0, "A"},
             {0, 0, 3, 0, 2, 1, 0, "B"},      {0, 0, 4, 0, 1, 1, 0, "x"},
             {2, 3, 0, 0, 6, 0, 0, "A:B"},    {4, 2, 0, 0, 3, 0, 0, "x:A"},
             {-8, 0, 0, 0, 1, 0, 0, "(Intercept)"}, {5, 4, 0, 0, 6, 0, 0, "A:B:x"}};
  h.neword = {7, 2, 3, 4, 5, 6, 8};
  h.data = {1.5, 1, 2, 0.5,  -2, 3, 1, 2.0,  7, 2, 2, -1.25};
  h.nrow = 3;
  h.run();
  ASSERT_EQ(h.rc, 0) << h.text();
  EXPECT_EQ(h.res.records, 3);
  EXPECT_EQ(h.res.neq, 1 + 1 + 3 + 2 + 1 + 6 + 3 + 6);
  // Equations: 1 y, 2 mu, 3-5 A, 6-7 B, 8 x, 9-14 A:B, 15-17 x:A, 18-23 A:B:x.
  for (int r = 0; r < 3; ++r) {
    const double y = h.data[4 * r], a = h.data[4 * r + 1], b = h.data[4 * r + 2], xv = h.data[4 * r + 3];
    const int ia = static_cast<int>(a), ib = static_cast<int>(b);
    Row want{{1, y}, {2, 1.0}, {2 + ia, 1.0}, {5 + ib, 1.0}, {8, xv}, {8 + (ia - 1) * 2 + ib, 1.0},
             {14 + ia, xv}, {17 + (ia - 1) * 2 + ib, xv}};
    EXPECT_EQ(h.row(r + 1), want) << "record " << r + 1;
  }
  EXPECT_EQ(countdesign(h.st, h.res.records, h.res.neq), 3 * 7);
  std::vector<int> recno{1, 2, 3};
  std::vector<double> trip(3 * 21);
  savedesign(h.st, h.res.records, h.res.neq, span<const int>(recno.data(), 3), span<double>(trip.data(), trip.size()));
  EXPECT_EQ(trip[0], 1.0);
  EXPECT_EQ(trip[1], 1.0);  // equation 2 less 1
  EXPECT_EQ(trip[3 * 20], 3.0);
}

TEST(Design, TermFunctionCodes) {
  // Columns: 1 y, 2 v, 3 w2, 4 level.
  Harness h;
  h.lbin = 4;
  h.JBV = {0, 10, 20, 30, 2.6, 0, 1.2};  // subset table at 2 (3 entries); real table at 5 (3)
  h.IBV = {0, 2, 0, 1};                  // level map at 2 (3 entries)
  h.terms = {
      {0, 0, 1, 0, 1, 1, 0, "y"},          // 1
      {-21, 0, 2, 0, 1, 1, 1.0, "log"},    // 2 log(v + 1)
      {-19, 0, 2, 0, 1, 1, 0.0, "exp"},    // 3
      {-18, 0, 2, 0, 1, 1, 0.0, "sqrt"},   // 4
      {-20, 0, 2, 0, 1, 1, -1.0, "inv"},   // 5 1/(v - 1)
      {-16, 0, 2, 0, 1, 1, 12.0, "sin"},   // 6
      {-17, 0, 2, 0, 1, 1, 12.0, "cos"},   // 7
      {-22, 0, 2, 0, 1, 1, 0.5, "gt"},     // 8
      {-23, 0, 2, 0, 1, 1, 0.5, "lt"},     // 9
      {-30, 0, 2, 2500, 1, 1, 0.0, "pow"}, // 10 v^2.5
      {-36, 0, 2, 0, 1, 1, 0.0, "abs"},    // 11
      {-15, 0, 4, 2, 1, 1, 0.0, "eq2"},    // 12 level == 2
      {-25, 0, 4, 2, 1, 1, 0.0, "in12"},   // 13 level in 1..2
      {-26, 3, 2, 2, 1, 1, 0.0, "lin"},    // 14 3 v + 2 w2
      {-27, 2, 3, 3, 3, 1, 0.0, "subset"}, // 15 w2 in {10,20,30}
      {-33, 2, 4, 3, 2, 1, 0.0, "map"},    // 16 level -> IBV map
      {-35, 5, 4, 3, 3, 1, 0.0, "rtab"},   // 17 level -> int(JBV)
      {-6, 0, 4, 0, 4, 1, 0.0, "pair"},    // 18 level and level + 1
      {-28, 1, 0, 2, 1, 0, 0.0, "rec2"},   // 19 record 2, trait 1
      {-32, 0, 0, 0, 1, 0, 0.0, "trait"},  // 20
      {-9, 0, 0, 0, 1, 0, 0.0, "recno"},   // 21
  };
  for (int t = 2; t <= 21; ++t) h.neword.push_back(t);
  h.mvd = 1;  // the square root of a negative value is left out
  h.data = {1, 2.0, 20, 2,  2, -0.5, 30, 1,  3, 0.25, 11, 3};
  h.nrow = 3;
  h.run();
  ASSERT_EQ(h.rc, 0) << h.text();
  const double pi32 = 3.1415927410125732;
  for (int r = 1; r <= 3; ++r) {
    const double v = h.data[4 * (r - 1) + 1], w2 = h.data[4 * (r - 1) + 2];
    const int lev = static_cast<int>(h.data[4 * (r - 1) + 3]);
    Row want{{1, static_cast<double>(r)}};
    int e = 1;
    // Value val in column k (none: 0) of the next term, `width` columns wide.
    auto put = [&](int width, int k, double val) {
      if (k > 0 && val != 0.0) want[e + k] += val;
      e += width;
    };
    const double one[] = {std::log(v + 1), std::exp(v), v >= 0 ? std::sqrt(v) : 0.0, 1 / (v - 1),
                          std::sin(2 * pi32 * v / 12), std::cos(2 * pi32 * v / 12),
                          v > 0.5 ? 1.0 : 0.0, v < 0.5 ? 1.0 : 0.0, v > 0 ? std::pow(v, 2.5) : 0.0,
                          std::fabs(v), lev == 2 ? 1.0 : 0.0, lev <= 2 ? 1.0 : 0.0, 3 * v + 2 * w2};
    for (double x : one) put(1, 1, x);
    put(3, w2 == 20 ? 2 : w2 == 30 ? 3 : 0, 1.0);
    const int map[3] = {2, 0, 1};
    put(2, map[lev - 1], 1.0);
    put(0, map[lev - 1], 1.0);  // the real table holds the same levels
    e += 3;
    put(0, lev, 1.0);
    put(4, lev + 1, 1.0);
    put(1, 1, r == 2);
    put(1, 1, 1.0);
    put(1, 1, r);
    EXPECT_EQ(h.row(r), want) << "record " << r;
  }
}

TEST(Design, MultiColumnAndScaledViews) {
  // Two covariate columns with a centring constant, indicator columns, and a
  // scaled view that adds 0.5 * B into A's equations.
  Harness h;
  h.lbin = 5;
  h.terms = {{0, 0, 1, 0, 1, 1, 0, "y"},
             {0, 0, 2, 0, 2, 2, 0.25, "cov2"},   // 2 columns 2-3
             {0, 0, 4, 0, 3, 1, 0, "A"},         // column 4
             {-12, 5, 5, 1, 3, 0, 0, "and(B)"},  // 5 * 10^-1 of term 5
             {0, 0, 5, 0, 3, 1, 0, "B"}};        // column 5
  h.neword = {2, 3, 4};
  h.data = {1, 0.0, 3.0, 1, 1,   2, 1.5, 0.0, 2, 3};
  h.nrow = 2;
  h.run();
  ASSERT_EQ(h.rc, 0) << h.text();
  EXPECT_EQ(h.res.neq, 1 + 2 + 3);
  EXPECT_EQ(h.row(1), (Row{{1, 1.0}, {2, -0.25}, {3, 3.0}, {4, 1.5}}));  // A1 and 0.5 B1 merged
  EXPECT_EQ(h.row(2), (Row{{1, 2.0}, {2, 1.5}, {3, -0.25}, {5, 1.0}, {6, 0.5}}));
  // The merged row is sorted and holds one entry an equation.
  const i64 from = h.st.x.i[h.st.rowbase], to = h.st.x.i[h.st.rowbase + 1];
  EXPECT_EQ(to - from, 4);
}

TEST(Design, ConditionalTermsAndDroppedTerms) {
  Harness h;
  h.lbin = 3;
  h.terms = {{0, 0, 1, 0, 1, 1, 0, "y"},
             {0, 0, 2, 0, 2, 1, 0, "A"},
             {0, 0, 3, 0, 1, 1, 0, "x"},
             {2, 3, -2, 0, 1, 0, 0, "at(A,2):x"},
             {2, 0, -1, 0, 1, 0, 0, "at(A,1)"},
             {-40, 0, 0, 0, 2, 0, 0, "dropped"},
             {6, 2, 0, 0, 4, 0, 0, "dropped:A"}};
  h.neword = {4, 5, 7, 2};
  h.data = {1, 1, 4.0,  2, 2, 5.0};
  h.nrow = 2;
  h.run();
  ASSERT_EQ(h.rc, 0) << h.text();
  EXPECT_EQ(h.res.neq, 1 + 1 + 1 + 4 + 2);
  EXPECT_EQ(h.row(1), (Row{{1, 1.0}, {3, 1.0}, {8, 1.0}}));
  EXPECT_EQ(h.row(2), (Row{{1, 2.0}, {2, 5.0}, {9, 1.0}}));
}

TEST(Design, MissingValueActions) {
  auto make = [](int mvact, int mvd) {
    Harness h;
    h.lbin = 3;
    h.terms = {{0, 0, 1, 0, 1, 1, 0, "y"}, {0, 0, 2, 0, 2, 1, 0, "A"}, {0, 0, 3, 0, 1, 1, 0, "x"},
               {-4, 0, 0, 0, 2, 0, 0, "mv"}};
    h.neword = {2, 3};
    if (mvact > 0) h.neword.push_back(4);
    h.data = {kMissing, 1, 1.0,  2, 2, kMissing,  kMissing, 2, 3.0,  4, 1, 2.0};
    h.nrow = 4;
    h.mvact = mvact;
    h.mvd = mvd;
    return h;
  };
  {
    Harness h = make(0, 1);  // drop rows with a missing response
    h.run();
    ASSERT_EQ(h.rc, 0);
    EXPECT_EQ(h.res.records, 2);
    EXPECT_EQ(h.row(1), (Row{{1, 2.0}, {3, 1.0}}));
    EXPECT_EQ(h.st.x.i[h.st.recbase + 1], 4);  // the second row is record 4
  }
  {
    Harness h = make(-1, 1);  // keep them, the response stays the mark
    h.run();
    EXPECT_EQ(h.res.records, 4);
    EXPECT_EQ(h.row(1).at(1), kMissing);
  }
  {
    Harness h = make(4, 1);  // an equation for each missing response
    h.run();
    ASSERT_EQ(h.rc, 0);
    EXPECT_EQ(h.row(1), (Row{{1, 0.0}, {2, 1.0}, {4, 1.0}, {5, -1.0}}));
    EXPECT_EQ(h.row(3), (Row{{1, 0.0}, {3, 1.0}, {4, 3.0}, {6, -1.0}}));
    EXPECT_EQ(h.row(4).count(5) + h.row(4).count(6), 0u);
  }
  {
    Harness h = make(0, 0);  // a missing covariate is a fault with its count
    h.run();
    EXPECT_EQ(h.rc, 1);
    EXPECT_EQ(h.res.ifault, 1);
    EXPECT_EQ(h.text(), "Missing values in design variables/factors");
  }
  {
    Harness h = make(4, 1);
    h.terms[3].flev = 1;  // fewer equations than missing responses
    h.run();
    EXPECT_EQ(h.rc, 1);
    EXPECT_EQ(h.text(), "Missing Value Miscount forming design");
  }
}

TEST(Design, FaultsOfFormation) {
  {
    Harness h;  // the store fills
    h.lbin = 2;
    h.terms = {{0, 0, 1, 0, 1, 1, 0, "y"}, {0, 0, 2, 0, 3, 1, 0, "A"}};
    h.neword = {2};
    for (int r = 0; r < 40; ++r) h.data.insert(h.data.end(), {1.0, 1.0 + r % 3});
    h.nrow = 40;
    h.words = 200;
    h.run();
    EXPECT_EQ(h.rc, 1);
    EXPECT_EQ(h.text(), "Out of memory: forming design");
    EXPECT_GT(h.res.ifault, 0);
  }
  {
    Harness h;  // pedigree identifier above the relationship tables
    h.lbin = 2;
    h.terms = {{0, 0, 1, 0, 1, 1, 0, "y"}, {0, -1, 2, 0, 500, 1, 0, "animal"}};
    h.neword = {2};
    h.data = {1.0, 3.0, 2.0, 101.0};
    h.nrow = 2;
    tarnel_test::capture_begin();
    h.run();
    const std::string out = tarnel_test::capture_end();
    EXPECT_EQ(h.rc, 1);
    EXPECT_EQ(h.res.ifault, 2);  // the rows so far
    EXPECT_NE(out.find("Recoded pedigree identifier 101"), std::string::npos);
    EXPECT_NE(out.find("exceeds maximum 100"), std::string::npos);
  }
  {
    Harness h;  // a term with a code of no known form
    h.lbin = 3;
    h.terms = {{0, 0, 1, 0, 1, 1, 0, "y"}, {-11, 0, 2, -5, 4, 2, 0, "odd"}};
    h.neword = {2};
    h.data = {1.0, 1.0, 1.0};
    h.nrow = 1;
    h.run();
    EXPECT_EQ(h.rc, 1);
    EXPECT_EQ(h.text(), "Faulted forming design matrix");
  }
}

TEST(Design, TermChecksRejectBadIndices) {
  Table t{{0, 0, 1, 0,  0, 0, 9, 0,  2, 7, 0, 0}, {1, 3, 3}, {1, 1, 0}, {2, 3}};
  const DesignTerms tt = t.tt();
  tarnel_test::capture_begin();
  EXPECT_EQ(check_terms(tt, 2, 5), 2);  // column 9 of 2
  t.inter[6] = 2;
  EXPECT_EQ(check_terms(tt, 2, 5), 3);  // interaction with term 7
  t.inter[9] = 2;
  EXPECT_EQ(check_terms(tt, 2, 5), 3);  // 3 x 3 levels, not 3
  t.flev[2] = 9;
  EXPECT_EQ(check_terms(tt, 2, 5), 0);
  tarnel_test::capture_end();
}

TEST(Design, KeynkeyAndSethigh) {
  std::vector<int> keys{5, 9, 12, 40}, order(4);
  keynkey(span<const int>(keys.data(), 4), span<int>(order.data(), 4), 4);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
  keys = {30, 10, 20, 40, 5};
  order.assign(5, 0);
  keynkey(span<const int>(keys.data(), 5), span<int>(order.data(), 5), 5);
  EXPECT_EQ(order, (std::vector<int>{4, 2, 3, 5, 1}));  // rank of each key

  // Terms: 1 y, 2 A (3), 3 B (4), 4 A:B.
  Table t{{0, 0, 1, 0,  0, 0, 2, 0,  0, 0, 3, 0,  2, 3, 0, 0}, {1, 3, 4, 12}, {1, 1, 1, 0}, {2, 3, 4}};
  const DesignTerms tt = t.tt();
  std::vector<int> eqh{3, 2, 0, 0}, out(64);
  const int n = sethigh(span<const int>(eqh.data(), 4), tt, span<int>(out.data(), out.size()));
  // B's first two (equations 5, 6), then in A:B (from 9) the first two of
  // each group of four.
  EXPECT_EQ(std::vector<int>(out.begin(), out.begin() + n), (std::vector<int>{5, 6, 9, 10, 13, 14, 17, 18}));
}

TEST(Generators, AixsplReadsBasisTables) {
  // One table of n = 3 rows and m = 2 columns: the row map of the three
  // records (row 2, none, the level), then the values by columns.
  std::vector<double> xw{2, 0, -1,  1.0, 2.0, 3.0,  0.0, kMissing, 6.0};
  WorkArray x(xw.data(), xw.size());
  const int key[3] = {0, 3, 3};
  double v[16];
  i32 c[16];
  auto run = [&](int code, int record, int level, int& nmiss) {
    RowCursor cur{v, c, 0, 16};
    EXPECT_EQ(aixspl(cur, code, 2, 1, span<const int>(key, 3), x, record, level, 10, nmiss), 0);
    Row out;
    for (i64 k = 0; k < cur.n; ++k) out[c[k]] += v[k];
    return out;
  };
  int nmiss = 0;
  EXPECT_EQ(run(-3, 1, 0, nmiss), (Row{{11, 3.0}, {12, 0.0}}));  // a spline's rows lie by rows, zeros kept
  EXPECT_EQ(run(-7, 1, 0, nmiss), (Row{{11, 2.0}}));                  // column form drops it
  EXPECT_EQ(nmiss, 1);
  EXPECT_EQ(run(-7, 3, 3, nmiss), (Row{{11, 3.0}, {12, 6.0}}));        // row from the level
  EXPECT_EQ(run(-5, 3, 1, nmiss), (Row{{11, 1.0}}));
  nmiss = 5;
  EXPECT_TRUE(run(-7, 2, 1, nmiss).empty());  // no row for this record
  EXPECT_EQ(nmiss, 0);
  RowCursor cur{v, c, 0, 16};
  EXPECT_EQ(aixspl(cur, -34, 2, 1, span<const int>(key, 3), x, 1, 1, 10, nmiss), 1);  // not available
  EXPECT_EQ(aixspl(cur, -7, 5, 1, span<const int>(key, 3), x, 1, 1, 10, nmiss), 1);   // beyond x
}
