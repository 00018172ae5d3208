// Equation ordering: a symbolic minimum-degree elimination over the pattern
// of the sums of squares and products, absorbed from position NEQ down.
//
// Working pattern: pairs (column, link) in the integer scratch behind the
// per-equation words.  Row e has a permanent head slot e-NDENSE whose column
// word is a sentinel and whose link starts the chain; the chain holds the
// sparse neighbours of e (both triangles) by ascending equation number.
// Dense columns are not part of the pattern: they fill in anyway.
//
// A row that holds more than half of the rows still in selection is kept in
// complement form: its head's column word says so, and its chain lists the
// rows in selection it does NOT touch.  Rows that become indistinguishable
// (the same rows around them, themselves included) form a group: the head
// stands for all of them, with the weight of its members in every length,
// and the members are parked just above the rows in selection (positions
// NEMID+1 to NETOP) until their head is eliminated or dropped.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "host/console.h"
#include "host/messages.h"
#include "sparse/mme.h"

namespace tarnel {

namespace {

constexpr i32 kSentinel = -2;    // head of a row in normal form
constexpr i32 kComplement = -3;  // head of a row in complement form
// Kinds of delay in DLY(2,.).
constexpr i32 kDelayZeroDiagonal = 1;  // out of selection until a neighbour goes
constexpr i32 kDelayFilins = 3;        // sorted as nearly full
// Set bits of a word (no processor instruction is assumed).
inline i32 popcount32(std::uint32_t v) {
  v = v - ((v >> 1) & 0x55555555u);
  v = (v & 0x33333333u) + ((v >> 2) & 0x33333333u);
  v = (v + (v >> 4)) & 0x0f0f0f0fu;
  return static_cast<i32>((v * 0x01010101u) >> 24);
}
// The working pattern is laid out again once the slots taken since the last
// lay-out pass half of those laid out and this many besides.
constexpr i64 kRelayoutSlack = 50000;
// Rows in selection at which the ordering moves to its bit matrix.
constexpr i32 kBitRows = 16384;

struct Ord {
  OrderArgs& a;
  const i32 neq, nd;
  i32* iw;    // pairs
  i32* isz;   // pairs
  i32* grp;   // pairs
  i32* dly;   // pairs
  i32* tmp;   // NEQ ints: neighbour lists and sort scratch
  i32* tmp2;  // NEQ ints: marks
  i32* wr;    // pattern pairs
  i64 maxlx = 0, next = 0, freel = 0;
  i32 nebot = 0, nemid = 0, netop = 0;
  int mo = 0;
  int variant = 0;  // 0 g5veor, 1 g5veora, 2 g5veorb
  i64 fill = 0;
  i32 stamp = 0;

  Ord(OrderArgs& args, i32 n, i32 d) : a(args), neq(n), nd(d) {}

  i32& IW1(i64 q) { return iw[2 * (q - 1)]; }
  i32& IW2(i64 q) { return iw[2 * (q - 1) + 1]; }
  i32& ISZ1(i64 e) { return isz[2 * (e - 1)]; }
  i32& ISZ2(i64 e) { return isz[2 * (e - 1) + 1]; }
  i32& GRP1(i64 e) { return grp[2 * (e - 1)]; }
  i32& GRP2(i64 e) { return grp[2 * (e - 1) + 1]; }
  i32& DLY1(i64 e) { return dly[2 * (e - 1)]; }
  i32& DLY2(i64 e) { return dly[2 * (e - 1) + 1]; }
  i32& WC(i64 s) { return wr[2 * (s - 1)]; }
  i32& WL(i64 s) { return wr[2 * (s - 1) + 1]; }
  i64 head(i32 e) const { return static_cast<i64>(e) - nd; }

  i64 taken = 0;  // slots handed out since the last relayout

  // Late stage: once few rows are left in selection, their pattern among
  // themselves is held as a bit matrix in the free room of the working
  // pattern (above NEXT), and merging a neighbour list into a row becomes
  // a few word operations instead of a walk along its chain.  Only columns
  // still in selection matter from then on, and that set only shrinks, so
  // the matrix is built once over the rows in selection at that moment.
  // Bit b of row k (row k at bits + k*nw) is set when the rows of index k
  // and b are neighbours; indices run by ascending equation number.
  bool bitmode = false;
  i32 nbit = 0, nw = 0;      // rows of the matrix, 32-bit words per row
  i32* idx2eq = nullptr;     // nbit equations
  i32* eq2idx = nullptr;     // per sparse equation (e-NDENSE-1): index or -1
  std::uint32_t* bits = nullptr;
  std::uint32_t* lmask = nullptr;  // one row of scratch: the current list
  i32* lword = nullptr;            // the words of lmask that have bits
  i32 nlword = 0;
  bool grouped = false;      // some row has group members (weights above 1)

  std::uint32_t* brow(i32 e) { return bits + static_cast<i64>(eq2idx[e - nd - 1]) * nw; }

  bool comp(i32 e) { return WC(head(e)) == kComplement; }

  // Nesting: a block of equations in a direct-product layout whose rows of
  // one level of the larger factor are eliminated one after the other.
  bool nestact = false;
  i32 nfirst = 0, nd1 = 0, nd2 = 0;
  i64 nlen = 0;
  i32 lastlev = -1;  // level of the nested row eliminated last, or -1
  bool in_nest(i32 e) const { return nestact && e >= nfirst && e - nfirst < nlen; }
  i32 nest_level(i32 e) const {
    const i64 off = e - nfirst;
    return static_cast<i32>(nd2 >= nd1 ? off % nd2 : off / nd2);
  }

  // The rows in selection that e touches, ascending by equation, into out.
  // Chain stage only.
  i32 neighbours(i32 e, i32* out) {
    i32 n = 0;
    if (!comp(e)) {
      for (i64 s = WL(head(e)); s > 0; s = WL(s)) {
        const i32 c = WC(s);
        if (c != e && active(c)) out[n++] = c;
      }
      return n;
    }
    --stamp;
    for (i64 s = WL(head(e)); s > 0; s = WL(s)) tmp2[WC(s) - 1] = stamp;
    for (i32 q = nebot; q <= nemid; ++q) {
      const i32 c = IW2(q);
      if (c != e && tmp2[c - 1] != stamp) out[n++] = c;
    }
    std::sort(out, out + n);
    return n;
  }

