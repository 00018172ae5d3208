// The level-3 BLAS routines behind the dense blocks of absorption and of the
// sparse inverse.  The package links R's BLAS (an optimised one, such as
// OpenBLAS, whenever R is set up with it); the standalone build links the
// system's.  Fortran calling convention: every argument by reference, and
// a hidden length for each character argument after the others.
//
// Results are the same run after run for a given BLAS and thread count: the
// routines called here split their work between threads by blocks of the
// result, and every element is summed in the same order each time.
#ifndef TARNEL_SPARSE_BLAS_H
#define TARNEL_SPARSE_BLAS_H

#include <cstddef>

extern "C" {
void dgemm_(const char* transa, const char* transb, const int* m, const int* n, const int* k,
            const double* alpha, const double* a, const int* lda, const double* b, const int* ldb,
            const double* beta, double* c, const int* ldc, std::size_t, std::size_t);
void dtrsm_(const char* side, const char* uplo, const char* transa, const char* diag, const int* m,
            const int* n, const double* alpha, const double* a, const int* lda, double* b,
            const int* ldb, std::size_t, std::size_t, std::size_t, std::size_t);
}

namespace tarnel {

// C = alpha op(A) op(B) + beta C, column-major, op 'N' or 'T'.
inline void blas_gemm(char ta, char tb, int m, int n, int k, double alpha, const double* a, int lda,
                      const double* b, int ldb, double beta, double* c, int ldc) {
  if (m <= 0 || n <= 0) return;
  dgemm_(&ta, &tb, &m, &n, &k, &alpha, a, &lda, b, &ldb, &beta, c, &ldc, 1, 1);
}

// B = alpha B op(A)^-1 (side 'R') or alpha op(A)^-1 B (side 'L'), A
// triangular ('U'/'L'), unit diagonal when diag is 'U'.
inline void blas_trsm(char side, char uplo, char ta, char diag, int m, int n, double alpha,
                      const double* a, int lda, double* b, int ldb) {
  if (m <= 0 || n <= 0) return;
  dtrsm_(&side, &uplo, &ta, &diag, &m, &n, &alpha, a, &lda, b, &ldb, 1, 1, 1, 1);
}

}  // namespace tarnel

#endif
