// The volumes, files and level-set classes need C++17; what stands on this header needs more.
#pragma once

#if __cplusplus < 202002L
#error "This part of Tavrel needs C++20: compile with -std=c++20"
#endif
