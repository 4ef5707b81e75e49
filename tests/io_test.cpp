#include "support.h"

namespace vutil {
namespace {

class Io : public InDirectory {
 protected:
  // Lets each system call of an operation fail in turn, and compares a line for each: the call, the
  // result, how many calls follow, and what is left; then the messages. In the last none fails.
  void expect_transcript(const std::function<int()>& run, const std::string& expected) {
    for (const int error : {EIO, EINTR, EAGAIN, EINVAL, EACCES, ENOTDIR, EROFS, ENOSPC}) {
      const std::string text = strerror(error);
      std::string transcript = "\n";
      tell_and_reset_();
      Texts calls;
      for (size_t nth = 1; nth <= calls.size() + 1; ++nth) {
        int result = 0;
        const auto messages = messages_of([&] {
          errno = EDOM;
          calls = calls_of([&] { result = run(); }, {nth, error, {}, at_most_});
        });
        const bool fails = nth <= calls.size();
        transcript += (fails ? calls[nth - 1] : "no failure") + ": " +
                      (result == -error ? "ERROR" : std::to_string(result)) + ", " +
                      std::to_string(fails ? calls.size() - nth : 0) + " more calls" +
                      tell_and_reset_() + "\n" + messages;
      }
      for (size_t at = 0; (at = transcript.find(text, at)) != std::string::npos;)
        transcript.replace(at, text.size(), "ERROR");
      if (transcript != expected)
        return expect_lines(transcript, expected, "(ERROR is " + text + ")");
    }
  }

  // For a transcript: what is in the file and beside it, where an earlier crash left something.
  static std::string tell_and_reset_files() {
    std::string left;
    for (const std::string path : {"target", "target.tmp"}) {
      if (access(path.c_str(), F_OK) == 0) left += ", " + path + ": " + text_of(path);
      remove(path.c_str());
    }
    put("target", "old text");
    put("target.tmp", "remains");
    return left;
  }

