// usage-stat-uplink as a person, root and a stranger use it, on real files.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "fleet/consent/device.h"
#include "fleet/consent/policy.h"
#include "fleet/consent/state.h"
#include "tests/support/device_root.h"
#include "tests/support/files.h"
#include "tests/support/run_program.h"
#include "tools/records/record.h"

namespace velmora::usage_stat::consent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using usage_stat_test::ProgramResult;
using usage_stat_test::ReadFile;
using usage_stat_test::RunProgram;
using usage_stat_test::TempFolder;

constexpr const char* kPolicy = SOURCE_DIR "/fleet/consent/policy.json";
constexpr uid_t kUplinkUser = 65534;

class ConsentCommandTest : public testing::Test {
 protected:
  std::vector<std::string> Words(const std::vector<std::string>& words) const {
    std::vector<std::string> all = {UPLINK_COMMAND};
    all.insert(all.end(), words.begin(), words.end());
    all.insert(all.end(), {"--state", folder_.path(), "--database", folder_ / "records.db",
                           "--policy", kPolicy});
    return all;
  }
  ProgramResult Run(const std::vector<std::string>& words) { return RunProgram(Words(words)); }

  usage_stat_test::DeviceRoot root_;
  TempFolder folder_;
};

TEST_F(ConsentCommandTest, WithoutConsentNothingIsWrittenAndNoSocketOpened) {
  if (std::string(STRACE).empty()) GTEST_SKIP() << "needs strace, on the machine itself";
  const TempFolder beside;
  const std::string log = beside / "strace";
  const std::string config = beside / "uplink.conf";
  usage_stat_test::WriteFile(config, "host=127.0.0.1\n");
  // As on a device, where root acts as the uplink's user: looking that user up may ask the
  // machine's own cache of names, which is nobody's business but the machine's.
  if (geteuid() == 0) {
    ASSERT_EQ(chown(folder_.path().c_str(), kUplinkUser, kUplinkUser), 0);
  }
  std::filesystem::permissions(beside.path(), std::filesystem::perms(0755));
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"status"},
                                             {"consent"},
                                             {"consent", "none"},
                                             {"forget"},
                                             {"preview"},
                                             {"send", "--config", config},
                                             {"send", "--now", "--config", config}}) {
    // A sanitizer can't look for leaks in a program that is traced.
    std::vector<std::string> words = {STRACE, "-E", "ASAN_OPTIONS=detect_leaks=0", "-f", "-o",
                                      log,    "-e", "trace=%file,%network,write"};
    const std::vector<std::string> traced = Words(command);
    words.insert(words.end(), traced.begin(), traced.end());
    const ProgramResult result = RunProgram(words);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    std::string calls;
    std::istringstream lines(ReadFile(log));
    for (std::string line; std::getline(lines, line);) {
      const bool is_for_name = line.find("socket(AF_UNIX, SOCK_STREAM") != std::string::npos ||
                               line.find("/nscd/socket") != std::string::npos;
      if (!is_for_name) calls += line + "\n";
    }
    ASSERT_THAT(calls, HasSubstr("execve"));
    EXPECT_FALSE(std::regex_search(calls, std::regex("O_WRONLY|O_RDWR|O_CREAT|socket\\(|connect\\(|"
                                                     "mkdir|rename|unlink")))
        << calls;
    std::filesystem::remove(log);
    EXPECT_TRUE(std::filesystem::is_empty(folder_.path()));
  }
}

TEST_F(ConsentCommandTest, ConsentIsGivenShownTakenAndForgotten) {
  EXPECT_THAT(Run({"status"}).out, HasSubstr("consent     none: nothing leaves this device"));
  const ProgramResult given = Run({"consent", "basic"});
  EXPECT_EQ(given.exit_code, 0) << given.err;
  EXPECT_THAT(given.out, HasSubstr("basic: from the next record on"));
  EXPECT_THAT(given.out, HasSubstr("no closer than the full hour"));
  EXPECT_THAT(given.out, Not(HasSubstr("ATTENTION")));
  EXPECT_THAT(Run({"status"}).out, HasSubstr("consent     basic, since "));
  root_.Write(usage_stat_test::kGlobalConfig, "statistics_enabled=0\n");
  EXPECT_THAT(Run({"status"}).out, HasSubstr("statistics  off: nothing leaves"));
  EXPECT_THAT(Run({"consent", "none"}).out, HasSubstr("The fleet still holds what it has"));
  EXPECT_THAT(Run({"forget"}).out, HasSubstr("Nothing more leaves but the request"));
  EXPECT_THAT(Run({"status"}).out, HasSubstr("forgetting"));
  const ProgramResult refused = Run({"consent", "full"});
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_THAT(refused.err, HasSubstr("is being forgotten"));
}

