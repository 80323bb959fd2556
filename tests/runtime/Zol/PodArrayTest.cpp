#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>

#include "runtime/Zol/PodArray.h"

namespace Zol {
namespace {

using Vias = PodArray<std::uint32_t, 512, 2>;

Vias filled(std::uint32_t size) {
  Vias array;
  for (std::uint32_t i = 0; i < size; ++i) {
    array.append(i);
  }
  return array;
}

template <class F>
std::string refusal(F&& f) {
  try {
    f();
  } catch (const RangeException& error) {
    return error.what();
  }
  return "not refused";
}

// Fails if the limit moves, or a refused change leaves its mark.
TEST(PodArray, sizeEndsAtTheLimit) {
  Vias array = filled(511);
  array.append(511);
  EXPECT_TRUE(array.full());
  const Vias before = array;
  const std::string text = "PodArray::set expected size <= 512";
  EXPECT_EQ(refusal([&] { array.append(512); }), text);
  EXPECT_EQ(refusal([&] { array.sizeIs(513); }), text);
  EXPECT_EQ(array, before);
  array.sizeIs(512);
  EXPECT_EQ(refusal([&] { array[512] = 0; }), "PodArray index 512 < size 512 expected");
  EXPECT_EQ(refusal([] { PodArray<int, 2>{1, 2, 3}; }), "PodArray::set expected size <= 2");
}

// Fails if an element is read from storage that growing has freed.
TEST(PodArray, mayAppendItsOwnElements) {
  Vias array = {7};
  while (array.size() < 300) {
    array.append(array[0]);
  }
  EXPECT_TRUE(std::all_of(array.begin(), array.end(), [](std::uint32_t element) { return element == 7; }));
}

TEST(PodArray, newElementsAreEmptyWhateverWasThere) {
  Vias array = filled(20);
  array.sizeIs(3);
  array.sizeIs(6);
  EXPECT_EQ(array, (Vias{0, 1, 2, 0, 0, 0}));
}

// Fails if copying or moving between inline and heap storage shares, leaks or loses elements.
TEST(PodArray, copiesAndMovesBetweenAllKindsOfStorage) {
  for (const std::uint32_t from : {0U, 1U, 2U, 3U, 40U}) {
    for (const std::uint32_t to : {0U, 2U, 3U, 100U}) {
      const Vias expected = filled(from);
      Vias source = filled(from), copy = filled(to), moved = filled(to);
      copy = source;
      EXPECT_EQ(copy, expected);
      source = std::as_const(source);
      moved = std::move(source);
      EXPECT_EQ(moved, expected);
      EXPECT_TRUE(source.empty());  // NOLINT: what is moved from is empty
      source = filled(to);
      EXPECT_EQ(source, filled(to));
      Vias constructed(std::move(moved));
      EXPECT_EQ(constructed, expected);
      constructed.append(9);
      EXPECT_EQ(copy, expected);
    }
  }
}

TEST(PodArray, order) {
  EXPECT_TRUE((Vias{1, 2}) < (Vias{1, 2, 0}));
  EXPECT_TRUE((Vias{1, 2, 9}) < (Vias{1, 3}));
  EXPECT_FALSE((Vias{}) < (Vias{}));
  EXPECT_NE((Vias{0}).hash(), (Vias{0, 0}).hash());
  Vias array = {1, 2, 3, 4};
  array.swapRemove(1);
  EXPECT_EQ(array, (Vias{1, 4, 3}));
  array.swapRemove(2);
  EXPECT_EQ(array, (Vias{1, 4}));
}

}  // namespace
}  // namespace Zol
