// JsonField: a piece of a JSON value together with the path that leads to it, so that whoever reads it can refuse it by
// name. A field refers to the field around it, which must outlive it: keep each in a variable.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "agent/InputError.h"
#include "agent/JsonText.h"
#include "runtime/Zol/Value.h"

namespace Agent {

class JsonField {
 public:
  // The whole.
  explicit JsonField(const Json& value) : value_(value) {}

  // "put.vias[2].labels"; "line" for the whole.
  std::string path() const { return parent_ == nullptr ? "line" : pathBelowWhole(); }
  [[noreturn]] void fail(const std::string& reason) const { throw InputError(path(), reason); }
  void require(bool condition, const char* reason) const {
    if (!condition) {
      fail(reason);
    }
  }

  // All of these raise InputError when the value is of another kind or out of range.
  std::uint64_t integer(std::uint64_t max) const;
  double number(double max) const;
  bool boolean() const;
  const std::string& text() const;
  // A value in its one text form.
  template <class T>
  T valueOf() const {
    const std::string& text = this->text();
    std::string canonical;
    T value;
    try {
      value = T::fromText(text);
      canonical = Zol::stringOf(value);
    } catch (const Zol::Exception& error) {
      fail(printable(error.what(), 200));
    }
    if (canonical != text) {
      fail("'" + printable(text) + "' is to be written " + canonical);
    }
    return value;
  }

  bool isObject() const { return value_.is_object(); }
  bool has(const std::string& key) const { return value_.is_object() && value_.contains(key); }
  // The member; raises InputError when it is missing.
  JsonField member(std::string_view key) const&;
  JsonField member(std::string_view key) && = delete;
  // f(key, field) for each member in the order of keys; raises InputError when this is no object.
  template <class F>
  void forEachMember(F&& f) const {
    require(value_.is_object(), "not an object");
    for (const auto& [key, value] : value_.items()) {
      f(key, JsonField(value, this, key));
    }
  }
  // f(field) for each element; raises InputError when this is no array or has more than max elements.
  template <class F>
  void forEachElement(std::size_t max, const char* elements, F&& f) const {
    requireArray(max, elements);
    for (std::size_t i = 0; i < value_.size(); ++i) {
      f(JsonField(value_[i], this, i));
    }
  }

 private:
  JsonField(const Json& value, const JsonField* parent, std::string_view key)
      : value_(value), parent_(parent), key_(key) {}
  JsonField(const Json& value, const JsonField* parent, std::size_t index)
      : value_(value), parent_(parent), index_(index) {}

  std::string pathBelowWhole() const;
  void requireArray(std::size_t max, const char* elements) const;

  const Json& value_;
  const JsonField* parent_ = nullptr;
  std::string_view key_;
  std::optional<std::size_t> index_;  // in an array
};

}  // namespace Agent
