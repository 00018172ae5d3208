// The model-fit entry below the R layer: work arrays, data summaries, the
// call of the run driver, and the tidying of its results.
#include "host/ctrn.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "host/console.h"
#include "host/messages.h"

namespace tarnel {

namespace {

void* std_calloc(std::size_t n, std::size_t s) { return std::calloc(n, s); }
void std_free(void* p) { std::free(p); }

// Writes a failure line into errtxt: the text as it stands, then a NUL.
void put_errtxt(span<char> errtxt, const char* text) {
  if (errtxt.empty()) return;
  std::size_t n = std::strlen(text);
  if (n > errtxt.size() - 1) n = errtxt.size() - 1;
  std::memcpy(errtxt.data(), text, n);
  errtxt[n] = '\0';
}

// Owns the entry's arrays and frees them on every path out.
class Arrays {
 public:
  explicit Arrays(CtrnAllocator a) : alloc_(a) {}
  Arrays(const Arrays&) = delete;
  Arrays& operator=(const Arrays&) = delete;
  ~Arrays() {
    for (void* p : held_) alloc_.release(p);
  }
  void* get(std::size_t count, std::size_t size) {
    if (count == 0) count = 1;
    void* p = alloc_.alloc_zeroed(count, size);
    if (p) held_.push_back(p);
    return p;
  }
  void drop(void* p) {
    for (auto& h : held_) {
      if (h == p) {
        alloc_.release(h);
        h = held_.back();
        held_.pop_back();
        return;
      }
    }
  }

