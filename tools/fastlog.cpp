// fastlog: prints the messages of trace files, those of processes that have died too.
//
//     fastlog FILE...
//
// What cannot be read is said on standard error. Exit code: 0 all was read, 1 something was not, 2 usage.
#include <iostream>

#include "runtime/Fastlog/RingFile.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: fastlog FILE...\n";
    return 2;
  }
  bool isComplete = true;
  for (int i = 1; i < argc; ++i) {
    const Fastlog::RingFileContents contents = Fastlog::readRingFile(argv[i]);
    for (const std::string& message : contents.messages) {
      std::cout << message << '\n';
    }
    for (const std::string& problem : contents.problems) {
      std::cerr << "fastlog: " << problem << '\n';
      isComplete = false;
    }
  }
  return isComplete ? 0 : 1;
}
