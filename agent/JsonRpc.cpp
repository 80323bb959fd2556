#include "agent/JsonRpc.h"

#include <algorithm>
#include <array>
#include <optional>

#include "agent/InputError.h"

namespace Agent {
namespace {

struct RpcFailure {
  RpcCode code;
  std::string message;
};

// One line; what is wrong with its form is an RpcFailure.
class Request {
 public:
  explicit Request(std::string_view line) : json_(read(line)) {}

  // What answers carry; null until it is known to be one, and in notifications.
  Json id() const { return isIdSound() ? json_["id"] : Json(); }
  bool isNotification() const { return json_.is_object() && !json_.contains("id"); }

  void check() const {
    const auto require = [](bool condition, const std::string& reason) {
      if (!condition) {
        throw RpcFailure{RpcCode::noRequest, reason};
      }
    };
    require(!json_.is_array(), "line: batches are not taken, send one request a line");
    require(json_.is_object(), "line: not an object");
    static constexpr std::array<std::string_view, 4> keys = {"jsonrpc", "method", "params", "id"};
    for (const auto& [key, value] : json_.items()) {
      require(std::find(keys.begin(), keys.end(), key) != keys.end(), printable(key) + ": unknown key");
    }
    require(json_.contains("jsonrpc") && json_["jsonrpc"] == "2.0", "jsonrpc: not \"2.0\"");
    require(json_.contains("method") && json_["method"].is_string(), "method: not a text");
    require(!json_.contains("id") || json_["id"].is_null() || isIdSound(), "id: neither a text nor a number");
  }

  // Requires: checked.
  std::string call(const RpcMethods& methods) {
    const std::string name = json_["method"];
    const auto method = methods.find(name);
    if (method == methods.end()) {
      throw RpcFailure{RpcCode::noSuchMethod, "no method '" + printable(name) + "'"};
    }
    json_.emplace("params", Json::object());
    const JsonField whole(json_);
    const JsonField params = whole.member("params");
    params.require(params.isObject(), "not an object");
    return textOf(OrderedJson{{"jsonrpc", "2.0"}, {"result", method->second(params)}, {"id", OrderedJson(id())}});
  }

 private:
  static Json read(std::string_view line) {
    try {
      return jsonFromText(line);
    } catch (const InputError& error) {
      throw RpcFailure{RpcCode::notJson, error.what()};
    }
  }
  bool isIdSound() const {
    return json_.is_object() && json_.contains("id") && (json_["id"].is_string() || json_["id"].is_number());
  }

  Json json_;
};

// Requires: checked.
std::string answer(Request& request, const RpcMethods& methods) {
  try {
    return request.call(methods);
  } catch (const RpcFailure& failure) {
    return rpcErrorText(failure.code, failure.message, request.id());
  } catch (const InputError& error) {
    return rpcErrorText(RpcCode::wrongParams, error.what(), request.id());
  } catch (const ScenarioError& error) {
    return rpcErrorText(RpcCode::refused, error.what(), request.id());
  } catch (const std::exception& error) {
    return rpcErrorText(RpcCode::failed, error.what(), request.id());
  }
}

}  // namespace

std::string rpcErrorText(RpcCode code, const std::string& message, const Json& id) {
  return textOf(OrderedJson{{"jsonrpc", "2.0"},
                            {"error", {{"code", static_cast<int>(code)}, {"message", printable(message, 1000)}}},
                            {"id", OrderedJson(id)}});
}

std::string answerRpc(std::string_view line, const RpcMethods& methods) {
  std::optional<Request> request;
  try {
    request.emplace(line);
    request->check();
  } catch (const RpcFailure& failure) {
    return rpcErrorText(failure.code, failure.message, request ? request->id() : Json());
  }
  const std::string text = answer(*request, methods);
  return request->isNotification() ? "" : text;
}

}  // namespace Agent