 private:
  CtrnAllocator alloc_;
  std::vector<void*> held_;
};

constexpr double kTwo63 = 9223372036854775808.0;
constexpr double kTwo64 = 18446744073709551616.0;

}  // namespace

CtrnAllocator default_allocator() { return CtrnAllocator{std_calloc, std_free}; }

bool licence_check() { return true; }

u64 workspace_words(double v) {
  if (!(v > 0)) return 0;
  if (v >= kTwo64) return std::numeric_limits<u64>::max();
  if (v >= kTwo63) {
    return static_cast<u64>(v - kTwo63) | (u64{1} << 63);
  }
  return static_cast<u64>(v);
}

int ctrn_run(CtrnInput& in, RunDriver driver, CtrnAllocator alloc) {
  AiControlArgs& a = in.args;
  AiData& d = a.data;
  AiTerms& t = a.terms;
  AiStructures& s = a.structures;
  AiOptions& o = a.options;
  span<char> errtxt = a.results.errtxt;
  Arrays arrays(alloc);

  a.status.ifault = 0;
  a.status.runTrn = 0.0;
  a.status.saved_design = nullptr;
  a.status.tupl = 0;

  // Start line.
  if (o.trace != 0) {
    const std::string when = stime();
    vprt("Tarnel: %s\n", when.c_str());
  }
  if (!licence_check()) return -1;
  vprt("STAT %d\n", 1);

  // Workspace sizes.
  a.work.lenx[0] = workspace_words(in.workspace);
  a.work.lenx[1] = workspace_words(in.pworkspace);

  // Host work tables.
  int maxflev = 0;
  for (int k = 0; k < t.nfact; ++k) maxflev = std::max(maxflev, t.flev[k]);
  d.dimrvec = maxflev + 1 + t.nfact + 2 * d.lbin;

  const std::size_t niwork = static_cast<std::size_t>(t.nfact) * 2 + t.nfactp + s.ngamma;
  int* iWork = static_cast<int*>(arrays.get(niwork, sizeof(int)));
  double* strucm =
      iWork ? static_cast<double*>(arrays.get(static_cast<std::size_t>(s.nstruc) * 20, 8))
            : nullptr;
  if (!iWork || !strucm) {
    put_errtxt(errtxt, "Unable to allocate integer workspace\n");
    vprt("Unable to allocate %d bytes of dynamic memory\n",
         static_cast<int>(niwork * sizeof(int)));
    return -1;
  }
  const std::size_t ndwork =
      static_cast<std::size_t>(o.naiopt) + d.dimrvec + 4 * static_cast<std::size_t>(d.lbin);
  double* dWork = static_cast<double*>(arrays.get(ndwork, sizeof(double)));
  if (!dWork) {
    put_errtxt(errtxt, "Unable to allocate double precision workspace\n");
    vprt("Unable to allocate %d bytes of dynamic memory\n",
         static_cast<int>(ndwork * sizeof(double)));
    return -1;
  }
  int ncspln = 0;
  for (int k = 0; k < t.nfact; ++k)
    if (t.inter[4 * static_cast<std::size_t>(k)] == -24) ++ncspln;
  t.ncspln = ncspln;

  // Keys of the host-built basis tables.
  int* kzbkey =
      static_cast<int*>(arrays.get(3 * static_cast<std::size_t>(std::max(t.mxSpline, 0)), sizeof(int)));
  if (!kzbkey) {
    put_errtxt(errtxt, "Unable to allocate dynamic memory (kzbkey)\n");
    return -1;
  }
  u64 kyxz = 0;
  for (int k = 0; k < ncspln && k < t.mxSpline; ++k) {
    const int n = in.mbfAddr[2 * static_cast<std::size_t>(k)];
    const int m = in.mbfAddr[2 * static_cast<std::size_t>(k) + 1];
    kzbkey[3 * k] = static_cast<int>(kyxz);
    kzbkey[3 * k + 1] = static_cast<int>(kyxz + n);
    kzbkey[3 * k + 2] = n;
    kyxz += static_cast<u64>(m + 1) * static_cast<u64>(n);
  }
  t.kyxz = kyxz;
  t.kzbkey = span<int>(kzbkey, 3 * static_cast<std::size_t>(std::max(t.mxSpline, 0)));

  // A debug call stops here: the run does not happen.
  if (o.debug != 0) return 0;

  // Step size: the value used is the square root; a generalised model
  // always runs with 0.01.
  if (a.glm.id >= 2) *o.stepsize = 0.0001;
  *o.stepsize = std::sqrt(*o.stepsize);

  // Host work tables, zeroed, and the data column summaries.
  std::memset(iWork, 0, niwork * sizeof(int));
  std::memset(dWork, 0, ndwork * sizeof(double));
  t.flainv = span<int>(iWork, t.nfact);
  t.plusnn = span<int>(iWork + t.nfact, t.nfact);
  t.rlevel = span<int>(iWork + 2 * t.nfact, t.nfactp);
  s.rgmstr = span<int>(iWork + 2 * t.nfact + t.nfactp, s.ngamma);
  s.strucm = span<double>(strucm, static_cast<std::size_t>(s.nstruc) * 20);
  o.optvec = span<double>(dWork, o.naiopt);
  d.rvec = span<double>(dWork + o.naiopt, d.dimrvec);
  d.summry = span<double>(dWork + o.naiopt + d.dimrvec, 4 * static_cast<std::size_t>(d.lbin));
  const double mv = d.dpmv[0];
  for (int c = 0; c < d.lbin; ++c) {
    double mn = 1e30, mx = -1e30, sum = 0, nmiss = 0;
    for (int r = 0; r < d.nrow; ++r) {
      const double v = d.datafr[static_cast<std::size_t>(r) * d.lbin + c];
      if (v == mv) {
        nmiss += 1;
        continue;
      }
      mn = std::min(mn, v);
      mx = std::max(mx, v);
      sum += v;
    }
    double* sm = d.summry.data() + 4 * c;
    sm[0] = mn;
    sm[1] = sum / (d.nrow - nmiss);  // 0/0 for a wholly missing column
    sm[2] = mx;
    sm[3] = nmiss;
  }

  // The work arrays.
  const u64 lenx = a.work.lenx[0];
  const u64 lenxp = a.work.lenx[1];
  double* x = lenx <= std::numeric_limits<std::size_t>::max() / 8
                  ? static_cast<double*>(arrays.get(static_cast<std::size_t>(lenx), 8))
                  : nullptr;
  if (!x) {
    put_errtxt(errtxt, "Unable to allocate dynamic memory (workspace)\n");
    vprt("Unable to allocate %f bytes of dynamic memory\n", static_cast<double>(lenx) * 8.0);
    return -1;
  }
  a.work.x = WorkArray(x, lenx);
  a.work.upper = x + lenx / 2;
  const int npred = *a.predict.npred;
  a.work.xp = WorkArray();
  if (npred >= 1) {
    double* xp = lenxp <= std::numeric_limits<std::size_t>::max() / 8
                     ? static_cast<double*>(arrays.get(static_cast<std::size_t>(lenxp), 8))
                     : nullptr;
    if (!xp) {
      put_errtxt(errtxt, "Unable to allocate dynamic memory (pworkspace)\n");
      vprt("Unable to allocate %f bytes of dynamic memory\n", static_cast<double>(lenxp) * 8.0);
      return -1;
    }
    a.work.xp = WorkArray(xp, lenxp);
  }
  a.status.runTrn = 0.0;

  // Host-built basis tables go to the start of x.
  if (ncspln > 0 && kyxz > 0) {
    std::memcpy(x, in.mbfX.data(), static_cast<std::size_t>(kyxz) * sizeof(double));
  }

  driver(a);

  // Shortage of workspace: report and leave the results as the engine left
  // them.
  const double runTrn = a.status.runTrn;
  if (runTrn > 0) {
    if (npred < 1) {
      put_errtxt(errtxt, "Insufficient workspace - (reset workspace argument)\n");
      vprt("Current workspace: %fMb\n", static_cast<double>(lenx) * 8.0 / 1000000.0);
    } else {
      put_errtxt(errtxt, "Insufficient workspace - (reset workspace or pworkspace arguments)\n");
      vprt("Current workspace: %fMb\n", static_cast<double>(lenx) * 8.0 / 1000000.0);
      vprt("Current predict workspace: %fMb\n", static_cast<double>(lenxp) * 8.0 / 1000000.0);
    }
    return -1;
  }
  if (runTrn < 0) {
    put_errtxt(errtxt, "Insufficient predict workspace - (reset pworkspace argument)\n");
    vprt("Current predict workspace: %fMb\n", static_cast<double>(lenxp) * 8.0 / 1000000.0);
    return -1;
  }
  const int status = a.status.ifault;

  // The kept design: triples (record, equation, value) into the columns
  // named by xcol.
  if (in.keep_design != 0 && a.status.saved_design != nullptr && t.neq != nullptr) {
    const int neq = *t.neq;
    int* index = neq > 0 ? static_cast<int*>(arrays.get(static_cast<std::size_t>(neq), sizeof(int)))
                         : nullptr;
    if (!index) {
      vprt("Insufficient memory to keep design matrix.\n");
    } else {
      for (int k = 0; k < neq; ++k) index[k] = -1;
      for (std::size_t k = 0; k < in.xcol.size(); ++k) {
        const int e = in.xcol[k];
        if (e >= 1 && e <= neq) index[e - 1] = static_cast<int>(k);
      }
      const double* tr = a.status.saved_design;
      const std::size_t nrow = static_cast<std::size_t>(d.nrow);
      for (i64 k = 0; k < a.status.tupl; ++k) {
        const double rec = tr[3 * k], eq = tr[3 * k + 1], val = tr[3 * k + 2];
        if (!(eq >= 1 && eq <= neq) || !(rec >= 1 && rec <= d.nrow)) continue;
        const int i = index[static_cast<int>(eq) - 1];
        if (i < 0) continue;
        const std::size_t at = static_cast<std::size_t>(i) * nrow + static_cast<std::size_t>(rec) - 1;
        if (at < in.design.size()) in.design[at] = val;
      }
      arrays.drop(index);
    }
  }

  // The running constraint codes go back to the host.
  for (int k = 0; k < s.ngamma && k < static_cast<int>(s.gmcstr.size()); ++k)
    s.gmcstr[k] = s.rgmstr[k];

  if (o.trace != 0) {
    const std::string when = stime();
    vprt("\nFinished on: %s \n", when.c_str());
  }

  // Empty prediction values become R's missing value.
  if (npred > 0) {
    AiPredict& p = a.predict;
    const std::size_t rows = static_cast<std::size_t>(std::max(p.pvrow, 0));
    const int lastcol = a.glm.link > 1 ? 4 : 2;
    for (std::size_t j = 0; j < rows; ++j) {
      if (rows + j >= p.prdvals.size() || !(p.prdvals[rows + j] > kMissingThreshold)) continue;
      for (int c = 0; c <= lastcol; ++c) {
        if (c == 2) continue;  // the third column stays as it stands
        const std::size_t at = c * rows + j;
        if (at < p.prdvals.size()) p.prdvals[at] = in.na_real;
      }
    }
    const std::size_t navsed = std::min<std::size_t>(10 * static_cast<std::size_t>(npred), p.avsed.size());
    for (std::size_t k = 0; k < navsed; ++k)
      if (p.avsed[k] > kMissingThreshold) p.avsed[k] = in.na_real;
  }

  // Trim errtxt: a NUL behind its last byte that is not a blank.
  if (errtxt.size() >= 80) {
    int k = 78;
    while (k >= 0 && errtxt[k] == ' ') --k;
    errtxt[k + 1] = '\0';
  }
  return status;
}

}  // namespace tarnel
