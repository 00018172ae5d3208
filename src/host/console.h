// Console output of the engine.
//
// Every text the engine shows goes through these routines.  They sit on two
// primitives, `host_puts` and `host_vprintf`, which the R build sends to R's
// console and the standalone test build sends to standard output.  This
// header includes no R header, so the engine below it builds without R.
#ifndef TARNEL_HOST_CONSOLE_H
#define TARNEL_HOST_CONSOLE_H

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
