// Descriptors and files. Every function checks its contract first, then runs straight through, and
// returns a negated errno value at the first failure.
//
// The line numbers of the checks are part of the diagnostics that field tools match, so each check
// keeps its line and the functions keep their order; tests/io_test.cpp holds the table.
#ifndef __LP64__
#undef _FORTIFY_SOURCE  // whatever the compiler's flags say: see read_deadline
#endif
#include "vutil/io.h"

#include <fcntl.h>
#include <libgen.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <utility>

#include "check.h"

// What would fail without a word: offsets and deadlines that are cut, waits that are none at all.
static_assert(sizeof(off_t) == 8 && sizeof(time_t) == 8, "build with 64-bit offsets and times");
static_assert(sizeof(long) == 8 || __USE_FORTIFY_LEVEL == 0, "include no header before this file");

namespace vutil {

using std::chrono::nanoseconds;
using namespace std::chrono_literals;

namespace {
// Bytes, the NUL at the end included: what Linux accepts as a path (PATH_MAX).
constexpr size_t PATH_BUFFER_SIZE = 4096;

// Keeps errno as it was at the start of a scope, on every way out of it.
struct ErrnoKeeper {
  ~ErrnoKeeper() { errno = saved; }
  const int saved = errno;
};

// The single owner of a descriptor: closes it on every way out of a scope.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { xclose(fd_); }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// Prints `format`, which takes a subject and the text of `error`, and gives the result for it. As
// an argument, `errno` is read before the print can change it.
[[gnu::format(printf, 2, 0)]] int report_failure(int error, const char* format,
                                                 const char* subject) {
  print_message(format, subject, strerror(error));
  return -error;
}
}  // namespace

void xclose(int& fd) {
  if (fd < 0) return;
  const ErrnoKeeper errno_keeper;
  if (close(fd) != 0) {
    CHECK_OR_RETURN_VOID(errno != EBADF);
  }
  fd = -1;
}

// A stack buffer of a quarter of a pipe's capacity: large enough that system calls do not dominate,
// small enough for a thread's stack.
int read_drain(int fd, size_t len, nanoseconds deadline) {
  CHECK_OR_RETURN(fd >= 0, -EBADF);
  CHECK_OR_RETURN(deadline >= 0ns, -EINVAL);

  char scratch[16384];
  for (size_t remaining = len; remaining != 0;) {
    size_t count = 0;
    const int result =
        read_deadline(fd, scratch, std::min(remaining, sizeof(scratch)), &count, deadline);
    if (result < 0) return result;
    remaining -= count;
  }
  return 0;
}

namespace {

// The time on the clock of all deadlines: setting the system's time does not move it.
nanoseconds monotonic_now() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}

}  // namespace

// The remaining time is computed afresh before every wait, so that partial reads cannot stretch the
// waiting beyond the deadline. A deadline that has passed becomes a wait of no time, not a failure:
// what is readable already is still read. Which events ppoll returned is not examined: after a
// hang-up or an error the read itself tells best what happened.
//
// On 32-bit targets this file undoes fortification, at its top: glibc 2.36 would send ppoll to the
// entry point for 32-bit times, but with a 64-bit timespec, and every wait of less than a second
// would become none at all.
int read_deadline(int fd, void* vbuffer, size_t len, size_t* bytes_read_out, nanoseconds deadline) {
  CHECK_OR_RETURN(fd >= 0, -EBADF);
  CHECK_OR_RETURN(vbuffer != nullptr || len == 0, -EFAULT);
  CHECK_OR_RETURN(bytes_read_out != nullptr, -EFAULT);
  CHECK_OR_RETURN(deadline >= 0ns, -EINVAL);

  size_t got = 0;
  int result = 0;
  while (got < len) {
    const nanoseconds remaining = std::max(deadline - monotonic_now(), 0ns);
    struct timespec timeout = {};
    timeout.tv_sec = static_cast<time_t>(remaining / 1s);
    timeout.tv_nsec = static_cast<long>((remaining % 1s).count());
    struct pollfd entry = {fd, POLLIN, 0};
    const int ready = ppoll(&entry, 1, &timeout, nullptr);
    if (ready < 0) {
      result = report_failure(errno, "<3>%s: ppoll: %s\n", __func__);
      break;
    }
    if (ready == 0) {
      result = -ETIMEDOUT;
      break;
    }
    const ssize_t count = read(fd, static_cast<char*>(vbuffer) + got, len - got);
    if (count <= 0) {
      result = count < 0 ? -errno : -ECANCELED;
      break;
    }
    got += static_cast<size_t>(count);
  }
  *bytes_read_out = got;
  return result;
}

