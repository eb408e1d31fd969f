#ifndef ONDARO_TESTS_CTL_TRACECALLS_H
#define ONDARO_TESTS_CTL_TRACECALLS_H

#include <json/value.h>

#include <string>
#include <vector>

namespace ondaro::test {

/// Every line as an object; throws when one is none.
std::vector<Json::Value> ParseObjects(const std::string& lines);

/// "Bf" and "Ef" of all calls in the trace events, "Ef?" for one of which a line is missing. Throws
/// unless they are nested, and in order of time, in each thread.
std::string CallsOf(const std::string& events);

}  // namespace ondaro::test

#endif
