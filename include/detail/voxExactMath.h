// Floating-point rules of every kernel: each product and sum is rounded on its own.
//
// Compilers may fuse a*b + c into one rounding where the instruction set has it, which would make
// results depend on build flags. Including this header switches that off for the rest of the
// translation unit, so that a plain compiler call gives the same bytes as any other build.
#pragma once

#if defined(__clang__)
#pragma clang fp contract(off)
#elif defined(__GNUC__)
#pragma GCC optimize("fp-contract=off")
#endif