  // Builds the matrix when the rows in selection are few and the room
  // suffices; otherwise leaves the chains in charge.
  void enter_bitmode() {
    const i32 m = nemid - nebot + 1;
    if (m < 1 || m > (a.bitrows > 0 ? a.bitrows : kBitRows)) return;
    const i32 w = (m + 31) / 32;
    const i64 ints = static_cast<i64>(m) + (neq - nd) + w + static_cast<i64>(m + 1) * w;
    if (next + ints / 2 + 2 > maxlx) return;
    i32* base = wr + 2 * next;
    idx2eq = base;
    eq2idx = base + m;
    // Same representation, other signedness: allowed to alias.
    lword = eq2idx + (neq - nd);
    bits = reinterpret_cast<std::uint32_t*>(lword + w);
    lmask = bits + static_cast<i64>(m) * w;
    i32 k = 0;
    for (i32 e = nd + 1; e <= neq; ++e) {
      eq2idx[e - nd - 1] = active(e) ? k : -1;
      if (active(e)) idx2eq[k++] = e;
    }
    for (i64 t = 0; t < static_cast<i64>(m + 1) * w; ++t) bits[t] = 0;
    nbit = m;
    nw = w;
    grouped = false;
    for (i32 b = 0; b < m; ++b) {
      const i32 e = idx2eq[b];
      if (GRP2(e) > 0) grouped = true;
      std::uint32_t* r = bits + static_cast<i64>(b) * w;
      if (comp(e)) {
        // Every row in selection but the listed ones and e itself.
        for (i32 k = 0; k < w; ++k) r[k] = ~std::uint32_t(0);
        if (m & 31) r[w - 1] = (std::uint32_t(1) << (m & 31)) - 1;
        r[b >> 5] &= ~(std::uint32_t(1) << (b & 31));
      }
      for (i64 s = WL(head(e)); s > 0; s = WL(s)) {
        const i32 c = WC(s);
        if (c > nd && c <= neq && active(c)) {
          const i32 ic = eq2idx[c - nd - 1];
          if (comp(e))
            r[ic >> 5] &= ~(std::uint32_t(1) << (ic & 31));
          else
            r[ic >> 5] |= std::uint32_t(1) << (ic & 31);
        }
      }
    }
    const i64 top = next + ints / 2 + 1;
    if (top > a.peak) a.peak = top;
    bitmode = true;
  }

  // The active neighbours of e, ascending, into tmp; their bits into lmask.
  // Result: their number.
  i32 collect_bits(i32 e) {
    const std::uint32_t* r = brow(e);
    i32 n = 0;
    nlword = 0;
    for (i32 k = 0; k < nw; ++k) {
      lmask[k] = 0;
      if (r[k] == 0) continue;
      std::uint32_t word = r[k], keep = 0;
      while (word) {
        const int b = __builtin_ctz(word);
        word &= word - 1;
        const i32 c = idx2eq[k * 32 + b];
        if (!active(c)) continue;
        keep |= std::uint32_t(1) << b;
        tmp[n++] = c;
      }
      lmask[k] = keep;
      if (keep) lword[nlword++] = k;
    }
    return n;
  }

  i64 take() {
    ++taken;
    if (freel > 0) {
      const i64 s = freel;
      freel = WL(s);
      if (next > a.peak) a.peak = next;
      return s;
    }
    if (next + 1 > maxlx) return 0;
    ++next;
    if (next > a.peak) a.peak = next;
    return next;
  }
  void give(i64 s) {
    WC(s) = 0;
    WL(s) = static_cast<i32>(freel);
    freel = s;
  }
  bool active(i32 c) {
    const i32 q = IW1(c);
    return q >= nebot && q <= nemid;
  }
  i32 weight(i32 e) { return 1 + (GRP2(e) > 0 ? GRP2(e) : 0); }
  // Length for selection: a group head counts as one row.
  i32 eff(i32 e) { return ISZ1(e) - (GRP2(e) > 0 ? GRP2(e) : 0); }
  // Length for the sort: rows held back sort as nearly full.
  i32 sortlen(i32 e) {
    if (DLY2(e) > 0 && GRP2(e) <= 0) return std::max(eff(e), netop - nebot + 1 - DLY2(e));
    return eff(e);
  }

  void swap_pos(i32 p, i32 q) {
    if (p == q) return;
    const i32 ep = IW2(p), eq = IW2(q);
    IW2(p) = eq;
    IW2(q) = ep;
    IW1(eq) = p;
    IW1(ep) = q;
  }

  // g5vedr: takes the full row at position q out of selection.
  void g5vedr(i32 q) {
    const i32 e = IW2(q);
    swap_pos(q, nebot);
    ++nebot;
    const i32 w = weight(e);
    // The neighbours lose this row from their length.  Their elements of it
    // stay in place: a row outside selection is never collected again, and
    // unlinking would cost a walk of each neighbour.
    if (ISZ1(e) > 1) {
      const i32 n = bitmode ? collect_bits(e) : neighbours(e, tmp);
      for (i32 k = 0; k < n; ++k) ISZ1(tmp[k]) -= w;
    }
    DLY1(e) = -1;
    // The members follow their head: each is brought back from the parked
    // range to the end of selection, then down to NEBOT.
    for (i32 m = GRP1(e); GRP2(e) > 0 && m != 0; m = GRP1(m)) {
      swap_pos(IW1(m), nemid + 1);
      ++nemid;
      swap_pos(nemid, nebot);
      ++nebot;
      DLY1(m) = -1;
    }
    if (GRP2(e) > 0) GRP2(e) = 0;
  }

  // g5veiv: turns row c into complement form: its chain then lists the rows
  // in selection that c does not touch.  Result 1 when slots run out.
  int g5veiv(i32 c) {
    --stamp;
    for (i64 s = WL(head(c)); s > 0; s = WL(s)) tmp2[WC(s) - 1] = stamp;
    // The rows it misses, ascending, in the second half of tmp (the first
    // half holds the caller's list, at most half of the rows in selection).
    i32* miss = tmp + (neq + 1) / 2;
    i32 nm = 0;
    for (i32 q = nebot; q <= nemid; ++q) {
      const i32 x = IW2(q);
      if (x == c || tmp2[x - 1] == stamp) continue;
      if (nm >= neq - (neq + 1) / 2) return 0;  // not short enough: stays as it is
      miss[nm++] = x;
    }
    std::sort(miss, miss + nm);
    i64 first = 0, last = 0;
    for (i32 k = 0; k < nm; ++k) {
      const i32 x = miss[k];
      const i64 t = take();
      if (t == 0) {
        // Give back what was taken; the row stays as it was.
        for (i64 u = first; u > 0;) {
          const i64 nx = WL(u);
          give(u);
          u = nx;
        }
        return 1;
      }
      WC(t) = x;
      WL(t) = 0;
      if (last) WL(last) = static_cast<i32>(t);
      else first = t;
      last = t;
    }
    for (i64 s = WL(head(c)); s > 0;) {
      const i64 nx = WL(s);
      give(s);
      s = nx;
    }
    WL(head(c)) = static_cast<i32>(first);
    WC(head(c)) = kComplement;
    ++a.complements;
    return 0;
  }

