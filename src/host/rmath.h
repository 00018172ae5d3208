// Special functions (gamma, digamma, Bessel, normal) from R's mathematical
// library.  The R build takes them from R itself; the standalone engine
// build links the same routines as a library of their own.
#ifndef TARNEL_HOST_RMATH_H
#define TARNEL_HOST_RMATH_H

#if defined(TARNEL_STANDALONE) && !defined(MATHLIB_STANDALONE)
#define MATHLIB_STANDALONE
#endif
#include <Rmath.h>

#endif
