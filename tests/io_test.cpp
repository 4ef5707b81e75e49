#include <csignal>
#include <cstring>
#include <thread>

#include "support.h"

namespace vutil {
namespace {

using std::chrono::nanoseconds;

constexpr size_t UNTOUCHED = 12345;

struct Pipe {
  Pipe() { EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0); }
  ~Pipe() { std::for_each(ends.begin(), ends.end(), xclose); }
  std::array<int, 2> ends{};
  int& out = ends[0];
  int& in = ends[1];
};

class Io : public InFolder {};

TEST_F(Io, EveryCheckReportsItselfAndTouchesNothing) {
  const std::string longest(4095, 'x');
  char byte = 'b';
  iovec entry = {&byte, 1};
  size_t count = UNTOUCHED;
  int fd = static_cast<int>(UNTOUCHED);
  std::string text = "as it was";
  std::ostringstream results;
  const auto lines = lines_of([&] {
    results << read_drain(-1, 1, -1ns) << read_drain(0, 1, -1ns)
            << read_deadline(-1, nullptr, 1, nullptr, -1ns)
            << read_deadline(0, nullptr, 1, nullptr, 0ns)
            << read_deadline(0, nullptr, 0, nullptr, -1ns)
            << read_deadline(0, &byte, 1, &count, -1ns)
            << read_timeout(0, &byte, 1, &count, nanoseconds::min())
            << recvmsg_fd(-1, &entry, -1, &count, nullptr) << recvmsg_fd(0, &entry, -1, &count, &fd)
            << recvmsg_fd(0, &entry, 0, &count, nullptr)
            << recvmsg_fd(0, &entry, 1, &count, nullptr) << write_all(-1, "x", &count)
            << writev_all(-1, &entry, -1, &count) << writev_all(1, &entry, -1, &count)
            << writev_all(1, &entry, 0, &count) << get_file_contents("", text)
            << get_file_contents(longest, text) << set_file_contents("", "x", 0600)
            << set_file_contents(longest, "x", 0600)
            << set_file_contents(longest.substr(3), "x", 0600) << set_file_contents_inplace("", "x")
            << set_file_contents_inplace(longest, "x") << set_blocking(-1, true) << fsync_path("")
            << fsync_path(longest) << rename_fsync("", "") << rename_fsync(longest, "")
            << rename_fsync(longest, longest) << rename_fsync("x", longest);
  });
  EXPECT_EQ(lines, R"(<2>src/io.cpp:83: read_drain: Assertion `fd >= 0' failed.
<2>src/io.cpp:84: read_drain: Assertion `deadline >= 0ns' failed.
<2>src/io.cpp:117: read_deadline: Assertion `fd >= 0' failed.
<2>src/io.cpp:118: read_deadline: Assertion `vbuffer != nullptr || len == 0' failed.
<2>src/io.cpp:119: read_deadline: Assertion `bytes_read_out != nullptr' failed.
<2>src/io.cpp:120: read_deadline: Assertion `deadline >= 0ns' failed.
<2>src/io.cpp:120: read_deadline: Assertion `deadline >= 0ns' failed.
<2>src/io.cpp:164: recvmsg_fd: Assertion `fd >= 0' failed.
<2>src/io.cpp:165: recvmsg_fd: Assertion `iovcnt >= 0' failed.
<2>src/io.cpp:166: recvmsg_fd: Assertion `iovcnt != 0 || iov == nullptr' failed.
<2>src/io.cpp:167: recvmsg_fd: Assertion `result_fd' failed.
<2>src/io.cpp:209: write_all: Assertion `fd >= 0' failed.
<2>src/io.cpp:231: writev_all: Assertion `fd >= 0' failed.
<2>src/io.cpp:232: writev_all: Assertion `iovcnt >= 0' failed.
<2>src/io.cpp:233: writev_all: Assertion `iovcnt != 0 || iov == nullptr' failed.
<2>src/io.cpp:266: get_file_contents: Assertion `!path.empty()' failed.
<2>src/io.cpp:269: get_file_contents: Assertion `to_null_terminated_path(cpath, path)' failed.
<2>src/io.cpp:333: set_file_contents: Assertion `!path.empty()' failed.
<2>src/io.cpp:339: set_file_contents: Assertion `to_null_terminated_path(cpath, path)' failed.
<2>src/io.cpp:345: set_file_contents: Assertion `static_cast<size_t>(tmp_cpath_len) < sizeof(tmp_cpath)' failed.
<2>src/io.cpp:384: set_file_contents_inplace: Assertion `!path.empty()' failed.
<2>src/io.cpp:386: set_file_contents_inplace: Assertion `to_null_terminated_path(cpath, path)' failed.
<2>src/io.cpp:392: set_blocking: Assertion `fd >= 0' failed.
<2>src/io.cpp:409: fsync_path: Assertion `!path.empty()' failed.
<2>src/io.cpp:412: fsync_path: Assertion `to_null_terminated_path(cpath, path)' failed.
<2>src/io.cpp:428: rename_fsync: Assertion `!oldpath.empty()' failed.
<2>src/io.cpp:429: rename_fsync: Assertion `!newpath.empty()' failed.
<2>src/io.cpp:432: rename_fsync: Assertion `to_null_terminated_path(c_oldpath, oldpath)' failed.
<2>src/io.cpp:434: rename_fsync: Assertion `to_null_terminated_path(c_newpath, newpath)' failed.
)");
  // 9 is EBADF, 14 is EFAULT, 22 is EINVAL, 36 is ENAMETOOLONG.
  EXPECT_EQ(results.str(),
            "-9-22-9-14-14-22-22-9-22-22-22-9-9-22-22-22-36-22-36-36-22-36-9-22-36"
            "-22-22-36-36");
  EXPECT_EQ(std::tuple(count, fd, text), std::tuple(UNTOUCHED, UNTOUCHED, "as it was"));
  EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST_F(Io, CloseKeepsErrnoAndReportsOnlyAWrongNumber) {
  const int number = fcntl(0, F_DUPFD_CLOEXEC, 500);  // beyond what the capture of lines uses
  int fd = number;
  const auto line = lines_of([&] {
    for (const int left : {-1, -1, number}) {  // closed, nothing to close, not open
      if (left == number) fd = number;
      errno = EBADF;
      xclose(fd);
      EXPECT_EQ(std::tuple(errno, fd), std::tuple(EBADF, left));
    }
  });
  EXPECT_EQ(line, "<2>src/io.cpp:75: xclose: Assertion `errno != EBADF' failed.\n");
}

TEST_F(Io, BlockingModeChangesAlone) {
  const Pipe pipe;
  ASSERT_EQ(fcntl(pipe.in, F_SETFL, O_APPEND), 0);
  const int flags = fcntl(pipe.in, F_GETFL);
  for (const bool blocking : {false, false, true, true}) {
    EXPECT_EQ(set_blocking(pipe.in, blocking), 0);
    EXPECT_EQ(fcntl(pipe.in, F_GETFL), blocking ? flags : flags | O_NONBLOCK);
  }
}

TEST_F(Io, WritesTellHowFarTheyCameAndGoOnFromThere) {
  Pipe pipe;
  size_t count = UNTOUCHED;
  EXPECT_EQ(write_all(pipe.out, "", &count), 0);
  EXPECT_EQ(std::exchange(count, UNTOUCHED), 0u);
  EXPECT_EQ(write_all(pipe.out, "x", &count), -EBADF);
  EXPECT_EQ(count, 0u);

  std::string text(150'000, ' ');
  for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 23);
  char* const data = text.data();
  iovec iov[] = {{nullptr, 0}, {data, 70'001}, {nullptr, 0}, {data + 70'001, 79'999}, {nullptr, 0}};
  std::string received;
  for (int result = -EAGAIN; result == -EAGAIN;) {
    const auto line = lines_of([&] { result = writev_all(pipe.in, iov, 5, &count); });
    EXPECT_EQ(line, result == 0 ? "" : "<3>writev: Resource temporarily unavailable\n");
    EXPECT_EQ(text.size() - received.size() - count, iov[1].iov_len + iov[3].iov_len);
    std::string part(text.size() + 1, ' ');
    EXPECT_EQ(read_timeout(pipe.out, part.data(), part.size(), &count, 0ns), -ETIMEDOUT);
    received.append(part, 0, count);
  }
  EXPECT_EQ(received, text);
  EXPECT_EQ(write_all(pipe.in, text, &count), -EAGAIN);
  EXPECT_EQ(read_drain(pipe.out, count, 0ns), 0);
  EXPECT_EQ(read_drain(pipe.out, 1, 0ns), -ETIMEDOUT);
}

TEST_F(Io, ReadsEndByTheDeadlineAndTellHowFarTheyCame) {
  constexpr nanoseconds NEVER = nanoseconds::max();
  const std::string much(40'000, 'x');
  // What waits in the pipe, whether its other end is closed, what is wanted, and what comes of it.
  const std::vector<std::tuple<std::string, bool, size_t, nanoseconds, int, size_t>> cases = {
      {"", false, 0, 0ns, 0, 0},
      {"", false, 1, -1ms, -ETIMEDOUT, 0},
      {"four", false, 10, 50ms, -ETIMEDOUT, 4},
      {"four", false, 4, -1ms, 0, 4},
      {"four", false, 3, NEVER, 0, 3},
      {"four", true, 10, NEVER, -ECANCELED, 4},
      {much, false, much.size(), 10s, 0, much.size()}};
  for (const auto& [waiting, closed, wanted, timeout, expected, read] : cases) {
    Pipe pipe;
    ASSERT_EQ(write_all(pipe.in, waiting, nullptr), 0);
    if (closed) xclose(pipe.in);
    std::string data(wanted, ' ');
    void* const buffer = wanted == 0 ? nullptr : data.data();
    size_t count = UNTOUCHED;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(read_timeout(pipe.out, buffer, wanted, &count, timeout), expected);
    EXPECT_TRUE(expected != -ETIMEDOUT || std::chrono::steady_clock::now() - start >= timeout);
    EXPECT_EQ(count, read);
    EXPECT_EQ(data.substr(0, count), waiting.substr(0, count));
  }
  Pipe pipe;
  std::thread writer([&] {
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(write_all(pipe.in, "late data", nullptr), 0);
  });
  EXPECT_EQ(read_drain(pipe.out, 9, NEVER), 0);
  writer.join();
}

// Sends `text` with `fds` copies of standard input.
void send(int socket, std::string text, size_t fds) {
  iovec entry = {text.data(), text.size()};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(10 * sizeof(int))> control = {};
  const size_t used = fds == 0 ? 0 : CMSG_SPACE(fds * sizeof(int));
  const msghdr message = {nullptr, 0, &entry, 1, control.data(), used, 0};
  const cmsghdr header = {CMSG_LEN(fds * sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
  memcpy(control.data(), &header, sizeof(header));
  ASSERT_EQ(sendmsg(socket, &message, 0), static_cast<ssize_t>(text.size()));
}

TEST_F(Io, OneDescriptorIsReceivedAndNoneLeaks) {
  // What is sent, whether credentials arrive in front of the descriptors, and what comes of it.
  const std::vector<std::tuple<int, std::string, size_t, int, int, size_t>> cases = {
      {SOCK_STREAM, "d", 1, 0, 0, 1},
      {SOCK_STREAM, "data", 0, 0, 0, 4},
      {SOCK_STREAM, "d", 10, 0, 0, 1},  // on x86-64 the tenth does not fit
      {SOCK_STREAM, "d", 1, 1, 0, 1},
      {SOCK_STREAM, "d", 4, 1, 0, 1},
      {SOCK_DGRAM, "too long", 3, 0, -EMSGSIZE, 4},
      {SOCK_DGRAM, "", 3, 0, -ECANCELED, UNTOUCHED}};
  for (const auto& [type, text, fds, credentials, expected, received] : cases) {
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, type, 0, ends.data()), 0);
    ASSERT_EQ(setsockopt(ends[0], SOL_SOCKET, SO_PASSCRED, &credentials, sizeof(int)), 0);
    send(ends[1], text, fds);
    const auto open_before = open_descriptors();
    const bool gives_fd = expected == 0 && fds > 0;
    std::array<char, 4> buffer{};
    iovec entry = {buffer.data(), buffer.size()};
    size_t count = UNTOUCHED;
    int fd = static_cast<int>(UNTOUCHED);
    EXPECT_EQ(recvmsg_fd(ends[0], &entry, 1, &count, &fd), expected);
    EXPECT_EQ(std::tuple(count, fd != -1), std::tuple(received, gives_fd)) << text << fds;
    EXPECT_EQ(open_descriptors() - open_before, gives_fd ? 1 : 0) << text << fds;
    EXPECT_TRUE(!gives_fd || fcntl(fd, F_GETFD) == 0) << "not open, or close-on-exec";
    xclose(fd);
    xclose(ends[1]);
    xclose(ends[0]);
  }
}

TEST_F(Io, FilesAreReadAndReplacedWhole) {
  umask(077);
  put("target.tmp", "left over");
  std::string contents = "as it was";
  EXPECT_EQ(lines_of([&] { EXPECT_EQ(get_file_contents("target", contents), -ENOENT); }), "");
  EXPECT_EQ(contents, "as it was");
  for (const unsigned int mode : {0644u, 0u, 0777u, 04711u}) {
    const std::string text(size_t{1000} * mode, 'x');  // longer, shorter or empty
    EXPECT_EQ(lines_of([&] { EXPECT_EQ(set_file_contents("target", text, mode), 0); }), "");
    struct stat status = {};
    ASSERT_EQ(stat("target", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, mode);
    ASSERT_EQ(chmod("target", 0600), 0);
    EXPECT_EQ(get_file_contents("target", contents), 0);
    EXPECT_EQ(contents, text);
    EXPECT_FALSE(exists("target.tmp"));
  }
  put("target", "ten bytes.");
  const std::string_view parts = "target and what follows in the caller's buffer";
  EXPECT_EQ(set_file_contents_inplace(parts.substr(0, 6), "NEW"), 0);
  EXPECT_EQ(rename_fsync(parts.substr(0, 6), folder_ + "/moved"), 0);
  EXPECT_EQ(text_of("moved"), "NEW bytes.");
  for (const char* name : {"moved", ".", "/"}) EXPECT_EQ(fsync_path(name), 0) << name;
}

TEST_F(Io, PathsMayBeAsLongAsTheTemporaryNameAllows) {
  const auto padded = [&](size_t length) {  // the file f in the test's folder
    std::string path = folder_ + ((length - folder_.size()) % 2 == 0 ? "/" : "//");
    while (path.size() + 1 < length) path += "./";
    return path + "f";
  };
  std::string contents;
  EXPECT_EQ(set_file_contents(padded(4090), "new", 0600), 0);
  EXPECT_EQ(get_file_contents(padded(4094), contents), 0);
  EXPECT_EQ(contents, "new");
  const auto path = padded(4091);
  EXPECT_EQ(
      lines_of([&] { EXPECT_EQ(set_file_contents(path, "", 0600), -ENAMETOOLONG); }),
      "<2>src/io.cpp:432: rename_fsync: Assertion `to_null_terminated_path(c_oldpath, oldpath)'"
      " failed.\n<3>Failed to rename '" +
          path + ".tmp' -> '" + path + "': File name too long\n");
  EXPECT_EQ(text_of("f") + text_of("f.tmp"), "new");
}

}  // namespace
}  // namespace vutil
