// What an element of a volume stands for: its number, its side of the interface, its conversion.
//
// `char` values count as signed 8-bit numbers whatever the compiler's default.
#pragma once

#include <cmath>
#include <cstdint>
#include <type_traits>

namespace tavrel {

/// The number that an element stands for: itself, or the signed 8-bit value of a `char`.
template <class T>
constexpr auto number(T value) {
  if constexpr (std::is_same_v<T, char>) {
    return static_cast<signed char>(value);
  } else {
    return value;
  }
}

/// `value` truncated toward zero; 0 for what has no 64-bit integer (not a number, beyond 2^63).
constexpr std::int64_t truncated(double value) {
  return value > -0x1p63 && value < 0x1p63 ? static_cast<std::int64_t>(value) : 0;
}

/// Conversion between element types without undefined cases: a real number becomes the low bits of
/// its truncated value in an integer type.
template <class To, class From>
constexpr To converted(From value) {
  if constexpr (std::is_integral_v<To> && std::is_floating_point_v<From>) {
    return static_cast<To>(truncated(value));
  } else {
    return static_cast<To>(number(value));
  }
}

/// The absolute value of an element.
template <class T>
T magnitude(T value) {
  if constexpr (std::is_unsigned_v<decltype(number(value))>) {
    return value;
  } else {
    return static_cast<T>(std::abs(number(value)));
  }
}

// The sides of the interface. A level-set function is negative inside. A value of exactly 0 is not
// outside for the evolution, which has only two sides: it belongs to the negative one. In a mask it
// is not inside: the mask holds what lies strictly within the interface. What is not a number is on
// the negative side and inside.

/// Whether a value of a level-set function is on the evolution's positive side.
template <class T>
constexpr bool isPositive(T phi) {
  return number(phi) > 0;
}

/// Whether a mask of the function counts the voxel as inside.
template <class T>
constexpr bool isInside(T phi) {
  return !(number(phi) >= 0);
}

/// Gives a field of an object at the end of its life the value that it has before its beginning.
/// Compilers drop plain stores to an object that is about to end; this one stays, so that ending
/// the object twice does no harm.
template <class T>
void leave(T& field, T value) {
  volatile T& kept = field;
  kept = value;
}

/// Leaves fields at 0 or null.
template <class... Fields>
void clear(Fields&... fields) {
  (leave(fields, Fields{}), ...);
}

}  // namespace tavrel
