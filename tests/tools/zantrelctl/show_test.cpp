// zantrelctl show: the tables of a small scene as JSON and as text.
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>

#include "api_test_util.h"
#include "test_support.h"

namespace {

std::string zantrelctl(const std::string& arguments, int* status) {
  return zantrel::test::command_output(std::string(ZANTRELCTL) + " " + arguments, status);
}

TEST(ZantrelctlShow, DescribesASmallScene) {
  ASSERT_EQ(camsim_reset(), 0);
  ASSERT_GT(overlay_init(0), 0);
  overlay ovl = api_test::plain(64, 32, 5);
  ovl.position = {0.25F, 0.5F, 1, 1, OVERLAY_COORDS_NORMALIZED};
  int handle = overlay_create(&ovl);
  ASSERT_EQ(overlay_add_globally(handle), 0);
  ASSERT_EQ(overlay_add_to_channel(handle, 2), 0);
  ASSERT_EQ(overlay_add_to_stream(handle, 0, 3), 0);
  overlay_palette_color color{0xFF, 0x12, 0x34, 0x56, 1};
  ASSERT_EQ(overlay_palette_set_color(&color, 15), 0);

  int status = 0;
  const nlohmann::json state = nlohmann::json::parse(zantrelctl("show --json", &status));
  ASSERT_EQ(status, 0);
  EXPECT_EQ(state["version"], 4);
  ASSERT_EQ(state["entries"].size(), 1U);
  const nlohmann::json& entry = state["entries"][0];
  const nlohmann::json fields = {
      {"handle", handle}, {"type_name", "plain"}, {"width", 64}, {"priority", 5}};
  for (const auto& [key, value] : fields.items()) EXPECT_EQ(entry[key], value) << key;
  EXPECT_EQ(entry["position"]["normalized"], true);
  EXPECT_EQ(state["global"], nlohmann::json::array({handle}));
  EXPECT_EQ(state["channels"]["2"], nlohmann::json::array({handle}));
  ASSERT_EQ(state["streams"].size(), 1U);
  EXPECT_EQ(state["streams"][0]["stream"], 3);
  EXPECT_EQ(state["streams"][0]["version"], 1);
  EXPECT_EQ(state["palette"][15]["argb"], "0xFF123456");

  // The same scene as text, line by line.
  const std::string text = zantrelctl("show", &status);
  EXPECT_EQ(status, 0);
  std::istringstream lines(text);
  std::set<std::string> printed;
  for (std::string line; std::getline(lines, line);) printed.insert(line);
  const std::string kernel_id = std::to_string(entry["kernel_id"].get<int>());
  for (const std::string& line : {
           std::string("main table version 4"),
           "  handle 1: plain, kernel id " + kernel_id +
               ", 64x32, priority 5, ignore-stream-filter 0, legacy 0, position 0.25,0.5 "
               "(normalized), visible 1x1",
           std::string("  global: 1"),
           std::string("  source: -"),
           std::string("  channel 2: 1"),
           std::string("  stream 3: version 1, 1"),
           std::string("  15: 0xFF123456 (flag)"),
       }) {
    EXPECT_TRUE(printed.count(line)) << "'" << line << "' not in:\n" << text;
  }
  EXPECT_EQ(
      std::ranges::count_if(
          printed, [](const std::string& l) { return l.find("channel ") != std::string::npos; }),
      1)
      << "only channel 2 holds overlays";
  EXPECT_EQ(overlay_deinit(), 0);
}

}  // namespace
