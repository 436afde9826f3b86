// The few LAPACK routines the scoring uses (OpenBLAS carries them), declared
// with the hidden string lengths gfortran passes. Matrices are column-major;
// a symmetric matrix stored row-major is the same array.
#pragma once

#include <cstddef>

extern "C" {
void dpotrf_(const char* uplo, const int* n, double* a, const int* lda, int* info, std::size_t uplo_len);
void dpotrs_(const char* uplo, const int* n, const int* nrhs, const double* a, const int* lda, double* b,
             const int* ldb, int* info, std::size_t uplo_len);
void dpocon_(const char* uplo, const int* n, const double* a, const int* lda, const double* anorm, double* rcond,
             double* work, int* iwork, int* info, std::size_t uplo_len);
}
