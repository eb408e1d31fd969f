#ifndef ONDARO_TESTS_HOST_POWERCUT_H
#define ONDARO_TESTS_HOST_POWERCUT_H

#include <cstddef>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "FileCalls.h"

namespace ondaro::test {

using Files = std::map<std::string, std::string>;  // content by name

/// A disk that loses its power: what has been done to files, and what of it may be left.
///
/// Of a file's writes and truncations since its last sync each is there, missing, or there in some
/// of its sectors. Names are made, removed and changed in order; a sync of any file keeps all
/// those before it, as a journalling file system does.
class PowerCut {
 public:
  void Add(const FileCall& call) { m_calls.push_back(call); }
  std::size_t Size() const { return m_calls.size(); }

  /// The disk after the first `count` calls.
  Files Replay(std::size_t count, std::mt19937& random) const;

 private:
  std::vector<FileCall> m_calls;
};

}  // namespace ondaro::test

#endif
