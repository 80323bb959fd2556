// What docs/tunnelctl.md shows is what the program prints, with the agent dead.

#include "tests/tools/ShadowRouter.h"

namespace Tools {
namespace {

class Manual : public testing::Test, protected ShadowRouter {};

// A command of the manual, and what it is said to print.
struct Shown {
  std::string command;
  std::string output;
};

// The commands in fences without a language.
std::vector<Shown> shownIn(const std::string& path) {
  constexpr std::string_view prompt = "$ tunnelctl ";
  std::vector<Shown> all;
  std::ifstream in(path);
  bool isFence = false;
  bool isInside = false;
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("```")) {
      isFence = !isFence;
      isInside = isFence && line == "```";
    } else if (isInside && line.starts_with(prompt)) {
      all.push_back({line.substr(prompt.size()), ""});
    } else if (isInside && !all.empty()) {
      all.back().output += line + "\n";
    }
  }
  return all;
}

std::vector<std::string> wordsOf(const std::string& command) {
  std::istringstream in(command);
  return {std::istream_iterator<std::string>(in), {}};
}

// Up to the line "...", if there is one.
bool isAsShown(const std::string& output, const std::string& shown) {
  const std::size_t cut = shown.find("...\n");
  return cut == std::string::npos ? output == shown : output.starts_with(shown.substr(0, cut));
}

TEST_F(Manual, showsWhatTheProgramPrints) {
  publishExample("abilene");
  const std::vector<Shown> all = shownIn(TEST_DATA_DIR "/../../docs/tunnelctl.md");
  EXPECT_GT(all.size(), 10U);
  for (const Shown& each : all) {
    std::string text = ask(wordsOf(each.command)).text;
    for (std::size_t at = 0; (at = text.find(stateDirectory(), at)) != std::string::npos;) {
      text.replace(at, stateDirectory().size(), "/run/tunnel-agent");
    }
    EXPECT_TRUE(isAsShown(text, each.output)) << each.command << "\n" << text;
  }
}

}  // namespace
}  // namespace Tools
