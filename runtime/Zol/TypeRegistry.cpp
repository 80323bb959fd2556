#include "runtime/Zol/TypeRegistry.h"

#include <algorithm>

namespace Zol {

TypeRegistry& TypeRegistry::instance() {
  static TypeRegistry registry;
  return registry;
}

void TypeRegistry::typeIs(std::string_view name) {
  if (!typeHas(name)) {
    types_.emplace_back(name);
  }
}

bool TypeRegistry::typeHas(std::string_view name) const {
  return std::find(types_.begin(), types_.end(), name) != types_.end();
}

}  // namespace Zol
