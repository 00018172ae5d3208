// Host utilities and the model-fit entry below R.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "console_capture.h"
#include "design/design.h"
#include "host/ctrn.h"
#include "host/utils.h"

using namespace tarnel;

TEST(Aimat, ConversionEqualsDenseJacobianProduct) {
  // The information for components is J' A J, where the component of a
  // ratio parameter g(i) is s * g(i) and the scale s is the last parameter.
  const int n = 5;
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(-1, 1);
  std::vector<double> packed(n * (n + 1) / 2);
  for (double& v : packed) v = u(rng);
  const std::vector<double> g = {0.7, 1.3, -0.4, 2.0, 3.5};
  const std::vector<int> tg = {2, 1, 4, 3, 2};  // odd: stays on its own scale
  const double s = 1.7;
  std::vector<double> out(n * n);
  aimat(packed, g, tg, s, 1, out, n);

  auto A = [&](int i, int j) {  // 0-based, full symmetric
    if (j > i) std::swap(i, j);
    return packed[i * (i + 1) / 2 + j];
  };
  std::vector<double> J(n * n, 0.0);  // J(r, c) at r*n + c
  for (int i = 0; i < n; ++i) {
    const bool free = tg[i] % 2 != 0;
    if (i == n - 1 || free) {
      J[i * n + i] = 1.0;
    } else {
      J[i * n + i] = s;
      J[(n - 1) * n + i] = g[i];
    }
  }
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      double v = 0;
      for (int k = 0; k < n; ++k)
        for (int l = 0; l < n; ++l) v += J[k * n + i] * A(k, l) * J[l * n + j];
      EXPECT_NEAR(out[j * n + i], v, 1e-12) << i << "," << j;
    }

  // Without conversion it only unpacks.
  aimat(packed, g, tg, s, 0, out, n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) EXPECT_EQ(out[j * n + i], A(i, j));
}

TEST(TextFields, TxtdbleAndTxtintLayouts) {
  char buf[80];
  const double d3[] = {1, 2.5, -3};
  txtdble(buf, sizeof buf, d3, 3);
  EXPECT_EQ(std::string(buf), "   1.000    2.500   -3.000");  // n*9-1 characters
  EXPECT_EQ(buf[26], '\0');

  std::vector<double> d9(9);
  for (int k = 0; k < 9; ++k) d9[k] = k + 1;
  char big[200];
  txtdble(big, sizeof big, d9.data(), 9);
  std::string want = "\n";
  for (int k = 1; k <= 9; ++k) {
    char v[16];
    std::snprintf(v, sizeof v, k == 8 ? "%8.3f\n" : "%8.3f ", static_cast<double>(k));
    want += v;
  }
  want.pop_back();  // the last separator is not copied
  EXPECT_EQ(std::string(big, want.size()), want);

  // The value limit is length / 9: a 40-byte field holds four values.
  char small[40];
  txtdble(small, sizeof small, d9.data(), 9);
  EXPECT_EQ(std::string(small, 37), want.substr(0, 37));
  EXPECT_EQ(small[37], '\0');

  const int i3[] = {1, 22, 333};
  char ib[40];
  txtint(ib, sizeof ib, i3, 3);
  EXPECT_EQ(std::string(ib, sizeof ib), "  1  22 333" + std::string(29, ' '));
  // The limit stays length / 9 although a value takes four characters.
  std::vector<int> i6 = {1, 2, 3, 4, 5, 6};
  char ib2[18];
  txtint(ib2, sizeof ib2, i6.data(), 6);
  EXPECT_EQ(std::string(ib2, sizeof ib2), "\n  1   2" + std::string(10, ' '));
}