  // Merge into a row in complement form: each listed row that the chain
  // names as untouched is touched now, so it leaves the chain.
  void g5vell_complement(i32 c, const i32* list, i32 n) {
    i64 prev = head(c), s = WL(prev);
    i32 k = 0;
    while (k < n && s > 0) {
      const i32 cs = WC(s), cl = list[k];
      if (cl == c || cl < cs) {
        ++k;
      } else if (cs < cl) {
        prev = s;
        s = WL(s);
      } else {
        const i64 nx = WL(s);
        WL(prev) = static_cast<i32>(nx);
        give(s);
        s = nx;
        ISZ1(c) += weight(cl);
        ++k;
      }
    }
  }

  // g5vell: merges the sorted list into row c, removing the eliminated row
  // e; counts each gained column in ISZ(1,c).  Result 1 when slots run out.
  int g5vell(i32 c, const i32* list, i32 n, i32 e) {
    i64 prev = head(c), s = WL(prev);
    i32 k = 0;
    bool gone = false;  // the eliminated row's element has been removed
    while (k < n || s > 0) {
      if (k >= n && (gone || (s > 0 && WC(s) > e))) break;  // nothing more to do
      const i32 cs = s > 0 ? WC(s) : 0x7fffffff;
      const i32 cl = k < n ? list[k] : 0x7fffffff;
      if (cs == e) {  // the eliminated row
        const i64 nx = WL(s);
        WL(prev) = static_cast<i32>(nx);
        give(s);
        s = nx;
        gone = true;
        continue;
      }
      if (cl == c) {
        ++k;
        continue;
      }
      if (cs < cl) {
        prev = s;
        s = WL(s);
      } else if (cs == cl) {
        prev = s;
        s = WL(s);
        ++k;
      } else {
        const i64 t = take();
        if (t == 0) {
          if (a.err) *a.err = 1111;
          return 1;
        }
        WC(t) = cl;
        WL(t) = static_cast<i32>(s > 0 ? s : 0);
        WL(prev) = static_cast<i32>(t);
        prev = t;
        ISZ1(c) += weight(cl);
        ++k;
      }
    }
    return 0;
  }

  // g5veab: eliminates the row at position inn.
  int g5veab(i32 inn) {
    const i32 e = IW2(inn);
    const i32 w = weight(e);
    swap_pos(inn, netop);
    // The group's rows are eliminated one after the other: each has one
    // element fewer than the one before.
    for (i32 k = 0; k < w; ++k) fill += ISZ1(e) - k;
    if (bitmode) {
      const i32 n = collect_bits(e);
      for (i32 k = 0; k < n; ++k) {
        ISZ1(tmp[k]) -= w;
        ISZ2(tmp[k]) = 0;  // fill counts of the neighbours change
      }
      std::uint32_t* re = brow(e);
      for (i32 k = 0; k < nw; ++k) re[k] = 0;
      const i32 ie = eq2idx[e - nd - 1];
      for (i32 k = 0; k < n; ++k) {
        const i32 c = tmp[k];
        std::uint32_t* rc = brow(c);
        const i32 ic = eq2idx[c - nd - 1];
        rc[ie >> 5] &= ~(std::uint32_t(1) << (ie & 31));
        lmask[ic >> 5] &= ~(std::uint32_t(1) << (ic & 31));  // c is not its own column
        i32 gain = 0;
        for (i32 t = 0; t < nlword; ++t) {
          const i32 j = lword[t];
          std::uint32_t g = lmask[j] & ~rc[j];
          if (!g) continue;
          rc[j] |= g;
          if (!grouped) {
            gain += popcount32(g);
          } else {
            while (g) {
              const int b = __builtin_ctz(g);
              g &= g - 1;
              gain += weight(idx2eq[j * 32 + b]);
            }
          }
        }
        ISZ1(c) += gain;
        lmask[ic >> 5] |= std::uint32_t(1) << (ic & 31);
      }
      DLY1(e) = -1;
      return 0;
    }
    const i32 n = neighbours(e, tmp);
    for (i32 k = 0; k < n; ++k) {
      ISZ1(tmp[k]) -= w;
      ISZ2(tmp[k]) = 0;  // fill counts of the neighbours change
    }
    // Free the chain.
    i64 s = WL(head(e));
    WL(head(e)) = 0;
    WC(head(e)) = kSentinel;
    while (s > 0) {
      const i64 nx = WL(s);
      give(s);
      s = nx;
    }
    const i32 left = netop - nebot;  // equations in selection after this one
    for (i32 k = 0; k < n; ++k) {
      const i32 c = tmp[k];
      // A row about to hold more than half of what is left is cheaper to
      // keep as the list of what it misses.
      if (!comp(c) && 2 * ISZ1(c) > left + 1 && n <= (neq + 1) / 2 && g5veiv(c)) {
        if (a.err) *a.err = 1111;
        return 1;
      }
      if (comp(c)) {
        g5vell_complement(c, tmp, n);
      } else if (g5vell(c, tmp, n, e)) {
        return 1;
      }
    }
    DLY1(e) = -1;
    return 0;
  }

  // Fill count of eliminating e now: pairs of neighbours not yet joined.
  i64 countrow(i32 e) {
    if (bitmode) {
      const i32 n = collect_bits(e);
      i64 missing = 0;
      for (i32 k = 0; k < n; ++k) {
        const std::uint32_t* rc = brow(tmp[k]);
        i32 have = 0;
        for (i32 t = 0; t < nlword; ++t) have += popcount32(rc[lword[t]] & lmask[lword[t]]);
        missing += (n - 1) - have;
      }
      return missing / 2;
    }
    const i32 n = neighbours(e, tmp);
    --stamp;  // negative marks never meet the sort's bucket positions
    for (i32 j = 0; j < n; ++j) tmp2[tmp[j] - 1] = stamp;
    i64 missing = 0;
    for (i32 k = 0; k < n; ++k) {
      const i32 c = tmp[k];
      i32 listed = 0;
      for (i64 s = WL(head(c)); s > 0; s = WL(s))
        if (WC(s) != c && tmp2[WC(s) - 1] == stamp) ++listed;
      // A complement row lists the neighbours it lacks.
      missing += comp(c) ? listed : (n - 1) - listed;
    }
    return missing / 2;
  }

  // The fill count of e, kept in ISZ(2,e) as count+1 (0: not counted)
  // until a neighbour of e is eliminated or groups are formed.
  i64 cached_count(i32 e) {
    if (ISZ2(e) > 0) return ISZ2(e) - 1;
    const i64 c = countrow(e);
    ISZ2(e) = static_cast<i32>(std::min<i64>(c, 0x7ffffffe) + 1);
    return c;
  }

