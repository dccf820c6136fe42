#include "support/TempDir.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace RetraTest {

TempDir::TempDir(const std::string& prefix) {
  const char* base = ::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/" + prefix + "-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data()) == nullptr) {
    throw std::runtime_error("cannot create a temporary directory from " + pattern);
  }
  path_ = buffer.data();
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& contents) const {
  std::string file = path(name);
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << contents;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + file);
  return file;
}

std::string TempDir::read(const std::string& name) const {
  std::ifstream in(path(name), std::ios::binary);
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
}

}  // namespace RetraTest
