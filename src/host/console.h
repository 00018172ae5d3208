// Console output of the engine.
//
// Every text the engine shows goes through these routines.  They sit on two
// primitives, `host_puts` and `host_vprintf`, which the R build sends to R's
// console and the standalone test build sends to standard output.  This
// header includes no R header, so the engine below it builds without R.
#ifndef TARNEL_HOST_CONSOLE_H
#define TARNEL_HOST_CONSOLE_H

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <string_view>

namespace tarnel {

// Primitives supplied by the host (R console, or stdout in the test build).
void host_puts(const char* text);
void host_vprintf(const char* format, std::va_list ap);
// True when the user asked to interrupt (Ctrl-C in R).  Checking never
// leaves the engine by a jump: the engine polls it and ends the run itself.
bool host_interrupt_pending();
// Forgets an interrupt of an earlier run (the R entry calls it on entry).
void host_interrupt_reset();

// The check for an interrupt inside a long loop, kept cheap: a count down
// by the work of each call, the clock read when it runs out, and the host
// asked at most every quarter second.  Once the host has said yes it says
// yes to every later check of the same run, so a routine that stops early
// on an interrupt leaves its caller to see it too.
class InterruptPoll {
 public:
  explicit InterruptPoll(long long stride) : stride_(stride), left_(stride), last_(Clock::now()) {}
  bool operator()(long long work = 1) {
    left_ -= work;
    if (left_ > 0 || yes_) return yes_;
    left_ = stride_;
    const Clock::time_point now = Clock::now();
    if (now - last_ < std::chrono::milliseconds(250)) return false;
    last_ = now;
    yes_ = host_interrupt_pending();
    return yes_;
  }

 private:
  using Clock = std::chrono::steady_clock;
  long long stride_, left_;
  Clock::time_point last_;
  bool yes_ = false;
};

// Handle of a copy of the output.  Nothing in this system opens it, so it
// stays null and all output goes to the host console; the routines keep
// the test all the same.
extern std::FILE* ptr;

// Text handed to the console is cut of its trailing blanks.
std::string trim_trailing_blanks(std::string_view text);

void cprintd(std::string_view format, double x);
void cprinti(std::string_view format, int x);
void cprintc(std::string_view format);
void cpflush();
// Prints a plain line: printf-style format and arguments.
void vprt(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;
// Prints the text and the hh:mm:ss clock, as "%s %s".
void fmessage(std::string_view text);

}  // namespace tarnel

#endif