  // Lays the chains of the rows still in selection out again, each in
  // consecutive slots straight after the heads, keeping only the columns
  // still in selection; chains of rows that left selection are dropped.
  // Copies into the free room above NEXT and back.  Returns the number of
  // elements, or -1 (nothing changed) when the room is short.
  i64 relayout() {
    const i64 nheads = static_cast<i64>(neq) - nd;
    i64 live = 0;
    for (i32 q = nebot; q <= nemid; ++q) {
      i32 n = 0;
      for (i64 s = WL(head(IW2(q))); s > 0; s = WL(s))
        if (active(WC(s))) ++n;
      tmp[q - nebot] = n;
      live += n;
    }
    if (next + live + 1 > maxlx) return -1;
    i64 at = next;
    for (i32 q = nebot; q <= nemid; ++q)
      for (i64 s = WL(head(IW2(q))); s > 0; s = WL(s))
        if (active(WC(s))) WC(++at) = WC(s);
    if (at > a.peak) a.peak = at;
    for (i32 e = nd + 1; e <= neq; ++e) WL(head(e)) = 0;
    i64 dst = nheads, src = next;
    for (i32 q = nebot; q <= nemid; ++q) {
      const i32 n = tmp[q - nebot];
      if (n == 0) continue;
      WL(head(IW2(q))) = static_cast<i32>(dst + 1);
      for (i32 k = 0; k < n; ++k) {
        ++dst;
        ++src;
        WC(dst) = WC(src);
        WL(dst) = k + 1 < n ? static_cast<i32>(dst + 1) : 0;
      }
    }
    next = dst;
    freel = 0;
    taken = 0;
    return live;
  }

  // Counting sort of positions nebot..nemid by length: the shortest at the
  // highest position.
  void sort_active() {
    const i32 lo = nebot, hi = nemid;
    if (hi < lo) return;
    i32 maxlen = 0;
    for (i32 p = lo; p <= hi; ++p) {
      const i32 l = sortlen(IW2(p));
      if (l > maxlen) maxlen = l;
    }
    // Bucket counts in tmp2[0..maxlen].
    for (i32 l = 0; l <= maxlen; ++l) tmp2[l] = 0;
    for (i32 p = lo; p <= hi; ++p) ++tmp2[sortlen(IW2(p))];
    // Start positions: shortest length at the top.
    i32 at = hi;
    for (i32 l = 0; l <= maxlen; ++l) {
      const i32 c = tmp2[l];
      tmp2[l] = at;
      at -= c;
    }
    for (i32 p = lo; p <= hi; ++p) tmp[p - lo] = IW2(p);
    for (i32 k = 0; k <= hi - lo; ++k) {
      const i32 e = tmp[k];
      const i32 q = tmp2[sortlen(e)]--;
      IW2(q) = e;
      IW1(e) = q;
    }
  }

  // Are e and c (neighbours) touched by the same rows in selection, each
  // other aside?  Both chains are in normal form and ascend.
  bool same_rows(i32 e, i32 c) {
    i64 s = WL(head(e)), t = WL(head(c));
    while (true) {
      while (s > 0 && (WC(s) == c || !active(WC(s)))) s = WL(s);
      while (t > 0 && (WC(t) == e || !active(WC(t)))) t = WL(t);
      if (s <= 0 || t <= 0) return s <= 0 && t <= 0;
      if (WC(s) != WC(t)) return false;
      s = WL(s);
      t = WL(t);
    }
  }

  // setgrps: rows indistinguishable from a neighbour join its group; the
  // members are then parked above NEMID.  Existing groups are kept: rows
  // that are alike stay alike as others are eliminated.  Result: joins.
  i32 setgrps() {
    // A cheap signature per row (a sum over the rows around it and itself)
    // so that only rows with equal lengths and signatures are compared.
    for (i32 p = nebot; p <= nemid; ++p) {
      const i32 e = IW2(p);
      std::uint32_t h = static_cast<std::uint32_t>(e) * 0x9E3779B1u;
      if (!comp(e))
        for (i64 s = WL(head(e)); s > 0; s = WL(s))
          if (active(WC(s))) h += static_cast<std::uint32_t>(WC(s)) * 0x9E3779B1u;
      ISZ2(e) = static_cast<i32>(h);
    }
    i32 joins = 0;
    for (i32 p = nemid; p >= nebot; --p) {
      const i32 e = IW2(p);
      if (GRP2(e) < 0 || DLY2(e) == kDelayZeroDiagonal || comp(e) || eff(e) <= 3) continue;
      for (i64 s = WL(head(e)); s > 0; s = WL(s)) {
        const i32 c = WC(s);
        if (c == e || !active(c) || GRP2(c) != 0 || DLY2(c) == kDelayZeroDiagonal || comp(c))
          continue;
        if (ISZ1(c) != ISZ1(e) || ISZ2(c) != ISZ2(e) || !same_rows(e, c)) continue;
        GRP1(c) = GRP2(e) > 0 ? GRP1(e) : 0;
        GRP1(e) = c;
        GRP2(e) += 1;
        GRP2(c) = -e;
        if (a.trace && joins < 130) vprt(" %d joins %d\n", c, e);
        ++joins;
      }
    }
    // The signatures shared ISZ(2,.) with the cached fill counts.
    for (i32 p = nebot; p <= nemid; ++p) ISZ2(IW2(p)) = 0;
    if (joins == 0) return 0;
    // Park the members (their chains are no longer needed) just above the
    // rows in selection.
    for (i32 q = nemid; q >= nebot; --q) {
      const i32 m = IW2(q);
      if (GRP2(m) >= 0) continue;
      for (i64 s = WL(head(m)); s > 0;) {
        const i64 nx = WL(s);
        give(s);
        s = nx;
      }
      WL(head(m)) = 0;
      swap_pos(q, nemid);
      --nemid;
    }
    if (a.trace) vprt(" %d groups\n", joins);
    a.groups += joins;
    return joins;
  }