TEST(TextFields, PvtextLinesAndLimit) {
  std::vector<char> text(16384, '\0');
  const char* names[] = {"Variety", "nitro"};
  const int id[] = {1, 2};
  pvtext(text.data(), text.size(), " averaged over ", names, 2, id, 0, 1e37);
  pvtext(text.data(), text.size(), " is ignored: ", names, 2, id, 1, 2.5);
  pvtext(text.data(), text.size(), " nested in ", names, 2, id, 2, 1e37);
  EXPECT_STREQ(text.data(),
               "-  averaged over \n- Variety is ignored: 2.500000\n- Variety nested in nitro\n");
  // Nothing is added once text and message together reach 16381 characters.
  std::string fill(16370, 'a');
  std::memcpy(text.data(), fill.c_str(), fill.size() + 1);
  pvtext(text.data(), text.size(), "0123456789x", names, 2, id, 0, 1e37);
  EXPECT_EQ(std::strlen(text.data()), fill.size());
  pvtext(text.data(), text.size(), "0123456789", names, 2, id, 0, 1e37);
  EXPECT_EQ(std::strlen(text.data()), fill.size() + 13);
}

TEST(TextFields, SmallConversions) {
  EXPECT_TRUE(can_be_numeric("NA"));
  EXPECT_TRUE(can_be_numeric("-1.5e3"));
  EXPECT_FALSE(can_be_numeric(""));
  EXPECT_FALSE(can_be_numeric("12a"));
  EXPECT_EQ(rtext_copy("  abc   def  ", 3, 8), "abc");
  EXPECT_EQ(rtext_copy("     ", 1, 5), "");
  int y, m, d;
  build_date(y, m, d);
  EXPECT_GE(y, 2024);
  EXPECT_TRUE(m >= 1 && m <= 12 && d >= 1 && d <= 31);
}

// ---- the entry ---------------------------------------------------------

namespace {

// A small but complete set of inputs: 3 records of 2 columns, 2 terms.
struct EntryFixture {
  std::vector<double> datafr = {1, 10, 2, -9, 3, 30};  // column 2 has one missing (-9)
  std::vector<double> dpmv = {-9};
  std::vector<int> inter = {0, 0, 1, 0, 0, 0, 2, 0};
  std::vector<int> flev = {1, 3}, nlev = {1, 1}, neword = {1, 2}, submds = {0, 0};
  int submod = 0, neq = 5, neqd = 1, npred = 0, maxiter = 0, nfrstg = 0;
  std::vector<double> faconst = {0, 0};
  std::vector<const char*> facnam = {"y", "a"};
  std::vector<double> gammas = {1.0, 0.5, 0.0};
  std::vector<int> gmcstr = {1, 1}, tgamma = {1, 1}, aiopt = std::vector<int>(60, 0);
  std::vector<double> prdvals, avsed;
  std::vector<char> errtxt = std::vector<char>(80, ' ');
  double stepsize = 0.25;
  int converge = 0;

  CtrnInput make() {
    CtrnInput in;
    AiControlArgs& a = in.args;
    a.data.datafr = datafr;
    a.data.lbin = 2;
    a.data.nrow = 3;
    a.data.dpmv = dpmv;
    a.terms.inter = inter;
    a.terms.nfact = 2;
    a.terms.nfactp = 2;
    a.terms.flev = flev;
    a.terms.nlev = nlev;
    a.terms.neword = neword;
    a.terms.submds = submds;
    a.terms.submod = &submod;
    a.terms.neq = &neq;
    a.terms.neqd = &neqd;
    a.terms.faconst = faconst;
    a.terms.facnam = span<const char* const>(facnam.data(), facnam.size());
    a.structures.gammas = gammas;
    a.structures.ngamma = 2;
    a.structures.gmcstr = gmcstr;
    a.structures.tgamma = tgamma;
    a.structures.nfrstg = &nfrstg;
    a.options.maxiter = &maxiter;
    a.options.stepsize = &stepsize;
    a.options.aiopt = aiopt;
    a.options.naiopt = static_cast<int>(aiopt.size());
    a.predict.npred = &npred;
    a.predict.prdvals = prdvals;
    a.predict.avsed = avsed;
    a.results.errtxt = errtxt;
    a.results.converge = &converge;
    in.workspace = 1000;
    in.pworkspace = 1000;
    return in;
  }
};

int driver_calls = 0;
double next_runTrn = 0;
std::vector<double> seen_summry;
void fake_driver(AiControlArgs& a) {
  ++driver_calls;
  seen_summry.assign(a.data.summry.begin(), a.data.summry.end());
  for (int& r : a.structures.rgmstr) r = 4;
  a.status.runTrn = next_runTrn;
  put_text(a.results.errtxt.data(), 80, "LogLikelihood Converged");
}

int fail_at = 0, calls = 0;
void* counting_alloc(std::size_t n, std::size_t s) {
  return ++calls == fail_at ? nullptr : std::calloc(n, s);
}

std::string errtxt_of(const std::vector<char>& e) { return std::string(e.data()); }

}  // namespace

