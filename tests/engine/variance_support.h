// Test support for the variance structures: a one-section (or several
// section) formation on owned tables, dense matrices rebuilt through the
// row routine, and independent dense linear algebra.
#ifndef TARNEL_TESTS_VARIANCE_SUPPORT_H
#define TARNEL_TESTS_VARIANCE_SUPPORT_H

#include <cmath>
#include <functional>
#include <vector>

#include "variance/formation.h"
#include "variance/structures.h"

namespace vtest {

using Mat = std::vector<double>;  // n x n by rows

inline double& at(Mat& m, int n, int i, int j) { return m[(i - 1) * n + j - 1]; }
inline double at(const Mat& m, int n, int i, int j) { return m[(i - 1) * n + j - 1]; }

Mat matmul(const Mat& a, const Mat& b, int n);
Mat identity(int n);
// Inverse and log|det| by Gauss-Jordan elimination with partial pivoting.
Mat inverse(const Mat& a, int n);
double log_abs_det(const Mat& a, int n);
double max_abs_diff(const Mat& a, const Mat& b);
double max_abs(const Mat& a);

// Sections of a model: struc rows, parameters and everything g5vvsf needs.
struct Fit {
  std::vector<double> work;
  std::vector<int> struc;
  std::vector<double> gammas, prvgam;
  std::vector<int> tgamma, rgmstr;
  std::vector<tarnel::FormRecord> secform, parform;
  std::vector<double> logdet, trdrri, givlogdet;
  std::vector<int> givtab, givint;
  std::vector<double> givreal;
  tarnel::VsfArgs a;
  int ifault = 0;
  int rc = 0;

  explicit Fit(int words = 400000) : work(words, 0.0) {}
  // Adds a section: fields order, npar, model, gfirst, band, scalepos.
  int add_section(int order, int npar, int model, int gfirst, int band = 1, int scalepos = 0);
  int run(int iteration = 1);
  tarnel::StrucRow row(int s) { return tarnel::StrucRow{struc.data() + (s - 1) * 15}; }
  // Dense matrix rebuilt row by row from one half of a record.
  Mat rebuild(int s, const tarnel::i64* half, int selector = 0);
  Mat V(int s) { return rebuild(s, secform[s - 1].first()); }
  Mat Vinv(int s) { return rebuild(s, secform[s - 1].second()); }
};

// Appends to the integer store of a sparse lower triangle by rows of order
// n (row starts, columns and cursor words from ints[from]) the transposed
// index of its strict lower triangle, found by a plain search over all
// rows, and marks it with -1 in the first cursor word.
void append_transpose(std::vector<int>& ints, int n, std::size_t from = 0);

// The sparse lower triangle by rows of M (n x n): its non-zeros and every
// diagonal in `vals`, and in `ints` the row starts, the columns and the
// cursor words, with the transposed index appended when asked.
void sparse_lower(const Mat& M, int n, bool transposed, std::vector<double>& vals, std::vector<int>& ints);

// Central difference of a matrix function with respect to parameter p.
Mat central_difference(const std::function<Mat(const std::vector<double>&)>& f,
                       std::vector<double> par, int p);

}  // namespace vtest

#endif
