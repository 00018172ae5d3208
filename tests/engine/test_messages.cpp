// The message store, the fault table and the console routines.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "console_capture.h"
#include "host/console.h"
#include "host/messages.h"

using namespace tarnel;

namespace {
std::string slot(int k) { return message_text(k); }

void fill_store(int severity) {
  clear_message_store();
  for (int k = 0; k < MessageStore::kSlots; ++k)
    g5vcormsg("message " + std::to_string(k + 1), severity);
}
}  // namespace

TEST(MessageStore, DuplicateKeepsFirstSeverityAndLevelZeroClearsSeveritiesOnly) {
  clear_message_store();
  g5vcormsg("US matrix modified", 2);
  g5vcormsg("US matrix modified", 4);
  EXPECT_EQ(g5verrlev(1), 1);
  EXPECT_EQ(g5vxer.severity[0], 2);
  g5verror("another", 3);
  EXPECT_EQ(g5verrlev(3), 1);
  EXPECT_EQ(g5verrlev(1), 2);

  g5vcormsg("ignored", 0);
  EXPECT_EQ(g5verrlev(1), 0);
  EXPECT_EQ(slot(0), "US matrix modified");  // texts survive
  // The slots now read as empty: the same text enters afresh with its level.
  g5vcormsg("US matrix modified", 4);
  EXPECT_EQ(g5vxer.severity[0], 4);
}

TEST(MessageStore, VictimRulesWhenFull) {
  // A full store of one severity with some slots marked lower: the first
  // slot of severity 1 goes first, whatever the new level; severity 2 goes
  // for a level above 1, severity 3 for a level above 2; else slot 1.  The
  // slots behind the victim move down and the new text takes the last.
  struct Case {
    int fill;
    std::vector<int> marked;
    int mark, level, victim;
  };
  const Case cases[] = {{3, {}, 0, 1, 0},     {3, {5, 7}, 1, 4, 5}, {3, {4}, 2, 2, 4},
                        {3, {4}, 2, 1, 0},    {4, {9}, 3, 3, 9},    {4, {9}, 3, 2, 0}};
  for (const Case& c : cases) {
    fill_store(c.fill);
    for (int k : c.marked) g5vxer.severity[k] = c.mark;
    const auto before = g5vxer.severity;
    g5vcormsg("new", c.level);
    for (int k = 0; k + 1 < MessageStore::kSlots; ++k) {
      const int from = k < c.victim ? k : k + 1;
      EXPECT_EQ(slot(k), "message " + std::to_string(from + 1)) << c.victim << " " << k;
      EXPECT_EQ(g5vxer.severity[k], before[from]) << c.victim << " " << k;
    }
    EXPECT_EQ(slot(MessageStore::kSlots - 1), "new");
    EXPECT_EQ(g5vxer.severity[MessageStore::kSlots - 1], c.level);
  }
}

TEST(MessageStore, LongTextIsCutAt128AndDumpPrintsLabels) {
  clear_message_store();
  g5vcormsg(std::string(200, 'x'), 1);
  EXPECT_EQ(slot(0).size(), 128u);
  clear_message_store();
  g5vcormsg("first", 1);
  g5vcormsg("second", 3);
  tarnel_test::capture_begin();
  g5vcormsg("", 6);
  EXPECT_EQ(tarnel_test::capture_end(), "\n   Note: first\nWarning: second\n");
}

TEST(ErrorText, EveryBandAtItsEdges) {
  // Each text with the faults at the edges of its band.
  struct Case {
    std::vector<int> faults;
    const char* text;
  };
  const Case cases[] = {
      {{300001}, "Invalid binomial/threshold proportion"},
      {{300002}, "Invalid poisson count"},
      {{300003}, "Invalid gamma data"},
      {{300004}, "Invalid negative binomial count"},
      {{300005}, "Predicted values out of bounds- try a more reasonable link"},
      {{300006}, "GLM: Fewer records transformed than expected"},
      {{300007}, "Invalid data values for GLM"},
      {{300008}, "Invalid Poisson data"},
      {{300000, 200001}, "Invalid binary data"},
      {{200000, 100001}, "Out of memory absorbing"},
      {{100000, 3901}, "Failed forming R scores"},
      {{3900, 3000}, "Failed forming G scores"},
      {{2999, 2001}, "Failed in AIDGGI"},
      {{2130}, "No residual variation"},
      {{2000, 1006}, "Unable invert R or G [US?] matrix"},
      {{1005, 1001}, "Unable invert R or G [CORR?] matrix"},
      {{1000, 400}, "Failed in AIABS: Increase memory with workspaceoption"},
      {{399, 130}, "PROGRAMMING error AIXDWX"},
      {{280}, "Residual Variance is Zero"},
      {{129, 111}, "PROGRAMMING error in aigetr"},
      {{110, 101}, "PROGRAMMING error"},
      {{100, 51}, "Prediction error"},
      {{50, 6}, "Too BIG! Use workspace option on tarnel()."},
      {{5}, "Inconsistent correlated factors"},
      {{4}, "Solution vector too short"},
      {{3}, "Negative Sum of Squares"},
      {{2}, "Pedigree factor has wrong size"},
      {{1, 0, -7}, "Convergence Failed"},
  };
  char buf[80];
  for (const Case& c : cases)
    for (int fault : c.faults) {
      std::memset(buf, 'z', sizeof buf);
      errortext(fault, buf, sizeof buf);
      EXPECT_STREQ(buf, c.text) << "fault " << fault;
    }
}

TEST(Console, FaultWordAndTimedLine) {
  int nfault = 0;
  EXPECT_EQ(g5vflt(nfault, 6), 1);
  EXPECT_EQ(nfault, 6);
  tarnel_test::capture_begin();
  g5vtme(6, " SSP formed   trailing", 11);
  cprinti("%d|", 42);
  cprintd("%5.2f|", 3.14159);
  cprintc("plain   ");
  const std::string out = tarnel_test::capture_end();
  // The text cut to its length and of its blanks, then the hh:mm:ss clock.
  ASSERT_GE(out.size(), 20u);
  EXPECT_EQ(out.substr(0, 11), " SSP formed");
  EXPECT_EQ(out[11], ' ');
  EXPECT_EQ(out[14], ':');
  EXPECT_EQ(out.substr(20), "42| 3.14|plain   ");
  EXPECT_EQ(etime(1), 0.0);
  EXPECT_GE(etime(0), 0.0);
}
