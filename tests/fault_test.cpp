// The error paths: each system call and each allocation of each operation fails in turn.
#include <sys/wait.h>

#include <cstring>
#include <new>
#include <optional>

#include "faults.h"
#include "support.h"

namespace vutil {
namespace {

// A system call; what the operation prints if the call fails; and whether the operation then fails.
struct Step {
  std::string call, lines;
  bool fails = false;
};

struct Operation {
  std::string new_text;  // of the target, after success
  std::function<int()> run;
  std::vector<Step> steps;
};

const std::string VALUE(50, '1');  // long enough to be allocated
const std::string OLD = "[a]\nold=" + VALUE + "\n";
const std::string NEW = "[a]\nnew=22\nold=" + VALUE + "\n";

// The calls of each operation, a line each, numbers in octal: * for a call whose failure is not
// that of the operation, the call, in which FD is the first descriptor that is opened, and the
// lines that its failure prints, in which % is the text of its errno.
constexpr char RENAME[] =
    R"(rename target.tmp target|<3>Failed to rename 'target.tmp' -> 'target': %
*open . 2000000 0|<4>Failed to fsync '.': %
*fsync FD|<4>Failed to fsync '.': %
*close FD)";
constexpr char SAVE[] = R"(unlink target.tmp|<3>Failed to unlink 'target.tmp': %
open target.tmp 2000301 640|<3>Failed to open path 'target.tmp' for writing: %|<3>Failed when writing contents to temporary file.
write FD 102|<3>Failed to write contents to 'target.tmp': %|<3>Failed when writing contents to temporary file.
fsync FD|<3>Failed to fsync 'target.tmp': %|<3>Failed when writing contents to temporary file.
chmod target.tmp 640|<3>Failed to change permissions of 'target.tmp': %|<3>Failed when writing contents to temporary file.
*close FD
chmod target.tmp 640|<3>Failed to change permissions of 'target.tmp': %
rename target.tmp target|<3>Failed to rename 'target.tmp' -> 'target': %|<3>Failed to rename 'target.tmp' -> 'target': %
*open . 2000000 0|<4>Failed to fsync '.': %
*fsync FD|<4>Failed to fsync '.': %
*close FD)";
constexpr char WRITE[] = R"(open target 2000001 0|<3>Failed to open path 'target' for writing: %
write FD 10|<3>Failed to write contents to 'target': %
*close FD)";
constexpr char READ[] = R"(open target 2000000 0|<3>Failed to open 'target': %
lseek FD 0 2|<3>Failed to seek to end of 'target': %
lseek FD 0 0|<3>Failed to seek to start of 'target': %
read FD 73|<3>Failed to read contents from 'target': %
*close FD)";
constexpr char FLUSH[] = "open target 2000000 0\nfsync FD\n*close FD";

std::string replaced(std::string text, const std::string& what, const std::string& by) {
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
    text.replace(at, what.size(), by);
  }
  return text;
}

// `last_line` is printed after the lines of each failure of the operation.
std::vector<Step> parsed(const std::string& text, const std::string& last_line = "") {
  std::istringstream stream(text);
  std::vector<Step> steps;
  for (std::string line; std::getline(stream, line);) {
    const bool fails = line[0] != '*';
    const size_t begin = fails ? 0 : 1;
    const size_t end = std::min(line.find('|'), line.size());
    std::string lines = end == line.size() ? "" : replaced(line.substr(end + 1), "|", "\n") + "\n";
    if (fails) lines += last_line;
    steps.push_back({line.substr(begin, end - begin), lines, fails});
  }
  return steps;
}

class Faults : public InFolder {
 protected:
  void prepare() {
    put("target", OLD);
    if (!exists("target.tmp")) put("target.tmp", "left over");
    file_.emplace("target", 0640u);
  }

