#include "PowerCut.h"

#include <algorithm>
#include <memory>

namespace ondaro::test {
namespace {

using Kind = FileCall::Kind;

constexpr std::size_t SECTOR = 512;

/// A file by its content; names point to it, so that a renamed one takes its unsynced calls along.
struct File {
  std::string content;
  std::vector<const FileCall*> unsynced;
};
using Names = std::map<std::string, File*>;

void Apply(const FileCall& call, std::size_t begin, std::size_t size, std::string& content) {
  const auto offset = static_cast<std::size_t>(call.offset);
  if (call.kind == Kind::TRUNCATE) {
    content.resize(offset);
    return;
  }
  content.resize(std::max(content.size(), offset + begin + size));
  content.replace(offset + begin, size, call.data, begin, size);
}

void ApplyTorn(const FileCall& call, std::mt19937& random, std::string& content) {
  for (std::size_t begin = 0; begin < call.data.size(); begin += SECTOR) {
    if (random() % 2 == 0) {
      Apply(call, begin, std::min(SECTOR, call.data.size() - begin), content);
    }
  }
}

void Rename(const FileCall& call, Names& names) {
  if (call.kind == Kind::RENAME && names.count(call.path) != 0) {
    names[call.data] = names[call.path];
  }
  names.erase(call.path);
}

}  // namespace

Files PowerCut::Replay(std::size_t count, std::mt19937& random) const {
  std::vector<std::unique_ptr<File>> files;
  Names now;
  Names kept;
  std::vector<std::pair<const FileCall*, File*>> unsyncedNames;
  const auto applyName = [](const FileCall& call, File* file, Names& names) {
    if (call.kind == Kind::CREATE) {
      names[call.path] = file;
    } else {
      Rename(call, names);
    }
  };
  for (const FileCall* call = m_calls.data(); call != m_calls.data() + count; ++call) {
    File* file = now.count(call->path) != 0 ? now[call->path] : nullptr;
    switch (call->kind) {
      case Kind::CREATE:
        files.push_back(std::make_unique<File>());
        file = files.back().get();
        [[fallthrough]];
      case Kind::REMOVE:
      case Kind::RENAME:
        applyName(*call, file, now);
        unsyncedNames.emplace_back(call, file);
        break;
      case Kind::SYNC:
        for (const auto& [each, itsFile] : unsyncedNames) {
          applyName(*each, itsFile, kept);
        }
        unsyncedNames.clear();
        if (file != nullptr) {
          for (const FileCall* each : file->unsynced) {
            Apply(*each, 0, each->data.size(), file->content);
          }
          file->unsynced.clear();
        }
        break;
      case Kind::WRITE:
      case Kind::TRUNCATE:
        if (file != nullptr) {
          file->unsynced.push_back(call);
        }
        break;
      default:
        break;
    }
  }
  unsyncedNames.resize(random() % (unsyncedNames.size() + 1));
  for (const auto& [each, itsFile] : unsyncedNames) {
    applyName(*each, itsFile, kept);
  }
  // Some cuts lose all that they can, some nothing, most a part.
  const auto mood = random() % 4;
  Files result;
  for (const auto& [name, file] : kept) {
    std::string content = file->content;
    for (const FileCall* each : file->unsynced) {
      const auto fate = mood < 2 ? mood : random() % 3;
      if (fate == 1) {
        Apply(*each, 0, each->data.size(), content);
      } else if (fate == 2) {
        ApplyTorn(*each, random, content);
      }
    }
    result[name] = std::move(content);
  }
  return result;
}

}  // namespace ondaro::test
