#pragma once

#include <string>

namespace RetraTest {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it when the object is
// destroyed. Servers started by tests keep their configuration, logs and content in one.
//
//   RetraTest::TempDir dir;
//   dir.write("hello.txt", "hi");
//   std::string path = dir.path("hello.txt");  // "/tmp/retra-XXXXXX/hello.txt"
class TempDir {
 public:
  // Creates the directory; throws std::runtime_error when it cannot.
  explicit TempDir(const std::string& prefix = "retra");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // The directory itself, or `name` inside it.
  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string path(const std::string& name) const { return path_ + "/" + name; }

  // Writes `contents` to `name` inside the directory (replacing it) and returns its path.
  std::string write(const std::string& name, const std::string& contents) const;
  // The contents of `name` inside the directory; empty when it cannot be read.
  [[nodiscard]] std::string read(const std::string& name) const;

 private:
  std::string path_;
};

}  // namespace RetraTest
