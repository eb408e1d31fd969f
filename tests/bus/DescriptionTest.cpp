// The daemon's end over an interface description that is not what it should be. A build of the
// library that looks for it in the working directory; each test has a directory of its own.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "bus/BusTest.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CException.h"
#include "ondaro/pal/CPALFactory.h"

namespace ondaro::test {
namespace {

constexpr int SHORT_TIMEOUT = 200;  // milliseconds, where no answer is to be had
constexpr const char* FILE_NAME = ONDARO_TEST_DESCRIPTION_NAME;

void Write(const std::string& text) { std::ofstream(FILE_NAME) << text; }

std::string Node(const std::string& attributes, const std::string& content) {
  return "<node " + attributes + ">" + content + "</node>";
}

std::string Interface(const std::string& arguments) {
  return "<interface name='com.halvex.tv.ondaro'><method name='sendDataToServer'>" + arguments +
         "</method></interface>";
}

const std::string PATH = "name='/com/halvex/tv/ondaro'";
const std::string ARGUMENTS =
    "<arg type='s' direction='in'/><arg type='s' direction='in'/><arg type='i' direction='out'/>";

class Description : public BusTest {
 protected:
  Description() {
    if (mkdtemp(m_directory.data()) == nullptr) {
      throw std::runtime_error("no directory");
    }
    std::filesystem::current_path(m_directory);
  }
  ~Description() override {
    std::filesystem::current_path("/");
    std::filesystem::remove_all(m_directory);
  }

 private:
  std::string m_directory = testing::TempDir() + "ondaro-description-XXXXXX";
};

TEST_F(Description, ThatCannotBeUsedGivesNoServer) {
  const std::string whole = Node(PATH, Interface(ARGUMENTS));
  std::vector<std::string> texts = {
      "",
      " \n",
      "no XML at all",
      std::string("\0\0\0\0", 4),
      "<interface name='com.halvex.tv.ondaro'/>",
      Node(PATH, ""),
      Node("", Interface(ARGUMENTS)),
      Node("name=''", Interface(ARGUMENTS)),
      Node("name='com/halvex'", Interface(ARGUMENTS)),
      Node("name='/com/halvex/'", Interface(ARGUMENTS)),
      Node(PATH, "<interface name='ondaro'/>"),
      Node(PATH, "<interface name=''/>"),
      Node(PATH, "<interface/>"),
      Node(PATH, "<node " + PATH + ">" + Interface(ARGUMENTS) + "</node>"),
      Node(PATH, Interface("<arg type='' direction='in'/>")),
      Node(PATH, Interface("<arg type='ss' direction='in'/>")),
      Node(PATH, Interface("<arg type='a' direction='in'/>")),
      Node(PATH, Interface("<arg type='mi' direction='out'/>")),
      Node(PATH, Interface("<arg type='(s' direction='out'/>")),
      Node(PATH, Interface("<arg type='s'/><node><interface name='c.d'/></node>")),
  };
  for (std::size_t size = 1; size < whole.size(); size += 5) {
    texts.push_back(whole.substr(0, size));
  }
  for (const std::string& text : texts) {
    Write(text);
    LogRecorder::Clear();
    EXPECT_EQ(OndaroFactory_GetIpcServerHandle(), nullptr) << text;
    const auto errors = LogRecorder::Lines("exception : ");
    ASSERT_EQ(errors.size(), 1U) << text;
    EXPECT_EQ(errors[0].priority, PRIORITY_ERROR);
    EXPECT_NE(errors[0].body.find(FILE_NAME), std::string::npos) << errors[0].body;
  }
}

TEST_F(Description, ThatIsNotThereGivesNoServerUntilItIs) {
  EXPECT_EQ(OndaroFactory_GetIpcServerHandle(), nullptr);
  EXPECT_TRUE(LogRecorder::Has("exception : PAL Exception: InvalidCase: "));
  std::filesystem::create_directory(FILE_NAME);
  EXPECT_EQ(OndaroFactory_GetIpcServerHandle(), nullptr);
  std::filesystem::remove(FILE_NAME);
  std::filesystem::create_symlink("nowhere", FILE_NAME);
  EXPECT_EQ(OndaroFactory_GetIpcServerHandle(), nullptr);
  std::filesystem::remove(FILE_NAME);

  Write(Node(PATH, Interface(ARGUMENTS)));
  const std::unique_ptr<NOndaroAPI::IIpcServerImpl> server(
      NOndaroPAL::CPALFactory::CreateIpcServerImpl());
  EXPECT_NE(server, nullptr);
}

/// A server whose description is read, but is not the contract's.
class OddDescription : public Description {
 protected:
  void CreateWith(const std::string& text) {
    Write(text);
    m_server.reset(NOndaroPAL::CPALFactory::CreateIpcServerImpl());
    m_server->RegisterEventHandler("event", Recorder("event"));
    ASSERT_TRUE(WaitUntil([this] {
      try {
        m_server->SendDataToClient("probe", "");
        return true;
      } catch (const NOndaroPAL::CInvalidCaseException&) {
        return false;
      }
    }));
  }

