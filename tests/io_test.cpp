#include "support.h"

namespace vutil {
namespace {

// The messages of a call, then "0" or the name of its error.
std::string outcome_of(const std::function<int()>& run) {
  int result = 0;
  const std::string messages = messages_of([&] { result = run(); });
  return messages + (result == 0 ? "0" : strerrorname_np(-result));
}

class Io : public InDirectory {
 protected:
  // Lets each system call of an operation fail in turn, and compares a line for each: the call, the
  // result, how many calls are made, and what is left; then the messages. In the last none fails.
  void expect_transcript(const std::function<int()>& run, const char* expected) {
    for (const int error : {EIO, EINTR, EAGAIN, EINVAL, EACCES, ENOTDIR, EROFS, ENOSPC}) {
      std::string transcript = "\n";
      left_();
      Texts calls;
      for (size_t nth = 1; nth <= calls.size() + 1; ++nth) {
        int result = 0;
        const auto messages = messages_of([&] {
          errno = EDOM;
          calls = calls_of([&] { result = run(); }, {nth, error, {}, at_most_});
        });
        transcript += (nth <= calls.size() ? calls[nth - 1] : "no failure") + ": " +
                      (result == -error ? "ERROR" : std::to_string(result)) + ", " +
                      std::to_string(calls.size()) + " calls" + left_() + "\n" + messages;
      }
      const std::string text = strerror(error);
      for (size_t at = 0; (at = transcript.find(text, at)) != std::string::npos;)
        transcript.replace(at, text.size(), "ERROR");
      EXPECT_EQ(transcript, expected) << text;
    }
  }

