#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "corvane/corvane.h"
#include "tests/support/child.h"
#include "tests/support/device_root.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using usage_stat_test::Child;
using usage_stat_test::DeviceRoot;
using usage_stat_test::kGlobalConfig;
using usage_stat_test::StderrCapture;

TEST(Config, AnswersWithWhatTheFileSays) {
  struct Case {
    std::string file;
    const char* text;  // of "k", or its default
    int number;        // of "k", or its default
  };
  const std::string longest = "k=" + std::string(197, '7');
  const Case cases[] = {
      {"", "none", -7},
      {"k=12", "12", 12},
      {"k=12\r\n", "12", 12},
      {"\xEF\xBB\xBFk=12\n", "12", 12},
      {"  k\t= 12 \n", "12", 12},
      {"other=3\n  k=4\n", "4", 4},  // an indented line is a line of its own
      {"k=1\nk=2\n", "2", 2},
      {"k=\n", "", -7},
      {"K=1\n", "none", -7},
      {"# k=1\n;k=2\n", "none", -7},
      {"k=1 ; one\n", "1", 1},
      {"k=1 # one\n", "1 # one", -7},
      {"k=\"1\"\n", "\"1\"", -7},
      {"k: a=b\n", "a=b", -7},
      {"k=a=b\n", "a=b", -7},
      {"[s]\nk=1\n", "none", -7},
      {"k\n=\n=1\nnonsense\n[\nk=5", "5", 5},
      {"k=-2147483648", "-2147483648", -2147483647 - 1},
      {"k=2147483648", "2147483648", -7},
      {"k=0x10", "0x10", -7},
      {"k=1.5", "1.5", -7},
      {std::string("\0\0k=1\nk=2\0x\n", 13), "2", 2},
      {longest, longest.c_str() + 2, -7},
      {longest + "7\n", "none", -7},  // too long: ignored as a whole, tail included
      {std::string(198, ' ') + "k=1\n", "1", 1},
      {std::string(300, 'x') + "k=1\n", "none", -7},
  };
  const DeviceRoot root;
  const StderrCapture quiet;
  for (const Case& each : cases) {
    SCOPED_TRACE(each.file);
    root.Write("/a/b.cfg", each.file);
    CorvaneConfig* config = OpenConfig("/a/b.cfg", 0);
    EXPECT_STREQ(ReadString(config, "k", "none"), each.text);
    EXPECT_EQ(ReadInt(config, "k", -7), each.number);
    CloseConfigNoSave(config);
  }
}

TEST(Config, AFileThatCantBeReadIsEmptyAtOnce) {
  const DeviceRoot root;
  std::filesystem::create_directories(root.HostPath("/folder/x"));
  ASSERT_EQ(mkfifo(root.HostPath("/fifo").c_str(), 0600), 0);
  root.Write("/huge", "k=1\n");
  std::filesystem::resize_file(root.HostPath("/huge"), (1 << 20) + 1);
  std::filesystem::create_symlink("loop", root.HostPath("/loop"));
  struct Case {
    const char* path;
    const char* logged;
  };
  for (const auto& [path, logged] :
       {Case{"/folder", "Is a directory"}, Case{"/fifo", "Operation not supported"},
        Case{"/huge", "File too large"}, Case{"/loop", "Too many levels of symbolic links"}}) {
    StderrCapture capture;
    CorvaneConfig* config = OpenConfig(path, 0);
    EXPECT_STREQ(ReadString(config, "k", "none"), "none");
    EXPECT_THAT(capture.Writes(), ElementsAre(HasSubstr(logged)));
    CloseConfigNoSave(config);
  }
  StderrCapture capture;
  CloseConfigNoSave(OpenConfig("/missing", 0));
  CloseConfigNoSave(OpenConfig("/huge/below", 0));
  root.Write("/largest", "k=1\n" + std::string((1 << 20) - 4, '\n'));
  CorvaneConfig* config = OpenConfig("/largest", 0);
  EXPECT_EQ(ReadInt(config, "k", 0), 1);
  CloseConfigNoSave(config);
  EXPECT_THAT(capture.Writes(), IsEmpty());
}

TEST(Config, NullsAnswerWithDefaults) {
  EXPECT_EQ(OpenConfig(nullptr, 0), nullptr);
  EXPECT_EQ(OpenConfig("/a", 1), nullptr);
  RefreshConfig(nullptr);
  CloseConfigNoSave(nullptr);
  EXPECT_EQ(ReadString(nullptr, "k", nullptr), nullptr);
  EXPECT_EQ(ReadInt(nullptr, "k", 3), 3);
  EXPECT_STREQ(ReadString(g_corvane.global_config, nullptr, "none"), "none");
  EXPECT_EQ(ReadInt(g_corvane.global_config, nullptr, 3), 3);
}

TEST(Config, IsReadAgainOnlyWhenRefreshed) {
  const DeviceRoot root;
  root.Write(kGlobalConfig, "language=de\n");
  RefreshConfig(g_corvane.global_config);
  CorvaneConfig* config = OpenConfig(kGlobalConfig, 0);
  root.Write(kGlobalConfig, "language=fr\n");
  for (CorvaneConfig* each : {config, g_corvane.global_config}) {
    const char* language = ReadString(each, "language", "??");
    EXPECT_STREQ(language, "de");
    EXPECT_EQ(ReadString(each, "language", "??"), language) << "the text moved without a refresh";
    RefreshConfig(each);
    EXPECT_STREQ(ReadString(each, "language", "??"), "fr");
  }
  CloseConfigNoSave(config);
  CloseConfigNoSave(g_corvane.global_config);  // refused: it belongs to the platform
  EXPECT_STREQ(ReadString(g_corvane.global_config, "language", "??"), "fr");
}

TEST(Config, ThreadsMayShareOne) {
  const DeviceRoot root;
  root.Write(kGlobalConfig, "number=5\n");
  RefreshConfig(g_corvane.global_config);
  std::atomic<bool> has_ended = false;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      do {
        RefreshConfig(g_corvane.global_config);
        EXPECT_EQ(ReadInt(g_corvane.global_config, "number", 0), 5);
        usleep(100);  // a lock that is taken again at once keeps others waiting on a busy machine
      } while (!has_ended);
    });
  }
  // So may the child of a fork, whatever the threads that it does not have were about.
  for (int i = 0; i < 50 && !HasFailure(); ++i) {
    Child child([] {
      alarm(30);
      RefreshConfig(g_corvane.global_config);
      return ReadInt(g_corvane.global_config, "number", 0);
    });
    EXPECT_EQ(child.Wait(), 5);
  }
  has_ended = true;
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
