// What all tests share: a folder of their own, and what the library leaves on standard error.
#ifndef VUTIL_TESTS_SUPPORT_H_
#define VUTIL_TESTS_SUPPORT_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "vutil/io.h"
#include "vutil/keyfile.h"

namespace vutil {

using std::filesystem::exists;
using namespace std::chrono_literals;

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
  return (std::ostringstream() << std::ifstream(path).rdbuf()).str();
}

// What `call` writes to standard error.
inline std::string lines_of(const std::function<void()>& call) {
  testing::internal::CaptureStderr();
  call();
  return testing::internal::GetCapturedStderr();
}

}  // namespace vutil

#endif  // VUTIL_TESTS_SUPPORT_H_
