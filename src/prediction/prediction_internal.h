// What the prediction stages share: the model's variables, the model
// positions taken apart into the variables they cross, and a table's request.
#ifndef TARNEL_PREDICTION_PREDICTION_INTERNAL_H
#define TARNEL_PREDICTION_PREDICTION_INTERNAL_H

#include <string>
#include <vector>

#include "prediction/prediction.h"

namespace tarnel {

enum PredRole { kRoleDefault = 0, kRoleClassify = 1, kRoleAverage = 2, kRolePresent = 3,
                kRoleAssociate = 4, kRoleIgnore = 5 };

struct PredVar {
  int kind = 0;  // 1 factor, 2 covariate
  int col = 0;   // data column, from 1
  int nlev = 1;
  std::string name;
};

// A model position as prediction sees it.
struct PredPosition {
  int first = 0;        // its first equation (from 1)
  int nlev = 0;
  bool random = false;
  int kind = 0;         // 0 crossed variables, 1 intercept, 2 never predicted
                        // (missing-value term), 3 not expandable
  std::vector<int> comps;  // variables (from 1), the last fastest
  std::string name;
};

struct PredModel {
  std::vector<PredVar> vars;     // variable v at vars[v-1]
  std::vector<PredPosition> pos;
};

// Reads npfact and the term table.  Returns the count of errors.
int read_pred_model(const AiControlArgs& a, PredModel& m);

// One table's request, read from ivals.
struct TableRequest {
  TableHeader h;
  std::vector<int> role;     // by variable (from 0)
  std::vector<int> valpos;   // by variable: position in pvals, or -1
  std::vector<int> cvar;     // classify variables (from 1), first slowest
  std::vector<int> ccount;   // their counts of levels or values
  std::vector<int> clist;    // position of each list (ivals or pvals)
};
// Reads and checks a table's request.  Returns the count of errors.
int read_table(const AiControlArgs& a, const PredModel& m, int t, TableRequest& r);

// True when a random position takes part in a table: every factor it
// crosses is classified, averaged explicitly or associated.
bool random_used(const PredModel& m, const TableRequest& r, const PredPosition& p);

// Enters an error of the request in the message store and on the console;
// returns 1 (one error).
int pred_error(const std::string& text);

// Appends a line to a report slot (NUL-terminated, kReportSlot bytes).
void report_line(char* slot, const std::string& line);

}  // namespace tarnel

#endif
