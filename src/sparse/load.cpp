// Loading a lower triangle given as triplets into the row store.
#include "host/messages.h"
#include "sparse/mme.h"

namespace tarnel {

int mme_load_lower(MmeStore& s, span<const i32> row, span<const i32> col,
                   span<const double> val, int& nfault) {
  const size_t n = row.size();
  if (col.size() != n || val.size() != n) return g5vflt(nfault, 130);
  Pool p = s.pool();
  if (p.nval > s.len) p.nval = s.len;
  i32 pr = 0, pc = 0;
  i64 pos = 0;
  for (size_t k = 0; k < n; ++k) {
    const i32 r = row[k], c = col[k];
    if (r < 1 || r > s.neq || c < 1 || c > r) return g5vflt(nfault, 130);
    if (r < pr || (r == pr && c <= pc)) return g5vflt(nfault, 130);
    if (r <= s.ndense) {
      s.dense(r, c) += val[k];
    } else {
      const i64 h = s.head(r);
      if (r != pr) {
        if (p.lnk(h) != -1) return g5vflt(nfault, 130);
        if (g5vlld(p, s.lx, h, r, 0.0)) return g5vflt(nfault, 6);
        pos = h;
      }
      const int res = g5vlli(p, s.lx, pos, c, val[k]);
      if (res == 2) return g5vflt(nfault, 6);
      if (res == 1) return g5vflt(nfault, 136);
    }
    pr = r;
    pc = c;
  }
  return 0;
}

}  // namespace tarnel