  std::vector<Operation> operations() {
    return {{NEW, [&] { return file_->setInteger("a", "new", 22) ? 0 : 1; },
             parsed(SAVE, "<3>Failed to save key file to 'target': %\n")},
            {NEW, [] { return set_file_contents("target", NEW, 0640); }, parsed(SAVE)},
            {"left over", [] { return rename_fsync("target.tmp", "target"); }, parsed(RENAME)},
            {"[b]\nnew=" + VALUE + "\n",
             [] { return set_file_contents_inplace("target", "[b]\nnew="); }, parsed(WRITE)},
            {OLD,
             [] {
               std::string contents;
               const int result = get_file_contents("target", contents);
               return result == 0 && contents != OLD ? 1 : result;
             },
             parsed(READ)},
            {OLD, [] { return fsync_path("target"); }, parsed(FLUSH)}};
  }

  // Runs `operation` with its n-th call disturbed (0: with none), and checks what is left behind.
  void disturb(const Operation& operation, size_t n, int fault) {
    const Step step = fault > 0 ? operation.steps[n - 1] : Step{};
    SCOPED_TRACE(operation.steps[n == 0 ? 0 : n - 1].call + ": " + strerror(fault));
    prepare();
    const auto open_before = open_descriptors();
    std::string first_fd;
    int result = 0;
    std::vector<std::string> calls;
    const std::string lines = lines_of([&] {
      int fd = dup(0);
      first_fd = (std::ostringstream() << std::oct << fd).str();
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
      EXPECT_EQ(calls[i], replaced(operation.steps[i].call, "FD", first_fd));
    }
    EXPECT_EQ(text_of("target"), step.fails ? OLD : operation.new_text);
    const bool saves = operation.new_text == NEW;
    const bool renames = operation.new_text == "left over";
    const bool keeps_tmp = step.call[0] == 'u' || step.call[0] == 'r' || !(saves || renames);
    EXPECT_EQ(exists("target.tmp"), keeps_tmp);
    EXPECT_EQ(open_descriptors(), open_before);
    if (!exists("target.tmp")) put("target.tmp", "left over");
    EXPECT_EQ(operation.run(), 0);
    EXPECT_EQ(text_of("target"), operation.new_text);
  }

  std::optional<KeyFile> file_;
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

TEST_F(Faults, NothingIsTriedAgain) {
  char byte = 'x';
  iovec iov = {&byte, 1};
  size_t count = 99;
  int fd = 99;
  int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  // What is run, which of its calls fails, and the line.
  const std::vector<std::tuple<std::function<int()>, int, std::string>> cases = {
      {[&] { return read_timeout(null, &byte, 1, &count, 1s); }, 1, "<3>read_deadline: ppoll: %\n"},
      {[&] { return read_timeout(null, &byte, 1, &count, 1s); }, 2, ""},
      {[&] { return recvmsg_fd(null, &iov, 1, &count, &fd); }, 1, ""},
      {[&] { return writev_all(null, &iov, 1, &count); }, 1, "<3>writev: %\n"},
      {[&] { return set_blocking(null, true); }, 1, ""},
      {[&] { return set_blocking(null, true); }, 2, ""}};
  for (const auto& [run, nth, line] : cases) {
    int result = 0;
    size_t calls = 0;
    const auto lines = lines_of([&, &run = run, &nth = nth] {
      faults::watch_calls(nth, EINTR);
      result = run();
      calls = faults::noted_calls().size();
    });
    EXPECT_EQ(std::tuple(result, calls), std::tuple(-EINTR, nth));
    EXPECT_EQ(lines, replaced(line, "%", strerror(EINTR)));
  }
  EXPECT_EQ(std::tuple(fd, count), std::tuple(-1, 0));
  xclose(null);
}

TEST_F(Faults, AModeOfZeroIsAppliedLikeAnyOther) {
  faults::watch_calls(0, 0);
  const int result = set_file_contents("target", "x", 0);
  const auto calls = faults::noted_calls();
  EXPECT_EQ(std::tuple(result, calls.size()), std::tuple(0, 10));
  EXPECT_EQ(calls[5], "chmod target.tmp 0");  // the writer makes none
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
