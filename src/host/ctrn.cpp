// The model-fit entry below the R layer: work arrays, data summaries, the
// call of the run driver, and the tidying of its results.  `ctrn_run`
// walks its steps in order: `start_entry` (start line, licence check,
// workspace sizes), `allocate_host_tables`, `basis_keys`, the step size,
// `host_tables` (with the data column summaries), `allocate_work_arrays`,
// the run driver, `report_shortage`, and `results_for_host`.
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

// What the entry holds for one call: the input, the arrays it owns, and
// what its steps hand on to each other.
struct EntryRun {
  EntryRun(CtrnInput& input, CtrnAllocator alloc)
      : in(input), a(input.args), arrays(alloc), errtxt(input.args.results.errtxt) {}
  CtrnInput& in;
  AiControlArgs& a;
  Arrays arrays;
  span<char> errtxt;
  int* iWork = nullptr;     // flainv, plusnn, rlevel, rgmstr
  std::size_t niwork = 0;
  double* dWork = nullptr;  // optvec, rvec, summry
  std::size_t ndwork = 0;
  double* strucm = nullptr;
  int ncspln = 0;           // spline terms
  u64 kyxz = 0;             // words of the host-built basis tables
  int npred = 0;
};

// The start line, the licence check and the workspace sizes.  Returns
// false when the licence check fails.
bool start_entry(EntryRun& run) {
  AiControlArgs& a = run.a;
  a.status.ifault = 0;
  a.status.runTrn = 0.0;
  a.status.saved_design = nullptr;
  a.status.tupl = 0;
  if (a.options.trace != 0) {
    const std::string when = stime();
    vprt("Tarnel: %s\n", when.c_str());
  }
  if (!licence_check()) return false;
  vprt("STAT %d\n", 1);
  a.work.lenx[0] = workspace_words(run.in.workspace);
  a.work.lenx[1] = workspace_words(run.in.pworkspace);
  return true;
}

// The host work tables and the count of spline terms.  Returns false
// after the failure texts.
bool allocate_host_tables(EntryRun& run) {
  AiControlArgs& a = run.a;
  AiData& d = a.data;
  AiTerms& t = a.terms;
  AiStructures& s = a.structures;
  int maxflev = 0;
  for (int k = 0; k < t.nfact; ++k) maxflev = std::max(maxflev, t.flev[k]);
  d.dimrvec = maxflev + 1 + t.nfact + 2 * d.lbin;
  run.niwork = static_cast<std::size_t>(t.nfact) * 2 + t.nfactp + s.ngamma;
  run.iWork = static_cast<int*>(run.arrays.get(run.niwork, sizeof(int)));
  run.strucm = run.iWork ? static_cast<double*>(run.arrays.get(static_cast<std::size_t>(s.nstruc) * 20, 8))
                         : nullptr;
  if (!run.iWork || !run.strucm) {
    put_errtxt(run.errtxt, "Unable to allocate integer workspace\n");
    vprt("Unable to allocate %d bytes of dynamic memory\n", static_cast<int>(run.niwork * sizeof(int)));
    return false;
  }
  run.ndwork = static_cast<std::size_t>(a.options.naiopt) + d.dimrvec + 4 * static_cast<std::size_t>(d.lbin);
  run.dWork = static_cast<double*>(run.arrays.get(run.ndwork, sizeof(double)));
  if (!run.dWork) {
    put_errtxt(run.errtxt, "Unable to allocate double precision workspace\n");
    vprt("Unable to allocate %d bytes of dynamic memory\n", static_cast<int>(run.ndwork * sizeof(double)));
    return false;
  }
  run.ncspln = 0;
  for (int k = 0; k < t.nfact; ++k)
    if (t.inter[4 * static_cast<std::size_t>(k)] == -24) ++run.ncspln;
  t.ncspln = run.ncspln;
  return true;
}

// The keys of the host-built basis tables: three values a table, and the
// words they take at the start of x.  Returns false after the failure text.
bool basis_keys(EntryRun& run) {
  AiTerms& t = run.a.terms;
  const std::size_t nkey = 3 * static_cast<std::size_t>(std::max(t.mxSpline, 0));
  int* kzbkey = static_cast<int*>(run.arrays.get(nkey, sizeof(int)));
  if (!kzbkey) {
    put_errtxt(run.errtxt, "Unable to allocate dynamic memory (kzbkey)\n");
    return false;
  }
  u64 kyxz = 0;
  for (int k = 0; k < run.ncspln && k < t.mxSpline; ++k) {
    const int n = run.in.mbfAddr[2 * static_cast<std::size_t>(k)];
    const int m = run.in.mbfAddr[2 * static_cast<std::size_t>(k) + 1];
    kzbkey[3 * k] = static_cast<int>(kyxz);
    kzbkey[3 * k + 1] = static_cast<int>(kyxz + n);
    kzbkey[3 * k + 2] = n;
    kyxz += static_cast<u64>(m + 1) * static_cast<u64>(n);
  }
  t.kyxz = kyxz;
  t.kzbkey = span<int>(kzbkey, nkey);
  run.kyxz = kyxz;
  return true;
}

