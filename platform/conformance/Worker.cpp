#include "Worker.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <cctype>
#include <memory>
#include <regex>

#include "Judging.h"
#include "Probes.h"

namespace conformance {
namespace {

constexpr std::size_t ID_LENGTH = 6;  // SET_01

std::string FullName(const testing::TestInfo& test) {
  return std::string(test.test_suite_name()) + "." + test.name();
}

/// "AStringReadIsANewCopy" as "a string read is a new copy".
std::string InWords(const std::string& name) {
  std::string words;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const auto c = static_cast<unsigned char>(name[i]);
    const bool afterDigit = i > 0 && std::isdigit(static_cast<unsigned char>(name[i - 1])) != 0;
    const bool isStart = std::isupper(c) != 0 || (std::isdigit(c) != 0 && !afterDigit);
    if (i > 0 && isStart) {
      words += ' ';
    }
    words += static_cast<char>(std::tolower(c));
  }
  return words;
}

/// The report is read by others than those who have the sources.
std::string FailureText(const testing::TestResult& result) {
  static const std::regex sourceLine("Google Test trace:\\n.*\\.cpp:[0-9]+: ");
  std::string text;
  for (int i = 0; i < result.total_part_count(); ++i) {
    const testing::TestPartResult& part = result.GetTestPartResult(i);
    if (part.failed()) {
      text += std::regex_replace(part.message(), sourceLine, "in ") + "\n";
    }
  }
  return text;
}

void Send(const Json::Value& message) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  probes::Answer(Json::writeString(builder, message));
}

class Messenger : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(const testing::TestInfo& test) override {
    CurrentUnjudged().reset();
    Json::Value message;
    message[worker::TEST] = FullName(test);
    Send(message);
  }

  void OnTestEnd(const testing::TestInfo& test) override {
    const std::optional<Unjudged>& unjudged = CurrentUnjudged();
    Json::Value message;
    message[worker::TEST] = FullName(test);
    message[worker::SECONDS] = static_cast<double>(test.result()->elapsed_time()) / 1000;
    if (test.result()->Failed()) {
      message[worker::STATUS] = Word(Status::FAILED);
      message[worker::TEXT] = FailureText(*test.result());
    } else {
      message[worker::STATUS] = Word(unjudged ? unjudged->status : Status::PASSED);
      message[worker::TEXT] = unjudged ? unjudged->reason : "";
    }
    Send(message);
  }
};

}  // namespace

std::vector<Clause> Clauses() {
  std::vector<Clause> clauses;
  const testing::UnitTest& all = *testing::UnitTest::GetInstance();
  for (int i = 0; i < all.total_test_suite_count(); ++i) {
    const testing::TestSuite& suite = *all.GetTestSuite(i);
    for (int j = 0; j < suite.total_test_count(); ++j) {
      const testing::TestInfo& test = *suite.GetTestInfo(j);
      const std::string name = test.name();
      std::string id = name.substr(0, ID_LENGTH);
      id[3] = '-';
      clauses.push_back({id, InWords(name.substr(ID_LENGTH + 1)), FullName(test)});
    }
  }
  return clauses;
}

int worker::Run(const std::string& filter) {
  testing::GTEST_FLAG(filter) = filter;
  testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
  delete listeners.Release(listeners.default_result_printer());
  listeners.Append(std::make_unique<Messenger>().release());
  [[maybe_unused]] const int anyFailed = RUN_ALL_TESTS();
  return 0;
}

}  // namespace conformance
