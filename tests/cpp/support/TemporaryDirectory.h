#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace FullWaveform::Testing {

/// A new directory, removed with its contents by the destructor.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "fullwaveform-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
      throw std::filesystem::filesystem_error("no temporary directory", name, std::error_code());
    }
    created = name;
  }
  TemporaryDirectory(TemporaryDirectory const&) = delete;
  TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(created, ignored);
  }

  [[nodiscard]] std::filesystem::path const& path() const { return created; }

 private:
  std::filesystem::path created;
};

/// The bytes of a file; "" if it does not exist.
inline std::string contentOf(std::filesystem::path const& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

}  // namespace FullWaveform::Testing