int read_timeout(int fd, void* vbuffer, size_t len, size_t* bytes_read_out, nanoseconds timeout) {
  const nanoseconds now = monotonic_now();
  const nanoseconds end = timeout > nanoseconds::max() - now ? nanoseconds::max() : now + timeout;
  return read_deadline(fd, vbuffer, len, bytes_read_out, end);
}

namespace {
// Gives the first descriptor that was passed with a message, or -1, and closes all others.
int take_first_descriptor(struct msghdr& message);
}  // namespace

// A descriptor is this process's from the moment it arrives: it is handed over or closed. It is not
// made close-on-exec: a caller may mean it for a program that it is about to start.
int recvmsg_fd(int fd, struct iovec* iov, int iovcnt, size_t* bytes_received_out, int* result_fd) {
  CHECK_OR_RETURN(fd >= 0, -EBADF);
  CHECK_OR_RETURN(iovcnt >= 0, -EINVAL);
  CHECK_OR_RETURN(iovcnt != 0 || iov == nullptr, -EINVAL);
  CHECK_OR_RETURN(result_fd, -EINVAL);

  *result_fd = -1;
  alignas(struct cmsghdr) char control[52] = {};  // room for ten descriptors on the 32-bit target
  struct msghdr message = {};
  message.msg_iov = iov;
  message.msg_iovlen = static_cast<size_t>(iovcnt);
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t received = recvmsg(fd, &message, 0);
  if (received < 0) return -errno;
  Descriptor passed(take_first_descriptor(message));
  if (received == 0) return -ECANCELED;
  *bytes_received_out = static_cast<size_t>(received);
  if ((message.msg_flags & MSG_TRUNC) != 0) return -EMSGSIZE;
  *result_fd = passed.release();
  return 0;
}

namespace {
int take_first_descriptor(struct msghdr& message) {
  // SCM_PIDFD, which older headers lack: on a socket with SO_PASSPIDFD, a descriptor of the sender.
  constexpr int PIDFD = 4;
  const char* const end = static_cast<char*>(message.msg_control) + message.msg_controllen;
  int result = -1;
  for (auto* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
    const char* const begin = reinterpret_cast<char*>(header);
    if (header->cmsg_len > static_cast<size_t>(end - begin)) break;  // the macros let it pass
    const bool passed = header->cmsg_type == SCM_RIGHTS;
    if (header->cmsg_level != SOL_SOCKET || !(passed || header->cmsg_type == PIDFD)) continue;
    for (size_t at = CMSG_LEN(0); at + sizeof(int) <= header->cmsg_len; at += sizeof(int)) {
      int fd = -1;
      memcpy(&fd, begin + at, sizeof(fd));
      if (passed && result < 0) result = std::exchange(fd, -1);
      xclose(fd);
    }
  }
  return result;
}
}  // namespace

int write_all(int fd, std::string_view data, size_t* bytes_written_out) {
  CHECK_OR_RETURN(fd >= 0, -EBADF);

  // Kept up to date as the bytes go out, so that the count is right on every return, and a caller
  // whose pipe was full can go on from there.
  if (bytes_written_out != nullptr) *bytes_written_out = 0;
  while (!data.empty()) {
    const ssize_t count = write(fd, data.data(), data.size());
    if (count < 0) return -errno;
    if (count == 0) return -EIO;  // no errno to report, and trying again might never end
    if (bytes_written_out != nullptr) *bytes_written_out += static_cast<size_t>(count);
    data.remove_prefix(static_cast<size_t>(count));
  }
  return 0;
}