// The host work tables, zeroed and handed out, and the data column
// summaries: minimum, mean, maximum and count of missing values.
void host_tables(EntryRun& run) {
  AiControlArgs& a = run.a;
  AiData& d = a.data;
  AiTerms& t = a.terms;
  AiStructures& s = a.structures;
  AiOptions& o = a.options;
  int* iWork = run.iWork;
  double* dWork = run.dWork;
  std::memset(iWork, 0, run.niwork * sizeof(int));
  std::memset(dWork, 0, run.ndwork * sizeof(double));
  t.flainv = span<int>(iWork, t.nfact);
  t.plusnn = span<int>(iWork + t.nfact, t.nfact);
  t.rlevel = span<int>(iWork + 2 * t.nfact, t.nfactp);
  s.rgmstr = span<int>(iWork + 2 * t.nfact + t.nfactp, s.ngamma);
  s.strucm = span<double>(run.strucm, static_cast<std::size_t>(s.nstruc) * 20);
  o.optvec = span<double>(dWork, o.naiopt);
  d.rvec = span<double>(dWork + o.naiopt, d.dimrvec);
  d.summry = span<double>(dWork + o.naiopt + d.dimrvec, 4 * static_cast<std::size_t>(d.lbin));
  // One pass over the records, which lie record by record: the four
  // values of each column gather minimum, sum, maximum and missing count.
  const double mv = d.dpmv[0];
  for (int c = 0; c < d.lbin; ++c) {
    double* sm = d.summry.data() + 4 * c;
    sm[0] = 1e30;
    sm[1] = 0;
    sm[2] = -1e30;
    sm[3] = 0;
  }
  const double* rec = d.datafr.data();
  for (int r = 0; r < d.nrow; ++r, rec += d.lbin) {
    double* sm = d.summry.data();
    for (int c = 0; c < d.lbin; ++c, sm += 4) {
      const double v = rec[c];
      if (v == mv) {
        sm[3] += 1;
        continue;
      }
      sm[0] = std::min(sm[0], v);
      sm[1] += v;
      sm[2] = std::max(sm[2], v);
    }
  }
  for (int c = 0; c < d.lbin; ++c) {
    double* sm = d.summry.data() + 4 * c;
    sm[1] = sm[1] / (d.nrow - sm[3]);  // 0/0 for a wholly missing column
  }
}

// A work array of `words` 8-byte words, zeroed; null, after the failure
// texts (`text` into errtxt), when it cannot be had.
double* work_array(EntryRun& run, u64 words, const char* text) {
  double* p = words <= std::numeric_limits<std::size_t>::max() / 8
                  ? static_cast<double*>(run.arrays.get(static_cast<std::size_t>(words), 8))
                  : nullptr;
  if (!p) {
    put_errtxt(run.errtxt, text);
    vprt("Unable to allocate %f bytes of dynamic memory\n", static_cast<double>(words) * 8.0);
  }
  return p;
}

// The main work array, the prediction one when predictions are asked
// for, and the basis tables copied to the start of x.  Returns false
// after the failure texts.
bool allocate_work_arrays(EntryRun& run) {
  AiControlArgs& a = run.a;
  const u64 lenx = a.work.lenx[0];
  double* x = work_array(run, lenx, "Unable to allocate dynamic memory (workspace)\n");
  if (!x) return false;
  a.work.x = WorkArray(x, lenx);
  a.work.upper = x + lenx / 2;
  run.npred = *a.predict.npred;
  a.work.xp = WorkArray();
  if (run.npred >= 1) {
    const u64 lenxp = a.work.lenx[1];
    double* xp = work_array(run, lenxp, "Unable to allocate dynamic memory (pworkspace)\n");
    if (!xp) return false;
    a.work.xp = WorkArray(xp, lenxp);
  }
  a.status.runTrn = 0.0;
  if (run.ncspln > 0 && run.kyxz > 0)
    std::memcpy(x, run.in.mbfX.data(), static_cast<std::size_t>(run.kyxz) * sizeof(double));
  return true;
}

// A shortage of workspace: the texts, and the results left as the engine
// left them.  Returns true when there was one.
bool report_shortage(EntryRun& run) {
  const AiControlArgs& a = run.a;
  const double runTrn = a.status.runTrn;
  const double mbx = static_cast<double>(a.work.lenx[0]) * 8.0 / 1000000.0;
  const double mbxp = static_cast<double>(a.work.lenx[1]) * 8.0 / 1000000.0;
  if (runTrn > 0) {
    if (run.npred < 1) {
      put_errtxt(run.errtxt, "Insufficient workspace - (reset workspace argument)\n");
      vprt("Current workspace: %fMb\n", mbx);
    } else {
      put_errtxt(run.errtxt, "Insufficient workspace - (reset workspace or pworkspace arguments)\n");
      vprt("Current workspace: %fMb\n", mbx);
      vprt("Current predict workspace: %fMb\n", mbxp);
    }
    return true;
  }
  if (runTrn < 0) {
    put_errtxt(run.errtxt, "Insufficient predict workspace - (reset pworkspace argument)\n");
    vprt("Current predict workspace: %fMb\n", mbxp);
    return true;
  }
  return false;
}

