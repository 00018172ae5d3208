// The WVXP lists: for each equation its row of W' R^-1 WV, kept as node
// chains, with a free chain for nodes given back, and the scratch file
// TEMPWV that takes rows when the lists run short of nodes.
//
// A spilled row keeps its head: the head's column holds -1 - (position of
// the row in the file, in buffer entries), its value the entry count plus
// 1.01, and its link the chain of entries added since the spill.  In the
// file a row starts with the negated equation number, whose real entry is
// the row's column-1 value (0 when it has none); (column, value) pairs
// follow.  A 0 in the integer array ends the used part of a record.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "average_info/ai_internal.h"
#include "host/console.h"
#include "host/messages.h"

namespace tarnel {

AverageInfoState g_aistate;

void reset_average_info_state() {
  if (g_aistate.file != nullptr) std::fclose(g_aistate.file);
  g_aistate = AverageInfoState();
}

void close_tempwv(bool remove_file) {
  AverageInfoState& st = g_aistate;
  if (st.file != nullptr) {
    std::fclose(st.file);
    st.file = nullptr;
    if (remove_file) std::remove(st.filename);
  }
  st.unit = -1;
  st.records = 0;
  st.buffill = 0;
}

// Writes the current buffer as record `rec` (0-based), a 0 behind its used
// part when it is not full.
static int write_record(i64 rec) {
  AverageInfoState& st = g_aistate;
  if (st.buffill < kTempwvLen) {
    st.bufi[st.buffill] = 0;
    st.bufr[st.buffill] = 0.0;
  }
  long where = static_cast<long>(rec * kTempwvLen * 12);
  st.rbufrec = -1;  // a cached copy of this record would be stale
  if (std::fseek(st.file, where, SEEK_SET) != 0) return 1;
  if (std::fwrite(st.bufr, sizeof(double), kTempwvLen, st.file) != static_cast<std::size_t>(kTempwvLen))
    return 1;
  if (std::fwrite(st.bufi, sizeof(i32), kTempwvLen, st.file) != static_cast<std::size_t>(kTempwvLen))
    return 1;
  std::fflush(st.file);
  return 0;
}

static i64 take_node(AverageInfoState& st, int& nfault) {
  if (st.freehead > 0) {
    i64 m = st.freehead;
    st.freehead = st.lists.lnk(m);
    --st.nfree;
    return m;
  }
  if (st.nfree > 0) {
    cprintc(" STOP: G5VWVV IA");
    st.nfree = 0;
  }
  if (st.next >= st.limit) {
    cprintc(" STOP: G5VWVV b");
    g5vflt(nfault, 6);
    return 0;
  }
  return ++st.next;
}

static void give_node(AverageInfoState& st, i64 m) {
  st.lists.clear(m);
  st.lists.lnk(m) = static_cast<i32>(st.freehead);
  st.freehead = m;
  ++st.nfree;
}

int g5vwvv(AiPhaseArgs& a, AiScratch& s, i32 equation, double scale, span<const double> vec) {
  AverageInfoState& st = g_aistate;
  if (std::fabs(scale) < 1e-15) return 0;
  if (equation < 1 || equation > a.store->neq) return g5vflt(a.nfault, 2020);
  if (st.next > st.limit - 2 * a.nwv && st.nfree < a.nwv) {
    if (g5vwvt(a, 1)) return 1;
    if (st.nfree < 0) return 0;
  }
  if (st.next > st.limit) {
    cprintc(" STOP: G5VWVV a ");
    return g5vflt(a.nfault, 6);
  }
  const NodeStore& L = st.lists;
  i64 h = equation;
  if (L.lnk(h) == -1) return 0;  // already used by the forward pass
  i64 hint = 0;
  for (int k = 1; k <= a.nwv; ++k) {
    double v = scale * vec[k - 1];
    if (std::fabs(v) <= 1e-15) continue;
    if (L.col(h) == 0) {
      L.col(h) = k;
      L.val(h) = v;
      L.lnk(h) = 0;
      hint = h;
      continue;
    }
    i64 cur = (hint > 0 && L.col(hint) <= k) ? hint : h;
    if (L.col(cur) > k) {  // in front of the head: the head moves to a new node
      i64 m = take_node(st, a.nfault);
      if (m == 0) return 1;
      L.col(m) = L.col(cur);
      L.lnk(m) = L.lnk(cur);
      L.val(m) = L.val(cur);
      L.col(cur) = k;
      L.val(cur) = v;
      L.lnk(cur) = static_cast<i32>(m);
      hint = cur;
      continue;
    }
    for (;;) {
      if (L.col(cur) == k) {
        L.val(cur) += v;
        break;
      }
      i64 nx = L.lnk(cur);
      if (nx == 0 || L.col(nx) > k) {
        i64 m = take_node(st, a.nfault);
        if (m == 0) return 1;
        L.col(m) = k;
        L.val(m) = v;
        L.lnk(m) = static_cast<i32>(nx);
        L.lnk(cur) = static_cast<i32>(m);
        cur = m;
        break;
      }
      if (nx < 1 || nx > st.limit) {
        cprintc(" STOP: G5VWVV b");
        return g5vflt(a.nfault, 6);
      }
      cur = nx;
    }
    hint = cur;
  }
  if (st.next > a.wvxpnodes) a.wvxpnodes = st.next;
  return 0;
}

// Writes row e (its file part, if any, merged with its live nodes) to the
// buffer, gives its nodes back and makes the head a spilled row.
static int spill_row(AiPhaseArgs& a, i32 e) {
  AverageInfoState& st = g_aistate;
  const NodeStore& L = st.lists;
  double* v = st.merge;
  for (int k = 0; k < a.nwv; ++k) v[k] = 0.0;
  i64 n = e;
  if (L.col(e) < 0) {
    if (read_spilled_row(a, e, span<double>(v, a.nwv))) return 1;
    n = L.lnk(e);
  }
  for (; n > 0; n = L.lnk(n))
    if (L.col(n) >= 1 && L.col(n) <= a.nwv) v[L.col(n) - 1] += L.val(n);
  if (kTempwvLen - st.buffill < a.nwv + 1) {
    if (write_record(st.records)) return g5vflt(a.nfault, 6);
    ++st.records;
    st.buffill = 0;
  }
  i64 start = st.buffill, k = start;
  st.bufi[k] = -e;
  st.bufr[k] = a.nwv >= 1 ? v[0] : 0.0;
  ++k;
  for (int c = 2; c <= a.nwv; ++c) {
    if (std::fabs(v[c - 1]) <= 1e-15) continue;
    st.bufi[k] = c;
    st.bufr[k] = v[c - 1];
    ++k;
  }
  st.buffill = k;
  for (i64 m = L.lnk(e); m > 0;) {
    i64 nx = L.lnk(m);
    give_node(st, m);
    m = nx;
  }
  i64 filepos = st.records * kTempwvLen + start;
  L.col(e) = static_cast<i32>(-1 - filepos);
  L.lnk(e) = 0;
  // The count of column entries behind the marker, plus 1.01: truncation
  // gives the entries including the marker.
  L.val(e) = static_cast<double>(static_cast<float>(static_cast<double>(k - start - 1) + 1.01));
  ++st.spills;
  return 0;
}

int g5vwvt(AiPhaseArgs& a, i32 bound) {
  AverageInfoState& st = g_aistate;
  const NodeStore& L = st.lists;
  if (st.unit < 0 || st.file == nullptr) {
    st.file = std::fopen(st.filename, "w+b");
    if (st.file == nullptr) {
      g5verror(" Unable to open the scratch file TEMPWV", 3);
      st.nfree = -st.limit;
      return g5vflt(a.nfault, 6);
    }
    st.unit = -st.unit;
    if (st.unit <= 0) st.unit = 1;
    st.records = 0;
    st.buffill = 0;
  }
  // The free chain must hold what the count says.
  i64 walked = 0, last = 0;
  for (i64 m = st.freehead; m > 0 && walked <= st.limit; m = L.lnk(m)) {
    ++walked;
    last = m;
  }
  if (walked != st.nfree) {
    vprt("NFREE ERROR %lld %lld %lld\n", static_cast<long long>(walked),
         static_cast<long long>(st.nfree), static_cast<long long>(last));
    st.nfree = walked;
  }
  bool reached = false;
  bool wrote = false;
  // First the rows still wholly in the lists; then, if that frees too
  // little, rows already in the file that have grown again: their file
  // part and their live nodes are merged and written anew.
  for (int pass = 0; pass < 2 && !reached; ++pass) {
    if (pass == 1 && a.trace)
      vprt("In WVT: WVXP too big %lld %lld %lld\n", static_cast<long long>(st.nfree),
           static_cast<long long>(st.next), static_cast<long long>(st.limit));
    for (i32 e = a.store->neq; e > bound; --e) {
      if (L.lnk(e) <= 0) continue;
      if (pass == 0 ? L.col(e) < 1 : L.col(e) >= 0) continue;
      if (a.iw[2 * (e - 1)] < 0 && a.trace) vprt("Sing WV %d\n", e);
      if (spill_row(a, e)) {
        st.nfree = -st.limit;
        return 1;
      }
      wrote = true;
      if (st.nfree > 10 * a.nwv) {
        reached = true;
        break;
      }
    }
  }
  if (wrote && write_record(st.records)) {  // the partial record, rewritten as it fills
    st.nfree = -st.limit;
    return g5vflt(a.nfault, 6);
  }
  if (!reached && st.nfree + (st.limit - st.next) < a.nwv) {
    st.nfree = -st.limit;
    cprintc("EX G5VWVT a");
    return g5vflt(a.nfault, 6);
  }
  return 0;
}

int read_spilled_row(AiPhaseArgs& a, i32 equation, span<double> v) {
  AverageInfoState& st = g_aistate;
  const NodeStore& L = st.lists;
  i64 filepos = -1 - static_cast<i64>(L.col(equation));
  i64 rec = filepos / kTempwvLen, off = filepos % kTempwvLen;
  i64 count = static_cast<i64>(L.val(equation));
  if (st.file == nullptr || count < 1 || off + count > kTempwvLen) {
    cprintc("G5VWVA overflow");
    return g5vflt(a.nfault, 2020);
  }
  if (st.rbufrec != rec) {
    long where = static_cast<long>(rec * kTempwvLen * 12);
    if (std::fseek(st.file, where, SEEK_SET) != 0 ||
        std::fread(st.rbuf, sizeof(double), kTempwvLen, st.file) != static_cast<std::size_t>(kTempwvLen) ||
        std::fread(st.rbufi, sizeof(i32), kTempwvLen, st.file) != static_cast<std::size_t>(kTempwvLen)) {
      g5verror(" Unable to read the scratch file TEMPWV", 3);
      return g5vflt(a.nfault, 2020);
    }
    st.rbufrec = rec;
  }
  if (st.rbufi[off] != -equation) {
    vprt("G5VWVA Error EQN %d %d\n", equation, -st.rbufi[off]);
    return g5vflt(a.nfault, 2020);
  }
  v[0] += st.rbuf[off];
  for (i64 k = 1; k < count; ++k) {
    i32 c = st.rbufi[off + k];
    if (c < 1 || c > a.nwv) {
      vprt("WVAerr %d %d\n", equation, c);
      return g5vflt(a.nfault, 2020);
    }
    v[c - 1] += st.rbuf[off + k];
  }
  return 0;
}

}  // namespace tarnel