// The caller's array is the record of progress, so that no copy of it is needed: that would take an
// allocation, or room for IOV_MAX entries on the stack.
//
// Entries of length 0 are skipped while a count is used up. One that follows the written bytes
// directly goes into one more call, which then writes 0 bytes: that is success, and simpler than
// looking ahead for entries that still hold something.
int writev_all(int fd, struct iovec* iov, int iovcnt, size_t* bytes_written_out) {
  CHECK_OR_RETURN(fd >= 0, -EBADF);
  CHECK_OR_RETURN(iovcnt >= 0, -EINVAL);
  CHECK_OR_RETURN(iovcnt != 0 || iov == nullptr, -EINVAL);

  if (bytes_written_out != nullptr) *bytes_written_out = 0;
  while (iovcnt > 0) {
    const ssize_t written = writev(fd, iov, iovcnt);
    if (written < 0) return report_failure(errno, "<3>%s: %s\n", "writev");
    if (written == 0) return 0;
    auto count = static_cast<size_t>(written);
    if (bytes_written_out != nullptr) *bytes_written_out += count;
    for (; count > 0 && count >= iov->iov_len; ++iov, --iovcnt) {
      count -= iov->iov_len;
      iov->iov_len = 0;
    }
    if (count > 0) *iov = {static_cast<char*>(iov->iov_base) + count, iov->iov_len - count};
  }
  return 0;
}

namespace {

// The NUL must fit too, and one byte is left over: the longest path has 4094 bytes.
bool to_null_terminated_path(char (&buffer)[PATH_BUFFER_SIZE], std::string_view path) {
  if (path.size() + 1 >= PATH_BUFFER_SIZE) return false;
  memcpy(buffer, path.data(), path.size());
  buffer[path.size()] = '\0';
  return true;
}

// Gives `contents` a size of `size` and reads into it. Returns 0 or an errno value.
int read_contents(int fd, size_t size, std::string& contents);
}  // namespace

