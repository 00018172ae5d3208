// Clock routines: the time of day, CPU time and the timed progress line.
#include <cstring>
#include <ctime>

#include "host/console.h"
#include "host/messages.h"

namespace tarnel {

namespace {
std::clock_t etime_mark = 0;

std::string hms(const std::tm& t) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%2.2d:%2.2d:%2.2d", t.tm_hour, t.tm_min, t.tm_sec);
  return buf;
}

std::tm local_now(std::time_t* when = nullptr) {
  std::time_t now = std::time(nullptr);
  if (when) *when = now;
  std::tm t{};
  localtime_r(&now, &t);
  return t;
}
}  // namespace

void xtime(int timev[9], std::string& tstring, std::string& hhmmss) {
  std::time_t now;
  const std::tm t = local_now(&now);
  timev[0] = t.tm_sec;
  timev[1] = t.tm_min;
  timev[2] = t.tm_hour;
  timev[3] = t.tm_mday;
  timev[4] = t.tm_mon;
  timev[5] = t.tm_year;
  timev[6] = t.tm_wday;
  timev[7] = t.tm_yday;
  timev[8] = t.tm_isdst;
  char buf[32];
  tstring = ctime_r(&now, buf) ? buf : "";
  hhmmss = hms(t);
}

std::string xtime() { return hms(local_now()); }

std::string stime() {
  std::time_t now = std::time(nullptr);
  char buf[32];
  return ctime_r(&now, buf) ? std::string(buf) : std::string();
}

double etime(int reset) {
  const std::clock_t now = std::clock();
  if (reset != 0) {
    etime_mark = now;
    return 0.0;
  }
  const double secs = static_cast<double>(now - etime_mark) / 1000000.0;
  etime_mark = now;
  return secs;
}

void yymmdd(int d[3]) {
  const std::tm t = local_now();
  d[0] = t.tm_year + 1900;
  d[1] = t.tm_mon + 1;
  d[2] = t.tm_mday;
}

void g5vtme(int /*unit*/, std::string_view text, int length) {
  // The unit is kept in the call for the engine's sake; this host has one
  // console, so every progress line goes there.
  static char buffer[1024];
  std::size_t n = length < 1 ? 0 : static_cast<std::size_t>(length);
  if (n > text.size()) n = text.size();
  if (n > sizeof buffer - 1) n = sizeof buffer - 1;
  std::memcpy(buffer, text.data(), n);
  buffer[n] = '\0';
  fmessage(std::string_view(buffer, n));
}

}  // namespace tarnel
