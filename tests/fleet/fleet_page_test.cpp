// What a fleet's page tells, and about how few it tells nothing.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <numeric>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "fleet/lake/cells.h"
#include "fleet/lake/fleet_summary.h"

namespace velmora::usage_stat::fleet {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string Told(std::vector<std::int64_t> counts) {
  std::vector<Cell> parts;
  for (const std::int64_t count : counts) {
    parts.push_back({std::string(1, static_cast<char>('a' + parts.size())), count});
  }
  std::string text;
  for (const Cell& cell : TellParts(parts)) {
    text += (text.empty() ? "" : " ") + cell.name + std::to_string(cell.devices);
  }
  return text;
}

TEST(CellsTest, PartsAboutFewShareOneWithAsManyOthersAsItTakes) {
  const struct {
    std::vector<std::int64_t> counts;
    const char* told;
  } kCases[] = {
      {{}, ""},
      {{19}, ""},
      {{20}, "a20"},
      {{20, 19}, "other39"},
      {{50, 20, 19}, "a50 other39"},
      {{50, 20, 12, 8}, "a50 b20 other20"},
      {{50, 30, 1}, "a50 other31"},
      {{100, 50, 19, 19}, "a100 b50 other38"},
      {{5, 5, 5}, ""},
      {{20, 20}, "a20 b20"},
  };
  for (const auto& c : kCases) EXPECT_EQ(Told(c.counts), c.told);
  EXPECT_EQ(TellShare(19, 100), Share::kFew);
  EXPECT_EQ(TellShare(20, 100), Share::kTold);
  EXPECT_EQ(TellShare(80, 100), Share::kTold);
  EXPECT_EQ(TellShare(81, 100), Share::kNearlyAll);
  EXPECT_EQ(TellShare(19, 19), Share::kNothing);
}

TEST(CellsTest, NoPartOfFewCanBeFoundByEveryOtherNumber) {
  std::mt19937 random(std::random_device{}());
  for (int round = 0; round < 1000; ++round) {
    std::vector<std::int64_t> counts(random() % 8);
    for (std::int64_t& count : counts) count = static_cast<std::int64_t>(random() % 60 + 1);
    std::vector<Cell> parts;
    for (const std::int64_t count : counts) parts.push_back({std::to_string(count), count});
    std::int64_t told = 0;
    for (const Cell& cell : TellParts(parts)) {
      EXPECT_GE(cell.devices, kLeastDevices);
      told += cell.devices;
    }
    const std::int64_t all = std::accumulate(counts.begin(), counts.end(), std::int64_t{0});
    EXPECT_TRUE(told == all || (told == 0 && all < kLeastDevices))
        << testing::PrintToString(counts);
  }
}

constexpr report::Day kMonday = 20'584;  // 11 May 2026

// A fleet of `devices` of which all read in one week, and `some` of which did everything else.
FleetSummary Fleet(std::int64_t devices, std::int64_t some) {
  FleetSummary summary;
  summary.days = {kMonday, kMonday + 13};
  summary.records = 5555;
  summary.devices = devices;
  summary.active_by_day = {{kMonday, some}};
  summary.active_by_week = {{kMonday, devices}, {kMonday + 7, some}};
  summary.reading = {{kMonday, {devices, some, {61000, 62000, 63000}, {71, 72, 73}}}};
  summary.cohorts = {{kMonday, {devices, some}}};
  summary.versions = {{"version-a", devices - some}, {"version-b", some}};
  summary.models = {{"model-a", devices - some}, {"model-b", some}};
  summary.settings = {{"setting", {{"set-a", devices - some}, {"set-b", some}}}};
  summary.applications = {{"app-a", some, 888}};
  summary.losses = {{"loss-a", 666, some}};
  summary.ingestion = {{"stored", devices, 5555}, {"forked", some, 777}};
  return summary;
}

TEST(FleetPageTest, NineteenDevicesShowNoCellAndTwentyDo) {
  const std::vector<const char*> cells = {"version-b", "model-b", "set-b", "app-a", "loss-a",
                                          "777",       "888",     "666",   "1 min"};
  // What people read of it, and what its charts are drawn from.
  const auto page_of = [](std::int64_t devices, std::int64_t some) {
    const std::string page = RenderFleetPage(Fleet(devices, some));
    const std::size_t begin = page.find("<main");
    return page.substr(begin, page.find("<script>", begin) - begin);
  };
  const std::string shown = page_of(100, 20);
  const std::string hidden = page_of(100, 19);
  for (const char* cell : cells) {
    EXPECT_THAT(shown, HasSubstr(cell));
    EXPECT_THAT(hidden, Not(HasSubstr(cell)));
  }
  // A bar has to have a length where its table says no number.
  EXPECT_THAT(shown, Not(HasSubstr("100 % stands for")));
  EXPECT_THAT(page_of(100, 81), HasSubstr("100 % stands for nearly all"));
  const std::string nothing = page_of(19, 19);
  EXPECT_THAT(nothing, HasSubstr("Fewer than 20 devices"));
  for (const char* cell :
       {"version-", "model-", "set-", "app-", "loss-", "5555", "<canvas", ">19<"})
    EXPECT_THAT(nothing, Not(HasSubstr(cell)));
}

// The rows of the table of retention, without the week.
std::vector<std::string> Retention(const FleetSummary& summary) {
  std::string page = RenderFleetPage(summary);
  page = page.substr(page.find("Retention by week"));
  page = page.substr(0, page.find("</table>"));
  std::vector<std::string> rows;
  const std::regex row("<tr>(.*?)</tr>");
  page = std::regex_replace(page, std::regex("\n"), "");
  for (std::sregex_iterator match(page.begin(), page.end(), row), end; match != end; ++match) {
    std::string text = std::regex_replace((*match)[1].str(), std::regex("<[^>]*>"), " ");
    if (text.find("week of") == std::string::npos) continue;
    text = std::regex_replace(text, std::regex(" *week of [0-9]* [A-Za-z]* [0-9]* *"), "");
    text = std::regex_replace(text, std::regex(" +"), " ");
    rows.push_back(text.substr(0, text.find_last_not_of(' ') + 1));
  }
  return rows;
}

TEST(FleetPageTest, CohortsOfFewCanNotBeFoundByTheOthers) {
  FleetSummary summary = Fleet(100, 50);
  summary.days = {kMonday, kMonday + 27};
  const auto with = [&](const std::map<report::Day, std::vector<std::int64_t>>& cohorts) {
    summary.cohorts = cohorts;
    summary.devices = 0;
    for (const auto& [week, active] : cohorts) summary.devices += active[0];
    return Retention(summary);
  };
  using testing::ElementsAre;
  // Large ones are told; the sum of a week's cells is what is told elsewhere.
  EXPECT_THAT(with({{kMonday, {100, 60, 50, 40}}, {kMonday + 7, {80, 40, 30}}}),
              ElementsAre(testing::StartsWith("100 60"), testing::StartsWith("80 50")));
  // Nineteen of the second week could be found by subtracting all others.
  EXPECT_THAT(
      with({{kMonday, {100, 60, 50, 40}}, {kMonday + 7, {19, 10, 9}}, {kMonday + 14, {40, 30}}}),
      ElementsAre(testing::StartsWith("100")));
  // So could a few who came back in a week.
  const auto rows = with({{kMonday, {100, 60, 50, 40}}, {kMonday + 7, {80, 40, 3}}});
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_THAT(rows[0], testing::EndsWith("–"));
  EXPECT_THAT(rows[1], testing::HasSubstr("few"));
}

}  // namespace
}  // namespace velmora::usage_stat::fleet
