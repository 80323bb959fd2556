// MplsLabelOperation: what is done to the label stack on a via: nothing, push, swap or pop, with up to seven labels.
//
// Position 0 is the bottom of the stack, position size-1 the top. A joined stack is the tunnel's own labels with the
// next level's behind them, so the next level's end up outermost. Text and JSON list the top first:
//
//     positions  0:17  1:300123         push [300123, 17]
//
// A slot beyond the size holds emptyLabel, one past the largest 20-bit label.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <ostream>
#include <span>
#include <string_view>

#include "runtime/Zol/Bytes.h"
#include "runtime/Zol/TextCursor.h"

namespace Ipkit {

class MplsLabelOperation {
 public:
  enum class Op : std::uint8_t { push = 0, swap = 1, pop = 2, none = 255 };
  using Label = std::uint32_t;
  static constexpr std::size_t stackSizeMax = 7;
  static constexpr Label labelMax = 0xFFFFF;
  static constexpr Label emptyLabel = labelMax + 1;
  static constexpr const char* typeName() { return "Ipkit::MplsLabelOperation"; }

  // The empty operation: none, no labels.
  constexpr MplsLabelOperation() { labels_.fill(emptyLabel); }
  // Raises RangeException for more than seven labels or a label above labelMax.
  MplsLabelOperation(Op op, std::span<const Label> topFirst);
  static MplsLabelOperation push(std::span<const Label> topFirst) { return {Op::push, topFirst}; }

  Op op() const { return op_; }
  std::size_t stackSize() const { return stackSize_; }
  // The label at a position counted from the bottom; an index beyond the seven slots raises RangeException.
  Label label(std::size_t position) const;
  // This operation with the labels of nextLevel on top. The sizes together are at most stackSizeMax.
  MplsLabelOperation joined(const MplsLabelOperation& nextLevel) const;

  std::uint32_t hash() const;
  bool operator!() const { return *this == MplsLabelOperation(); }
  friend bool operator==(const MplsLabelOperation&, const MplsLabelOperation&) = default;
  friend std::strong_ordering operator<=>(const MplsLabelOperation&, const MplsLabelOperation&) = default;
  friend std::ostream& operator<<(std::ostream& out, const MplsLabelOperation& operation);
  friend void parseValue(Zol::TextCursor& in, MplsLabelOperation& operation);
  friend void encodeValue(Zol::ByteWriter& out, const MplsLabelOperation& operation);
  friend void decodeValue(Zol::ByteReader& in, MplsLabelOperation& operation);

 private:
  Op op_ = Op::none;
  std::uint8_t stackSize_ = 0;
  std::array<Label, stackSizeMax> labels_;
};

// "none", "push", "swap", "pop".
std::string_view stringValue(MplsLabelOperation::Op op);
std::ostream& operator<<(std::ostream& out, MplsLabelOperation::Op op);
// Raises ParseException for any other word.
MplsLabelOperation::Op labelOpFromText(std::string_view text);

}  // namespace Ipkit
