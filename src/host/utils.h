// Small host utilities: conversions of text and of the AI matrix.
#ifndef TARNEL_HOST_UTILS_H
#define TARNEL_HOST_UTILS_H

#include <cstddef>
#include <string>

#include "control/engine_types.h"

namespace tarnel {

// Unpacks the packed lower triangle `aivec` of order n into the full
// symmetric n x n matrix `ai` (by columns).  With `convrt` nonzero the
// information for ratios to the last parameter (the scale s2) becomes that
// for components; a parameter whose tgamma is odd stays on its own scale.
void aimat(span<const double> aivec, span<const double> gammas, span<const int> tgamma,
           double s2, int convrt, span<double> ai, int n);

// True when the text is "NA" or is wholly a number.
bool can_be_numeric(const char* s);

// Characters start..end (from 1) of `source`, less trailing blanks.
std::string rtext_copy(const std::string& source, int start, int end);

// Text fields: string i (from 1) of arr, blank padded to `length`.
void txtarr(char* result, std::size_t length, const char* const* arr, int i);
// Formats up to min(n, length/9) values into a text of `length` bytes.
void txtdble(char* text, std::size_t length, const double* values, int n);
void txtint(char* text, std::size_t length, const int* values, int n);

// Appends a line to the prediction report `text` (a NUL-terminated text in
// a buffer of `capacity` bytes).  `factor` names the terms; `id` holds
// 1-based term numbers.
void pvtext(char* text, std::size_t capacity, const char* message, const char* const* factor,
            int nfactor, const int* id, int n, double val);

// The compile date as year, month and day.
void build_date(int& year, int& month, int& day);
// The library's fixed version text.
const char* library_version();
extern const char kBuildDate[];

}  // namespace tarnel

#endif
