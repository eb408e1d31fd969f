// Damaged files of the host's settings store: each is opened, or set aside and replaced, and in
// either case takes writes again. The input is what happens to the files of a sound store.

#include "Fuzz.h"
#include "host/StoreArea.h"
#include "support/Files.h"

using namespace ondaro::fuzz;
using ondaro::host::SettingsValue;
using ondaro::host::SharedSettings;

namespace {

const char* const FILES[] = {"/settings.db", "/settings.db-wal", "/settings.bell"};

/// A store with values of both kinds and a log of changes, as files.
const std::vector<std::string>& Sound() {
  static const std::vector<std::string> contents = [] {
    const ondaro::test::TemporaryDirectory directory;
    SharedSettings settings([&] { return directory.Path(); });
    for (int number = 0; number < 20; ++number) {
      settings.Write("db/key" + std::to_string(number % 7),
                     number % 2 == 0 ? SettingsValue(number) : SettingsValue(std::string(50, 'x')));
    }
    std::vector<std::string> files;
    for (const char* file : FILES) {
      files.push_back(ondaro::test::ReadFile(directory.Path() + file));
    }
    return files;
  }();
  return contents;
}

void Damage(std::string& bytes, Input& input) {
  const std::size_t at = (input.Number(256) << 8U) + input.Number(256);
  const unsigned kind = input.Number(8);
  if (bytes.empty()) {
    return;
  }
  char* const place = &bytes[at % bytes.size()];
  if (kind == 0) {
    bytes.resize(at % bytes.size());
  } else if (kind == 1) {
    std::fill(place, place + std::min<std::ptrdiff_t>(512, &*bytes.end() - place), '\0');
  } else {
    *place = static_cast<char>(*place ^ static_cast<char>(input.Number(256)));
  }
}

}  // namespace

// What is fuzzed is reading, not the disk.
extern "C" int fsync(int) { return 0; }
extern "C" int fdatasync(int) { return 0; }

void ondaro::fuzz::Run(Input input) {
  std::vector<std::string> files = Sound();
  while (!input.IsEmpty()) {
    Damage(files[input.Number(3)], input);
  }
  const ondaro::test::TemporaryDirectory directory;
  for (std::size_t index = 0; index < files.size(); ++index) {
    ondaro::test::WriteFile(directory.Path() + FILES[index], files[index]);
  }

  ondaro::test::StoreArea store(directory.Path());
  for (int number = 0; number < 7; ++number) {
    store.Get("db/key" + std::to_string(number));
  }
  for (const int number : {0, -5}) {  // in the log, and before it
    store.Log(number, {"db/key1", "db/key4", "db/none"});
  }
  Expect(store.Set("db/new", "5"), "it takes writes");
  Expect(store.Get("db/new") == "5", "and keeps them");
}