  PlainPeer m_peer;
  std::unique_ptr<NOndaroAPI::IIpcServerImpl> m_server;
};

TEST_F(OddDescription, OfOtherArgumentsIsAnsweredWithAnError) {
  CreateWith(
      Node(PATH, Interface("<arg type='i' direction='in'/><arg type='i' direction='out'/>")));
  EXPECT_EQ(m_peer.Call(g_variant_new("(i)", 1)).substr(0, 6), "error:");
  EXPECT_TRUE(LogRecorder::Has("unexpected arguments (i)"));
}

TEST_F(OddDescription, OfAnotherAnswerDoesNotStopTheDaemon) {
  CreateWith(Node(PATH, Interface("<arg type='s' direction='in'/><arg type='s' direction='in'/>"
                                  "<arg type='s' direction='out'/>")));
  // GLib sends no answer that the description does not allow.
  EXPECT_EQ(m_peer.Call(g_variant_new("(ss)", "event", "data"), METHOD, INTERFACE, OBJECT_PATH,
                        BUS_NAME, SHORT_TIMEOUT),
            "error: Timeout was reached");
  EXPECT_EQ(m_events, std::vector<Event>({{"event", "data"}}));
}

TEST_F(OddDescription, OfAnotherMethodLeavesItUnanswered) {
  CreateWith(Node(PATH,
                  "<interface name='com.halvex.tv.ondaro'><method name='other'/>"
                  "<method name='sendDataToServer'>" +
                      ARGUMENTS + "</method></interface>"));
  EXPECT_EQ(m_peer.Call(nullptr, "other", INTERFACE, OBJECT_PATH, BUS_NAME, SHORT_TIMEOUT),
            "error: Timeout was reached");
  EXPECT_TRUE(LogRecorder::Has("invalid method is sent method_name : other  \n"));
  EXPECT_FALSE(LogRecorder::Has("Finish sender:"));
  EXPECT_EQ(m_peer.CallEvent("event", "data"), "(0,)");
}

TEST_F(OddDescription, ThatIsRefusedAtRegistrationStillLetsTheDaemonSend) {
  // The process exports the same object already.
  GDBusNodeInfo* node =
      g_dbus_node_info_new_for_xml(Node(PATH, Interface(ARGUMENTS)).c_str(), nullptr);
  const guint other = g_dbus_connection_register_object(m_shared, OBJECT_PATH, node->interfaces[0],
                                                        nullptr, nullptr, nullptr, nullptr);
  ASSERT_NE(other, 0U);
  PlainPeer listener;
  listener.Listen();
  CreateWith(Node(PATH, Interface(ARGUMENTS)));
  EXPECT_TRUE(LogRecorder::Has("g_dbus_connection_register_object failed: "));
  EXPECT_TRUE(WaitUntil([&] { return !listener.Heard().empty(); }));
  m_server.reset();
  g_dbus_connection_unregister_object(m_shared, other);
  g_dbus_node_info_unref(node);
}

}  // namespace
}  // namespace ondaro::test
