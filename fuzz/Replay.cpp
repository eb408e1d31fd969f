// Runs a target over the files of directories, where there is no libFuzzer.
// usage: TARGET DIRECTORY...

#include <filesystem>
#include <iostream>
#include <vector>

#include "Fuzz.h"
#include "support/Files.h"

int main(int argc, char** argv) {
  ondaro::fuzz::Run(ondaro::fuzz::Input(""));
  int runs = 0;
  for (const std::string& directory : std::vector<std::string>(argv + 1, argv + argc)) {
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
      std::cout << entry.path() << std::endl;
      ondaro::fuzz::Run(ondaro::fuzz::Input(ondaro::test::ReadFile(entry.path())));
      ++runs;
    }
  }
  return runs > 0 ? 0 : 1;
}
