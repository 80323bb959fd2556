#include "tunnel_table_sm/TunnelTracing.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "runtime/Fastlog/RingFile.h"
#include "runtime/Fastlog/TraceHelper.h"
#include "runtime/Zol/Exception.h"

namespace Tunnel {
namespace {

FASTLOG_DEFAULT_HANDLE("TunnelFibSm");

std::optional<std::string> hostDirectory;  // nothing: the host has not chosen
std::string lastTrouble;

std::optional<std::string> variable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

std::optional<std::string> namedFile() {
  std::optional<std::string> file = variable("FLFILE");
  return file && file->empty() ? std::nullopt : file;
}

std::optional<std::string> directory() {
  std::optional<std::string> named = variable("FASTLOGDIR");
  return named ? named : hostDirectory;
}

std::optional<std::string> path() {
  const std::optional<std::string> name = fastlogFileName();
  if (!name || namedFile()) {
    return name;
  }
  const std::string directory = ::Tunnel::directory().value_or(variable("TMPDIR").value_or("/tmp"));
  return directory.empty() ? *name : directory + "/" + *name;
}

// A directory of the environment's must exist; the host's is created.
void makeHostDirectory() {
  if (namedFile() || variable("FASTLOGDIR") || !hostDirectory) {
    return;
  }
  if (mkdir(hostDirectory->c_str(), 0750) != 0 && errno != EEXIST) {
    throw Zol::InternalException("trace directory " + *hostDirectory + ": cannot be created: " + std::strerror(errno) +
                                 "; trace lines are dropped");
  }
}

}  // namespace

bool fastlogInitialized = false;

void fastlogDirectoryIs(std::string directory) { hostDirectory = std::move(directory); }

std::optional<std::string> fastlogFileName() {
  if (variable("FASTLOG_DISABLE")) {
    return std::nullopt;
  }
  if (const std::optional<std::string> file = namedFile()) {
    return file;
  }
  if (!variable("FASTLOGDIR") && hostDirectory && hostDirectory->empty()) {
    return std::nullopt;
  }
  return std::string("Tunnel") + (directory() ? "" : "-%d") + ".fl";
}

std::string fastlogSetUp() {
  const std::optional<std::string> file = fastlogInitialized ? std::nullopt : path();
  if (!file) {
    return "";
  }
  try {
    makeHostDirectory();
    Fastlog::RingFile::defaultFileIs(
        std::make_unique<Fastlog::RingFile>(*file, std::nullopt, "", 0, 24, Fastlog::Threading::one, true));
    fastlogInitialized = true;
  } catch (const Zol::Exception& trouble) {
    if (lastTrouble != trouble.what()) {
      return lastTrouble = trouble.what();
    }
  }
  return "";
}

void fastlogInitialize() {
  if (const std::string trouble = fastlogSetUp(); !trouble.empty()) {
    FASTLOG_TRACE(0, trouble);
  }
}

}  // namespace Tunnel