  // Places the members of the group of e, just eliminated at NETOP+1, at
  // the next positions down.
  void place_members(i32 e) {
    if (GRP2(e) <= 0) return;
    for (i32 m = GRP1(e); m != 0; m = GRP1(m)) {
      swap_pos(IW1(m), netop);
      --netop;
      DLY1(m) = -1;
    }
    GRP2(e) = 0;
  }
};

// Model code of the XFA structure.
constexpr int kModelXfa = 15;

// True when a term of the model is an XFA structure, whose psi fill this
// ordering does not add yet.
bool has_xfa_term(const OrderArgs& a) {
  for (size_t t = 0; t < a.termcode.size(); ++t) {
    const i32 code = a.termcode[t];
    if (code < 20000 || a.lstruc < kModel) continue;
    const int nsec = code / 10000, first = code % 10000;
    for (int k : {first, first + nsec - 1}) {
      const i64 at = static_cast<i64>(k - 1) * a.lstruc + (kModel - 1);
      if (k >= 1 && at < static_cast<i64>(a.struc.size()) && a.struc[at] == kModelXfa) return true;
    }
  }
  return false;
}

// True when sparse row e of the store has no element.
bool empty_row(const Pool& pool, i32 e, i32 nd) {
  const i64 h = e - nd;
  return pool.lnk(h) == -1 || pool.col(h) == 0;
}

// Positions: dense fixed; empty rows to the top, the others in equation
// order below them.
void initial_positions(Ord& o, const Pool& pool) {
  for (i32 p = 1; p <= o.nd; ++p) {
    o.IW1(p) = p;
    o.IW2(p) = p;
  }
  i32 lowp = o.nd, highp = o.neq + 1;
  for (i32 e = o.nd + 1; e <= o.neq; ++e) {
    const i32 q = empty_row(pool, e, o.nd) ? --highp : ++lowp;
    o.IW1(e) = q;
    o.IW2(q) = e;
  }
  o.netop = lowp;
  o.nemid = lowp;
  o.nebot = o.nd + 1;
}

// The symmetric pattern of the store's sparse rows, chains sorted by
// equation; ISZ(1,.) counts the row lengths and DLY(1,.) the zero-valued
// elements.  Result 1 on a broken store or a full working pattern.
int build_pattern(Ord& o, const Pool& pool) {
  const i32 neq = o.neq, nd = o.nd;
  o.next = static_cast<i64>(neq) - nd;
  for (i64 h = 1; h <= o.next; ++h) {
    o.WC(h) = kSentinel;
    o.WL(h) = 0;
  }
  for (i32 e = nd + 1; e <= neq; ++e) o.ISZ2(e) = static_cast<i32>(o.head(e));  // tails
  for (i32 r = nd + 1; r <= neq; ++r) {
    o.ISZ1(r) += 1;
    if (empty_row(pool, r, nd)) continue;
    int guard = 0;
    for (i64 s = r - nd; s > 0; s = pool.lnk(s)) {
      if (++guard > neq + 1 || s > pool.nval) return 1;
      const i32 c = pool.col(s);
      if (c <= nd || c >= r) continue;
      if (c > neq) return 1;
      if (pool.col(c - nd) == 0) continue;
      // r into row c (behind its tail), c into row r.
      for (int side = 0; side < 2; ++side) {
        const i32 row = side ? c : r, col = side ? r : c;
        const i64 t = o.take();
        if (t == 0) return 1;
        o.WC(t) = col;
        o.WL(t) = 0;
        o.WL(o.ISZ2(row)) = static_cast<i32>(t);
        o.ISZ2(row) = static_cast<i32>(t);
        o.ISZ1(row) += 1;
        if (pool.val(s) == 0.0) o.DLY1(row) += 1;  // zero-valued elements
      }
    }
  }
  // Lower triangle chains were added row by row, ascending: row r receives
  // its lower columns when r is visited and its upper columns later, so each
  // chain ascends.  The tails kept in ISZ(2,.) are no longer needed: the
  // word now caches fill counts.
  for (i32 e = nd + 1; e <= neq; ++e) o.ISZ2(e) = 0;
  return 0;
}

// Columns of e missing from the chain of its neighbour `longer`.
i32 columns_outside(Ord& o, i32 e, i32 longer) {
  i32 outside = 0;
  i64 u = o.WL(o.head(longer));
  for (i64 t = o.WL(o.head(e)); t > 0; t = o.WL(t)) {
    const i32 c = o.WC(t);
    if (c == longer) continue;
    while (u > 0 && o.WC(u) < c) u = o.WL(u);
    if (u <= 0 || o.WC(u) != c) ++outside;
  }
  return outside;
}

// Delays (mode 3).  A row with zero-valued elements is of a constraint
// kind.  When it would add fill (a neighbour is shorter, or its columns
// are not all in its first longer neighbour) it is held back ("Filins"):
// its length is kept and it is sorted as nearly full.  A zero diagonal
// keeps the row out of selection until a neighbour has been eliminated.
// Result: true when some row waits on a zero diagonal.
bool set_delays(Ord& o, const Pool& pool) {
  bool delays = false;
  for (i32 e = o.nd + 1; e <= o.neq; ++e) {
    i32 zeros = o.DLY1(e);
    o.DLY1(e) = 0;
    o.DLY2(e) = 0;
    if (empty_row(pool, e, o.nd)) {
      o.DLY1(e) = -1;
      continue;
    }
    const i64 d = g5vxii(e, pool, o.nd, 0);
    const double diag = d > 0 ? pool.val(d) : 0.0;
    if (diag == 0.0) ++zeros;
    if (zeros == 0 || o.ISZ1(e) < 4) continue;
    i32 longer = 0;
    bool shorter = false;
    for (i64 t = o.WL(o.head(e)); t > 0 && !shorter; t = o.WL(t)) {
      const i32 c = o.WC(t);
      if (o.ISZ1(c) < o.ISZ1(e)) shorter = true;
      else if (longer == 0 && o.ISZ1(c) > o.ISZ1(e)) longer = c;
    }
    const i32 outside = !shorter && longer != 0 ? columns_outside(o, e, longer) : 0;
    if (shorter || longer == 0 || outside > 0) {
      if (o.a.trace) vprt("Filins %d %d %d\n", e, o.ISZ1(e), outside);
      o.DLY1(e) = o.ISZ1(e);
      o.DLY2(e) = kDelayFilins;
    }
    if (diag == 0.0 && o.ISZ1(e) > 1) {
      o.DLY1(e) = o.ISZ1(e);  // a change of length tells of a neighbour gone
      o.DLY2(e) = kDelayZeroDiagonal;
      delays = true;
    } else if (diag < 0.0) {
      o.DLY1(e) = 0;
      o.DLY2(e) = 0;
    }
  }
  return delays;
}

// Priority equations: absorbed last.
void place_priority(Ord& o) {
  i32 np = 0;
  for (i32 e : o.a.priority) {
    if (e <= o.nd || e > o.neq) continue;
    const i32 q = o.IW1(e);
    if (q < o.nebot || q > o.netop) continue;
    o.g5vedr(q);
    ++np;
  }
  if (o.a.trace) vprt(" Priority equations %d\n", np);
}

// setnest: the block of a direct product whose rows of one level of the
// larger factor are to be eliminated together.
void set_nest(Ord& o) {
  const OrderArgs& a = o.a;
  const i64 first = static_cast<i64>(a.nest[0]) + 1;
  const i64 len = static_cast<i64>(a.nest[1]) * a.nest[2];
  if (a.trace) vprt("!EQO3a %d %d %d\n", a.nest[0], a.nest[1], a.nest[2]);
  if (a.nest[1] < 1 || a.nest[2] < 1 || first <= o.nd || first + len - 1 > o.neq) {
    vprt("NESTEQ Error %d %d %d\n", a.nest[0], a.nest[1], a.nest[2]);
    g5verror(" Nesting record does not fit the equations: ordinary selection used", 2);
    return;
  }
  o.nestact = true;
  o.nfirst = static_cast<i32>(first);
  o.nd1 = a.nest[1];
  o.nd2 = a.nest[2];
  o.nlen = len;
  if (a.trace) vprt("!EQO3z %d %lld\n", o.nfirst, static_cast<long long>(o.nlen));
}

// The passes of the minimum-degree selection and what they carry from one
// pass to the next.
struct Selection {
  Ord& o;
  const Pool& pool;
  bool delays = false;         // some row waits on a zero diagonal
  bool groups_wanted = false;  // rows may join row groups
  i32 lenhi = 0;               // the upper bound of the lengths taken
  int idle = 0;                // passes in a row that chose nothing
  i64 laid = 0;                // pattern slots at the last lay-out
  i64 since_groups = -1;       // eliminations since the last search for groups
  // On an interrupt the search stops early: the rows left fill in as the
  // dense block, and the run ends before that is absorbed.
  InterruptPoll interrupted{16};

