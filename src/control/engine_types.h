// Types shared by every part of the engine.
//
// The engine is a set of plain routines over flat arrays.  Everything of
// model size lives in one work array of 8-byte words that is seen both as
// real and as 32-bit integer; other arrays come from R and are handed on as
// `span` views so that their lengths travel with them.
#ifndef TARNEL_CONTROL_ENGINE_TYPES_H
#define TARNEL_CONTROL_ENGINE_TYPES_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

namespace tarnel {

using i32 = std::int32_t;
using i64 = std::int64_t;
using u64 = std::uint64_t;

// A non-owning view of a contiguous run of T (the C++17 stand-in for
// std::span).  Indexing is 0-based; callers that follow 1-based positions
// subtract 1 themselves or use `at1`.
template <class T>
class span {
 public:
  constexpr span() noexcept : p_(nullptr), n_(0) {}
  constexpr span(T* p, std::size_t n) noexcept : p_(p), n_(n) {}
  template <std::size_t N>
  constexpr span(T (&a)[N]) noexcept : p_(a), n_(N) {}
  // A view of a contiguous container (std::vector, std::array, std::string).
  template <class C, class = decltype(std::declval<C&>().data()),
            class = decltype(std::declval<C&>().size()),
            class = std::enable_if_t<!std::is_same_v<std::decay_t<C>, span>>>
  constexpr span(C& c) noexcept : p_(c.data()), n_(c.size()) {}
  // A view of T converts to a view of const T.
  template <class U>
  constexpr span(const span<U>& o) noexcept : p_(o.data()), n_(o.size()) {}

  constexpr T* data() const noexcept { return p_; }
  constexpr std::size_t size() const noexcept { return n_; }
  constexpr bool empty() const noexcept { return n_ == 0; }
  constexpr T& operator[](std::size_t k) const noexcept { return p_[k]; }
  // 1-based element access, as the engine's positions are written.
  constexpr T& at1(std::size_t k) const noexcept { return p_[k - 1]; }
  constexpr T* begin() const noexcept { return p_; }
  constexpr T* end() const noexcept { return p_ + n_; }
  constexpr span subspan(std::size_t off, std::size_t cnt) const noexcept {
    return span(p_ + off, cnt);
  }
  constexpr span subspan(std::size_t off) const noexcept {
    return span(p_ + off, n_ - off);
  }

 private:
  T* p_;
  std::size_t n_;
};

// The main work array: `len` 8-byte words.  Word k (0-based) is r[k] as a
// real; as integers it holds i[2k] and i[2k+1].  Addresses into it are
// indices, never pointers kept across calls.
struct WorkArray {
  double* r = nullptr;
  i32* i = nullptr;
  u64 len = 0;

  WorkArray() = default;
  WorkArray(double* base, u64 words)
      : r(base), i(reinterpret_cast<i32*>(base)), len(words) {}
  bool valid() const { return r != nullptr; }
};

// The engine's missing-value mark and the threshold at which a value is
// read as that mark.
constexpr double kMissing = 1e37;
constexpr double kMissingThreshold = 9.9e36;
// The mark of a missing response inside the generalised step.
constexpr double kMissingGlm = -1e-37;

inline bool is_missing(double v) { return v >= kMissingThreshold; }

// Many of the engine's constants are single-precision values widened to
// double; f32 gives that value (f32(0.1) == 0.10000000149011612).
constexpr double f32(double v) { return static_cast<double>(static_cast<float>(v)); }

// Copies `text` into a fixed, blank-padded character field of `len` bytes,
// cutting it if it is longer: the assignment of a text to a fixed field.
inline void put_text(char* field, std::size_t len, const char* text) {
  if (field == nullptr || len == 0) return;
  std::size_t n = text ? std::strlen(text) : 0;
  if (n > len) n = len;
  if (n) std::memcpy(field, text, n);
  if (n < len) std::memset(field + n, ' ', len - n);
}

}  // namespace tarnel

#endif
