// What can be asked over an agent's control socket, and what an answer has to hold so that it can be read.
#pragma once

#include <string>

#include "agent/JsonText.h"

namespace Tools {

struct ControlMethod {
  const char* name;
  bool isOrder;      // the agent changes something
  const char* form;  // of the result: its members, each with a value of its kind; an array with one of its elements

  // Requires: there is a method of that name.
  static const ControlMethod& named(const std::string& name);
};

// Which member of the value is not of the form, as in "slices.buckets[0].count"; empty: it is. Members that the form
// does not name are not looked at.
std::string misfitOf(const Agent::OrderedJson& value, const Agent::OrderedJson& form,
                     const std::string& path = "result");

}  // namespace Tools