  std::function<std::string()> left_ = [] { return ""; };  // tells, and restores what was before
  size_t at_most_ = SIZE_MAX;                              // bytes for each call to read or write
  size_t count_ = 77;
};

#define BREAKS(line, condition, error, function, ...)          \
  EXPECT_EQ(outcome_of([&] { return function(__VA_ARGS__); }), \
            "<2>src/io.cpp:" #line ": " #function ": Assertion `" #condition "' failed.\n" #error)

TEST_F(Io, EveryCheckReportsItselfAndTouchesNothing) {
  const std::string xs(4095, 'x');
  char byte = 'b';
  iovec iov = {&byte, 1};
  int fd = 77;
  std::string text = "as it was";
  const Texts calls = calls_of([&] {
    BREAKS(83, fd >= 0, EBADF, read_drain, -1, 1, -1ns);
    BREAKS(84, deadline >= 0ns, EINVAL, read_drain, 0, 1, -1ns);
    BREAKS(117, fd >= 0, EBADF, read_deadline, -1, nullptr, 1, nullptr, -1ns);
    BREAKS(118, vbuffer != nullptr || len == 0, EFAULT, read_deadline, 0, nullptr, 1, nullptr,
           -1ns);
    BREAKS(119, bytes_read_out != nullptr, EFAULT, read_deadline, 0, nullptr, 0, nullptr, -1ns);
    BREAKS(120, deadline >= 0ns, EINVAL, read_deadline, 0, &byte, 1, &count_, -1ns);
    BREAKS(164, fd >= 0, EBADF, recvmsg_fd, -1, &iov, -1, &count_, nullptr);
    BREAKS(165, iovcnt >= 0, EINVAL, recvmsg_fd, 0, nullptr, -1, &count_, nullptr);
    BREAKS(166, iovcnt != 0 || iov == nullptr, EINVAL, recvmsg_fd, 0, &iov, 0, &count_, &fd);
    BREAKS(167, result_fd, EINVAL, recvmsg_fd, 0, &iov, 1, &count_, nullptr);
    BREAKS(209, fd >= 0, EBADF, write_all, -1, "x", &count_);
    BREAKS(231, fd >= 0, EBADF, writev_all, -1, &iov, -1, &count_);
    BREAKS(232, iovcnt >= 0, EINVAL, writev_all, 0, nullptr, -1, &count_);
    BREAKS(233, iovcnt != 0 || iov == nullptr, EINVAL, writev_all, 0, &iov, 0, &count_);
    BREAKS(266, !path.empty(), EINVAL, get_file_contents, "", text);
    BREAKS(269, to_null_terminated_path(cpath, path), ENAMETOOLONG, get_file_contents, xs, text);
    BREAKS(333, !path.empty(), EINVAL, set_file_contents, "", "x", 0600);
    BREAKS(339, to_null_terminated_path(cpath, path), ENAMETOOLONG, set_file_contents, xs, "", 0);
    BREAKS(345, static_cast<size_t>(tmp_cpath_len) < sizeof(tmp_cpath), ENAMETOOLONG,
           set_file_contents, xs.substr(3), "", 0);
    BREAKS(384, !path.empty(), EINVAL, set_file_contents_inplace, "", "x");
    BREAKS(386, to_null_terminated_path(cpath, path), ENAMETOOLONG, set_file_contents_inplace, xs,
           "x");
    BREAKS(392, fd >= 0, EBADF, set_blocking, -1, true);
    BREAKS(409, !path.empty(), EINVAL, fsync_path, "");
    BREAKS(412, to_null_terminated_path(cpath, path), ENAMETOOLONG, fsync_path, xs);
    BREAKS(428, !oldpath.empty(), EINVAL, rename_fsync, "", "");
    BREAKS(429, !newpath.empty(), EINVAL, rename_fsync, xs, "");
    BREAKS(432, to_null_terminated_path(c_oldpath, oldpath), ENAMETOOLONG, rename_fsync, xs, xs);
    BREAKS(434, to_null_terminated_path(c_newpath, newpath), ENAMETOOLONG, rename_fsync, "x", xs);
  });
  EXPECT_EQ(std::tuple(calls, count_, fd, text), std::tuple(Texts(), 77u, 77, "as it was"));
}

TEST_F(Io, CloseKeepsErrnoAndReportsOnlyAWrongNumber) {
  const auto left_by_close = [](int fd, int error) {
    errno = EDOM;
    calls_of([&] { xclose(fd); }, {.nth = 1, .error = error});
    return std::pair(fd, errno);
  };
  EXPECT_EQ(left_by_close(dup(STDOUT_FILENO), 0), std::pair(-1, EDOM));
  EXPECT_EQ(left_by_close(dup(STDOUT_FILENO), EINTR), std::pair(-1, EDOM));
  EXPECT_EQ(left_by_close(-2, EIO), std::pair(-2, EDOM));
  EXPECT_EQ(messages_of([&] { EXPECT_EQ(left_by_close(0, 0), std::pair(0, EDOM)); }),
            "<2>src/io.cpp:75: xclose: Assertion `errno != EBADF' failed.\n");
}

TEST_F(Io, FilesAreReplacedReadAndMovedOrLeftAsTheyWere) {
  std::string contents;
  left_ = [&] {
    std::string left;
    for (const std::string path : {"target", "target.tmp"}) {
      if (access(path.c_str(), F_OK) == 0) left += ", " + path + ": " + text_of(path);
      remove(path.c_str());
    }
    put("target", "old text");
    put("target.tmp", "remains");
    return left;
  };
  expect_transcript([] { return set_file_contents("target", "new", 0640); }, R"(
unlink target.tmp: ERROR, 1 calls, target: old text, target.tmp: remains
<3>Failed to unlink 'target.tmp': ERROR
open target.tmp O_WRONLY O_CREAT O_EXCL O_CLOEXEC 0640: ERROR, 3 calls, target: old text
<3>Failed to open path 'target.tmp' for writing: ERROR
<3>Failed when writing contents to temporary file.
write 0 3: ERROR, 5 calls, target: old text
<3>Failed to write contents to 'target.tmp': ERROR
<3>Failed when writing contents to temporary file.
fsync 0: ERROR, 6 calls, target: old text
<3>Failed to fsync 'target.tmp': ERROR
<3>Failed when writing contents to temporary file.
chmod target.tmp 0640: ERROR, 7 calls, target: old text
<3>Failed to change permissions of 'target.tmp': ERROR
<3>Failed when writing contents to temporary file.
close 0: 0, 11 calls, target: new
chmod target.tmp 0640: ERROR, 8 calls, target: old text
<3>Failed to change permissions of 'target.tmp': ERROR
rename target.tmp target: ERROR, 8 calls, target: old text, target.tmp: new
<3>Failed to rename 'target.tmp' -> 'target': ERROR
<3>Failed to rename 'target.tmp' -> 'target': ERROR
open . O_CLOEXEC 0: 0, 9 calls, target: new
<4>Failed to fsync '.': ERROR
fsync 0: 0, 11 calls, target: new
<4>Failed to fsync '.': ERROR
close 0: 0, 11 calls, target: new
no failure: 0, 11 calls, target: new
)");
  ASSERT_EQ(mkdir("sub", 0700), 0);
  Texts calls = calls_of([] { EXPECT_EQ(rename_fsync("target.tmp", "sub/moved"), 0); });
  EXPECT_EQ(calls,
            (Texts{"rename target.tmp sub/moved", "open sub O_CLOEXEC 0", "fsync 0", "close 0"}));
  at_most_ = 5;
  expect_transcript([] { return set_file_contents_inplace("target", "newer t"); }, R"(
open target O_WRONLY O_CLOEXEC 0: ERROR, 1 calls, target: old text, target.tmp: remains
<3>Failed to open path 'target' for writing: ERROR
write 0 7: ERROR, 3 calls, target: old text, target.tmp: remains
<3>Failed to write contents to 'target': ERROR
write 0 2: ERROR, 4 calls, target: newerext, target.tmp: remains
<3>Failed to write contents to 'target': ERROR
close 0: 0, 4 calls, target: newer tt, target.tmp: remains
no failure: 0, 4 calls, target: newer tt, target.tmp: remains
)");
  left_ = [&] {
    std::replace(contents.begin(), contents.end(), '\0', '0');
    return ", " + std::exchange(contents, "as it was");
  };
  const auto read_target = [&] { return get_file_contents("target", contents); };
  expect_transcript(read_target, R"(
open target O_CLOEXEC 0: ERROR, 1 calls, as it was
<3>Failed to open 'target': ERROR
lseek 0 0 SEEK_END: ERROR, 3 calls, as it was
<3>Failed to seek to end of 'target': ERROR
lseek 0 0 0: ERROR, 4 calls, as it was
<3>Failed to seek to start of 'target': ERROR
read 0 8: ERROR, 5 calls, 00000000
<3>Failed to read contents from 'target': ERROR
read 0 3: ERROR, 6 calls, old t000
<3>Failed to read contents from 'target': ERROR
close 0: 0, 6 calls, old text
no failure: 0, 6 calls, old text
)");
  EXPECT_EQ(outcome_of([&] { return get_file_contents("absent", contents); }), "ENOENT");
  calls_of([&] { EXPECT_ANY_THROW((void)read_target()); }, {.nth = 2, .result = INT64_MAX});
  EXPECT_EQ(contents, "as it was");
  calls_of([&] { EXPECT_EQ(read_target(), 0); }, {.at_most = 1});
  EXPECT_EQ(contents, "old text");
  calls_of([&] { EXPECT_EQ(read_target(), 0); }, {.nth = 4, .result = 0});  // it is empty by now
  EXPECT_EQ(contents, "");
  calls = calls_of([] { EXPECT_EQ(set_file_contents("target", "x", 0), 0); });
  EXPECT_EQ(calls.at(5), "chmod target.tmp 0");  // the only one for this mode
  calls = calls_of([] { EXPECT_EQ(fsync_path("sub"), -EINTR); }, {.nth = 2, .error = EINTR});
  EXPECT_EQ(calls, (Texts{"open sub O_CLOEXEC 0", "fsync 0", "close 0"}));
  EXPECT_EQ(outcome_of([] { return fsync_path("absent"); }), "ENOENT");
}

TEST_F(Io, PathsAreViewsOfLimitedLength) {
  const auto padded = [&](size_t length) {  // the file f in the test's directory
    return directory_ + std::string(length - directory_.size() - 1, '/') + "f";
  };
  EXPECT_EQ(set_file_contents(padded(4090), "old", 0600), 0);
  EXPECT_EQ(set_file_contents_inplace(padded(4094), "new"), 0);
  const auto path = padded(4091);
  EXPECT_EQ(outcome_of([&] { return set_file_contents(path, "", 0600); }),
            "<2>src/io.cpp:432: rename_fsync: Assertion `to_null_terminated_path(c_oldpath, "
            "oldpath)' failed.\n<3>Failed to rename '" +
                path + ".tmp' -> '" + path + "': File name too long\nENAMETOOLONG");
  EXPECT_EQ(text_of("f") + text_of("f.tmp"), "new");
  const std::string_view parts = "f and what follows in the caller's buffer";
  EXPECT_EQ(rename_fsync(parts.substr(0, 1), std::string_view("g\0h", 3)), 0);
  EXPECT_EQ(fsync_path("g"), 0);
}

TEST_F(Io, ReadsEndByTheDeadlineWithTheTimeComputedAfresh) {
  struct Row {
    std::string waiting;  // in the pipe
    bool closed;          // the other end
    size_t wanted;
    nanoseconds timeout;
    int result;
    std::string read, waits;  // and after each wait the size of the read
  };
  const Row rows[] = {{"", false, 0, 1s, 0, "", ""},
                      {"", false, 1, -1ns, -ETIMEDOUT, "", " 0 s 0 ns"},
                      {"four", false, 3, 1500ms, 0, "fou", " 1 s 400000000 ns, 3"},
                      {"four", false, 5, 350ms, -ETIMEDOUT, "four",
                       " 0 s 250000000 ns, 5 0 s 150000000 ns, 2 0 s 50000000 ns"},
                      {"four", true, 4, nanoseconds::max(), 0, "four",
                       " 9223371936 s 654775807 ns, 4 9223371936 s 554775807 ns, 1"},
                      {"", true, 1, 1s, -ECANCELED, "", " 0 s 900000000 ns, 1"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.read + row.waits);
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe(ends.data()), 0);
    EXPECT_EQ(write_all(ends[1], row.waiting, nullptr), 0);
    if (row.closed) xclose(ends[1]);
    std::string buffer(9, '.');
    void* const to = row.wanted == 0 ? nullptr : buffer.data();
    const auto start = std::chrono::steady_clock::now();
    const Texts calls = calls_of(
        [&] { EXPECT_EQ(read_timeout(0, to, row.wanted, &count_, row.timeout), row.result); },
        {.at_most = 3});
    EXPECT_GE(std::chrono::steady_clock::now() - start, row.timeout == 350ms ? 50ms : 0ms);
    std::string waits;
    for (const std::string& call : calls) {
      if (call[0] == 'p') waits += call.substr(strlen("ppoll 0 POLLIN"));
      if (call[0] == 'r') waits += "," + call.substr(strlen("read 0"));
    }
    EXPECT_EQ(waits, row.waits);
    EXPECT_EQ(count_, row.read.size());
    EXPECT_EQ(buffer, (row.read + ".........").substr(0, 9));
    for (int& end : ends) xclose(end);
  }
  EXPECT_EQ(outcome_of([&] { return read_timeout(0, &count_, 1, &count_, nanoseconds::min()); }),
            "<2>src/io.cpp:120: read_deadline: Assertion `deadline >= 0ns' failed.\nEINVAL");
}

TEST_F(Io, DrainingGoesThroughABuffer) {
  ASSERT_EQ(open("/dev/zero", O_RDONLY), 0);
  const std::string now = "clock_gettime MONOTONIC", wait = "ppoll 0 POLLIN 2999999999 s ";
  const std::string fails = "<3>read_deadline: ppoll: Interrupted system call\n";
  const auto drain = [] { return read_drain(0, 20'000, 3'000'000'100s); };
  EXPECT_EQ(calls_of([&] { EXPECT_EQ(drain(), 0); }),
            (Texts{now, wait + "900000000 ns", "read 0 16384", now, wait + "800000000 ns",
                   "read 0 3616"}));
  calls_of([&] { EXPECT_EQ(outcome_of(drain), "EINTR"); }, {.nth = 6, .error = EINTR});
  const Texts calls =
      calls_of([&] { EXPECT_EQ(outcome_of(drain), fails + "EINTR"); }, {.nth = 2, .error = EINTR});
  EXPECT_EQ(calls.size(), 2u);
  EXPECT_EQ(read_drain(0, 1, 0ns), 0);
  close(0);
}

TEST_F(Io, WritesTellHowFarTheyCame) {
  char text[] = "four by";
  std::array<iovec, 5> iov{};
  left_ = [&] {
    close(0);
    std::string left = ", " + std::to_string(count_) + " bytes: " + text_of("target") + ", left:";
    for (const auto& [data, size] : iov) {
      left.append(" [").append(static_cast<char*>(data), size).append("]");
    }
    iov = {{{nullptr, 0}, {text, 4}, {nullptr, 0}, {text + 4, 3}, {nullptr, 0}}};
    count_ = 77;
    EXPECT_EQ(open("target", O_WRONLY | O_CREAT | O_TRUNC, 0600), 0);
    return left;
  };
  at_most_ = 5;
  expect_transcript([&] { return write_all(0, text, &count_); }, R"(
write 0 7: ERROR, 1 calls, 0 bytes: , left: [] [four] [] [ by] []
write 0 2: ERROR, 2 calls, 5 bytes: four , left: [] [four] [] [ by] []
no failure: 0, 2 calls, 7 bytes: four by, left: [] [four] [] [ by] []
)");
  expect_transcript([&] { return writev_all(0, iov.data(), 5, &count_); }, R"(
writev 0 5: ERROR, 1 calls, 0 bytes: , left: [] [four] [] [ by] []
<3>writev: ERROR
writev 0 2: ERROR, 2 calls, 5 bytes: four , left: [] [] [] [by] []
<3>writev: ERROR
writev 0 1: ERROR, 3 calls, 7 bytes: four by, left: [] [] [] [] []
<3>writev: ERROR
no failure: 0, 3 calls, 7 bytes: four by, left: [] [] [] [] []
)");
  const Disturbance nothing = {.nth = 1, .result = 0};
  calls_of([&] { EXPECT_EQ(write_all(0, "x", nullptr), -EIO); }, nothing);
  calls_of([&] { EXPECT_EQ(writev_all(0, iov.data(), 5, nullptr), 0); }, nothing);
  EXPECT_EQ(calls_of([&] { EXPECT_EQ(write_all(0, "", &count_), 0); }), Texts());
  EXPECT_EQ(std::exchange(count_, 77), 0u);
  EXPECT_EQ(calls_of([&] { EXPECT_EQ(writev_all(0, nullptr, 0, &count_), 0); }), Texts());
  EXPECT_EQ(count_, 0u);
  close(0);
}

TEST_F(Io, BlockingModeChangesAlone) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  EXPECT_EQ(calls_of([] { EXPECT_EQ(set_blocking(0, true), 0); }).size(), 2u);
  ASSERT_EQ(fcntl(0, F_SETFL, O_APPEND), 0);
  expect_transcript([] { return set_blocking(0, false); }, R"(
fcntl 0 F_GETFL: ERROR, 1 calls
fcntl 0 F_SETFL O_APPEND O_NONBLOCK: ERROR, 2 calls
no failure: 0, 2 calls
)");
  EXPECT_EQ(set_blocking(0, true), 0);
  EXPECT_EQ(fcntl(0, F_GETFL) & ~__O_LARGEFILE, O_APPEND);
  for (int& end : ends) xclose(end);
}

// What may arrive with a message, by its header, and what becomes of it.
TEST_F(Io, OneDescriptorIsReceivedAndNoneLeaks) {
  constexpr size_t NONE = CMSG_LEN(0), ONE = CMSG_LEN(sizeof(int)), TWO = CMSG_LEN(2 * sizeof(int));
  struct Header {
    size_t fds, length;
    int level = SOL_SOCKET, type = SCM_RIGHTS;
  };
  struct Row {
    const char* what;
    std::vector<Header> headers;
    const char* fate;  // of each descriptor
  };
  const Row rows[] = {
      {.what = "no descriptor", .headers = {}, .fate = ""},
      {"one message", {{2, TWO}}, " kept closed"},
      {"two messages", {{1, ONE}, {1, ONE}}, " kept closed"},
      {"another level", {{1, ONE, SOL_SOCKET + 1}, {1, ONE}}, " open kept"},
      {"another type", {{1, ONE, SOL_SOCKET, SCM_CREDENTIALS}, {1, ONE}}, " open kept"},
      {"the sender (SCM_PIDFD)", {{1, ONE, SOL_SOCKET, 4}, {2, TWO}}, " closed kept closed"},
      {"a part of a descriptor", {{2, TWO - 1}}, " kept open"},
      {"shorter than a header", {{1, NONE - 1}, {1, ONE}}, " open open"},
      {"the first too long", {{1, CMSG_LEN(3 * sizeof(int))}}, " open"},
      {"the second too long", {{1, ONE}, {1, CMSG_LEN(3 * sizeof(int))}}, " kept open"}};
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends.data()), 0);
  const int receiver = dup(ends[0]);
  xclose(ends[0]);  // so that 0 is the first descriptor that is received
  std::string data;
  int fd = 77;
  const auto receive = [&] {
    count_ = fd = 77;
    data = "....";
    iovec iov = {data.data(), data.size()};
    return recvmsg_fd(receiver, &iov, 1, &count_, &fd);
  };
  std::vector<int> fds;
  const auto control_message = [&](const Header& header) {
    std::string bytes(CMSG_SPACE(header.fds * sizeof(int)), '\0');
    const cmsghdr head = {header.length, header.level, header.type};
    memcpy(bytes.data(), &head, sizeof(head));
    for (size_t i = 0; i < header.fds; ++i) {
      fds.push_back(dup(STDOUT_FILENO));
      memcpy(&bytes[CMSG_LEN(i * sizeof(int))], &fds.back(), sizeof(int));
    }
    return bytes;
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const auto change = [&](msghdr& message) {
      EXPECT_EQ(message.msg_controllen, 0u);
      std::string control;
      for (const Header& header : row.headers) control += control_message(header);
      message.msg_controllen = control.size();
      memcpy(message.msg_control, control.data(), message.msg_controllen);
    };
    EXPECT_EQ(send(ends[1], "data", 4, 0), 4);
    const auto calls = calls_of([&] { EXPECT_EQ(receive(), 0); }, {.change = change});
    EXPECT_EQ(calls.at(0), "recvmsg " + std::to_string(receiver) + " 0");
    std::string fate;
    for (const int passed : std::exchange(fds, {})) {
      fate += passed == fd ? " kept" : fcntl(passed, F_GETFD) == 0 ? " open" : " closed";
      close(passed);
    }
    EXPECT_EQ(fate, row.fate);
    EXPECT_EQ(fd == -1, fate.find("kept") == std::string::npos);
  }
  calls_of([&] { EXPECT_EQ(receive(), -EINTR); }, {.nth = 1, .error = EINTR});
  EXPECT_EQ(std::tuple(count_, fd), std::tuple(77u, -1));

  // The real thing, with as many descriptors as there is room for on all targets.
  setsockopt(receiver, SOL_SOCKET, 76, &receiver, sizeof(int));  // SO_PASSPIDFD, since Linux 6.5
  const std::tuple<std::string, int, size_t, size_t> texts[] = {
      {"data", 0, 4, 9}, {"data", 0, 4, 1}, {"datagram", -EMSGSIZE, 4, 9}, {"", -ECANCELED, 77, 9}};
  for (auto [text, result, count, passed] : texts) {
    std::string control = control_message({passed, CMSG_LEN(passed * sizeof(int))});
    iovec iov = {text.data(), text.size()};
    const msghdr message = {nullptr, 0, &iov, 1, control.data(), control.size(), 0};
    EXPECT_EQ(sendmsg(ends[1], &message, 0), text.size());
    EXPECT_EQ(receive(), result);
    EXPECT_EQ(std::tuple(count_, data), std::tuple(count, (text + "....").substr(0, 4)));
    EXPECT_EQ(fcntl(fd, F_GETFD), result == 0 ? 0 : -1) << "close-on-exec, or not open";
    close(fd);
  }
  for (const int open : fds) close(open);
  for (const int open : {receiver, ends[1]}) close(open);
}

}  // namespace
}  // namespace vutil
