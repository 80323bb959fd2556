// What is a request, and what is said of what is none.

#include <gtest/gtest.h>

#include "agent/InputError.h"
#include "agent/JsonRpc.h"

namespace Agent {
namespace {

RpcMethods methods() {
  return {{"echo",
           [](const JsonField& params) {
             return OrderedJson{{"has", params.has("a")}};
           }},
          {"wrong", [](const JsonField& params) -> OrderedJson { params.fail("is wrong"); }},
          {"refuse", [](const JsonField&) -> OrderedJson { throw ScenarioError("file", "refused"); }},
          {"fail", [](const JsonField&) -> OrderedJson { throw std::runtime_error("broken"); }}};
}

TEST(JsonRpc, answersRequestsAndNotNotifications) {
  EXPECT_EQ(answerRpc(R"({"jsonrpc": "2.0", "method": "echo", "params": {"a": 1}, "id": 7})", methods()),
            R"({"jsonrpc": "2.0", "result": {"has": true}, "id": 7})");
  EXPECT_EQ(answerRpc(R"({"id": "x", "method": "echo", "jsonrpc": "2.0"})", methods()),
            R"({"jsonrpc": "2.0", "result": {"has": false}, "id": "x"})");
  for (const char* const method : {"echo", "wrong", "fail", "none"}) {
    EXPECT_EQ(answerRpc(R"({"jsonrpc": "2.0", "method": ")" + std::string(method) + "\"}", methods()), "") << method;
  }
}

TEST(JsonRpc, whatIsNoRequestIsToldWhy) {
  struct Case {
    int line;
    std::string text;
    int code;
    std::string message;
    Json id = nullptr;
  };
  const std::string head = R"({"jsonrpc": "2.0", "id": 1, "method": )";
  for (const Case& c : {
           Case{__LINE__, "", -32700, "line: "},
           Case{__LINE__, R"({"jsonrpc": "2.0", "method")", -32700, "column"},
           Case{__LINE__, "nonsense", -32700, "column"},
           Case{__LINE__, "{\"a\": \"\xFF\"}", -32700, "not UTF-8"},
           Case{__LINE__, std::string("{\0}", 3), -32700, "NUL"},
           Case{__LINE__, R"({"id": 1, "id": 2})", -32700, "given twice"},
           Case{__LINE__, std::string(60000, '['), -32700, "nested more than"},
           Case{__LINE__, R"({"id": 123456789012345678901234567890})", -32700, "beyond 64 bits"},
           Case{__LINE__, "[]", -32600, "batches are not taken"},
           Case{__LINE__, "[" + head + "\"echo\"}]", -32600, "batches are not taken"},
           Case{__LINE__, "5", -32600, "not an object"},
           Case{__LINE__, "{}", -32600, "jsonrpc: "},
           Case{__LINE__, R"({"jsonrpc": "1.0", "method": "echo", "id": 1})", -32600, "jsonrpc: ", 1},
           Case{__LINE__, R"({"jsonrpc": "2.0", "id": "x"})", -32600, "method: ", "x"},
           Case{__LINE__, head + "5}", -32600, "method: ", 1},
           Case{__LINE__, head + R"("echo", "more": 1})", -32600, "more: unknown key", 1},
           Case{__LINE__, R"({"jsonrpc": "2.0", "method": "echo", "id": [1]})", -32600, "id: "},
           Case{__LINE__, head + "\"none\"}", -32601, "no method 'none'", 1},
           Case{__LINE__, head + R"("echo", "params": [1]})", -32602, "params: not an object", 1},
           Case{__LINE__, head + "\"wrong\"}", -32602, "params: is wrong", 1},
           Case{__LINE__, head + "\"refuse\"}", -32000, "file: refused", 1},
           Case{__LINE__, head + "\"fail\"}", -32603, "broken", 1},
       }) {
    const std::string text = answerRpc(c.text, methods());
    const Json answer = Json::parse(text);
    EXPECT_EQ(answer["error"]["code"], c.code) << "case in line " << c.line << ": " << text;
    EXPECT_NE(answer["error"]["message"].get<std::string>().find(c.message), std::string::npos) << text;
    EXPECT_EQ(answer["id"], c.id) << "case in line " << c.line;
    EXPECT_EQ(text.find('\n'), std::string::npos) << "one line";
  }
}

}  // namespace
}  // namespace Agent
