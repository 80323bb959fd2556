// The JSON library's parser builds no value here: it reports tokens, and the Builder below puts the value together.
// That is the one place that sees a key twice (the library keeps the last), knows the digits of a number (the library
// turns a large integer into a double) and has the path to what it objects to.

#include "agent/JsonText.h"

#include <utility>
#include <vector>

#include "agent/InputError.h"

template class nlohmann::basic_json<>;
template class nlohmann::basic_json<nlohmann::ordered_map>;

namespace Agent {
namespace {

class Builder : public nlohmann::json_sax<Json> {
 public:
  Json take() { return std::move(root_); }

  bool null() override { return add(nullptr); }
  bool boolean(bool value) override { return add(value); }
  bool number_integer(number_integer_t value) override { return add(value); }
  bool number_unsigned(number_unsigned_t value) override { return add(value); }
  bool number_float(number_float_t value, const string_t& digits) override {
    if (digits.find_first_of(".eE") == string_t::npos) {
      throw InputError(path(), printable(digits, 40) + " is beyond 64 bits");
    }
    return add(value);
  }
  bool string(string_t& value) override { return add(std::move(value)); }
  bool binary(binary_t&) override { return false; }  // JSON text has none

  bool start_object(std::size_t) override { return open(Json::object()); }
  bool key(string_t& key) override {
    open_.back().key = key;
    if (open_.back().value->contains(key)) {
      throw InputError(path(), "given twice");
    }
    return true;
  }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(Json::array()); }
  bool end_array() override { return close(); }

  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& error) override {
    constexpr int outOfRange = 406;
    if (error.id == outOfRange) {
      throw InputError(path(), "beyond the range of numbers");
    }
    const std::string text = error.what();
    const std::size_t column = text.find("column ");
    throw InputError("line", printable(column == std::string::npos ? text : text.substr(column), 200));
  }

 private:
  struct Open {
    Json* value;
    std::string key;  // in an object: of the member that is being read
  };

  // Puts the value where the text stands.
  Json& place(Json value) {
    if (open_.empty()) {
      return root_ = std::move(value);
    }
    Open& parent = open_.back();
    if (parent.value->is_array()) {
      parent.value->push_back(std::move(value));
      return parent.value->back();
    }
    return (*parent.value)[parent.key] = std::move(value);
  }
  template <class T>
  bool add(T&& value) {
    place(Json(std::forward<T>(value)));
    return true;
  }
  bool open(Json empty) {
    if (open_.size() == jsonDepthMax) {
      throw InputError(path(), "nested more than " + std::to_string(jsonDepthMax) + " deep");
    }
    Json& value = place(std::move(empty));
    open_.push_back({&value, {}});
    return true;
  }
  bool close() {
    open_.pop_back();
    return true;
  }

  // Of the value that is being read.
  std::string path() const {
    std::string path;
    for (const Open& open : open_) {
      if (open.value->is_object()) {
        path += (path.empty() ? "" : ".") + printable(open.key);
      } else {
        // An element that is itself open has been added to its array already.
        const std::size_t added = &open == &open_.back() ? 0 : 1;
        path += "[" + std::to_string(open.value->size() - added) + "]";
      }
    }
    return path.empty() || path.front() == '[' ? "line" : path;
  }

  Json root_;
  std::vector<Open> open_;  // the values around the place where the text stands, outermost first
};

}  // namespace

Json jsonFromText(std::string_view text) {
  requireUtf8(text);
  // To the library's parser NUL is the end of the text and a byte order mark at its begin is none of it.
  if (const std::size_t at = text.find('\0'); at != std::string_view::npos) {
    throw InputError("line", "column " + std::to_string(at + 1) + ": a NUL character");
  }
  if (text.starts_with("\xEF\xBB\xBF")) {
    throw InputError("line", "column 1: a byte order mark");
  }
  Builder builder;
  Json::sax_parse(text.begin(), text.end(), &builder);
  return builder.take();
}

std::string textOf(const OrderedJson& value) {
  if (!value.is_structured() || value.empty()) {
    return value.dump(-1, ' ', false, OrderedJson::error_handler_t::replace);
  }
  std::string text;
  for (const auto& [key, member] : value.items()) {
    text += text.empty() ? "" : ", ";
    text += value.is_object() ? OrderedJson(key).dump() + ": " : "";
    text += textOf(member);
  }
  return value.is_object() ? "{" + text + "}" : "[" + text + "]";
}

}  // namespace Agent
