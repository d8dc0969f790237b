// zantrelctl check as a field engineer runs it: finds, mends, then finds none.
#include <gtest/gtest.h>

#include <string>

#include "table_test_util.h"

namespace zantrel::test {
namespace {

TEST_F(TableTest, CheckToolReportsMendsAndRefusesBadUsage) {
  for (int h : {make(5), make(3)}) ASSERT_EQ(overlay_table_add_overlay_globally(table_, h), 0);
  table_->global_handles[2] = table_->global_handles[1];  // a removal's doubled member
  overlay_table_unlock(table_);
  const struct {
    const char* arguments;
    int status;
    const char* says;
  } runs[] = {
      {"--json", 1, "\"kind\": \"duplicate_member\""},
      {"--repair", 1, "global set, place 3: lists overlay 2 a second time"},
      {"", 0, "The overlay tables are sound."},
      {"--json --fix", 2, "unknown argument '--fix'"},
  };
  for (const auto& run : runs) {
    int status = -1;
    const std::string text =
        command_output(std::string(ZANTRELCTL) + " check " + run.arguments + " 2>&1", &status);
    EXPECT_EQ(status, run.status) << run.arguments;
    EXPECT_NE(text.find(run.says), std::string::npos) << run.arguments << ": " << text;
  }
}

}  // namespace
}  // namespace zantrel::test
