// The error paths: each system call and each allocation of each operation fails in turn.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <new>
#include <optional>
#include <sstream>
#include <tuple>

#include "faults.h"
#include "support.h"
#include "vutil/io.h"
#include "vutil/keyfile.h"

namespace vutil {
namespace {

using namespace std::chrono_literals;

// A system call of an operation, with FD for the first descriptor that it opens; what is printed if
// the call fails, with % for the text of its errno; and whether the operation then fails.
struct Step {
  std::string call, lines;
  bool fails = true;
};

struct Operation {
  std::string new_text;  // of the target, after success
  std::function<int()> run;
  std::vector<Step> steps;
};

const std::string VALUE(50, '1');  // long enough to be allocated
const std::string OLD = "[a]\nold=" + VALUE + "\n";
const std::string NEW = "[a]\nnew=22\nold=" + VALUE + "\n";

std::string octal(int number) { return (std::ostringstream() << " " << std::oct << number).str(); }

std::string replaced(std::string text, const std::string& what, const std::string& by) {
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
    text.replace(at, what.size(), by);
  }
  return text;
}

class Faults : public InFolder {
 protected:
  Faults() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_.data()), 0); }
  ~Faults() override { std::for_each(ends_.begin(), ends_.end(), xclose); }

  void prepare() {
    put("target", OLD);
    file_.emplace("target", 0640u);
    feed();
  }
  void feed() {
    if (!std::filesystem::exists("target.tmp")) put("target.tmp", "left over");
    EXPECT_EQ(read_drain(ends_[0], SIZE_MAX, 0ns), -ETIMEDOUT);
    EXPECT_EQ(write_all(ends_[1], "data", nullptr), 0);
  }

  // Exchanges the data of a new message through `exchange`, which takes an array of buffers.
  int with_buffer(const std::function<int(iovec*)>& exchange) {
    char data[] = "data";
    iovec entry = {data, 4};
    return exchange(&entry);
  }

  std::vector<Operation> operations() {
    const std::string in = octal(ends_[0]);
    const std::string reading = octal(O_RDONLY | O_CLOEXEC) + " 0";
    const std::string writing = octal(O_WRONLY | O_CLOEXEC) + " 0";
    const std::string creating = octal(O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC) + " 640";
    const std::string when = "<3>Failed when writing contents to temporary file.\n";
    const std::string rename = "<3>Failed to rename 'target.tmp' -> 'target': %\n";
    const std::string chmod = "<3>Failed to change permissions of 'target.tmp': %\n";
    const std::string flush = "<4>Failed to fsync '.': %\n";
    const std::vector<Step> renaming = {{"rename target.tmp target", rename},
                                        {"open ." + reading, flush, false},
                                        {"fsync FD", flush, false},
                                        {"close FD", "", false}};
    std::vector<Step> save = {{"unlink target.tmp", "<3>Failed to unlink 'target.tmp': %\n"},
                              {"open target.tmp" + creating,
                               "<3>Failed to open path 'target.tmp' for writing: %\n" + when},
                              {"write FD" + octal(static_cast<int>(NEW.size())),
                               "<3>Failed to write contents to 'target.tmp': %\n" + when},
                              {"fsync FD", "<3>Failed to fsync 'target.tmp': %\n" + when},
                              {"chmod target.tmp 640", chmod + when},
                              {"close FD", "", false},
                              {"chmod target.tmp 640", chmod}};
    save.insert(save.end(), renaming.begin(), renaming.end());
    save[7].lines += rename;
    std::vector<Step> key_file_save = save;
    for (Step& step : key_file_save) {
      if (step.fails) step.lines += "<3>Failed to save key file to 'target': %\n";
    }
    return {
        {NEW, [&] { return file_->setInteger("a", "new", 22) ? 0 : 1; }, key_file_save},
        {NEW, [] { return set_file_contents("target", NEW, 0640); }, save},
        {"left over", [] { return rename_fsync("target.tmp", "target"); }, renaming},
        {"[b]\nnew=" + VALUE + "\n",
         [] { return set_file_contents_inplace("target", "[b]\nnew="); },
         {{"open target" + writing, "<3>Failed to open path 'target' for writing: %\n"},
          {"write FD 10", "<3>Failed to write contents to 'target': %\n"},
          {"close FD", "", false}}},
        {OLD,
         [] {
           std::string contents;
           const int result = get_file_contents("target", contents);
           return result == 0 && contents != OLD ? 1 : result;
         },
         {{"open target" + reading, "<3>Failed to open 'target': %\n"},
          {"lseek FD 0 2", "<3>Failed to seek to end of 'target': %\n"},
          {"lseek FD 0 0", "<3>Failed to seek to start of 'target': %\n"},
          {"read FD" + octal(static_cast<int>(OLD.size())),
           "<3>Failed to read contents from 'target': %\n"},
          {"close FD", "", false}}},
        {OLD,
         [] { return fsync_path("target"); },
         {{"open target" + reading, ""}, {"fsync FD", ""}, {"close FD", "", false}}},
        {OLD,
         [&] {
           return with_buffer([&](iovec* buffer) {
             size_t count = 99;
             const int result = read_timeout(ends_[0], buffer->iov_base, 4, &count, 1s);
             return count == (result == 0 ? 4 : 0) ? result : 1;
           });
         },
         {{"ppoll 1", "<3>read_deadline: ppoll: %\n"}, {"read" + in + " 4", ""}}},
        {OLD,
         [&] { return set_blocking(ends_[0], true); },
         {{"fcntl" + in + " 3", ""}, {"fcntl" + in + " 4", ""}}},
        {OLD,
         [&] { return with_buffer([&](iovec* b) { return writev_all(ends_[0], b, 1, nullptr); }); },
         {{"writev" + in + " 1", "<3>writev: %\n"}}},
        {OLD,
         [&] {
           return with_buffer([&](iovec* buffer) {
             size_t count = 0;
             int fd = 99;
             const int result = recvmsg_fd(ends_[0], buffer, 1, &count, &fd);
             return fd == -1 ? result : 1;
           });
         },
         {{"recvmsg" + in + " 0", ""}}}};
  }

  // Runs `operation` with its n-th call disturbed (0: with none), and checks what is left behind.
  void disturb(const Operation& operation, size_t n, int fault) {
    const Step step = fault > 0 ? operation.steps[n - 1] : Step{"", "", false};
    SCOPED_TRACE(operation.steps[n == 0 ? 0 : n - 1].call + ": " + strerror(fault));
    prepare();
    const auto open_before = open_descriptors();
    std::string first_fd;
    int result = 0;
    std::vector<std::string> calls;
    const std::string lines = lines_of([&] {
      int fd = dup(0);
      first_fd = octal(fd);
      xclose(fd);
      faults::watch_calls(static_cast<int>(n), fault);
      result = operation.run();
      calls = faults::noted_calls();
    });
    const bool in_key_file = step.lines.find("key file") != std::string::npos;
    EXPECT_EQ(result, step.fails && !in_key_file ? -fault : 0);
    EXPECT_EQ(lines, replaced(step.lines, "%", strerror(fault)));
    EXPECT_TRUE(n != 0 || calls.size() == operation.steps.size());
    ASSERT_GE(calls.size(), n);
    for (size_t i = 0; i < (n == 0 ? calls.size() : n); ++i) {
      EXPECT_EQ(calls[i], replaced(operation.steps[i].call, " FD", first_fd));
    }
    EXPECT_EQ(text_of("target"), step.fails ? OLD : operation.new_text);
    const bool keeps_tmp = step.call[0] == 'u' || step.call[0] == 'r' || operation.new_text != NEW;
    const bool renames = operation.new_text == "left over" && !step.fails;
    EXPECT_EQ(std::filesystem::exists("target.tmp"), keeps_tmp && !renames);
    EXPECT_EQ(open_descriptors(), open_before);
    feed();
    EXPECT_EQ(operation.run(), 0);
    EXPECT_EQ(text_of("target"), operation.new_text);
  }

  std::optional<KeyFile> file_;
  std::array<int, 2> ends_{};
};

