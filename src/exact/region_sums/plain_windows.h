// Planes added voxel by voxel, several boxes side by side in a vector, and once for all boxes that
// have the same window and sum.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <utility>

#include "split_planes.h"
#include "tables.h"

namespace tavrel::exact {

/// Adds planes to sums that the tables do not serve.
class PlainWindows {
  using Tables = RegionTables;
  static constexpr int window = Tables::window, reach = Tables::reach, lanes = Tables::lanes;

 public:
  /// Adds the plane voxel by voxel to the plain sums, of which the first `positive` are positive
  /// ones. Up to four windows that follow each other along x are summed side by side in a vector,
  /// and equal sums of the same window, as those of boxes above each other are before the first
  /// voxel of their side, are taken together.
  [[gnu::always_inline]] void add(const Tables& tables, RegionSlot* const* plain, int* next,
                                  int positive, int count) {
    const int firstPlace = plain[0]->place / WindowLists::windows * WindowLists::windows;
    for (int i = 0; i < count; ++i) {
      const int w = plain[i]->place - firstPlace + (i < positive ? 0 : WindowLists::windows);
      next[i] = std::exchange(lists_.first[w], i);
      lists_.waiting[w / 64] |= std::uint64_t{1} << w % 64;
    }
    const int words = static_cast<int>(lists_.waiting.size());
    for (int word = 0; word < words;) {
      std::array<Group, groups> group;
      std::array<Members, groups> members;
      int used = 0;
      while (used < groups && word < words) {
        if (lists_.waiting[word] == 0) {
          ++word;
        } else {
          const int w = word * 64 + std::countr_zero(lists_.waiting[word]);
          members[used] = takeGroup(tables, plain, next, firstPlace, w, group[used]);
          ++used;
        }
      }
      if (used == 0) break;
      std::fill(group.begin() + used, group.end(), group[0]);
      used > groups / 2 ? addWindows<groups>(group) : addWindows<groups / 2>(group);
      for (int g = 0; g < used; ++g) {
        for (int l = 0; l < lanes; ++l) {
          for (int i = members[g].first[l]; i >= 0; i = next[i]) {
            plain[i]->sum[group[g].side] = group[g].sum[l];
          }
        }
      }
    }
  }

 private:
  /// Sums of windows that follow each other along x.
  struct Group {
    const double* value;  ///< first voxel of the first window
    alignas(8 * lanes) std::uint64_t sum[lanes];
    int side;
  };
  /// The plain sums of a group: the first one of each lane's list; -1: none.
  struct Members {
    int first[lanes];
  };
  static constexpr int groups = 8;

  /// Adds the windows' voxels to the sums of `count` groups, all groups side by side so that their
  /// chains of additions overlap.
  template <int count>
  [[gnu::always_inline]] static void addWindows(std::array<Group, groups>& group) {
    typedef double Vector [[gnu::vector_size(8 * lanes)]];
    const double* value[count];
    Vector sum[count];
    for (int g = 0; g < count; ++g) {
      value[g] = group[g].value;
      Tables::load(sum[g], group[g].sum);
    }
    for (int row = 0; row < window; ++row) {
#pragma GCC unroll 21
      for (int j = 0; j < window; ++j) {
#pragma GCC unroll 8
        for (int g = 0; g < count; ++g) {
          Vector v;
          Tables::load(v, value[g] + j);
          sum[g] += v;
        }
      }
      for (const double*& v : value) v += reach;
    }
    for (int g = 0; g < count; ++g) std::memcpy(group[g].sum, &sum[g], sizeof sum[g]);
  }

  /// Lists of the plain sums of a row of blocks: a list a window, those of the positive side first.
  struct WindowLists {
    static constexpr int windows = Tables::blockSide * reach;
    WindowLists() { first.fill(-1); }
    std::array<int, 2 * windows + lanes> first;                 ///< of each window; -1: none
    std::array<std::uint64_t, 2 * windows / 64 + 2> waiting{};  ///< a bit a window: has a list
  };

  /// Takes a sum of window w, and of each of the next windows that have any, off the lists.
  [[gnu::always_inline]] Members takeGroup(const Tables& tables, RegionSlot* const* plain,
                                           int* next, int firstPlace, int w, Group& group) {
    const int s = w >= WindowLists::windows;
    group = {tables.values(s) + (w - s * WindowLists::windows + firstPlace), {}, s};
    Members members;
    std::uint64_t done = 0;
    for (int l = 0; l < lanes; ++l) {
      const int first = lists_.first[w + l];
      members.first[l] = first;
      if (first < 0) continue;
      group.sum[l] = plain[first]->sum[s];
      lists_.first[w + l] = takeEqual(plain, next, s, first);
      done |= std::uint64_t{lists_.first[w + l] < 0} << l;
    }
    lists_.waiting[w / 64] &= ~(done << w % 64);
    lists_.waiting[w / 64 + 1] &= ~(done >> 1 >> (63 - w % 64));
    return members;
  }

  /// Splits a window's list into the sums equal to its first one, which stay in it, and the rest,
  /// which is returned.
  [[gnu::always_inline]] static int takeEqual(RegionSlot* const* plain, int* next, int s,
                                              int first) {
    int rest = -1, last = first;
    for (int i = next[first]; i >= 0;) {
      const int after = next[i];
      if (plain[i]->sum[s] == plain[first]->sum[s]) {
        last = next[last] = i;
      } else {
        next[i] = std::exchange(rest, i);
      }
      i = after;
    }
    next[last] = -1;
    return rest;
  }

  WindowLists lists_;  // empty between planes
};

}  // namespace tavrel::exact
