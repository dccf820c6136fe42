#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

TEST(TempDirTest, HoldsFilesAndIsRemovedWithThemAtDestruction) {
  std::string path;
  {
    RetraTest::TempDir first("retra-check");
    RetraTest::TempDir second("retra-check");
    path = first.path();
    EXPECT_NE(first.path(), second.path());
    EXPECT_TRUE(std::filesystem::is_directory(path));
    EXPECT_NE(path.find("retra-check-"), std::string::npos);
    std::filesystem::create_directories(first.path("nested/deeper"));
    EXPECT_EQ(first.write("nested/deeper/file.txt", "contents"), path + "/nested/deeper/file.txt");
    EXPECT_EQ(first.read("nested/deeper/file.txt"), "contents");
    first.write("nested/deeper/file.txt", "new");
    EXPECT_EQ(first.read("nested/deeper/file.txt"), "new");
    EXPECT_EQ(first.read("missing"), "");
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
