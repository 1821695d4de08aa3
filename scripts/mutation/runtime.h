// Compiled into a mutated copy of the library only (scripts/mutants): the wrappers that
// scripts/mutation/rewrite.py puts around expressions. Each asks for a group of mutants by the
// number of the first; at most one mutant of a process is active, the one that ZEFS_MUTANT names.
#pragma once

#include <functional>
#include <type_traits>
#include <utility>

namespace zefs_mutants {

#define ZEFS_MUTANTS_SHARED __attribute__((visibility("default")))

/// The mutant that is active, -1 if none is. Set before the constructors of static objects run.
extern ZEFS_MUTANTS_SHARED int active;

/// One byte for each mutant, not 0 when its place was reached: a file that ZEFS_MUTANTS_REACHED
/// names, mapped, so that children count too, however they end.
extern ZEFS_MUTANTS_SHARED unsigned char* reached;

/// Which mutant of the group that starts with `first` is active: less than 0, or not less than the
/// size of the group, if none is.
inline int Which(int first) {
  reached[first] = 1;
  return active - first;
}

inline bool Is(int id) {
  return Which(id) == 0;
}

enum Op { kLt, kLe, kGt, kGe, kEq, kNe, kAdd, kSub, kMul, kDiv, kAnd, kOr };

template <Op op, typename A, typename B>
decltype(auto) Apply(const A& a, const B& b) {
  if constexpr (op == kLt)
    return a < b;
  if constexpr (op == kLe)
    return a <= b;
  if constexpr (op == kGt)
    return a > b;
  if constexpr (op == kGe)
    return a >= b;
  if constexpr (op == kEq)
    return a == b;
  if constexpr (op == kNe)
    return a != b;
  if constexpr (op == kAdd)
    return a + b;
  if constexpr (op == kSub)
    return a - b;
  if constexpr (op == kMul)
    return a * b;
  if constexpr (op == kDiv)
    return a / b;
  if constexpr (op == kAnd)
    return a & b;
  if constexpr (op == kOr)
    return a | b;
}

/// `a is b`, or with one of the two mutants `a first b` or `a second b`.
template <Op is, Op first, Op second, typename A, typename B>
auto Binary(int id, const A& a, const B& b) {
  switch (Which(id)) {
    case 0:
      return Apply<first>(a, b);
    case 1:
      if constexpr (second != is)
        return Apply<second>(a, b);
      [[fallthrough]];
    default:
      return Apply<is>(a, b);
  }
}

template <bool adds, typename A, typename B>
A& Assign(int id, A& a, const B& b) {
  return Is(id) != adds ? a += b : a -= b;
}

template <typename T>
T Number(int id, T value) {
  const int which = Which(id);
  return which == 0 ? static_cast<T>(value + 1) : which == 1 ? static_cast<T>(value - 1) : value;
}

/// A log level: the next one, or a routine trace.
inline int Level(int id, int level) {
  return Is(id) ? (level == 0 ? 4 : 0) : level;
}

/// A result that tells success, or nothing, instead.
template <typename T>
std::decay_t<T> Result(int id, T&& value) {
  if (Is(id))
    return std::decay_t<T>{};
  return std::forward<T>(value);
}

/// Which statement of a row of them comes at `place`: a mutant swaps two that are side by side.
inline int Order(int first, int count, int place) {
  const int which = Which(first);
  if (which < 0 || which > count - 2)
    return place;
  return place == which ? which + 1 : place == which + 1 ? which : place;
}

template <typename T = void>
struct MinMax {
  int id;
  bool max;
  T operator()(const T& a, const T& b) const { return (b < a) == (Is(id) != max) ? a : b; }
};
template <>
struct MinMax<void> {
  int id;
  bool max;
  template <typename T>
  const T& operator()(const T& a, const T& b) const {
    return (b < a) == (Is(id) != max) ? a : b;
  }
};

}  // namespace zefs_mutants
