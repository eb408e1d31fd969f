#include "PowerCut.h"

#include <algorithm>
#include <memory>

namespace ondaro::test {
namespace {

using Kind = FileCall::Kind;

constexpr std::size_t SECTOR = 512;

struct File {
  std::string content;
  std::vector<const FileCall*> unsynced;
};
using Names = std::map<std::string, std::shared_ptr<File>>;

void ApplyPart(const FileCall& call, std::size_t begin, std::size_t size, std::string& content) {
  const std::size_t offset = static_cast<std::size_t>(call.offset) + begin;
  content.resize(std::max(content.size(), offset + size));
  content.replace(offset, size, call.data, begin, size);
}

/// Each sector of a write that `takesSector` says so of.
template <typename TakesSector>
void Apply(const FileCall& call, std::string& content, TakesSector takesSector) {
  if (call.kind == Kind::TRUNCATE && takesSector()) {
    content.resize(static_cast<std::size_t>(call.offset));
  }
  for (std::size_t begin = 0; begin < call.data.size(); begin += SECTOR) {
    if (takesSector()) {
      ApplyPart(call, begin, std::min(SECTOR, call.data.size() - begin), content);
    }
  }
}

void Sync(File& file) {
  for (const FileCall* call : file.unsynced) {
    Apply(*call, file.content, [] { return true; });
  }
  file.unsynced.clear();
}

}  // namespace

Files DiskAfter(const std::vector<FileCall>& calls, std::size_t count, std::mt19937& random) {
  Names now;
  std::vector<Names> unsynced(1);  // since the directory's last sync
  for (const FileCall* call = calls.data(); call != calls.data() + count; ++call) {
    const auto found = now.find(call->path);
    const std::shared_ptr<File> file = found != now.end() ? found->second : nullptr;
    switch (call->kind) {
      case Kind::CREATE:
        now[call->path] = std::make_shared<File>();
        unsynced.push_back(now);
        break;
      case Kind::RENAME:
      case Kind::REMOVE:
        now.erase(call->path);
        if (call->kind == Kind::RENAME && file) {
          now[call->data] = file;
        }
        unsynced.push_back(now);
        break;
      case Kind::SYNC:
        if (file) {
          Sync(*file);
        } else {
          unsynced = {now};
        }
        break;
      case Kind::WRITE:
      case Kind::TRUNCATE:
        if (file) {
          file->unsynced.push_back(call);
        }
        break;
      default:
        break;
    }
  }
  // Some cuts lose all that they can, some nothing, most a part.
  const auto mood = random() % 4;
  Files files;
  for (const auto& [name, file] : unsynced[random() % unsynced.size()]) {
    std::string& content = files[name] = file->content;
    for (const FileCall* call : file->unsynced) {
      const auto fate = mood < 2 ? mood : random() % 3;
      Apply(*call, content, [&] { return fate == 1 || (fate == 2 && random() % 2 == 0); });
    }
  }
  return files;
}

}  // namespace ondaro::test
