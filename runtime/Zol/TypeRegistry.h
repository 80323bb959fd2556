// TypeRegistry: the types that the process knows by name, in the order in which they registered. Filled at library
// load, read by whoever shows or checks types at run time.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Zol {

class TypeRegistry {
 public:
  static TypeRegistry& instance();

  // Registers the type; registering a name again changes nothing.
  void typeIs(std::string_view name);
  bool typeHas(std::string_view name) const;
  const std::vector<std::string>& types() const { return types_; }

 private:
  std::vector<std::string> types_;
};

}  // namespace Zol
