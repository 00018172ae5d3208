// The engine's message store, fault words and timing.
//
// Numeric routines enter messages in a store of twenty slots as they go; the
// run driver prints and empties it once an iteration.  Every fault of the
// engine ends in one table of texts, `errortext`.
#ifndef TARNEL_HOST_MESSAGES_H
#define TARNEL_HOST_MESSAGES_H

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace tarnel {

// The message store: twenty slots of a severity (0 empty, 1 to 5) and a
// text of 128 characters, blank padded.
struct MessageStore {
  static constexpr int kSlots = 20;
  static constexpr int kTextLen = 128;
  std::array<int, kSlots> severity{};
  std::array<std::array<char, kTextLen>, kSlots> text{};
};
extern MessageStore g5vxer;

// Labels of severities 1 to 4, seven characters each.
extern const char kSeverityLabels[];
// The label of a severity from 1 to 4 (severity 5 shares the label of 4).
std::string_view severity_label(int severity);

// Empties every slot: severity 0 and blank text.
void clear_message_store();
// Enters, clears or dumps messages: see the routine.
void g5vcormsg(std::string_view text, int level);
// Enters a message; the same as g5vcormsg.
void g5verror(std::string_view text, int level);
// Number of slots whose severity is at least `level`.
int g5verrlev(int level);
// Text of slot k (0-based) cut of trailing blanks.
std::string message_text(int slot);

// Stores `code` into `nfault` and returns 1: the caller then leaves.
int g5vflt(int& nfault, int code);

// Puts the text of fault `nfault` into `errtxt` (a field of `len` bytes),
// with a NUL behind it.
void errortext(int nfault, char* errtxt, std::size_t len);
// The text of a fault, as errortext writes it.
const char* errortext_of(int nfault);

// Timing.
// Reads the clock: the nine fields of the broken-down local time, the
// ctime text and the "hh:mm:ss" string.
void xtime(int timev[9], std::string& tstring, std::string& hhmmss);
// The "hh:mm:ss" string of now.
std::string xtime();
// The ctime text of now.
std::string stime();
// CPU seconds since the last call; with `reset` nonzero stores the mark and
// returns 0.
double etime(int reset);
// Year, month (from 1) and day of the local date into d[0], d[1], d[2].
void yymmdd(int d[3]);
// Prints a timed progress line: the text cut to `length`, then the clock.
void g5vtme(int unit, std::string_view text, int length);

}  // namespace tarnel

#endif
