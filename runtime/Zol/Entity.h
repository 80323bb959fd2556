// Entity: a named, counted object with a place in the tree of state.
#pragma once

#include <string>
#include <utility>

#include "runtime/Zol/Ptr.h"

namespace Zol {

class Entity : public PtrInterface {
 public:
  explicit Entity(std::string name = {}) : name_(std::move(name)) {}

  const std::string& name() const { return name_; }
  const Entity* parent() const { return parent_; }
  const std::string& parentAttrName() const { return parentAttrName_; }

  // The path from the root of the tree: the names of all ancestors and its own, joined by "/".
  std::string fullName() const { return parent_ == nullptr ? name_ : parent_->fullName() + "/" + name_; }

  // Called by the parent that takes the entity in, or with null when it lets go. The parent owns the entity and
  // outlives its place in it, so no count is held upwards.
  void parentIs(const Entity* parent) { parent_ = parent; }
  void parentAttrIdIs(std::string attribute) { parentAttrName_ = std::move(attribute); }

 private:
  std::string name_;
  const Entity* parent_ = nullptr;
  std::string parentAttrName_;
};

}  // namespace Zol