  static constexpr std::string_view TARGET{"target, not its end", 6};
  std::function<std::string()> tell_and_reset_ = [] { return ""; };
  size_t at_most_ = SIZE_MAX;  // bytes for each call to read or write
  size_t count_ = 77;
};

// A check fails in its line, with its error and with no other message.
#define ASSERT_AT(line, condition, error, function, ...)                                           \
  ASSERT_EQ(outcome_of([&] { return function(__VA_ARGS__); }),                                     \
            "<2>src/io.cpp:" #line ": " #function ": Assertion `" #condition "' failed.\n" #error) \
      << "The checks of src/io.cpp keep their lines: CONTRIBUTING.md, \"Lines that are pinned\""

TEST_F(Io, Checks_ReportTheirPinnedLinesAndTouchNothing) {
  const auto xclose = [](int fd) { return errno = 0, vutil::xclose(fd), fd - 77 + errno; };
  const std::string x(4095, 'x');
  int fd = 77;
  iovec iov = {&fd, 1};
  std::string out = "as it was";
  ASSERT_AT(75, errno != EBADF, 0, xclose, 77);
  const Texts calls = calls_of([&] {
    ASSERT_AT(83, fd >= 0, EBADF, read_drain, -1, 1, -1ns);
    ASSERT_AT(84, deadline >= 0ns, EINVAL, read_drain, 0, 1, -1ns);
    ASSERT_AT(117, fd >= 0, EBADF, read_deadline, -1, nullptr, 1, nullptr, -1ns);
    ASSERT_AT(118, vbuffer != nullptr || len == 0, EFAULT, read_deadline, 0, nullptr, 1, nullptr,
              -1ns);
    ASSERT_AT(119, bytes_read_out != nullptr, EFAULT, read_deadline, 0, nullptr, 0, nullptr, -1ns);
    ASSERT_AT(120, deadline >= 0ns, EINVAL, read_deadline, 0, &fd, 1, &count_, -1ns);
    ASSERT_AT(164, fd >= 0, EBADF, recvmsg_fd, -1, &iov, -1, &count_, nullptr);
    ASSERT_AT(165, iovcnt >= 0, EINVAL, recvmsg_fd, 0, nullptr, -1, &count_, nullptr);
    ASSERT_AT(166, iovcnt != 0 || iov == nullptr, EINVAL, recvmsg_fd, 0, &iov, 0, &count_, &fd);
    ASSERT_AT(167, result_fd, EINVAL, recvmsg_fd, 0, nullptr, 0, &count_, nullptr);
    ASSERT_AT(209, fd >= 0, EBADF, write_all, -1, "x", &count_);
    ASSERT_AT(231, fd >= 0, EBADF, writev_all, -1, &iov, -1, &count_);
    ASSERT_AT(232, iovcnt >= 0, EINVAL, writev_all, 0, nullptr, -1, &count_);
    ASSERT_AT(233, iovcnt != 0 || iov == nullptr, EINVAL, writev_all, 0, &iov, 0, &count_);
    ASSERT_AT(266, !path.empty(), EINVAL, get_file_contents, "", out);
    ASSERT_AT(269, to_null_terminated_path(cpath, path), ENAMETOOLONG, get_file_contents, x, out);
    ASSERT_AT(333, !path.empty(), EINVAL, set_file_contents, "", "x", 0600);
    ASSERT_AT(339, to_null_terminated_path(cpath, path), ENAMETOOLONG, set_file_contents, x, "", 0);
    ASSERT_AT(345, static_cast<size_t>(tmp_cpath_len) < sizeof(tmp_cpath), ENAMETOOLONG,
              set_file_contents, x.substr(3), "", 0);
    ASSERT_AT(384, !path.empty(), EINVAL, set_file_contents_inplace, "", "x");
    ASSERT_AT(386, to_null_terminated_path(cpath, path), ENAMETOOLONG, set_file_contents_inplace, x,
              "x");
    ASSERT_AT(392, fd >= 0, EBADF, set_blocking, -1, true);
    ASSERT_AT(409, !path.empty(), EINVAL, fsync_path, "");
    ASSERT_AT(412, to_null_terminated_path(cpath, path), ENAMETOOLONG, fsync_path, x);
    ASSERT_AT(428, !oldpath.empty(), EINVAL, rename_fsync, "", "");
    ASSERT_AT(429, !newpath.empty(), EINVAL, rename_fsync, x, "");
    ASSERT_AT(432, to_null_terminated_path(c_oldpath, oldpath), ENAMETOOLONG, rename_fsync, x, x);
    ASSERT_AT(434, to_null_terminated_path(c_newpath, newpath), ENAMETOOLONG, rename_fsync, "x", x);
  });
  EXPECT_EQ(std::tuple(calls, count_, fd, out), std::tuple(Texts(), 77u, 77, "as it was"));
}

TEST_F(Io, Xclose_KeepsErrnoAndForgetsTheDescriptor) {
  const auto close_one = [](int fd) { return xclose(fd), errno == EDOM ? fd : errno; };
  expect_transcript([&] { return close_one(dup(STDOUT_FILENO)); }, R"(
close 0: -1, 0 more calls
no failure: -1, 0 more calls
)");
  expect_transcript([&] { return close_one(-2); }, "\nno failure: -2, 0 more calls\n");
}

TEST_F(Io, SetFileContents_ReplacesTheFileOrLeavesIt) {
  tell_and_reset_ = tell_and_reset_files;
  expect_transcript([] { return set_file_contents(TARGET, "new", 04640); }, R"(
unlink target.tmp: ERROR, 0 more calls, target: old text, target.tmp: remains
<3>Failed to unlink 'target.tmp': ERROR
open target.tmp O_WRONLY O_CREAT O_EXCL O_CLOEXEC 04640: ERROR, 1 more calls, target: old text
<3>Failed to open path 'target.tmp' for writing: ERROR
<3>Failed when writing contents to temporary file.
write 0 3: ERROR, 2 more calls, target: old text
<3>Failed to write contents to 'target.tmp': ERROR
<3>Failed when writing contents to temporary file.
fsync 0: ERROR, 2 more calls, target: old text
<3>Failed to fsync 'target.tmp': ERROR
<3>Failed when writing contents to temporary file.
chmod target.tmp 04640: ERROR, 2 more calls, target: old text
<3>Failed to change permissions of 'target.tmp': ERROR
<3>Failed when writing contents to temporary file.
close 0: 0, 5 more calls, target: new
chmod target.tmp 04640: ERROR, 1 more calls, target: old text
<3>Failed to change permissions of 'target.tmp': ERROR
rename target.tmp target: ERROR, 0 more calls, target: old text, target.tmp: new
<3>Failed to rename 'target.tmp' -> 'target': ERROR
<3>Failed to rename 'target.tmp' -> 'target': ERROR
open . O_CLOEXEC 0: 0, 0 more calls, target: new
<4>Failed to fsync '.': ERROR
fsync 0: 0, 1 more calls, target: new
<4>Failed to fsync '.': ERROR
close 0: 0, 0 more calls, target: new
no failure: 0, 0 more calls, target: new
)");
  const Texts calls = calls_of([] { EXPECT_EQ(set_file_contents({"target\0x", 8}, "", 0), 0); });
  EXPECT_EQ(calls.at(4), "chmod target.tmp 0") << "the only one for this mode";
}

TEST_F(Io, SetFileContents_LimitsTheLengthOfPaths) {
  const auto padded = [&](size_t length) {  // the file f in the test's directory
    return directory_ + std::string(length - directory_.size() - 1, '/') + "f";
  };
  EXPECT_EQ(set_file_contents(padded(4090), "old", 0600), 0);
  EXPECT_EQ(set_file_contents_inplace(padded(4094), "new"), 0);
  const auto path = padded(4091);
  const auto outcome = outcome_of([&] { return set_file_contents(path, "tmp", 0600); });
  EXPECT_EQ(outcome.substr(0, 3) + outcome.substr(outcome.find('\n')),  // the check's, shortened
            "<2>\n<3>Failed to rename '" + path + ".tmp' -> '" + path +
                "': File name too long\nENAMETOOLONG");
  EXPECT_EQ(text_of("f") + text_of("f.tmp"), "newtmp");
}

TEST_F(Io, SetFileContentsInplace_WritesOverWhatIsThere) {
  tell_and_reset_ = tell_and_reset_files;
  at_most_ = 5;
  expect_transcript([] { return set_file_contents_inplace(TARGET, "newer t"); }, R"(
open target O_WRONLY O_CLOEXEC 0: ERROR, 0 more calls, target: old text, target.tmp: remains
<3>Failed to open path 'target' for writing: ERROR
write 0 7: ERROR, 1 more calls, target: old text, target.tmp: remains
<3>Failed to write contents to 'target': ERROR
write 0 2: ERROR, 1 more calls, target: newerext, target.tmp: remains
<3>Failed to write contents to 'target': ERROR
close 0: 0, 0 more calls, target: newer tt, target.tmp: remains
no failure: 0, 0 more calls, target: newer tt, target.tmp: remains
)");
}

TEST_F(Io, RenameFsync_FsyncPath_FlushADirectory) {
  ASSERT_EQ(mkdir("sub", 0700), 0);
  put("file", "text");
  const std::string_view path = "sub/file and what follows in the caller's buffer";
  const auto move = [&] { EXPECT_EQ(rename_fsync(path.substr(4, 4), {"sub/g\0h", 7}), 0); };
  EXPECT_EQ(calls_of(move),
            (Texts{"rename file sub/g", "open sub O_CLOEXEC 0", "fsync 0", "close 0"}));
  expect_transcript([&] { return fsync_path(path.substr(0, 3)); }, R"(
open sub O_CLOEXEC 0: ERROR, 0 more calls
fsync 0: ERROR, 1 more calls
close 0: 0, 0 more calls
no failure: 0, 0 more calls
)");
  EXPECT_EQ(outcome_of([] { return fsync_path("absent"); }), "ENOENT");
}

TEST_F(Io, GetFileContents_ReadsWhatIsThere) {
  put("target", "old text");
  std::string contents;
  tell_and_reset_ = [&] {
    std::replace(contents.begin(), contents.end(), '\0', '0');
    return ", " + std::exchange(contents, "as it was");
  };
  const auto read_target = [&] { return get_file_contents(TARGET, contents); };
  at_most_ = 5;
  expect_transcript(read_target, R"(
open target O_CLOEXEC 0: ERROR, 0 more calls, as it was
<3>Failed to open 'target': ERROR
lseek 0 0 2: ERROR, 1 more calls, as it was
<3>Failed to seek to end of 'target': ERROR
lseek 0 0 0: ERROR, 1 more calls, as it was
<3>Failed to seek to start of 'target': ERROR
read 0 8: ERROR, 1 more calls, 00000000
<3>Failed to read contents from 'target': ERROR
read 0 3: ERROR, 1 more calls, old t000
<3>Failed to read contents from 'target': ERROR
close 0: 0, 0 more calls, old text
no failure: 0, 0 more calls, old text
)");
  EXPECT_EQ(outcome_of([&] { return get_file_contents("absent", contents); }), "ENOENT");
  calls_of([&] { EXPECT_ANY_THROW((void)read_target()); }, {.nth = 2, .result = INT64_MAX});
  EXPECT_EQ(contents, "as it was");
  calls_of([&] { EXPECT_EQ(read_target(), 0); }, {.at_most = 1});
  EXPECT_EQ(contents, "old text");
  calls_of([&] { EXPECT_EQ(read_target(), 0); }, {.nth = 4, .result = 0});  // it is empty by now
  EXPECT_EQ(contents, "");
}

// Reads from a pipe: what is in it, whether its other end is closed, the bytes and time that are
// asked for, the result, and what was read with each wait and the size of the read that followed.
TEST_F(Io, ReadDeadline_ReadTimeout_ComputeTheTimeLeftAfresh) {
  const std::tuple<std::string, bool, size_t, nanoseconds, int, std::string> rows[] = {
      {"", false, 0, 1s, 0, ""},
      {"", false, 1, -1ns, -ETIMEDOUT, ", 0 s 0 ns"},
      {"four", false, 5, 350ms, -ETIMEDOUT,
       "four, 0 s 250000000 ns 5, 0 s 150000000 ns 2, 0 s 50000000 ns"},
      {"four", true, 4, nanoseconds::max(), 0,
       "four, 9223371936 s 654775807 ns 4, 9223371936 s 554775807 ns 1"},
      {"", true, 1, 1s, -ECANCELED, ", 0 s 900000000 ns 1"},
      {"", false, 1, nanoseconds::min(), -EINVAL, "<2>........."},
      {"", false, 9, 1s, -EIO, "<3>, 0 s 900000000 ns"}};
  for (const auto& [waiting, closed, wanted, timeout, result, expected] : rows) {
    EXPECT_EQ(pipe(fds_.data()), 0);
    EXPECT_EQ(write_all(fds_[1], waiting, nullptr), 0);
    if (closed) xclose(fds_[1]);
    std::string buffer(9, '.');
    void* const to = wanted == 0 ? nullptr : buffer.data();
    int got = 0;
    Texts calls;
    count_ = 9;
    const auto start = std::chrono::steady_clock::now();
    const auto messages = messages_of([&, size = wanted, time = timeout] {
      calls = calls_of([&] { got = read_timeout(0, to, size, &count_, time); },
                       {.nth = size == 9 ? 3u : 0u, .error = EIO, .at_most = 3});
    });
    EXPECT_GE(std::chrono::steady_clock::now() - start, wanted == 5 ? 50ms : 0ms);
    std::string outcome = messages.substr(0, 3) + buffer.substr(0, count_);
    for (const std::string& call : calls) {
      if (call[0] == 'p') outcome.append(",") += call.substr(strlen("ppoll 0 POLLIN 1"));
      if (call[0] == 'r') outcome += call.substr(strlen("read 0"));
    }
    outcome += buffer.find_first_not_of('.', count_) == std::string::npos ? "" : ", and more";
    ASSERT_EQ(std::pair(got, outcome), std::pair(result, expected))
        << wanted << " bytes in " << timeout.count() << " ns";
    for (int& fd : fds_) xclose(fd);
  }
  EXPECT_EQ(read_timeout(77, &count_, 1, &count_, 0ns), -EBADF) << "it is not open";
}

TEST_F(Io, ReadDrain_GoesThroughABuffer) {
  ASSERT_EQ(fds_[0] = open("/dev/zero", O_RDONLY), 0);
  expect_transcript([] { return read_drain(0, 20'000, 3'000'000'100s); }, R"(
clock_gettime MONOTONIC: 0, 5 more calls
ppoll 0 POLLIN 1 2999999999 s 900000000 ns: ERROR, 0 more calls
<3>read_deadline: ppoll: ERROR
read 0 16384: ERROR, 0 more calls
clock_gettime MONOTONIC: 0, 2 more calls
ppoll 0 POLLIN 1 2999999999 s 800000000 ns: ERROR, 0 more calls
<3>read_deadline: ppoll: ERROR
read 0 3616: ERROR, 0 more calls
no failure: 0, 0 more calls
)");
  EXPECT_EQ(read_drain(0, 1, 0ns), 0);
}

TEST_F(Io, WriteAll_WritevAll_TellHowFarTheyCame) {
  char text[] = "four by";
  std::array<iovec, 5> iov{};
  tell_and_reset_ = [&] {
    xclose(fds_[0]);
    std::string left = ", " + std::to_string(count_) + " bytes: " + text_of("target") + ",";
    for (const auto& [data, size] : iov)
      left.append(" [").append(static_cast<char*>(data), size).append("]");
    iov = {{{nullptr, 0}, {text, 4}, {nullptr, 0}, {text + 4, 3}, {nullptr, 0}}};
    count_ = 77;
    fds_[0] = open("target", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    return left;
  };
  at_most_ = 5;
  expect_transcript([&] { return write_all(0, text, &count_); }, R"(
write 0 7: ERROR, 0 more calls, 0 bytes: , [] [four] [] [ by] []
write 0 2: ERROR, 0 more calls, 5 bytes: four , [] [four] [] [ by] []
no failure: 0, 0 more calls, 7 bytes: four by, [] [four] [] [ by] []
)");
  expect_transcript([&] { return writev_all(0, iov.data(), 5, &count_); }, R"(
writev 0 5: ERROR, 0 more calls, 0 bytes: , [] [four] [] [ by] []
<3>writev: ERROR
writev 0 2: ERROR, 0 more calls, 5 bytes: four , [] [] [] [by] []
<3>writev: ERROR
writev 0 1: ERROR, 0 more calls, 7 bytes: four by, [] [] [] [] []
<3>writev: ERROR
no failure: 0, 0 more calls, 7 bytes: four by, [] [] [] [] []
)");
  calls_of([&] { EXPECT_EQ(write_all(0, "x", nullptr), -EIO); }, {.nth = 1, .result = 0});
  calls_of([&] { EXPECT_EQ(writev_all(0, iov.data(), 5, nullptr), 0); }, {.nth = 1, .result = 0});
  EXPECT_EQ(writev_all(0, iov.data(), 5, nullptr), 0);
  EXPECT_EQ(text_of("target"), "four by");
  const char* const none = "\nno failure: 0, 0 more calls, 0 bytes: , [] [four] [] [ by] []\n";
  expect_transcript([&] { return write_all(0, "", &count_); }, none);
  expect_transcript([&] { return writev_all(0, nullptr, 0, &count_); }, none);
}

TEST_F(Io, SetBlocking_ChangesNoOtherFlag) {
  ASSERT_EQ(pipe(fds_.data()), 0);
  EXPECT_EQ(calls_of([] { EXPECT_EQ(set_blocking(0, true), 0); }).size(), 2u);
  ASSERT_EQ(fcntl(0, F_SETFL, O_APPEND), 0);
  expect_transcript([] { return set_blocking(0, false); }, R"(
fcntl 0 F_GETFL: ERROR, 0 more calls
fcntl 0 F_SETFL O_APPEND O_NONBLOCK: ERROR, 0 more calls
no failure: 0, 0 more calls
)");
  EXPECT_EQ(set_blocking(0, true), 0);
  EXPECT_EQ(fcntl(0, F_GETFL) & ~__O_LARGEFILE, O_APPEND);
}

struct ControlMessage {
  size_t fds, length;
  int level = SOL_SOCKET, type = SCM_RIGHTS;
};

// The bytes of control messages, with new descriptors, which go to `fds` too.
std::string bytes_of(const std::vector<ControlMessage>& messages, std::vector<int>& fds) {
  std::string bytes;
  for (const auto& [count, length, level, type] : messages) {
    const cmsghdr header = {length, level, type};
    bytes.append(reinterpret_cast<const char*>(&header), sizeof(header));
    for (size_t i = 0; i < count; ++i) {
      fds.push_back(dup(STDOUT_FILENO));
      bytes.append(reinterpret_cast<const char*>(&fds.back()), sizeof(int));
    }
    bytes.resize(CMSG_ALIGN(bytes.size()));
  }
  return bytes;
}

// The flags and messages that arrive; "none" if no descriptor is given, and the fate of each.
TEST_F(Io, RecvmsgFd_KeepsOneDescriptorAndClosesTheOthers) {
  constexpr size_t NONE = CMSG_LEN(0), ONE = CMSG_LEN(sizeof(int)), TWO = CMSG_LEN(2 * sizeof(int));
  const std::tuple<std::string, int, std::vector<ControlMessage>, std::string> rows[] = {
      {"no descriptor", 0, {}, " none"},
      {"one message", 0, {{2, TWO}}, " kept closed"},
      {"more than fit", MSG_CTRUNC, {{2, TWO}}, " kept closed"},
      {"two messages", 0, {{1, ONE}, {1, ONE}}, " kept closed"},
      {"another level", 0, {{1, ONE, SOL_SOCKET + 1}, {1, ONE}}, " open kept"},
      {"another type", 0, {{1, ONE, SOL_SOCKET, SCM_CREDENTIALS}, {1, ONE}}, " open kept"},
      {"SCM_PIDFD", 0, {{1, ONE, SOL_SOCKET, 4}, {2, TWO}}, " closed kept closed"},
      {"a part of a descriptor", 0, {{2, TWO - 1}}, " kept open"},
      {"shorter than a header", 0, {{1, NONE - 1}, {1, ONE}}, " none open open"},
      {"the first too long", 0, {{1, CMSG_LEN(3 * sizeof(int))}}, " none open"},
      {"the second too long", 0, {{1, ONE}, {1, CMSG_LEN(3 * sizeof(int))}}, " kept open"}};
  int fd = 77;
  iovec iov = {&fd, 0};  // without one, emulators do not execute the call
  const auto receive = [&] { return recvmsg_fd(77, &iov, 1, &count_, &fd); };
  expect_transcript(receive, "\nrecvmsg 77 0: ERROR, 0 more calls\nno failure: -9, 0 more calls\n");
  EXPECT_EQ(std::tuple(count_, fd), std::tuple(77u, -1));
  for (const auto& [what, flags, messages, expected] : rows) {
    std::vector<int> fds;
    const auto deliver = [&, flags = flags, &messages = messages](msghdr& message) {
      const std::string control = bytes_of(messages, fds);
      memcpy(message.msg_control, control.data(), control.size());
      EXPECT_EQ(std::exchange(message.msg_controllen, control.size()), 52u);
      message.msg_flags = flags;
    };
    calls_of([&] { EXPECT_EQ(receive(), 0); }, {.nth = 1, .result = 1, .edit = deliver});
    std::string fate = fd == -1 ? " none" : "";
    for (const int passed : fds) {
      fate += passed == fd ? " kept" : fcntl(passed, F_GETFD) == 0 ? " open" : " closed";
      close(passed);
    }
    ASSERT_EQ(fate, expected) << what;
  }
}

// With as many descriptors as there is room for on all targets.
TEST_F(Io, RecvmsgFd_ReceivesFromASocket) {
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, fds_.data()), 0);
  close(std::exchange(fds_[0], dup(fds_[0])));  // so that 0 is the first that is received
  setsockopt(fds_[0], SOL_SOCKET, 76, fds_.data(), sizeof(int));  // SO_PASSPIDFD, since Linux 6.5
  const std::tuple<std::string, int, size_t, size_t> rows[] = {
      {"data", 0, 4, 9}, {"data", 0, 4, 1}, {"datagram", -EMSGSIZE, 4, 9}, {"", -ECANCELED, 77, 9}};
  for (auto [text, result, count, passed] : rows) {
    SCOPED_TRACE(text + " with " + std::to_string(passed));
    std::vector<int> fds;
    std::string data = "....", control = bytes_of({{passed, CMSG_LEN(passed * sizeof(int))}}, fds);
    iovec sent = {text.data(), text.size()}, received = {data.data(), data.size()};
    const msghdr message = {nullptr, 0, &sent, 1, control.data(), control.size(), 0};
    EXPECT_EQ(sendmsg(fds_[1], &message, 0), text.size());
    int fd = 77;
    count_ = 77;
    EXPECT_EQ(recvmsg_fd(fds_[0], &received, 1, &count_, &fd), result);
    EXPECT_EQ(std::tuple(count_, data), std::tuple(count, (text + "....").substr(0, 4)));
    EXPECT_EQ(fcntl(fd, F_GETFD), result == 0 ? 0 : -1) << "close-on-exec, or not open";
    for (const int open : fds) close(open);
    close(fd);
  }
}

}  // namespace
}  // namespace vutil
