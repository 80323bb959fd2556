// An explanation as JSON; docs/running.md has its form.
#pragma once

#include "agent/Explanation.h"
#include "agent/JsonText.h"

namespace Agent {

OrderedJson explanationJson(const Explanation& explanation);

}  // namespace Agent