  // Rows in selection that the rows left would fill in anyway.
  bool full(i32 e) { return o.ISZ1(e) >= o.netop - o.nebot + 1; }
  // Rows kept out of this choice by a delay.
  bool held_back(i32 e, i32 lenlo) {
    return o.DLY2(e) == kDelayZeroDiagonal || (o.DLY2(e) == kDelayFilins && 2 * o.DLY1(e) >= lenlo);
  }

  // Eliminates the row at position q (in selection) with its group.
  // Result 1 on failure.
  int eliminate(i32 q) {
    const i32 e = o.IW2(q);
    o.swap_pos(q, o.nemid);
    const i32 inn = o.nemid;
    if (o.g5veab(inn)) {
      if (o.a.trace) vprt("EQABORT %d %d %d\n", o.nebot, inn, o.nemid);
      return 1;
    }
    --o.nemid;
    --o.netop;
    o.place_members(e);
    if (since_groups >= 0) ++since_groups;
    o.lastlev = o.in_nest(e) ? o.nest_level(e) : -1;
    return 0;
  }

  // The nesting rule: after a row of the nested block, the nearest row in
  // selection of the same level goes next.  Result 1 on failure.
  int follow_nest() {
    while (o.nestact && o.lastlev >= 0 && o.nemid > o.nebot + 1) {
      i32 q = o.nemid;
      for (; q >= o.nebot; --q) {
        const i32 f = o.IW2(q);
        if (o.in_nest(f) && o.nest_level(f) == o.lastlev && o.DLY2(f) != kDelayZeroDiagonal &&
            !full(f))
          break;
      }
      if (q < o.nebot) {
        if (o.a.trace) vprt("NESTGP %d\n", o.lastlev);
        o.lastlev = -1;
        break;
      }
      if (o.a.trace) vprt("EQ4b %d %d\n", o.IW2(q), o.lastlev);
      if (eliminate(q)) return 1;
    }
    return 0;
  }

  // Delay release: a delayed row whose length has changed has lost a
  // neighbour; it is freed once one of the lower columns of its row in the
  // store has been eliminated, or when it has none.
  void release_delays() {
    bool any = false;
    i32 ndelay = 0, nreleased = 0;
    for (i32 p = o.nebot; p <= o.nemid; ++p) {
      const i32 e = o.IW2(p);
      if (o.DLY2(e) != kDelayZeroDiagonal) continue;
      if (o.ISZ1(e) == o.DLY1(e)) {
        any = true;
        continue;
      }
      bool release = true;
      for (i64 s = e - o.nd; s > 0; s = pool.lnk(s)) {
        const i32 c = pool.col(s);
        if (c > o.nd && c != e && c <= o.neq && o.IW1(c) > o.netop) {
          release = true;
          break;
        }
        if (c > o.nd && c != e) release = false;
      }
      if (o.a.trace) vprt("DDELAY %d %d %d %d %d\n", ++ndelay, e, o.neq - e, o.ISZ1(e), o.DLY1(e));
      if (release) {
        o.DLY2(e) = 0;
        ++nreleased;
      } else {
        any = true;
      }
    }
    if (o.a.trace) vprt("DDELAY sum %d %d\n", ndelay, nreleased);
    if (!any) delays = false;
  }

  // Row groups, while the rows are still held in chains.  The search costs
  // a walk of every chain, so it runs again only once a good part of the
  // rows in selection has been eliminated since the last one.
  void find_groups() {
    if (!(groups_wanted && !o.nestact && !o.bitmode &&
          (since_groups < 0 || since_groups > (o.nemid - o.nebot + 1) / 8)))
      return;
    const bool timed = o.a.trace && o.neq > 2000;
    if (timed && since_groups < 0) g5vtme(6, " EOR Setup", 10);
    const i32 joins = o.setgrps();
    if (timed && joins > 0) {
      g5vtme(6, " EOR Groups found", 17);
      g5vtme(6, " EOR Groups done", 16);
    }
    since_groups = 0;
  }

  // Rows in the four longest buckets: close to full.
  void report_full() {
    i32 nfull[4] = {0, 0, 0, 0};
    const i32 left = o.netop - o.nebot + 1;
    for (i32 p = o.nebot; p <= o.nemid; ++p) {
      const i32 gap = left - o.ISZ1(o.IW2(p));
      if (gap >= 0 && gap < 4) ++nfull[gap];
    }
    if (nfull[0] + nfull[1] + nfull[2] + nfull[3] > 0)
      vprt("%d %d %d %d ROWS FULL\n", nfull[0], nfull[1], nfull[2], nfull[3]);
  }

  // Full rows leave selection; trivial rows stay where they are.
  void drop_full_and_trivial() {
    while (o.nebot <= o.nemid && full(o.IW2(o.nebot))) o.g5vedr(o.nebot);
    while (o.nemid >= o.nebot && o.ISZ1(o.IW2(o.nemid)) < 2 && o.GRP2(o.IW2(o.nemid)) <= 0 &&
           o.DLY2(o.IW2(o.nemid)) != kDelayZeroDiagonal) {
      o.fill += 1;
      o.DLY1(o.IW2(o.nemid)) = -1;
      o.swap_pos(o.nemid, o.netop);  // past any parked group members
      --o.nemid;
      --o.netop;
    }
  }

  // nextbest: the least true fill among the eligible rows further down
  // from position p (row e).  A smaller count replaces the best and halves
  // the search's progress count; an equal count with a shorter row replaces
  // it too; every row that does not improve adds one, and the search stops
  // at 10, at a row that adds no fill, at the look-ahead depth (a twentieth
  // of the rows in selection) or a fifth of the way up from NEBOT.
  i32 pick_by_fill(i32 p, i32 e, i32 lenlo) {
    i32 pick = p;
    i64 best = o.cached_count(e);
    const i32 span_rows = o.nemid - o.nebot;
    const i32 lo = std::max(o.nebot + span_rows / 5, p - std::max<i32>(1, span_rows / 20));
    int progress = 0;
    for (i32 q = p - 1; q >= lo && best > 0 && progress < 10; --q) {
      const i32 f = o.IW2(q);
      if (o.eff(f) > lenlo || held_back(f, lenlo) || full(f)) continue;
      const i64 cf = o.cached_count(f);
      if (cf < best) {
        best = cf;
        pick = q;
        progress /= 2;
      } else if (cf == best && o.eff(f) < o.eff(o.IW2(pick))) {
        pick = q;
        ++progress;
      } else {
        ++progress;
      }
    }
    return pick;
  }

