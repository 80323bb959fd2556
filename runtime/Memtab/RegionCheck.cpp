#include "runtime/Memtab/RegionCheck.h"

#include <cinttypes>
#include <cstdio>
#include <string>

#include "runtime/Memtab/Layout.h"

namespace Memtab {
namespace {

uint64_t load(View view, size_t offset) {
  return reinterpret_cast<const Word*>(view.base + offset)->load(std::memory_order_acquire);
}

std::string hexadecimal(uint64_t number) {
  char text[20];
  std::snprintf(text, sizeof text, "0x%016" PRIx64, number);
  return text;
}

void requireEqual(const char* what, uint64_t found, uint64_t expected) {
  if (found != expected) {
    throw IncompatibleTable(std::string(what) + " is " + hexadecimal(found) + ", not " + hexadecimal(expected));
  }
}

bool isDescriptor(View view, uint64_t word) {
  const Place place = Place::of(word);
  if (!Place::isIntact(word) || place.depth != place.sizeLog2) {
    return false;
  }
  return place.units == 0 || (place.offset() >= headerBytes && place.offset() + place.bytes() <= view.size());
}

}  // namespace

// Everything else that a maker stores before the magic number is either overwritten by the next one or zero. The ring
// comes first behind the header, and any table that was ever changed has written to its first page.
bool isBlank(View view) {
  if (load(view, magicAt) != 0 || load(view, sequenceAt) != 0) {
    return false;
  }
  for (size_t offset = headerBytes; offset < 2 * headerBytes; offset += sizeof(uint64_t)) {
    if (load(view, offset) != 0) {
      return false;
    }
  }
  return true;
}

void requireCompatible(View view, uint64_t fingerprint, size_t collectionCount) {
  if (view.size() < headerBytes) {
    throw IncompatibleTable("shorter than a table's header");
  }
  requireEqual("magic number", load(view, magicAt), regionMagic);
  requireEqual("format version", load(view, versionAt), formatVersion);
  requireEqual("record fingerprint", load(view, fingerprintAt), fingerprint);
  for (size_t i = 0; i < collectionCountMax; ++i) {
    const uint64_t word = load(view, descriptorsAt + i * sizeof(uint64_t));
    if (i < collectionCount ? !isDescriptor(view, word) : word != 0) {
      throw IncompatibleTable("descriptor of collection " + std::to_string(i) + " is " + hexadecimal(word) +
                              (i < collectionCount ? ", which is none" : " where no collection should be"));
    }
  }
}

}  // namespace Memtab
