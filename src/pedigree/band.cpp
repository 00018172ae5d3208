// Inbreeding from a band of the relationship matrix (see band.h).
#include "pedigree/band.h"

#include <algorithm>

namespace tarnel {

i64 pedigree_lag(span<const i32> plist, i64 nan) {
  i64 lag = 0;
  for (i64 i = 1; i <= nan; ++i) {
    for (int k = 0; k < 2; ++k) {
      const i32 p = plist[static_cast<std::size_t>(2 * (i - 1) + k)];
      if (p > 0 && p < i) lag = std::max(lag, i - p);
    }
  }
  return lag;
}

u64 band_words(i64 lag) {
  if (lag <= 0) return 0;
  const u64 m = static_cast<u64>(lag + kBandBlock) + 1;
  return m * m;
}

double walk_visits_estimate(span<const i32> plist, i64 nan, int samples, i32* stamp,
                            i32* stack) {
  auto parent = [&](i64 r, int k) { return plist[static_cast<std::size_t>(2 * (r - 1) + k)]; };
  i64 both = 0;
  for (i64 i = 1; i <= nan; ++i)
    if (parent(i, 0) > 0 && parent(i, 1) > 0) ++both;
  if (both == 0 || samples <= 0) return 0.0;
  std::fill(stamp, stamp + nan + 1, 0);
  double visits = 0.0;
  int counted = 0;
  for (int s = 0; s < samples; ++s) {
    // Rows spread evenly; the first row with both parents from there on.
    i64 r = 1 + static_cast<i64>((static_cast<double>(s) + 0.5) * static_cast<double>(nan) / samples);
    while (r <= nan && !(parent(r, 0) > 0 && parent(r, 1) > 0)) ++r;
    if (r > nan) break;
    ++counted;
    i64 top = 0, seen = 0;
    stack[top++] = static_cast<i32>(r);
    stamp[r] = s + 1;
    while (top > 0) {
      const i32 x = stack[--top];
      ++seen;
      for (int k = 0; k < 2; ++k) {
        const i32 p = parent(x, k);
        if (p <= 0 || p >= x || stamp[p] == s + 1) continue;
        stamp[p] = s + 1;
        stack[top++] = p;
      }
    }
    visits += static_cast<double>(seen);
  }
  return counted == 0 ? 0.0 : visits / counted * static_cast<double>(both);
}

double InbreedingBand::at(i64 x, i64 y) const {
  if (x <= 0 || y <= 0) return 0.0;
  if (x < y) std::swap(x, y);
  return row(x)[y % m_];  // the part of row x before it, or its diagonal
}

// out[k mod m] (+)= w a(p,k) for k in [lo, i), adding when `add` is set,
// else assigning.  Entries after p are in row p once their block has been
// copied over; within the open block they are read from the later row.
void InbreedingBand::parent_into(double* out, i64 i, i64 lo, i32 p, double w, bool add) const {
  const double* rp = row(p);
  const i64 split = std::min(i, std::max<i64>(p + 1, block_start_));
  for (i64 k = lo; k < split;) {
    const i64 s = k % m_;
    const i64 len = std::min(split - k, m_ - s);
    double* o = out + s;
    const double* q = rp + s;
    if (add) {
      for (i64 t = 0; t < len; ++t) o[t] += w * q[t];
    } else {
      for (i64 t = 0; t < len; ++t) o[t] = w * q[t];
    }
    k += len;
  }
  const i64 sp = p % m_;
  for (i64 k = std::max(split, lo); k < i; ++k) {
    const double v = w * row(k)[sp];
    out[k % m_] = add ? out[k % m_] + v : v;
  }
}

void InbreedingBand::add_row(i64 i, i32 S, i32 D, const double PR[2], double MV) {
  double* ri = row(i);
  const i64 lo = std::max<i64>(1, i - lag_);
  // The first known parent assigns the whole range, the second adds.
  const bool s_on = S > 0, d_on = D > 0;
  if (s_on) parent_into(ri, i, lo, S, PR[0], false);
  if (d_on) parent_into(ri, i, lo, D, PR[1], s_on);
  if (!s_on && !d_on) {
    for (i64 k = lo; k < i;) {
      const i64 s = k % m_;
      const i64 len = std::min(i - k, m_ - s);
      std::fill(ri + s, ri + s + len, 0.0);
      k += len;
    }
  }
  ri[i % m_] = inbreeding(S, D, PR, MV) + 1.0;
  if (i - block_start_ + 1 == kBandBlock) close_block(i);
}

double InbreedingBand::inbreeding(i32 S, i32 D, const double PR[2], double MV) const {
  double a = MV;
  if (S > 0) a += PR[0] * PR[0] * at(S, S);
  if (D > 0) a += PR[1] * PR[1] * at(D, D);
  if (S > 0 && D > 0) a += 2.0 * PR[0] * PR[1] * at(S, D);
  return a - 1.0;
}

// Copies the entries of the rows of the open block before their diagonal
// into the earlier rows, row by earlier row, so that the writes run along
// a row and the block's rows stay in the cache.
void InbreedingBand::close_block(i64 last) {
  const i64 first = block_start_;
  for (i64 y = std::max<i64>(1, first - lag_); y < last; ++y) {
    double* ry = row(y);
    const i64 sy = y % m_;
    const i64 x_end = std::min(last, y + lag_);
    for (i64 x = std::max(first, y + 1); x <= x_end; ++x) ry[x % m_] = row(x)[sy];
  }
  block_start_ = last + 1;
}

}  // namespace tarnel
