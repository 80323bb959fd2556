// Rows: what a command lists, for people in columns or as one JSON document, written as it comes.
//
//     columns   in blocks: cells stand under each other within one, so that a million rows take no memory
//     JSON      {HEAD..., MEMBER: [
//                 ROW,
//                 ROW]}              one line a row; "after": KEY behind it when the limit cut the list off
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "agent/Columns.h"
#include "agent/JsonText.h"
#include "runtime/Zol/Value.h"

namespace Tools {

using Agent::OrderedJson;
using Cells = std::vector<std::string>;

class Rows {
 public:
  // member names the list in JSON; titles stand above the columns.
  Rows(std::ostream& out, bool isJson, std::string member, Cells titles, std::optional<std::uint64_t> limit = {},
       const OrderedJson& head = OrderedJson::object());
  Rows(const Rows&) = delete;
  Rows& operator=(const Rows&) = delete;

  // For short lists without an order of keys: rows up to the one with this key are passed over.
  void beginBehind(const std::optional<std::string>& key) { passedUpTo_ = key; }

  // A row, of which only what is needed is asked. False: the limit has been reached, and this row is not shown.
  template <class Key, class CellsOf, class JsonOf>
  bool add(const Key& key, CellsOf&& cellsOf, JsonOf&& jsonOf) {
    if (passedUpTo_) {
      passedUpTo_ = passedUpTo_ == Zol::stringOf(key) ? std::nullopt : passedUpTo_;
      return true;
    }
    if (count_ == limit_) {
      isCut_ = true;
      return false;
    }
    lastKey_ = Zol::stringOf(key);
    isJson_ ? write(jsonOf()) : write(Cells(cellsOf()));
    return true;
  }
  // Raises InputError when there was no row to begin behind; nothing has been written then.
  void end();

 private:
  void writeHead();
  void write(const OrderedJson& json);
  void write(Cells cells);
  void flush();

  std::ostream& out_;
  const bool isJson_;
  const std::string member_;
  const Cells titles_;
  const OrderedJson head_;
  const std::uint64_t limit_;
  std::uint64_t count_ = 0;
  bool isCut_ = false;
  std::string lastKey_;
  std::optional<std::string> passedUpTo_;
  Agent::Columns columns_;
};

}  // namespace Tools