TEST(Entry, WorkspaceSizesConvertPastTwoTo63) {
  EXPECT_EQ(workspace_words(1000.0), 1000u);
  EXPECT_EQ(workspace_words(9223372036854775808.0), u64{1} << 63);
  EXPECT_EQ(workspace_words(1e19), static_cast<u64>(1e19 - 9223372036854775808.0) | (u64{1} << 63));
  EXPECT_EQ(workspace_words(1e30), ~u64{0});
}

TEST(Entry, DebugReturnsBeforeTheRunAndStepsizeRule) {
  EntryFixture f;
  CtrnInput in = f.make();
  in.args.options.debug = 1;
  driver_calls = 0;
  tarnel_test::capture_begin();
  EXPECT_EQ(ctrn_run(in, fake_driver), 0);
  tarnel_test::capture_end();
  EXPECT_EQ(driver_calls, 0);
  EXPECT_EQ(f.stepsize, 0.25);  // untouched
  EXPECT_EQ(f.gmcstr[0], 1);

  EntryFixture g;
  CtrnInput in2 = g.make();
  in2.args.glm.id = 2;  // a generalised model runs with a step of 0.01
  next_runTrn = 0;
  tarnel_test::capture_begin();
  EXPECT_EQ(ctrn_run(in2, fake_driver), 0);
  const std::string out = tarnel_test::capture_end();
  EXPECT_EQ(out, "STAT 1\n");
  EXPECT_DOUBLE_EQ(g.stepsize, 0.01);
  EXPECT_EQ(g.gmcstr[1], 4);  // the running codes come back
  EXPECT_EQ(errtxt_of(g.errtxt), "LogLikelihood Converged");
  // Summaries: min, mean, max, missing count per column; -9 is missing.
  ASSERT_EQ(seen_summry.size(), 8u);
  EXPECT_EQ(seen_summry[0], 1);
  EXPECT_EQ(seen_summry[1], 2);
  EXPECT_EQ(seen_summry[2], 3);
  EXPECT_EQ(seen_summry[3], 0);
  EXPECT_EQ(seen_summry[5], 20);
  EXPECT_EQ(seen_summry[7], 1);
}