  // Five rows down from position p (row e, effective length len), a
  // strictly better row replaces the choice: shorter; at equal length the
  // lower equation when neither is a group, the larger group when both are.
  i32 pick_five_down(i32 p, i32 e, i32 len, i32 lenlo) {
    if (p - 5 < o.nebot) return p;
    const i32 f = o.IW2(p - 5);
    const i32 lf = o.eff(f), gf = o.GRP2(f), ge = o.GRP2(e);
    bool better = lf < len;
    if (lf == len) better = (gf > 0 && ge > 0) ? gf > ge : (gf <= 0 && ge <= 0 && f < e);
    return !held_back(f, lenlo) && !full(f) && better ? p - 5 : p;
  }

  // One pass from NEMID down: rows up to `lenlo` long are eliminated as
  // they are met; when none is, lenlo rises towards the mean length of the
  // rows passed over.  Result 1 on failure.
  int choose(i32 lenlo, bool& chose, bool& stop) {
    while (true) {
      int count = 0, limit = 12;
      i64 sum = 0;
      i32 minpass = 0x7fffffff;
      bool chosen_now = false;
      for (i32 p = o.nemid; p >= o.nebot && p <= o.nemid;) {
        const i32 e = o.IW2(p);
        if (full(e)) {
          o.g5vedr(p);
          if (p < o.nebot || p > o.nemid) break;
          continue;
        }
        const i32 len = o.eff(e);
        if (len > lenlo || held_back(e, lenlo)) {
          ++count;
          sum += std::min(len, lenlo + 8);
          if (len < minpass) minpass = len;
          if (count > limit) break;
          if (count >= 100 && lenlo < lenhi) break;
          --p;
          continue;
        }
        const i32 pick =
            o.variant == 1 ? pick_by_fill(p, e, lenlo) : pick_five_down(p, e, len, lenlo);
        if (eliminate(pick) || follow_nest()) return 1;
        chosen_now = true;
        chose = true;
        limit = count + 12;
        if (o.nemid <= o.nebot + 1 || interrupted()) {
          stop = true;
          break;
        }
        if (p > o.nemid) p = o.nemid;
        else --p;
      }
      if (stop || chosen_now) break;
      if (lenhi <= lenlo || count < 11) break;
      const i32 mean = count ? static_cast<i32>(sum / count) : lenlo;
      lenlo = std::max(mean, lenlo + 2);
      if (lenlo < minpass) lenlo = minpass;
    }
    return 0;
  }