TEST_F(ConsentCommandTest, APolicyThatIsNoneChangesNothing) {
  usage_stat_test::WriteFile(folder_ / "policy.json", R"({"version":1,"levels":{}})");
  std::vector<std::string> words = Words({"consent", "basic"});
  words.back() = folder_ / "policy.json";
  const ProgramResult refused = RunProgram(words);
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_THAT(refused.err, HasSubstr("levels: basic is missing"));
  EXPECT_FALSE(std::filesystem::exists(StatePath(folder_.path())));
}

TEST_F(ConsentCommandTest, RootActsAsTheUplinksUserAndAStrangerIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  if (!usage_stat_test::IsReachedByAll(UPLINK_COMMAND)) {
    GTEST_SKIP() << "the tree lies where others cannot go";
  }
  ASSERT_EQ(chown(folder_.path().c_str(), kUplinkUser, kUplinkUser), 0);
  const ProgramResult given = Run({"consent", "full"});
  ASSERT_EQ(given.exit_code, 0) << given.err;
  struct stat file {};
  ASSERT_EQ(stat(StatePath(folder_.path()).c_str(), &file), 0);
  EXPECT_EQ(file.st_uid, kUplinkUser);
  EXPECT_EQ(file.st_mode & 0777, 0600U);
  std::vector<std::string> words = {"/usr/bin/setpriv", "--reuid=12345", "--clear-groups"};
  for (const std::string& word : Words({"consent", "none"})) words.push_back(word);
  std::filesystem::permissions(folder_.path(), std::filesystem::perms(0777));
  const ProgramResult refused = RunProgram(words);
  EXPECT_EQ(refused.exit_code, 1) << refused.out;
  EXPECT_THAT(refused.err, HasSubstr("and root may do this"));
  std::unique_ptr<State> state;
  ASSERT_TRUE(State::Open(StatePath(folder_.path()), State::Mode::kRead, &state).ok());
  EXPECT_EQ(state->level(), Level::kFull);
}

// ---- What is stated in more than one place ----

TEST(PrivacyPageTest, TablesAreThoseOfTheDictionaryAndTheShippedPolicy) {
  const std::string page = ReadFile(SOURCE_DIR "/docs/privacy.md");
  const std::string mark = "<!-- generated -->\n";
  ASSERT_NE(page.find(mark), std::string::npos);
  EXPECT_EQ(page.substr(page.find(mark) + mark.size()),
            RunProgram({UPLINK_COMMAND, "policy", kPolicy, "-o", "markdown"}).out)
      << "docs/privacy.md is not current: make privacy";
}

TEST(PolicySchemaTest, KnowsTheWordsOfTheProgram) {
  const auto json = records::Json::parse(ReadFile(SOURCE_DIR "/fleet/consent/policy.schema.json"));
  std::vector<std::string> actions;
  for (const Action action : {Action::kKeep, Action::kDrop, Action::kCoarsen, Action::kPseudonym}) {
    actions.emplace_back(NameOf(action));
  }
  EXPECT_EQ(json["$defs"]["action"]["enum"], records::Json(actions));
  const auto& sensitivity = json["$defs"]["level"]["properties"]["sensitivity"];
  std::vector<std::string> sensitivities;
  for (const Sensitivity value : records::kSensitivities) {
    sensitivities.emplace_back(records::NameOf(value));
    EXPECT_TRUE(sensitivity["properties"].contains(sensitivities.back()));
  }
  EXPECT_EQ(sensitivity["required"], records::Json(sensitivities));
}

}  // namespace
}  // namespace velmora::usage_stat::consent
