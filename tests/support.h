// What all tests share: a folder of their own, and what the library leaves on standard error.
#ifndef VUTIL_TESTS_SUPPORT_H_
#define VUTIL_TESTS_SUPPORT_H_

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

// Each test runs in a new folder in memory, and fails if it leaves a descriptor open.
class InFolder : public testing::Test {
 protected:
  InFolder() {
    std::filesystem::current_path(mkdtemp(folder_.data()));
    open_before_ = open_descriptors();
  }
  ~InFolder() override {
    EXPECT_EQ(open_descriptors(), open_before_) << "descriptors leaked or closed";
    std::filesystem::current_path("/");
    std::filesystem::remove_all(folder_);
  }
  static std::ptrdiff_t open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  }
  std::string folder_ = "/dev/shm/vutilXXXXXX";
  std::ptrdiff_t open_before_ = 0;
};

inline void put(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

inline std::string text_of(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// What `call` writes to standard error.
template <typename Call>
std::string lines_of(Call call) {
  testing::internal::CaptureStderr();
  call();
  return testing::internal::GetCapturedStderr();
}

#endif  // VUTIL_TESTS_SUPPORT_H_
