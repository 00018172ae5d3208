// The message store, the fault table and the clock routines.
#include "host/messages.h"

#include <cstring>

#include "host/console.h"

namespace tarnel {

MessageStore g5vxer;

const char kSeverityLabels[] = "   Note NoticeWarning  Error";

std::string_view severity_label(int severity) {
  if (severity < 1) severity = 1;
  if (severity > 4) severity = 4;
  return std::string_view(kSeverityLabels + 7 * (severity - 1), 7);
}

namespace {

using Text = std::array<char, MessageStore::kTextLen>;

Text to_field(std::string_view text) {
  Text f;
  f.fill(' ');
  const std::size_t n = text.size() < f.size() ? text.size() : f.size();
  std::memcpy(f.data(), text.data(), n);
  return f;
}

void dump_store() {
  if (g5vxer.severity[0] > 0) host_puts("\n");
  for (int k = 0; k < MessageStore::kSlots; ++k) {
    if (g5vxer.severity[k] <= 0) continue;
    const std::string label(severity_label(g5vxer.severity[k]));
    const std::string text = message_text(k);
    vprt("%s: %s\n", label.c_str(), text.c_str());
  }
}

}  // namespace

void clear_message_store() {
  for (int k = 0; k < MessageStore::kSlots; ++k) {
    g5vxer.severity[k] = 0;
    g5vxer.text[k].fill(' ');
  }
}

std::string message_text(int slot) {
  const auto& t = g5vxer.text[slot];
  return trim_trailing_blanks(std::string_view(t.data(), t.size()));
}

void g5vcormsg(std::string_view text, int level) {
  if (level > 5) {
    dump_store();
    return;
  }
  if (level < 1) {
    g5vxer.severity.fill(0);
    return;
  }
  const Text field = to_field(text);
  int first1 = -1, first2 = -1, first3 = -1;
  for (int k = 0; k < MessageStore::kSlots; ++k) {
    const int s = g5vxer.severity[k];
    if (s == 0) {
      g5vxer.severity[k] = level;
      g5vxer.text[k] = field;
      return;
    }
    // The same message is held once, with the severity of its first entry.
    if (g5vxer.text[k] == field) return;
    if (s == 1 && first1 < 0) first1 = k;
    if (s == 2 && first2 < 0) first2 = k;
    if (s == 3 && first3 < 0) first3 = k;
  }
  // All slots in use: push out a victim, lowest severity first.
  int victim = 0;
  if (first1 >= 0) {
    victim = first1;
  } else if (level > 1 && first2 >= 0) {
    victim = first2;
  } else if (level > 2 && first3 >= 0) {
    victim = first3;
  }
  for (int k = victim; k + 1 < MessageStore::kSlots; ++k) {
    g5vxer.severity[k] = g5vxer.severity[k + 1];
    g5vxer.text[k] = g5vxer.text[k + 1];
  }
  g5vxer.severity[MessageStore::kSlots - 1] = level;
  g5vxer.text[MessageStore::kSlots - 1] = field;
}

void g5verror(std::string_view text, int level) { g5vcormsg(text, level); }

int g5verrlev(int level) {
  int n = 0;
  for (int s : g5vxer.severity)
    if (s >= level) ++n;
  return n;
}

int g5vflt(int& nfault, int code) {
  nfault = code;
  return 1;
}

const char* errortext_of(int f) {
  if (f == 300001) return "Invalid binomial/threshold proportion";
  if (f == 300002) return "Invalid poisson count";
  if (f == 300003) return "Invalid gamma data";
  if (f == 300004) return "Invalid negative binomial count";
  if (f == 300005) return "Predicted values out of bounds- try a more reasonable link";
  if (f == 300006) return "GLM: Fewer records transformed than expected";
  if (f == 300007) return "Invalid data values for GLM";
  if (f > 300007) return "Invalid Poisson data";
  if (f >= 200001 && f <= 300000) return "Invalid binary data";
  if (f >= 100001 && f <= 200000) return "Out of memory absorbing";
  if (f >= 3901 && f <= 100000) return "Failed forming R scores";
  if (f >= 3000 && f <= 3900) return "Failed forming G scores";
  if (f == 2130) return "No residual variation";
  if (f >= 2001 && f <= 2999) return "Failed in AIDGGI";
  if (f >= 1006 && f <= 2000) return "Unable invert R or G [US?] matrix";
  if (f >= 1001 && f <= 1005) return "Unable invert R or G [CORR?] matrix";
  if (f >= 400 && f <= 1000) return "Failed in AIABS: Increase memory with workspaceoption";
  if (f == 280) return "Residual Variance is Zero";
  if (f >= 130 && f <= 399) return "PROGRAMMING error AIXDWX";
  if (f >= 111 && f <= 129) return "PROGRAMMING error in aigetr";
  if (f >= 101 && f <= 110) return "PROGRAMMING error";
  if (f >= 51 && f <= 100) return "Prediction error";
  if (f >= 6 && f <= 50) return "Too BIG! Use workspace option on tarnel().";
  if (f == 5) return "Inconsistent correlated factors";
  if (f == 4) return "Solution vector too short";
  if (f == 3) return "Negative Sum of Squares";
  if (f == 2) return "Pedigree factor has wrong size";
  return "Convergence Failed";
}

void errortext(int nfault, char* errtxt, std::size_t len) {
  if (errtxt == nullptr || len == 0) return;
  const char* t = errortext_of(nfault);
  std::size_t n = std::strlen(t);
  if (n > len - 1) n = len - 1;
  std::memcpy(errtxt, t, n);
  errtxt[n] = '\0';
}

}  // namespace tarnel
