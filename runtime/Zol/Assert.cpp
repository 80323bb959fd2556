#include "runtime/Zol/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Zol {
namespace {

int trapDepth = 0;

}  // namespace

AssertionTrap::AssertionTrap() { ++trapDepth; }
AssertionTrap::~AssertionTrap() { --trapDepth; }

void assertionFailed(const char* condition, const char* file, int line) {
  if (trapDepth > 0) {
    throw AssertionException(condition);
  }
  std::fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, condition);
  std::abort();
}

}  // namespace Zol
