// "EQNORD.BIN": an equation order kept in the working directory for reuse
// by a later fit of the same model.  Unformatted sequential records, each
// framed by its byte length before and after: a header (NDENSE, NEQ, number
// of terms as 32-bit integers, the integer space mark and the total space
// as 64-bit integers), then IW(2,1..NEQ) in records of up to 1000 integers.
#include <cstdio>
#include <cstring>

#include "host/console.h"
#include "sparse/mme.h"

namespace tarnel {

namespace {

constexpr const char* kFile = "EQNORD.BIN";
constexpr int kRecord = 1000;

bool put_record(std::FILE* f, const void* data, std::uint32_t bytes) {
  return std::fwrite(&bytes, 4, 1, f) == 1 && std::fwrite(data, 1, bytes, f) == bytes &&
         std::fwrite(&bytes, 4, 1, f) == 1;
}

bool get_record(std::FILE* f, void* data, std::uint32_t bytes) {
  std::uint32_t a = 0, b = 0;
  if (std::fread(&a, 4, 1, f) != 1 || a != bytes) return false;
  if (std::fread(data, 1, bytes, f) != bytes) return false;
  return std::fread(&b, 4, 1, f) == 1 && b == bytes;
}

struct Header {
  i32 ndense, neq, nterms;
  i64 mark, total;
};

void pack(const Header& h, unsigned char* b) {
  std::memcpy(b, &h.ndense, 4);
  std::memcpy(b + 4, &h.neq, 4);
  std::memcpy(b + 8, &h.nterms, 4);
  std::memcpy(b + 12, &h.mark, 8);
  std::memcpy(b + 20, &h.total, 8);
}

}  // namespace

int eqnord_read(span<i32> iw, i32 ndense, i32 neq, i32 nterms, i64 mark, i64 total, bool trace) {
  if (neq < 1 || iw.size() < 2u * static_cast<size_t>(neq)) return 1;
  std::FILE* f = std::fopen(kFile, "rb");
  if (f == nullptr) return 1;
  unsigned char want[28], got[28];
  pack(Header{ndense, neq, nterms, mark, total}, want);
  bool ok = get_record(f, got, 28) && std::memcmp(want, got, 28) == 0;
  i32 buf[kRecord];
  i32 done = 0;
  while (ok && done < neq) {
    const i32 n = neq - done < kRecord ? neq - done : kRecord;
    ok = get_record(f, buf, static_cast<std::uint32_t>(4 * n));
    for (i32 k = 0; ok && k < n; ++k) {
      if (buf[k] < 1 || buf[k] > neq) ok = false;
      iw[2 * (done + k) + 1] = buf[k];
    }
    done += n;
  }
  std::fclose(f);
  if (ok) {
    // A valid order: every equation once, dense positions fixed.
    for (i32 e = 1; e <= neq; ++e) iw[2 * (e - 1)] = 0;
    for (i32 p = 1; p <= neq && ok; ++p) {
      const i32 e = iw[2 * (p - 1) + 1];
      if (iw[2 * (e - 1)] != 0 || (p <= ndense && e != p)) ok = false;
      else iw[2 * (e - 1)] = p;
    }
  }
  if (!ok) {
    std::remove(kFile);
    if (trace) vprt("Closed: %s\n", kFile);
    return 1;
  }
  if (trace) vprt(" Equation order read from %s\n", kFile);
  return 0;
}

int eqnord_write(span<const i32> iw, i32 ndense, i32 neq, i32 nterms, i64 mark, i64 total,
                 bool trace) {
  if (neq < 1 || iw.size() < 2u * static_cast<size_t>(neq)) return 1;
  std::FILE* f = std::fopen(kFile, "wb");
  if (f == nullptr) return 1;
  unsigned char h[28];
  pack(Header{ndense, neq, nterms, mark, total}, h);
  bool ok = put_record(f, h, 28);
  i32 buf[kRecord];
  for (i32 done = 0; ok && done < neq; done += kRecord) {
    const i32 n = neq - done < kRecord ? neq - done : kRecord;
    for (i32 k = 0; k < n; ++k) buf[k] = iw[2 * (done + k) + 1];
    ok = put_record(f, buf, static_cast<std::uint32_t>(4 * n));
  }
  if (std::fclose(f) != 0) ok = false;
  if (!ok) {
    std::remove(kFile);
    return 1;
  }
  if (trace)
    vprt("EQNORD.BIN written %d %d %d %lld %lld\n", ndense, neq, nterms, static_cast<long long>(mark),
         static_cast<long long>(total));
  return 0;
}

}  // namespace tarnel
