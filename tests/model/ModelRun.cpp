// One sequence of steps, done to the library and to the model side by side.
// usage: model-run MUTATION FILE
// Exit: 0 no difference; 1 a difference, with the number of steps done before it in the last line.

#include <glib.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>

#include "model/Library.h"
#include "model/Model.h"

using namespace ondaro::model;

namespace {

void Print(const char* title, const std::vector<std::string>& lines, std::size_t from) {
  std::cout << title << '\n';
  for (std::size_t index = from; index < std::min(lines.size(), from + 3); ++index) {
    std::cout << "    " << lines[index] << '\n';
  }
}

/// True when nothing differed.
bool Compare(Library& library, Model& model, const std::vector<Step>& steps) {
  for (std::size_t done = 0; done < steps.size(); ++done) {
    const std::vector<std::string> expected = model.Perform(steps[done]);
    const std::vector<std::string> observed = library.Perform(steps[done]);
    if (observed != expected) {
      const auto difference =
          std::mismatch(observed.begin(), observed.end(), expected.begin(), expected.end());
      const auto same = static_cast<std::size_t>(difference.first - observed.begin());
      std::cout << "Different at: " << steps[done] << ", after " << same << " lines alike\n";
      Print("expected:", expected, same);
      Print("observed:", observed, same);
      std::cout << done << std::endl;
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_ERROR));
  if (argc != 3) {
    return 2;
  }
  std::ifstream file(argv[2]);
  const std::vector<Step> steps(std::istream_iterator<Step>(file), {});
  if (!file.eof() || steps.empty()) {
    return 2;
  }
  Library library;
  Model model(static_cast<Mutation>(std::atoi(argv[1])));
  const bool isAlike = Compare(library, model, steps);
  library.Finish();
  return isAlike ? 0 : 1;
}