int get_file_contents(std::string_view path, std::string& contents) {
  CHECK_OR_RETURN(!path.empty(), -EINVAL);

  char cpath[PATH_BUFFER_SIZE];
  CHECK_OR_RETURN(to_null_terminated_path(cpath, path), -ENAMETOOLONG);

  const Descriptor file(open(cpath, O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) {
    if (errno == ENOENT) return -ENOENT;
    return report_failure(errno, "<3>Failed to open '%s': %s\n", cpath);
  }
  const off_t size = lseek(file.get(), 0, SEEK_END);
  if (size < 0) return report_failure(errno, "<3>Failed to seek to end of '%s': %s\n", cpath);
  if (lseek(file.get(), 0, SEEK_SET) < 0) {
    return report_failure(errno, "<3>Failed to seek to start of '%s': %s\n", cpath);
  }
  if (!std::in_range<size_t>(size)) throw std::length_error("file too large for a string");
  const int error = read_contents(file.get(), static_cast<size_t>(size), contents);
  if (error == 0) return 0;
  return report_failure(error, "<3>Failed to read contents from '%s': %s\n", cpath);
}

namespace {

// Writes a file for both functions below. The permission bits are set by path, while the descriptor
// is still open; a `mode` of 0 leaves them alone. A second flush after them would make them last as
// surely as the data, at twice the price: a power cut may lose the bits, never the contents.
int write_contents_to_path(const char* cpath, std::string_view contents, int extra_flags,
                           bool do_fsync, unsigned int mode) {
  const Descriptor file(open(cpath, extra_flags | O_WRONLY | O_CLOEXEC, mode));
  if (file.get() < 0) {
    return report_failure(errno, "<3>Failed to open path '%s' for writing: %s\n", cpath);
  }
  const int result = write_all(file.get(), contents, nullptr);
  if (result < 0) {
    return report_failure(-result, "<3>Failed to write contents to '%s': %s\n", cpath);
  }
  if (do_fsync && fsync(file.get()) != 0) {
    return report_failure(errno, "<3>Failed to fsync '%s': %s\n", cpath);
  }
  if (mode != 0 && chmod(cpath, mode) != 0) {
    return report_failure(errno, "<3>Failed to change permissions of '%s': %s\n", cpath);
  }
  return 0;
}

}  // namespace

// Replaces a file so that a crash at any moment leaves the old contents or the new ones, whole:
//
//  1. unlink: what an earlier crash left behind goes, or step 2 would fail for ever.
//  2. open with O_EXCL: nobody else's file or link is written through.
//  3. write, fsync: the data is on the device before the target's name can lead to it. Without the
//     flush, a file system may commit the rename first, and a crash leaves an empty file.
//  4. chmod, chmod: the exact bits, since open narrowed them by the umask, and since 0 counts too.
//  5. rename, fsync of the directory: the one atomic step from old to new, then made to last.
//
// Roads not taken:
//
//  - O_TMPFILE leaves nothing behind after a crash, but linkat cannot put its file in the place of
//    another: it would need a temporary name all the same, for the rename.
//  - A temporary name with random characters lets two calls for one path run at once, but each
//    crash leaves one more file that nobody removes.
//  - fdatasync saves nothing: the size of a new file has to be flushed in either case.
//  - Writing into the existing file keeps its owner, its links and its access control list, and
//    loses its contents at a power cut. To give them to a new file takes privileges that a service
//    should not have.
int set_file_contents(std::string_view path, std::string_view contents, unsigned int mode) {
  CHECK_OR_RETURN(!path.empty(), -EINVAL);

  // Until all three checks have passed, nothing on disk is touched. A path of 4091 bytes passes
  // them, but its temporary name does not pass the check of rename_fsync: the one case in which a
  // path that is too long leaves a temporary file behind.
  char cpath[PATH_BUFFER_SIZE];
  CHECK_OR_RETURN(to_null_terminated_path(cpath, path), -ENAMETOOLONG);

  // Beside the target, so that the rename stays within one file system. The length is the one that
  // the whole name would have, which is how a name that did not fit shows.
  char tmp_cpath[PATH_BUFFER_SIZE];
  const int tmp_cpath_len = snprintf(tmp_cpath, sizeof(tmp_cpath), "%s.tmp", cpath);
  CHECK_OR_RETURN(static_cast<size_t>(tmp_cpath_len) < sizeof(tmp_cpath), -ENAMETOOLONG);

  // Most often there is nothing to remove. Anything else in the way, such as a directory of that
  // name, is not this function's to clear.
  if (unlink(tmp_cpath) != 0 && errno != ENOENT) {
    return report_failure(errno, "<3>Failed to unlink '%s': %s\n", tmp_cpath);
  }

  // Its own message says which step failed; this one, that the target is as it was.
  int result = write_contents_to_path(tmp_cpath, contents, O_CREAT | O_EXCL, true, mode);
  if (result < 0) {
    print_message("<3>Failed when writing contents to temporary file.\n");
    unlink(tmp_cpath);
    return result;
  }

  // The writer leaves the bits alone for a mode of 0; here 0 means that nobody gets any permission.
  if (chmod(tmp_cpath, mode) != 0) {
    result = report_failure(errno, "<3>Failed to change permissions of '%s': %s\n", tmp_cpath);
    unlink(tmp_cpath);
    return result;
  }

  // After a failed rename the temporary file stays, complete and flushed: an operator may want it,
  // and step 1 of the next call removes it.
  result = rename_fsync({tmp_cpath, static_cast<size_t>(tmp_cpath_len)}, path);
  if (result < 0) {
    print_message("<3>Failed to rename '%s' -> '%s': %s\n", tmp_cpath, cpath, strerror(-result));
    return result;
  }
  return 0;
}

// O_CREAT is left out: a misspelt attribute of sysfs must be an error and not a new file. O_TRUNC
// is left out: records of a fixed size can be written, and a crash soon after a truncation would
// lose all of the old contents, not only what the new ones overwrite. There is no flush: this
// serves files that are an interface rather than data, and some of those refuse it. What must
// survive a crash goes through set_file_contents.
int set_file_contents_inplace(std::string_view path, std::string_view contents) {
  CHECK_OR_RETURN(!path.empty(), -EINVAL);
  char cpath[PATH_BUFFER_SIZE];
  CHECK_OR_RETURN(to_null_terminated_path(cpath, path), -ENAMETOOLONG);
  return write_contents_to_path(cpath, contents, 0, false, 0);
}

// F_SETFL is called even if nothing changes: one path to read and to test.
int set_blocking(int fd, bool blocking) {
  CHECK_OR_RETURN(fd >= 0, -EBADF);

  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0) return -errno;
  const int new_flags = blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK;
  if (fcntl(fd, F_SETFL, new_flags) < 0) return -errno;
  return 0;
}

