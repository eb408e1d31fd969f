// A user of the exported classes: what they include must be found, too.
#include <string>

#include "ondaro/api/CSystemConfig.h"
#include "ondaro/pal/CPALFactory.h"

int main() {
  const std::string value = NOndaroPAL::GetSystemConfig().GetProperty("SDR");
  return value == "1" ? 0 : 1;
}
