#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <stdlib.h>
#include <string>
#include <string_view>

namespace support {

/// A fresh directory, removed with everything below it at the end of its scope.
class TemporaryDirectory {
public:
  explicit TemporaryDirectory(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
    std::string pattern = (parent / "tolvane-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data()))
      throw std::runtime_error("cannot make a directory in " + parent.string());
    _path = std::filesystem::canonical(pattern).string();
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return _path; }
  std::string operator/(std::string_view name) const { return _path + "/" + std::string(name); }

  /// Writes a file below the directory, making its parents; answers its path.
  std::string write(std::string_view name, std::string_view content) const {
    const std::filesystem::path file = *this / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary | std::ios::trunc)
        .write(content.data(), static_cast<std::streamsize>(content.size()));
    return file.string();
  }

private:
  std::string _path;
};

/// The bytes of a file; empty when it cannot be read.
inline std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace support