// Opening for reading is enough to flush, and the only way to open a directory. O_DIRECTORY is left
// out, as files are welcome too: fsync flushes what was written through any descriptor of the file,
// also by another process. syncfs would flush more than was asked for: the whole file system.
//
// There is no message for a failure: whether it is an error or, as after a rename, only a warning,
// is for the caller to say, who knows what the flush was for. Some file systems cannot flush a
// directory and give EINVAL.
int fsync_path(std::string_view path) {
  CHECK_OR_RETURN(!path.empty(), -EINVAL);

  char cpath[PATH_BUFFER_SIZE];
  CHECK_OR_RETURN(to_null_terminated_path(cpath, path), -ENAMETOOLONG);

  const Descriptor file(open(cpath, O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) return -errno;
  if (fsync(file.get()) != 0) return -errno;
  return 0;
}

// A rename is atomic for everyone who looks, but only a flush of the directory with the new name
// puts it on the device at a known moment.
//
// If the flush fails, the rename has taken place all the same and cannot safely be undone. An error
// would tell the caller that the old file is still there; so this is a warning. The directory of
// the old name is not flushed, which would double the price: should a crash bring that name back,
// it is a second name of a file that is whole.
int rename_fsync(std::string_view oldpath, std::string_view newpath) {
  CHECK_OR_RETURN(!oldpath.empty(), -EINVAL);
  CHECK_OR_RETURN(!newpath.empty(), -EINVAL);

  char c_oldpath[PATH_BUFFER_SIZE];
  CHECK_OR_RETURN(to_null_terminated_path(c_oldpath, oldpath), -ENAMETOOLONG);
  char c_newpath[PATH_BUFFER_SIZE];
  CHECK_OR_RETURN(to_null_terminated_path(c_newpath, newpath), -ENAMETOOLONG);

  if (rename(c_oldpath, c_newpath) != 0) {
    const int error = errno;
    print_message("<3>Failed to rename '%s' -> '%s': %s\n", c_oldpath, c_newpath, strerror(error));
    return -error;
  }
  const char* const directory = dirname(c_newpath);  // changes c_newpath
  const int result = fsync_path(directory);
  if (result < 0) report_failure(-result, "<4>Failed to fsync '%s': %s\n", directory);
  return 0;
}

namespace {
// Where the standard library can do without (C++23), nothing is zeroed that the read overwrites:
// for a large file that would cost as much as the read. What a failed read leaves is zeroed.
int read_contents(int fd, size_t size, std::string& contents) {
  int error = 0;
  const auto read_into = [&](char* data, size_t /*size*/) {
    size_t got = 0;
    ssize_t count = 0;
    do {  // once, unless the kernel splits a huge request or the file has just been truncated
      count = read(fd, data + got, size - got);
      if (count < 0) {
        error = errno;
        memset(data + got, 0, size - got);
        return size;
      }
      got += static_cast<size_t>(count);
    } while (count > 0 && got < size);
    return got;
  };
#ifdef __cpp_lib_string_resize_and_overwrite
  contents.resize_and_overwrite(size, read_into);
#else
  contents.resize(size);
  contents.resize(read_into(contents.data(), size));
#endif
  return error;
}
}  // namespace

}  // namespace vutil
