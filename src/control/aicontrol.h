// The run driver's interface: everything the model-fit entry hands over.
//
// `aicontrol` is the whole fit from the engine's side.  Its arguments are
// grouped here by what they describe; every vector comes as a view of the
// array R allocated, and every result is written in place.  Scalars that
// the engine may change travel as pointers into R's vectors.
#ifndef TARNEL_CONTROL_AICONTROL_H
#define TARNEL_CONTROL_AICONTROL_H

#include "control/engine_types.h"

namespace tarnel {

// Work arrays and their sizes.  lenx[0] is the main array, lenx[1] the
// prediction array; they lie side by side so they can be read as a pair.
struct AiWork {
  WorkArray x;          // real and integer views of the main work array
  double* upper = nullptr;  // the main array from word lenx/2
  u64 lenx[2] = {0, 0};
  WorkArray xp;         // prediction work array; empty when npred < 1
};

// The data and the record-level settings.
struct AiData {
  span<double> datafr;  // record r, column c at r*lbin + c (both from 0)
  int lbin = 0;
  int nrow = 0;
  int ny = 0;
  int ntrt = 0;
  int nycol = 0;
  int wtcol = 0;
  int offsetcol = 0;
  int keep = 0;
  span<double> dpmv;    // dpmv[0] marks a missing datum
  span<double> rvec;    // dimrvec doubles
  span<double> summry;  // four per data column: min, mean, max, count missing
  int dimrvec = 0;
};

// The model-term table.
struct AiTerms {
  int nfact = 0;   // number of terms (columns of inter)
  int nfactp = 0;  // number of model positions (length of neword)
  span<int> inter;   // 4 x nfact, by columns
  span<int> flev;    // nfact
  span<int> nlev;    // nfact
  span<int> IBV;     // integer arguments of term functions
  int lenIbv = 0;    // columns of IBV
  span<double> JBV;  // real arguments of term functions
  int lenJbv = 0;    // columns of JBV
  span<int> neword;  // nfactp
  span<int> tyfact;
  span<double> faconst;
  int* submod = nullptr;
  span<int> submds;
  int* neq = nullptr;
  int* neqd = nullptr;
  span<const char* const> facnam;  // nfact C strings
  // Host-side work tables (zeroed by the entry).
  span<int> flainv;  // nfact
  span<int> plusnn;  // nfact
  span<int> rlevel;  // nfactp
  // Splines and host-built basis tables.
  span<double> points;
  int nsppoints = 0;
  int knots = 0;
  double splstp = 0;
  double splinescale = 0;
  u64 kyxz = 0;        // words of basis tables at the start of x
  span<int> kzbkey;    // three values per basis table
  int mxSpline = 0;
  int ncspln = 0;
  int nan = 0;         // individuals in the relationship tables
};

// Variance structures and their parameters.
struct AiStructures {
  int lstruc = 0;   // rows of struc
  int nstruc = 0;   // columns of struc (sections)
  int nspat = 0;
  int nsect = 0;    // columns of nrsect
  int ngamma = 0;   // number of parameters (length of gammas less one)
  span<int> struc;
  span<double> strucm;  // nstruc * 20 words, filled by the engine
  span<int> nrsect;
  span<int> gmcstr;
  span<int> tgamma;
  span<double> gammas;
  span<int> printGammas;
  int* nfrstg = nullptr;
  span<int> rgmstr;  // host work copy of gmcstr (ngamma)
};

struct AiConstraints {
  int ngmcon = 0;
  span<int> gequal;
  span<double> gmcon;
};

// Stored relationship inverses and other known matrices.
struct AiKnown {
  int nainv = 0;
  span<int> lcainv;
  span<double> ainv;
  span<int> llainv;
};

struct AiGlm {
  int id = 1;
  int link = 1;
  span<double> glmphi;
  span<int> thrlevels;
};

// Options and the engine's shared option and state vectors.
struct AiOptions {
  int* maxiter = nullptr;
  double* stepsize = nullptr;
  int gkrige = 0;
  int naiopt = 0;
  span<int> aiopt;
  span<double> optvec;  // naiopt doubles of host work
  int trace = 0;
  int debug = 0;
  int* ddf = nullptr;
  int* typeiii = nullptr;
  int* aodev = nullptr;
  int fown = 0;
  span<int> ownlst;
  int savedgn = 0;
};

// Results, written in place into R's vectors.
struct AiResults {
  span<double> prvgam;
  span<double> score;
  double* loglik = nullptr;
  span<double> soln;
  span<double> vsoln;
  span<double> resid;
  span<double> linearPredictors;
  span<double> hat;
  span<double> sigma2;
  span<double> deviance;
  span<int> nedf;
  span<double> ai;
  span<int> nwv;
  span<int> noeff;
  span<int> nsing;
  span<double> yssqu;
  span<double> Cfixed;
  span<double> Csparse;
  span<int> CfacNum;
  span<int> nCfac;
  span<double> aovTbl;
  span<double> apstvar;
  int* converge = nullptr;
  span<double> trArray;
  span<char> errtxt;   // at least 80 bytes
};

// Prediction requests.
struct AiPredict {
  int* npred = nullptr;
  span<int> nfinmd;
  int lnpvec = 0;
  span<int> lpvals;
  span<int> lpwts;
  span<int> nptabl;
  span<int> npfact;
  span<int> ivals;
  span<double> pvals;
  span<double> prdvals;
  int pvrow = 0;
  span<double> vpvmat;
  span<double> avsed;
  span<char> pvtext;
};

// Where the design rows lie in the main work array after `aidesign`, as
// long as the array lives.  Row r (from 0) holds the values
// x.r[kyxz + k] with equations x.i[colbase + k] for k from x.i[rowbase + r]
// up to x.i[rowbase + r + 1]; its data record (from 1) is x.i[recbase + r].
// The first value of a row is the response, with equation 1.
struct DesignRowsAt {
  u64 kyxz = 0, colbase = 0, rowbase = 0, recbase = 0;
  i64 records = 0;
  i64 nonzero = 0;
};

// What the engine reports back beside the result vectors.
struct AiStatus {
  int ifault = 0;
  double runTrn = 0.0;  // > 0 short of workspace, < 0 short of pworkspace
  // The saved design: tupl triples (record, equation, value), 1-based.
  // The memory belongs to the driver and lives until the next run.
  const double* saved_design = nullptr;
  i64 tupl = 0;
  DesignRowsAt rows;  // set by aidesign
};

struct AiControlArgs {
  AiWork work;
  AiData data;
  AiTerms terms;
  AiStructures structures;
  AiConstraints constraints;
  AiKnown known;
  AiGlm glm;
  AiOptions options;
  AiResults results;
  AiPredict predict;
  AiStatus status;
};

// One fit.  Leaves the outcome in status.ifault, results.errtxt,
// results.converge and status.runTrn.
void aicontrol(AiControlArgs& a);
// Design formation alone: the set-up of a fit up to the design rows, and
// no iteration.  The rows stay in the work array where status.rows says.
// status.ifault is 0 on success; aiopt gets the counts of rows and
// nonzeros as after a fit.
void aidesign(AiControlArgs& a);
// Frees the driver's saved design and clears its statics.
void reset_control_state();

}  // namespace tarnel

#endif
