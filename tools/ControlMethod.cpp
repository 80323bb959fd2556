#include "tools/ControlMethod.h"

#include <algorithm>
#include <iterator>

#include "runtime/Zol/Assert.h"

namespace Tools {
namespace {

constexpr const char* levelsForm = R"({"default": 0, "sources": [{"source": "", "level": 0}]})";

constexpr ControlMethod methods[] = {
    {"config.get", false, R"({"source": "", "ribs": [{}]})"},
    {"config.apply", true, R"({"ribs": 0, "added": [""], "changed": [""], "removed": [""]})"},
    {"trace.get", false, levelsForm},
    {"trace.set", true, levelsForm},
    {"stats.get", false,
     R"({"pid": 0, "version": "", "uptime": 0.5, "state": "", "waitingFor": [""], "degraded": [""], "residentBytes": 0, "reviews": 0,
         "backlog": {"unreadChanges": 0, "fib": 0, "fibDeferred": 0, "heldUp": 0, "ribs": {}},
         "scrub": {"found": 0, "repaired": 0, "passes": 0, "visited": 0, "lastPassAge": 0.5, "lastPassSeconds": 0.5},
         "slices": {"count": 0, "sum": 0.5, "longest": 0.5, "buckets": [{"seconds": 0.5, "count": 0}]},
         "publishToFib": {"count": 0, "sum": 0.5, "longest": 0.5, "buckets": [{"seconds": 0.5, "count": 0}]},
         "control": {"clients": 0, "connections": 0, "requests": 0, "refused": 0, "dropped": 0}})"},
};

bool isOfKind(const Agent::OrderedJson& value, const Agent::OrderedJson& form) {
  return form.is_number_float() ? value.is_number() : value.type() == form.type();
}

}  // namespace

const ControlMethod& ControlMethod::named(const std::string& name) {
  const auto at =
      std::find_if(std::begin(methods), std::end(methods), [&](const auto& each) { return each.name == name; });
  ZOL_ASSERT(at != std::end(methods));
  return *at;
}

std::string misfitOf(const Agent::OrderedJson& value, const Agent::OrderedJson& form, const std::string& path) {
  if (!isOfKind(value, form)) {
    return path;
  }
  std::string misfit;
  if (form.is_array()) {
    for (std::size_t i = 0; i < value.size() && misfit.empty(); ++i) {
      misfit = misfitOf(value[i], form[0], path + "[" + std::to_string(i) + "]");
    }
  } else if (form.is_object()) {
    for (const auto& [key, member] : form.items()) {
      const std::string place = path + "." + key;
      misfit = !misfit.empty() ? misfit : value.contains(key) ? misfitOf(value[key], member, place) : place;
    }
  }
  return misfit;
}

}  // namespace Tools
