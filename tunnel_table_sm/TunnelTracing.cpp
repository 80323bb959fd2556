#include "tunnel_table_sm/TunnelTracing.h"

#include <cstdlib>
#include <filesystem>
#include <memory>

#include "runtime/Fastlog/RingFile.h"
#include "runtime/Fastlog/TraceHelper.h"
#include "runtime/Zol/Exception.h"

namespace Tunnel {
namespace {

FASTLOG_DEFAULT_HANDLE("TunnelFibSm");

// A name without a directory lies where trace files are kept.
std::string pathOf(const std::string& name) {
  if (name.find('/') != std::string::npos) {
    return name;
  }
  const char* const directory = std::getenv("FASTLOGDIR");
  return (directory != nullptr ? std::filesystem::path(directory) : std::filesystem::temp_directory_path()) / name;
}

}  // namespace

bool fastlogInitialized = false;

std::optional<std::string> fastlogFileName() {
  if (std::getenv("FASTLOG_DISABLE") != nullptr) {
    return std::nullopt;
  }
  const char* const file = std::getenv("FLFILE");
  if (file != nullptr && *file != '\0') {
    return file;
  }
  return std::string("Tunnel") + (std::getenv("FASTLOGDIR") == nullptr ? "-%d" : "") + ".fl";
}

void fastlogInitialize() {
  const std::optional<std::string> name = fastlogInitialized ? std::nullopt : fastlogFileName();
  if (!name) {
    return;
  }
  try {
    Fastlog::RingFile::defaultFileIs(std::make_unique<Fastlog::RingFile>(pathOf(*name)));
  } catch (const Zol::Exception& trouble) {
    FASTLOG_TRACE(3, trouble.what());
  }
  fastlogInitialized = true;
}

}  // namespace Tunnel
