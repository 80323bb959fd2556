#include "tools/Rows.h"

#include <iostream>
#include <limits>
#include <utility>

#include "agent/InputError.h"
#include "agent/Terminal.h"

namespace Tools {
namespace {

constexpr std::size_t blockRows = 500;

}  // namespace

Rows::Rows(std::ostream& out, bool isJson, std::string member, Cells titles, std::optional<std::uint64_t> limit,
           const OrderedJson& head)
    : out_(out),
      isJson_(isJson),
      member_(std::move(member)),
      titles_(std::move(titles)),
      head_(head),
      limit_(limit.value_or(std::numeric_limits<std::uint64_t>::max())) {}

void Rows::writeHead() {
  out_ << '{';
  for (const auto& [key, value] : head_.items()) {
    out_ << Agent::textOf(OrderedJson(key)) << ": " << Agent::textOf(value) << ", ";
  }
  out_ << Agent::textOf(OrderedJson(member_)) << ": [";
}

void Rows::write(const OrderedJson& json) {
  if (count_++ == 0) {
    writeHead();
  }
  out_ << (count_ == 1 ? "\n  " : ",\n  ") << Agent::textOf(json);
}

void Rows::write(Cells cells) {
  if (count_++ == 0) {
    columns_.row(titles_);
  }
  columns_.row(std::move(cells));
  if (columns_.rows() >= blockRows) {
    flush();
  }
}

void Rows::flush() { std::exchange(columns_, {}).write(out_, "", Agent::outputSize().columns); }

void Rows::end() {
  if (passedUpTo_) {
    throw Agent::InputError("--after", "no row '" + Agent::printable(*passedUpTo_) + "'");
  }
  if (isJson_) {
    if (count_ == 0) {
      writeHead();
    }
    out_ << (count_ == 0 ? "]" : "\n]") << (isCut_ ? ", \"after\": " + Agent::textOf(OrderedJson(lastKey_)) : "")
         << "}\n";
    return;
  }
  flush();
  if (count_ == 0 && !isCut_) {
    std::cerr << "none\n";  // no row: a program that reads the rows gets nothing
  }
  if (isCut_) {
    out_ << "there are more: --after " << lastKey_ << '\n';
  }
}

}  // namespace Tools
