// JSON-RPC 2.0, one request a line: what is a request, which method it calls, and what is answered. Strict, as all that
// reads JSON here: an unknown or doubled key is an error. Batches are refused.
#pragma once

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

#include "agent/JsonField.h"
#include "agent/JsonText.h"

namespace Agent {

// Those from -32000 on are this protocol's own.
enum class RpcCode : int {
  notJson = -32700,
  noRequest = -32600,
  noSuchMethod = -32601,
  wrongParams = -32602,
  failed = -32603,
  refused = -32000,         // the parameters are well-formed, but what they ask for is not done
  deadline = -32001,        // the client was too slow
  tooManyClients = -32002,  // try again later
};

// The answer to a request that is refused. Without an id when it is not known which request.
std::string rpcErrorText(RpcCode code, const std::string& message, const Json& id = nullptr);

// A method gets the member "params", which is an object, empty when the request has none. It raises InputError for
// wrong parameters and ScenarioError for what is refused; what else it raises is answered as a failure.
using RpcMethod = std::function<OrderedJson(const JsonField& params)>;
using RpcMethods = std::map<std::string, RpcMethod, std::less<>>;

// Carries out the request in the line; what is to be answered, without an end of line. Empty: nothing, because the
// request is a notification.
std::string answerRpc(std::string_view line, const RpcMethods& methods);

}  // namespace Agent
