// Lines of the prediction report.
#include <cstdio>
#include <cstring>
#include <string>

#include "host/utils.h"

namespace tarnel {

void pvtext(char* text, std::size_t capacity, const char* message, const char* const* factor,
            int nfactor, const int* id, int n, double val) {
  const std::size_t have = std::strlen(text);
  if (have + std::strlen(message) >= 16381) return;
  auto term = [&](int k) -> const char* {
    return (k >= 1 && k <= nfactor) ? factor[k - 1] : "";
  };
  std::string line = "- ";
  if (n == 1) line += term(id[0]);
  if (n == 2) line += term(id[0]);
  line += message;
  if (n == 2) line += term(id[1]);
  if (val < 9.9e36) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%f", val);
    line += buf;
  }
  line += "\n";
  if (have + line.size() + 1 > capacity) return;  // never past the buffer
  std::memcpy(text + have, line.c_str(), line.size() + 1);
}

}  // namespace tarnel
