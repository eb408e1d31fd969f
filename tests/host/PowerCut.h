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

/// The disk after the calls, their last being when the power failed.
///
/// Of a file's writes and truncations since its last sync each is there, missing, or there in some
/// of its sectors. Names are made, removed and changed in order; only a sync of the directory keeps
/// those before it.
Files DiskAfter(const std::vector<FileCall>& calls, std::size_t count, std::mt19937& random);

}  // namespace ondaro::test

#endif
