#include "runtime/Ipkit/MplsLabelOperation.h"

#include <algorithm>
#include <string>

#include "runtime/Zol/Assert.h"
#include "runtime/Zol/Hash.h"
#include "runtime/Zol/Value.h"

namespace Ipkit {
namespace {

using Op = MplsLabelOperation::Op;

struct OpName {
  Op op;
  std::string_view name;
};
constexpr OpName opNames[] = {{Op::none, "none"}, {Op::push, "push"}, {Op::swap, "swap"}, {Op::pop, "pop"}};

}  // namespace

std::string_view stringValue(Op op) {
  const auto* const row =
      std::find_if(std::begin(opNames), std::end(opNames), [op](auto& each) { return each.op == op; });
  return row == std::end(opNames) ? "unknown" : row->name;
}

std::ostream& operator<<(std::ostream& out, Op op) { return out << stringValue(op); }

Op labelOpFromText(std::string_view text) {
  const auto* const row =
      std::find_if(std::begin(opNames), std::end(opNames), [text](auto& each) { return each.name == text; });
  if (row == std::end(opNames)) {
    throw Zol::ParseException("'" + std::string(text) + "' is not a label operation");
  }
  return row->op;
}

MplsLabelOperation::MplsLabelOperation(Op op, std::span<const Label> topFirst) : MplsLabelOperation() {
  if (topFirst.size() > stackSizeMax) {
    throw Zol::RangeException("MplsLabelOperation::stackSize > " + std::to_string(stackSizeMax) + " not allowed");
  }
  if (std::any_of(topFirst.begin(), topFirst.end(), [](Label label) { return label > labelMax; })) {
    throw Zol::RangeException("MplsLabel::value > " + std::to_string(labelMax) + " not allowed");
  }
  op_ = op;
  stackSize_ = static_cast<std::uint8_t>(topFirst.size());
  std::copy(topFirst.rbegin(), topFirst.rend(), labels_.begin());
}

MplsLabelOperation::Label MplsLabelOperation::label(std::size_t position) const {
  if (position >= stackSizeMax) {
    throw Zol::RangeException(
        "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::max not "
        "allowed");
  }
  return labels_[position];
}

MplsLabelOperation MplsLabelOperation::joined(const MplsLabelOperation& nextLevel) const {
  ZOL_ASSERT(stackSize_ + nextLevel.stackSize_ <= int(stackSizeMax));
  MplsLabelOperation result = *this;
  std::copy_n(nextLevel.labels_.begin(), nextLevel.stackSize_, result.labels_.begin() + stackSize_);
  result.stackSize_ = static_cast<std::uint8_t>(stackSize_ + nextLevel.stackSize_);
  return result;
}

std::uint32_t MplsLabelOperation::hash() const {
  Zol::HashMix mix;
  mix.add((std::uint64_t(op_) << 8) | stackSize_);
  for (std::size_t i = 0; i < stackSize_; ++i) {
    mix.add(labels_[i]);
  }
  return mix.result();
}

std::ostream& operator<<(std::ostream& out, const MplsLabelOperation& operation) {
  out << operation.op_ << " [";
  for (std::size_t i = operation.stackSize_; i > 0; --i) {
    out << operation.labels_[i - 1] << (i > 1 ? ", " : "");
  }
  return out << ']';
}

void parseValue(Zol::TextCursor& in, MplsLabelOperation& operation) {
  const Op op = labelOpFromText(in.upTo(" "));
  in.expect(" ");
  Zol::PodArray<MplsLabelOperation::Label, MplsLabelOperation::stackSizeMax> topFirst;
  Zol::parseValue(in, topFirst);
  operation = MplsLabelOperation(op, std::span(topFirst.begin(), topFirst.size()));
}

void encodeValue(Zol::ByteWriter& out, const MplsLabelOperation& operation) {
  out.word(static_cast<std::uint8_t>(operation.op_));
  out.word(operation.stackSize_);
  out.bytes(std::as_bytes(std::span(operation.labels_.data(), operation.stackSize_)));
}

void decodeValue(Zol::ByteReader& in, MplsLabelOperation& operation) {
  operation = MplsLabelOperation();
  const auto op = static_cast<Op>(in.word<std::uint8_t>());
  const std::size_t size = in.word<std::uint8_t>();
  if (stringValue(op) == "unknown" || size > MplsLabelOperation::stackSizeMax) {
    in.bad();
    return;
  }
  operation.op_ = op;
  operation.stackSize_ = static_cast<std::uint8_t>(size);
  for (std::size_t i = 0; i < size; ++i) {
    operation.labels_[i] = in.word<MplsLabelOperation::Label>();
    if (operation.labels_[i] > MplsLabelOperation::labelMax) {
      in.bad();
    }
  }
}

}  // namespace Ipkit