// The kept design: triples (record, equation, value) into the columns
// named by xcol.
void copy_kept_design(EntryRun& run) {
  CtrnInput& in = run.in;
  const AiControlArgs& a = run.a;
  if (in.keep_design == 0 || a.status.saved_design == nullptr || a.terms.neq == nullptr) return;
  const int neq = *a.terms.neq;
  int* index = neq > 0 ? static_cast<int*>(run.arrays.get(static_cast<std::size_t>(neq), sizeof(int))) : nullptr;
  if (!index) {
    vprt("Insufficient memory to keep design matrix.\n");
    return;
  }
  for (int k = 0; k < neq; ++k) index[k] = -1;
  for (std::size_t k = 0; k < in.xcol.size(); ++k) {
    const int e = in.xcol[k];
    if (e >= 1 && e <= neq) index[e - 1] = static_cast<int>(k);
  }
  const double* tr = a.status.saved_design;
  const int nrec = a.data.nrow;
  const std::size_t nrow = static_cast<std::size_t>(nrec);
  for (i64 k = 0; k < a.status.tupl; ++k) {
    const double rec = tr[3 * k], eq = tr[3 * k + 1], val = tr[3 * k + 2];
    if (!(eq >= 1 && eq <= neq) || !(rec >= 1 && rec <= nrec)) continue;
    const int i = index[static_cast<int>(eq) - 1];
    if (i < 0) continue;
    const std::size_t at = static_cast<std::size_t>(i) * nrow + static_cast<std::size_t>(rec) - 1;
    if (at < in.design.size()) in.design[at] = val;
  }
  run.arrays.drop(index);
}

// Empty prediction values become the host's missing value.
void clean_predictions(EntryRun& run) {
  if (run.npred <= 0) return;
  AiPredict& p = run.a.predict;
  const double na = run.in.na_real;
  const std::size_t rows = static_cast<std::size_t>(std::max(p.pvrow, 0));
  const int lastcol = run.a.glm.link > 1 ? 4 : 2;
  for (std::size_t j = 0; j < rows; ++j) {
    if (rows + j >= p.prdvals.size() || !(p.prdvals[rows + j] > kMissingThreshold)) continue;
    for (int c = 0; c <= lastcol; ++c) {
      if (c == 2) continue;  // the third column stays as it stands
      const std::size_t at = c * rows + j;
      if (at < p.prdvals.size()) p.prdvals[at] = na;
    }
  }
  const std::size_t navsed = std::min<std::size_t>(10 * static_cast<std::size_t>(run.npred), p.avsed.size());
  for (std::size_t k = 0; k < navsed; ++k)
    if (p.avsed[k] > kMissingThreshold) p.avsed[k] = na;
}

// The results for the host: the design it asked to keep, the running
// constraint codes, the finish line, the prediction values, and errtxt
// cut behind its last byte that is not a blank.
void results_for_host(EntryRun& run) {
  AiStructures& s = run.a.structures;
  copy_kept_design(run);
  for (int k = 0; k < s.ngamma && k < static_cast<int>(s.gmcstr.size()); ++k) s.gmcstr[k] = s.rgmstr[k];
  if (run.a.options.trace != 0) {
    const std::string when = stime();
    vprt("\nFinished on: %s \n", when.c_str());
  }
  clean_predictions(run);
  span<char> errtxt = run.errtxt;
  if (errtxt.size() >= 80) {
    int k = 78;
    while (k >= 0 && errtxt[k] == ' ') --k;
    errtxt[k + 1] = '\0';
  }
}

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
  EntryRun run(in, alloc);
  if (!start_entry(run)) return -1;
  if (!allocate_host_tables(run)) return -1;
  if (!basis_keys(run)) return -1;
  // A debug call stops here: the run does not happen.
  if (in.args.options.debug != 0) return 0;
  // Step size: the value used is the square root; a generalised model
  // always runs with 0.01.
  AiOptions& o = in.args.options;
  if (in.args.glm.id >= 2) *o.stepsize = 0.0001;
  *o.stepsize = std::sqrt(*o.stepsize);
  host_tables(run);
  if (!allocate_work_arrays(run)) return -1;
  driver(in.args);
  if (report_shortage(run)) return -1;
  const int status = in.args.status.ifault;
  results_for_host(run);
  if (status == 0 && in.after_run != nullptr) in.after_run(in, in.after_context);
  return status;
}

}  // namespace tarnel