TEST_F(Faults, EverySystemCallMayFail) {
  for (const Operation& operation : operations()) {
    disturb(operation, 0, 0);
    for (size_t n = 1; n <= operation.steps.size(); ++n) {
      for (int error : {EIO, ENOSPC, EINTR, EDQUOT, EROFS, EMFILE}) disturb(operation, n, error);
      const std::string call = operation.steps[n - 1].call.substr(0, 5);
      if (call == "read " || call == "write") disturb(operation, n, faults::SHORTEN);
    }
  }
}

TEST_F(Faults, ACrashLeavesTheOldFileOrTheNew) {
  const Operation save = operations()[0];
  for (size_t n = 1; n <= save.steps.size(); ++n) {
    prepare();
    const pid_t child = fork();
    if (child == 0) {
      faults::watch_calls(static_cast<int>(n), faults::KILL);
      _exit(save.run());
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status)) << n;
    EXPECT_EQ(text_of("target"), n <= 8 ? OLD : NEW) << n;  // the rename is the eighth
    EXPECT_EQ(save.run(), 0);
    EXPECT_EQ(text_of("target"), NEW);
  }
}

TEST_F(Faults, EveryAllocationMayFail) {
  const std::string name(50, 'n');
  std::string text;
  int number = 0;
  double real = 0;
  bool flag = false;
  const std::string get = "<3>Failed to get a::" + name + " : std::bad_alloc\n";
  const std::string set = "<3>Failed to set a::" + name + "=%: std::bad_alloc\n";
  // What is run, its line, and whether it may also give the exception to the caller without a line.
  const std::vector<std::tuple<std::function<bool()>, std::string, bool>> cases = {
      {[&] { return file_->toString() == OLD; }, "", true},
      {[&] { return file_->write(), true; }, "", true},
      {[&] { return file_->getString("a", name, text, VALUE); }, get, true},
      {[&] { return file_->getInteger("a", name, number, 7); }, get, false},
      {[&] { return file_->getDouble("a", name, real, 0.5); }, get, false},
      {[&] { return file_->getBoolean("a", name, flag, true); }, get, false},
      {[&] { return file_->setString("a", name, VALUE); }, replaced(set, "%", VALUE), true},
      {[&] { return file_->setInteger("a", name, -1234567890); }, replaced(set, "%", "-1234567890"),
       false},
      {[&] { return file_->setDouble("a", name, 1e6); }, replaced(set, "%", "1e+06"), false},
      {[&] { return file_->setBoolean("a", name, true); }, replaced(set, "%", "1"), false},
      {[&] { return KeyFile("target", 0600).toString() == OLD; },
       "<3>Failed to read keyfile at target: std::bad_alloc\n", true}};
  for (const auto& [run, expected, may_throw] : cases) {
    for (int n = 1, failed = 2; failed > 0; ++n) {
      failed = 0;
      for (const bool all : {false, true}) {
        prepare();
        bool done = false;
        bool thrown = false;
        const auto line = lines_of([&, &run = run] {
          faults::fail_allocation(n, all);
          try {
            done = run();
          } catch (const std::bad_alloc&) {
            thrown = true;
          }
          failed += faults::allocation_failed() ? 1 : 0;
        });
        EXPECT_TRUE(done ? line.empty() : line == expected || (thrown && line.empty())) << line;
        EXPECT_TRUE(may_throw || !thrown) << expected << n;
        EXPECT_TRUE(text_of("target") == OLD || text_of("target") == file_->toString());
        EXPECT_TRUE(file_->setInteger("a", "next", n));
        EXPECT_EQ(text_of("target"), file_->toString());
      }
      EXPECT_TRUE(n > 1 || failed == 2) << "nothing failed";
    }
  }
}

}  // namespace
}  // namespace vutil
