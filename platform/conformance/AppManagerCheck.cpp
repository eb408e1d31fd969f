#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "Judging.h"
#include "Probes.h"
#include "platform/AppManager.h"

namespace conformance {
namespace {

constexpr char NO_APPLICATION[] = "conformance.no-such-application";
constexpr int NO_PROCESS = -1;

/// A process of the kit in a process group of its own.
class Application {
 public:
  Application() : m_child(Probe({probes::APPLICATION})) {
    m_isRunning = !m_child.ReadLine(TheContext().patience).empty();
  }

  bool IsRunning() const { return m_isRunning; }
  int Id() const { return m_child.Id(); }
  void End() { m_child.Finish(TheContext().patience); }

 private:
  Child m_child;
  bool m_isRunning = false;
};

/// The port finds a process of the kit under the declared id, or knows an application that runs.
int DeclaredApplication(const Application& own) {
  if (TheContext().declaration.Find(keys::APPLICATION_ANNOUNCE) != nullptr) {
    Apply(keys::APPLICATION_ANNOUNCE, {{"pid", std::to_string(own.Id())}}, "SET-08");
    return own.Id();
  }
  const Outcome told = RunShell(Fill(Declared(keys::APPLICATION_PID), TheContext().WithScratch()));
  int pid = NO_PROCESS;
  std::istringstream(told.output) >> pid;
  return pid;
}

}  // namespace

bool probes::RunAsApplication(const Arguments& /*arguments*/) {
  setpgid(0, 0);
  Answer("running");
  char unused = 0;
  while (read(STDIN_FILENO, &unused, 1) > 0) {
  }
  return true;
}

bool probes::JoinGroup(const Arguments& arguments) {
  const int status = platform_app_set_process_group(std::stoi(arguments[0]), getpid());
  Answer(std::to_string(status));
  Answer(std::to_string(getpgrp()));
  return true;
}

TEST(AppManager, APP_01_ARunningApplicationHasItsProcessId) {
  const std::string& id = Declared(keys::APPLICATION_ID);
  Application own;
  ASSERT_TRUE(own.IsRunning());
  const int pid = DeclaredApplication(own);
  ASSERT_GT(pid, 0) << "'" << keys::APPLICATION_PID << "' told no process id";
  EXPECT_EQ(platform_app_get_pid(id.c_str()), pid) << id;
}

TEST(AppManager, APP_02_NoRunningApplicationIsMinusOne) {
  EXPECT_EQ(platform_app_get_pid(NO_APPLICATION), NO_PROCESS);
  if (TheContext().declaration.Find(keys::APPLICATION_ANNOUNCE) != nullptr) {
    Application own;
    DeclaredApplication(own);
    own.End();
    EXPECT_EQ(platform_app_get_pid(Declared(keys::APPLICATION_ID).c_str()), NO_PROCESS)
        << "an application that has ended";
  }
}

TEST(AppManager, APP_03_TheCallerJoinsTheApplicationsProcessGroup) {
  Application own;
  ASSERT_TRUE(own.IsRunning());
  const Outcome joined = RunProcess(Probe({probes::JOIN_GROUP, std::to_string(own.Id())}));
  std::istringstream answer(joined.output);
  int status = -1;
  int group = 0;
  answer >> status >> group;
  EXPECT_TRUE(joined.Succeeded()) << joined.Describe();
  EXPECT_EQ(status, 0);
  EXPECT_EQ(group, own.Id()) << "the caller's process group";
}

TEST(AppManager, APP_04_AGroupThatCannotBeSetFails) {
  Application own;
  own.End();
  EXPECT_NE(platform_app_set_process_group(own.Id(), getpid()), 0) << "of a process that ended";
  EXPECT_NE(platform_app_set_process_group(NO_PROCESS, getpid()), 0) << "of no process";
}

TEST(AppManager, APP_05_AnyThreadMayAsk) {
  Application own;
  const int pid = DeclaredApplication(own);
  const std::string& id = Declared(keys::APPLICATION_ID);
  Needs("APP-01", platform_app_get_pid(id.c_str()) == pid, "the process id is another");
  for (const auto& [found, status] : FromManyThreads([&] {
         return std::pair(platform_app_get_pid(id.c_str()),
                          platform_app_set_process_group(NO_PROCESS, getpid()));
       })) {
    EXPECT_EQ(found, pid);
    EXPECT_NE(status, 0);
  }
}

}  // namespace conformance