  // The passes, until the rows left fill in anyway.  Result 1 on failure.
  int run() {
    const OrderArgs& a = o.a;
    while (o.nemid > o.nebot && !interrupted(16)) {
      // The nesting rule holds while rows of the block are left.
      if (o.nestact) {
        bool left = false;
        for (i32 p = o.nebot; p <= o.netop && !left; ++p) left = o.in_nest(o.IW2(p));
        if (!left) o.nestact = false;
      }
      if (delays) release_delays();
      find_groups();
      if (!o.bitmode && (a.bitrows != 0)) o.enter_bitmode();
      if (!o.bitmode && o.taken > laid / 2 + kRelayoutSlack) {
        const i64 l2 = o.relayout();
        laid = l2 >= 0 ? l2 : laid * 2;
      }
      o.sort_active();
      if (a.trace && o.netop > 5) report_full();
      drop_full_and_trivial();
      if (o.nemid <= o.nebot) break;
      if (o.nebot + 10 > o.netop) break;
      const i32 nfree = o.nemid - o.nebot + 1;
      i32 k = std::max<i32>(200, nfree / 20);
      if (k > nfree / 2) k = nfree / 2;
      const i32 kk = o.nemid - k;
      const i32 minlen = o.eff(o.IW2(o.nemid));
      const i32 lenlo = minlen + 1;
      const float sq = std::sqrt(0.9f * static_cast<float>(minlen));
      lenhi = std::max({o.eff(o.IW2(kk >= o.nebot ? kk : o.nebot)), lenhi + 5,
                        minlen + 1 + static_cast<i32>(std::lround(sq))});
      if (a.trace) vprt("EOR  %d %d %d %d %d 0\n", o.nebot, o.nemid, o.netop, lenlo, lenhi);
      // Rows long against what is left fill in anyway: stop ordering.
      // (Lengths count group members, so they are set against all the
      // equations still to be placed, parked members included.)
      if (lenlo > (o.netop - o.nebot + 1) / 3 + 1) break;
      bool chose = false, stop = false;
      if (choose(lenlo, chose, stop)) return 1;
      if (stop) break;
      if (!chose) {
        if (++idle > 2) break;
        // Only delayed rows are short: release them all.
        for (i32 p = o.nebot; p <= o.nemid; ++p) o.DLY2(o.IW2(p)) = 0;
        delays = false;
      } else {
        idle = 0;
      }
    }
    return 0;
  }
};

// The rest fills in as a dense block (rows from nebot to netop); the order
// is checked (every equation once) and IW(1,.) set to the positions.
// Result 1 when the order is not valid.
int finish(Ord& o) {
  OrderArgs& a = o.a;
  const i32 neq = o.neq, nd = o.nd;
  const i64 m = o.netop - o.nebot + 1;
  if (m > 0) o.fill += m * (m + 1) / 2;
  const i64 nb = o.nebot - (nd + 1);
  if (nb > 0) o.fill += nb * (nb + 1) / 2 + nb * (m > 0 ? m : 0);
  a.fill = o.fill;
  a.tail = (o.netop > o.nebot ? o.netop - o.nebot + 1 : 0) + (o.nebot - (nd + 1));

  for (i32 e = 1; e <= neq; ++e) o.tmp[e - 1] = 0;
  int dup = 0;
  for (i32 p = 1; p <= neq; ++p) {
    const i32 e = o.IW2(p);
    if (e < 1 || e > neq || o.tmp[e - 1] != 0) {
      if (a.trace) vprt("fff? %d %d\n", p, e);
      ++dup;
      continue;
    }
    o.tmp[e - 1] = p;
  }
  if (dup) return 1;
  for (i32 e = 1; e <= neq; ++e) o.IW1(e) = o.tmp[e - 1];
  if (a.trace && neq < 85) {
    for (i32 p = 1; p <= neq; ++p) vprt(" %d", o.IW2(p));
    vprt("\n");
  }
  return 0;
}

// Words of the per-equation tables at the front of the integer scratch:
// ISZ, GRP and DLY pairs and two lists of NEQ.
constexpr i64 kTableWords = 8;

int order_main(OrderArgs& a, int variant) {
  int dummy = 0;
  int& err = a.err ? *a.err : dummy;
  const MmeStore* st = a.store;
  if (st == nullptr) {
    err = 7;
    return 1;
  }
  const i32 neq = st->neq, nd = st->ndense;
  const i64 need = kTableWords * static_cast<i64>(neq);
  if (neq < 1 || nd < 1 || nd > neq || a.iw.size() < 2u * neq ||
      static_cast<i64>(a.work.size()) < need + 2 * (static_cast<i64>(neq) - nd + 1)) {
    err = 7;
    return 1;
  }
  Ord o(a, neq, nd);
  o.variant = variant;
  o.iw = a.iw.data();
  o.isz = a.work.data();
  o.grp = o.isz + 2 * neq;
  o.dly = o.grp + 2 * neq;
  o.tmp = o.dly + 2 * neq;
  o.tmp2 = o.tmp + neq;
  o.wr = o.tmp2 + neq;
  const i64 avail = (static_cast<i64>(a.work.size()) - need) / 2;
  o.maxlx = a.maxlx > 0 && a.maxlx < avail ? a.maxlx : avail;
  o.mo = (a.mode % 10) - 1;
  a.fill = 0;
  a.peak = 0;
  if (o.maxlx < static_cast<i64>(neq) - nd) {
    err = 7;
    return 1;
  }
  if (has_xfa_term(a)) {
    g5verror(" Ordering of XFA terms not available yet", 3);
    err = 7;
    return 1;
  }
  a.groups = 0;
  a.complements = 0;

  for (i64 k = 0; k < need; ++k) a.work[k] = 0;
  const Pool pool = st->pool();
  initial_positions(o, pool);
  if (build_pattern(o, pool)) {
    err = 7;
    return 1;
  }
  Selection sel{o, pool};
  sel.groups_wanted = o.mo >= 2 && o.mo <= 4 && a.nest[0] == 0;
  if (o.mo == 3) {
    sel.delays = set_delays(o, pool);
  } else {
    for (i32 e = nd + 1; e <= neq; ++e) {
      o.DLY1(e) = 0;
      o.DLY2(e) = 0;
    }
  }
  if (!a.priority.empty()) place_priority(o);
  if (static_cast<i64>(a.nest[1]) * a.nest[2] != 0) set_nest(o);

  sel.laid = o.relayout();
  if (sel.laid < 0) sel.laid = o.next;
  if (sel.run() || finish(o)) {
    err = 7;
    return 1;
  }
  return 0;
}

// Calls fn(r, c) for each element (r, c) of the store's sparse rows with
// NDENSE < c < r, the rows taken from `first` to `last` (either way).
template <class Fn>
void for_each_lower_pair(const Pool& p, i32 nd, i32 first, i32 last, Fn&& fn) {
  const i32 step = first <= last ? 1 : -1;
  for (i32 r = first; r != last + step; r += step) {
    const i64 h = r - nd;
    if (p.lnk(h) == -1) continue;
    for (i64 sl = h; sl > 0; sl = p.lnk(sl)) {
      const i32 c = p.col(sl);
      if (c > nd && c < r) fn(r, c);
    }
  }
}

}  // namespace

int g5veor(OrderArgs& a) { return order_main(a, 0); }
int g5veora(OrderArgs& a) { return order_main(a, 1); }
int g5veorb(OrderArgs& a) { return order_main(a, 2); }
void g5vmetis() {}

i64 symbolic_fill(const MmeStore& s, span<const i32> iw, span<i32> work) {
  const i32 neq = s.neq, nd = s.ndense;
  const i64 n = static_cast<i64>(neq) - nd;
  if (n <= 0) return 0;
  if (work.size() < static_cast<size_t>(4 * n + 2)) return -1;
  // Elimination step k = NEQ+1-position (absorbing from the top).
  i32* pos = work.data();          // equation -> step (sparse only)
  i32* parent = pos + n;           // elimination tree
  i32* mark = parent + n;
  i32* anc = mark + n;
  for (i32 q = nd + 1; q <= neq; ++q) {
    const i32 e = iw[2 * (q - 1) + 1];
    if (e <= nd || e > neq) return -1;
    pos[e - nd - 1] = neq + 1 - q;  // 1..n
  }
  for (i64 k = 0; k < n; ++k) {
    parent[k] = 0;
    anc[k] = 0;
    mark[k] = 0;
  }
  const Pool p = s.pool();
  // Elimination tree (Liu), visiting for each step the lower neighbours.
  // Entries of the lower triangle of the store link e and c; with steps
  // i = step(e), j = step(c), the pair is an element (max, min).
  // Pass 1: tree.  Visit pairs keyed by the larger step: a pair is handled
  // when its larger step comes up, so walk the store once and bucket by
  // nothing: the ancestor method works with any order of pairs of the same
  // row, but rows must be visited in ascending step.  Collect by step.
  // Count pairs per step first.
  i64 pairs = 0;
  for_each_lower_pair(p, nd, nd + 1, neq, [&](i32, i32) { ++pairs; });
  if (work.size() < static_cast<size_t>(4 * n + 2 + (n + 1) + pairs)) return -1;
  i32* start = anc + n;   // n+1
  i32* adj = start + n + 1;
  for (i64 k = 0; k <= n; ++k) start[k] = 0;
  for_each_lower_pair(p, nd, nd + 1, neq, [&](i32 r, i32 c) {
    const i32 a = pos[r - nd - 1], b = pos[c - nd - 1];
    ++start[(a > b ? a : b)];
  });
  for (i64 k = 1; k <= n; ++k) start[k] += start[k - 1];
  for_each_lower_pair(p, nd, neq, nd + 1, [&](i32 r, i32 c) {
    const i32 a = pos[r - nd - 1], b = pos[c - nd - 1];
    const i32 hi = a > b ? a : b, lo = a > b ? b : a;
    adj[--start[hi]] = lo;
  });
  // start[k-1]..start[k]-1 are the lower neighbours of step k (1-based k:
  // entries start[k-1]... after the decrement loop, start[k] is the
  // beginning of step k's run; its end is start[k+1]).
  i64 nnz = 0;
  for (i64 k = 1; k <= n; ++k) {
    mark[k - 1] = static_cast<i32>(k);
    nnz += 1;
    const i64 b = start[k], e = k < n ? start[k + 1] : pairs;
    for (i64 t = b; t < e; ++t) {
      // Walk up the tree from the neighbour, counting new row entries.
      i32 j = adj[t];
      while (j != 0 && mark[j - 1] != k) {
        mark[j - 1] = static_cast<i32>(k);
        ++nnz;
        if (parent[j - 1] == 0) {
          parent[j - 1] = static_cast<i32>(k);
          break;
        }
        j = parent[j - 1];
      }
    }
  }
  return nnz;
}

}  // namespace tarnel
