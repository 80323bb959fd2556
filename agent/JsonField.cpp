#include "agent/JsonField.h"

#include <cmath>
#include <sstream>

namespace Agent {

std::string JsonField::pathBelowWhole() const {
  const std::string above = parent_ == nullptr ? "" : parent_->pathBelowWhole();
  if (parent_ == nullptr) {
    return above;
  }
  if (index_) {
    return above + "[" + std::to_string(*index_) + "]";
  }
  return above + (above.empty() ? "" : ".") + printable(key_);
}

std::uint64_t JsonField::integer(std::uint64_t max) const {
  require(value_.is_number_integer(), "not an integer");
  const bool isNegative = !value_.is_number_unsigned() && value_.get<std::int64_t>() < 0;
  if (isNegative || value_.get<std::uint64_t>() > max) {
    fail(value_.dump() + " is not in 0 to " + std::to_string(max));
  }
  return value_.get<std::uint64_t>();
}

double JsonField::number(double max) const {
  require(value_.is_number(), "not a number");
  const double number = value_.get<double>();
  if (!(number >= 0 && number <= max)) {
    std::ostringstream reason;
    reason << value_.dump() << " is not in 0 to " << max;
    fail(reason.str());
  }
  return std::fabs(number);  // -0.0 is in the range
}

bool JsonField::boolean() const {
  require(value_.is_boolean(), "neither true nor false");
  return value_.get<bool>();
}

const std::string& JsonField::text() const {
  require(value_.is_string(), "not a string");
  return value_.get_ref<const std::string&>();
}

JsonField JsonField::member(std::string_view key) const& {
  require(value_.is_object(), "not an object");
  const auto at = value_.find(key);
  if (at == value_.end()) {
    static const Json missing;
    JsonField(missing, this, key).fail("missing");
  }
  return {*at, this, key};
}

void JsonField::requireArray(std::size_t max, const char* elements) const {
  require(value_.is_array(), "not an array");
  if (value_.size() > max) {
    fail(std::to_string(value_.size()) + " " + elements + ", at most " + std::to_string(max));
  }
}

}  // namespace Agent