// Each allocation that fails (counted from 1), a shortage the engine
// reports (runTrn 5 or -5) and a workspace no allocation can meet: the
// result is -1 with its text, and the results are not copied back.
TEST(Entry, AllocationFailuresAndShortagesHaveTheirTexts) {
  struct Case {
    int fail;
    double runTrn, workspace;
    int npred;
    const char* errtxt;
    const char* console;
  };
  const char* const mb = "Unable to allocate 8000.000000 bytes of dynamic memory\n";
  const Case cases[] = {
      {1, 0, 1000, 0, "Unable to allocate integer workspace\n", "Unable to allocate 32 bytes of dynamic memory\n"},
      {3, 0, 1000, 0, "Unable to allocate double precision workspace\n", "Unable to allocate 624 bytes"},
      {4, 0, 1000, 0, "Unable to allocate dynamic memory (kzbkey)\n", ""},
      {5, 0, 1000, 0, "Unable to allocate dynamic memory (workspace)\n", mb},
      {6, 0, 1000, 1, "Unable to allocate dynamic memory (pworkspace)\n", mb},
      {0, 0, 1e30, 0, "Unable to allocate dynamic memory (workspace)\n", ""},
      {0, 5, 1000, 0, "Insufficient workspace - (reset workspace argument)\n", "Current workspace: 0.008000Mb\n"},
      {0, 5, 1000, 1, "Insufficient workspace - (reset workspace or pworkspace arguments)\n",
       "Current workspace: 0.008000Mb\nCurrent predict workspace: 0.008000Mb\n"},
      {0, -5, 1000, 1, "Insufficient predict workspace - (reset pworkspace argument)\n",
       "Current predict workspace: 0.008000Mb\n"},
  };
  for (const Case& c : cases) {
    EntryFixture f;
    f.npred = c.npred;
    CtrnInput in = f.make();
    in.workspace = c.workspace;
    fail_at = c.fail;
    calls = 0;
    next_runTrn = c.runTrn;
    tarnel_test::capture_begin();
    const int status = ctrn_run(in, fake_driver, CtrnAllocator{counting_alloc, std::free});
    const std::string out = tarnel_test::capture_end();
    EXPECT_EQ(status, -1) << c.errtxt;
    EXPECT_EQ(errtxt_of(f.errtxt), c.errtxt);
    EXPECT_NE(out.find(c.console), std::string::npos) << out;
    EXPECT_EQ(f.gmcstr[0], 1);  // not copied back
  }
  next_runTrn = 0;
  fail_at = 0;
}

// Design formation alone: the rows stay in the work array for the hook,
// which sees them only after a run that succeeded.
namespace {
struct SeenRows {
  int calls = 0;
  std::vector<int> eq, rec;
  std::vector<double> val;
};
void read_rows(const CtrnInput& in, void* context) {
  auto* seen = static_cast<SeenRows*>(context);
  ++seen->calls;
  const DesignRowsAt& at = in.args.status.rows;
  const WorkArray& x = in.args.work.x;
  for (i64 r = 0; r < at.records; ++r) {
    seen->rec.push_back(x.i[at.recbase + r]);
    for (i64 k = x.i[at.rowbase + r]; k < x.i[at.rowbase + r + 1]; ++k) {
      seen->eq.push_back(x.i[at.colbase + k]);
      seen->val.push_back(x.r[at.kyxz + k]);
    }
  }
}
}  // namespace

TEST(Entry, DesignAloneLeavesItsRowsForTheHost) {
  EntryFixture f;
  f.datafr = {1.5, 2, 2.5, 1, 3.5, 3};  // response, then a factor of 3 levels
  f.neword = {2};
  f.submds = {0};
  f.neq = 4;
  f.aiopt.assign(100, 0);
  for (double workspace : {1000.0, 20.0}) {
    CtrnInput in = f.make();
    in.args.terms.nfactp = 1;
    in.args.data.nycol = 1;
    in.args.data.ntrt = 1;
    in.workspace = workspace;
    SeenRows seen;
    in.after_run = read_rows;
    in.after_context = &seen;
    tarnel_test::capture_begin();
    const int status = ctrn_run(in, aidesign);
    tarnel_test::capture_end();
    if (workspace < 100) {  // too small for the rows: no hook
      EXPECT_NE(status, 0);
      EXPECT_EQ(seen.calls, 0);
      continue;
    }
    ASSERT_EQ(status, 0);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.rec, (std::vector<int>{1, 2, 3}));
    // The response at equation 1, then the factor's level after it.
    EXPECT_EQ(seen.eq, (std::vector<int>{1, 3, 1, 2, 1, 4}));
    EXPECT_EQ(seen.val, (std::vector<double>{1.5, 1, 2.5, 1, 3.5, 1}));
    EXPECT_EQ(f.aiopt[kAioptRecords], 3);
    EXPECT_EQ(f.aiopt[kAioptNonzero], 6);
  }
  reset_control_state();
}
