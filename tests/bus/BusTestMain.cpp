#include <glib.h>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
