// Runs a target over the files of directories, where there is no libFuzzer.
// usage: TARGET DIRECTORY...

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

#include "Fuzz.h"

int main(int argc, char** argv) {
  LLVMFuzzerTestOneInput(nullptr, 0);
  int runs = 0;
  for (const std::string& directory : std::vector<std::string>(argv + 1, argv + argc)) {
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
      std::ifstream file(entry.path(), std::ios::binary);
      const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
      std::cout << entry.path() << std::endl;
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
      ++runs;
    }
  }
  return runs > 0 ? 0 : 1;
}
