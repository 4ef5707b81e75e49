/// @defgroup io vutil/io.h
/// Careful wrappers over descriptor and file calls.
///
/// - *Descriptors:* xclose(), set_blocking(), write_all(), writev_all(), recvmsg_fd()
/// - *Reading before a deadline:* read_deadline(), read_timeout(), read_drain()
/// - *Whole files:* get_file_contents(), set_file_contents(), set_file_contents_inplace()
/// - *Making durable:* fsync_path(), rename_fsync()
///
/// What holds for all of them, unless a comment says otherwise:
///
/// - **Results.** A function returns 0 on success and a negated errno value on failure, for example
///   `-ENOENT` (errno(3)). Byte counts are delivered through `size_t*` parameters, on success and
///   on failure, but not after a failed check. Only get_file_contents() can throw an exception.
/// - **Checks.** A function checks its arguments first. If a check fails, the function writes a
///   `<2>` message, does nothing else, and returns the error that is marked "(check)". Not repeated
///   below: a negative descriptor gives -EBADF, an empty path -EINVAL, and a path of more than
///   4,094 bytes -ENAMETOOLONG.
/// - **Errors of the system.** The comments name the results of normal use. Every other error of a
///   system call, except close(2), is returned too, negated, and a named error may have other
///   causes: the manual pages behind "See" tell.
/// - **Waiting.** Nothing is retried: EINTR and EAGAIN are failures like any other. Only the three
///   functions that read before a deadline limit how long they wait; the others may wait on after a
///   signal. To open a FIFO waits for its other end. To write, or to receive a descriptor, before a
///   deadline, call with a descriptor in non-blocking mode, and after -EAGAIN wait with poll(2) and
///   call again.
/// - **Messages.** A message is one line on `stderr`, normally in one write(2). It begins with a
///   priority (sd-daemon(3)): `<2>` a check failed, `<3>` the operation failed, `<4>` it succeeded,
///   with a warning. Where no `<3>` or `<4>` message is mentioned, none is written. Tools may match
///   a message, apart from paths, names, values and the text of an error (strerror(3)): in all
///   versions 0.x it stays the same, and so does the line number of src/io.cpp in a `<2>` message.
///   To write a message takes the lock of `stderr` (flockfile(3)) and waits while standard error is
///   a full pipe. A message that fails is lost.
/// - **Signals.** A write, and so a message, can raise SIGPIPE (nobody reads from the pipe or
///   stream socket) or SIGXFSZ (beyond RLIMIT_FSIZE). By default they end the process; if they are
///   ignored, the result is -EPIPE or -EFBIG. Do not call these functions in a signal handler.
/// - **Descriptors.** A descriptor that is passed in stays the caller's. One that a function opens
///   has O_CLOEXEC, and is closed before the function returns or throws. Keep the descriptors 0, 1
///   and 2 of a process open: otherwise a file that the library opens or receives may get the
///   number 2, and a message goes into it.
/// - **Paths.** A path needs no NUL byte at its end, and must not hold one (this is not checked).
///   Symbolic links are followed. Messages show paths as they are, line feeds included: a program
///   that takes paths from others must check them, or others can forge its messages.
/// - **Threads.** The functions keep no state and may run in any number of threads; 32 KiB of stack
///   are enough. What must not happen at the same time: two calls that read from one descriptor,
///   two that write to one, the closing of a descriptor that a call uses, and two calls that write
///   to one path, even in two processes. Do not cancel a thread (pthread_cancel(3)) that may be in
///   the library: the process may end, or a descriptor leak.
#ifndef VUTIL_IO_H_
#define VUTIL_IO_H_

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "vutil/export.h"

struct iovec;

/// Everything that libvemra-util exports.
namespace vutil {

/// @addtogroup io
///@{

/// @name Descriptors
///@{

/// Closes the descriptor in a variable and sets the variable to -1. See close(2).
///
/// It is made for clean-up on every way out of a function: it does nothing if the variable is
/// negative, and never changes errno. Otherwise the variable is -1 afterwards, even if close(2)
/// failed with EINTR or EIO: Linux has released the descriptor by then. Only after EBADF, when
/// there was no such descriptor, does the number stay; a `<2>` message reports this error of the
/// program.
VUTIL_EXPORT void xclose(int& fd);

/// Puts a descriptor in blocking mode (true) or non-blocking mode (false). See O_NONBLOCK in
/// fcntl(2).
///
/// The mode changes for every duplicate of the descriptor, in other processes too.
///
/// @returns 0, or -EBADF if `fd` is not open.
[[nodiscard]] VUTIL_EXPORT int set_blocking(int fd, bool blocking);

/// Writes a whole buffer, in as many calls as it takes. See write(2).
///
/// ~~~{.cpp}
/// // Writes what a non-blocking socket takes now. After -EAGAIN `pending` holds the rest:
/// // call this again when poll(2) reports POLLOUT.
/// int write_pending(int fd, std::string& pending) {
///   std::size_t count = 0;
///   const int result = vutil::write_all(fd, pending, &count);
///   pending.erase(0, count);
///   return result;
/// }
/// ~~~
///
/// @param data  the bytes. If there are none, no system call is made.
/// @param bytes_written_out  receives the number of bytes written. May be null.
/// @retval -EAGAIN  the descriptor takes no more now.
/// @retval -EIO  the device failed, or took no bytes.
[[nodiscard]] VUTIL_EXPORT int write_all(int fd, std::string_view data,
                                         std::size_t* bytes_written_out);

/// Writes an array of buffers in order, in as many calls as it takes. See writev(2).
///
/// Afterwards the array describes what was not written: an entry that was written whole has length
/// 0, and one that was written in part begins at its first unwritten byte. So after -EAGAIN or
/// -EINTR the same array can be passed again.
///
/// @param iov  the buffers, changed as described.
/// @param bytes_written_out  receives the number of bytes written. May be null.
/// @retval 0  all was written; or the device took no bytes and reported no error, as the count
///   shows.
/// @retval -EAGAIN  the descriptor takes no more now. **Every failure of writev(2), this one too,
///   writes a `<3>` message.**
/// @retval -EINVAL  `iovcnt` is negative, or is 0 while `iov` is not null (check); or the array has
///   more than IOV_MAX (1,024) entries, or is too large.
[[nodiscard]] VUTIL_EXPORT int writev_all(int fd, struct iovec* iov, int iovcnt,
                                          std::size_t* bytes_written_out);

/// Receives data once from a local (AF_UNIX) socket, and at most one descriptor that was passed
/// with it. See recvmsg(2), unix(7), cmsg(3).
///
/// ~~~{.cpp}
/// // Gives the descriptor that comes along with one byte, or a negated errno value.
/// int receive_descriptor(int socket) {
///   char byte = 0;
///   struct iovec buffer = {&byte, 1};
///   std::size_t count = 0;
///   int fd = -1;
///   const int result = vutil::recvmsg_fd(socket, &buffer, 1, &count, &fd);
///   if (result == 0 && fd >= 0) fcntl(fd, F_SETFD, FD_CLOEXEC);
///   return result != 0 ? result : fd >= 0 ? fd : -EBADMSG;
/// }
/// ~~~
///
/// The descriptor is *not* close-on-exec. If another thread may start a program, hold a lock around
/// this call and FD_CLOEXEC, and the same lock around the start; in non-blocking mode it is not
/// held for long. All further descriptors that come are closed, and on failure all of them: a
/// sender cannot make the caller leak one, but with SO_LINGER (socket(7)) it can make the closing
/// wait.
///
/// @param iov  buffers for the data, with room for at least one byte in all.
/// @param bytes_received_out  receives the number of bytes, on success and if a datagram was
///   truncated; otherwise untouched. Must not be null (this is not checked).
/// @param result_fd  receives the descriptor, which belongs to the caller; or -1 on failure, if
///   none was passed, and if the process has too many open (RLIMIT_NOFILE). Untouched after a
///   failed check.
/// @retval 0  data was received. On a stream that may be a part of what was sent, and the next call
///   gives more.
/// @retval -ECANCELED  no data came. On a stream, the connection has ended. On other sockets
///   nothing tells the end from an empty datagram: let senders send none that is empty. (Without
///   room in the buffers this is the result too, and what was waiting may be lost.)
/// @retval -ECONNRESET  the other end has closed without reading everything. What it had sent
///   before may still be received.
/// @retval -EMSGSIZE  a datagram was truncated: the buffers hold its beginning, the rest is lost.
///   Or the array has more than IOV_MAX (1,024) entries.
/// @retval -EAGAIN  nothing is there now.
/// @retval -EINVAL  `iovcnt` is negative, or is 0 while `iov` is not null, or `result_fd` is null
///   (check).
[[nodiscard]] VUTIL_EXPORT int recvmsg_fd(int fd, struct iovec* iov, int iovcnt,
                                          std::size_t* bytes_received_out, int* result_fd);
///@}

/// @name Reading before a deadline
///@{

/// Reads exactly `len` bytes before a deadline. See read(2), ppoll(2).
///
/// ~~~{.cpp}
/// // Reads a frame within a second: two bytes that tell its length, then as many bytes.
/// int read_frame(int fd, std::string& frame) {
///   const auto start = std::chrono::steady_clock::now().time_since_epoch();
///   const auto deadline = start + std::chrono::seconds(1);
///   unsigned char length[2] = {};
///   std::size_t count = 0;
///   const int result = vutil::read_deadline(fd, length, sizeof(length), &count, deadline);
///   if (result != 0) return result;
///   frame.resize(256u * length[0] + length[1]);
///   return vutil::read_deadline(fd, frame.data(), frame.size(), &count, deadline);
/// }
/// ~~~
///
/// Waiting ends at the deadline (later only if the process is stopped meanwhile), however many
/// reads it takes. What is there by then is still read.
///
/// After a failure `*bytes_read_out` bytes are in the buffer. Read the rest with a further call, or
/// close the connection: nobody can tell where the next frame begins. The caller of read_frame()
/// must close it, as the count is lost.
///
/// It is made for pipes, stream sockets and character devices. Short datagrams would be joined, and
/// the end of a long one lost. Leave SO_RCVLOWAT of a socket and VMIN of a terminal at 1. In
/// blocking mode let nobody else read from the descriptor, or the call may wait beyond the
/// deadline. Failures of ppoll(2) write a `<3>` message, those of read(2) none.
///
/// @param fd  a descriptor open for reading. (The writing end of a pipe never becomes readable.)
/// @param len  the number of bytes wanted. If it is 0, no system call is made.
/// @param deadline  a point in time, in nanoseconds on CLOCK_MONOTONIC (clock_gettime(2)), the
///   clock of libstdc++'s `std::chrono::steady_clock`. That clock stands still while the system is
///   suspended. `std::chrono::nanoseconds::max()` waits for ever. (For a 32-bit program, a kernel
///   before Linux 5.1 refuses to wait for 68 years or more: -EOVERFLOW.)
/// @retval -ETIMEDOUT  the deadline passed first.
/// @retval -ECANCELED  a read gave 0 bytes: the file or the connection has ended (between two
///   frames, if the count is 0), or a datagram was empty. A reset connection or a hang-up can give
///   another error.
/// @retval -EINTR  a signal handler has run.
/// @retval -EFAULT  `vbuffer` is null while `len` is not 0, or `bytes_read_out` is null (check).
/// @retval -EINVAL  `deadline` is negative (check).
[[nodiscard]] VUTIL_EXPORT int read_deadline(int fd, void* vbuffer, std::size_t len,
                                             std::size_t* bytes_read_out,
                                             std::chrono::nanoseconds deadline);

/// Calls read_deadline() with the deadline now plus `timeout`. Messages name read_deadline().
///
/// @param timeout  nanoseconds from now. With 0 the call does not wait: it reads what is there. A
///   negative time is a deadline in the past; one from before the system started gives -EINVAL
///   (check). A time that is too long for the clock waits for ever.
[[nodiscard]] VUTIL_EXPORT int read_timeout(int fd, void* vbuffer, std::size_t len,
                                            std::size_t* bytes_read_out,
                                            std::chrono::nanoseconds timeout);

/// Reads exactly `len` bytes before a deadline, as read_deadline() does, and discards them.
///
/// How many were discarded before a failure is not reported.
[[nodiscard]] VUTIL_EXPORT int read_drain(int fd, std::size_t len,
                                          std::chrono::nanoseconds deadline);
///@}

/// @name Whole files
///@{

/// Reads a whole file into a string. See open(2), lseek(2), read(2).
///
/// It is made for regular files, and works for attributes in /sys too. Files that do not tell their
/// size, as in /proc, /sys/fs/cgroup or tracefs, and terminals give a failure or, **without a
/// message, an empty string**; a directory gives a failure or an exception. What is read while
/// somebody writes into the file may be mixed from before and after.
///
/// @param contents  receives the bytes in place of what it held. Unchanged if the file cannot be
///   opened or positioned; unspecified if it cannot be read, and after an exception.
/// @retval -ENOENT  there is no such file. Every other error of the system writes a `<3>` message.
/// @throws std::length_error  the file is larger than a string can be; std::bad_alloc if there is
///   not enough memory.
[[nodiscard]] VUTIL_EXPORT int get_file_contents(std::string_view path, std::string& contents);

/// Replaces a file durably, or creates it. See open(2), fsync(2), chmod(2), rename(2).
///
/// After a crash or power cut at any moment, the path holds the old contents or the new ones,
/// whole; if there was no file, none or the new one. Once the call has returned 0 without a
/// message, the new contents stay. That holds if the file system and the device do what fsync(2)
/// and rename(2) promise. **FAT does not,** unless it is mounted with `sync`: what was saved last
/// may be lost, and the file may be empty.
///
/// The new contents go to a temporary file, the path with `.tmp` appended; an older one is removed
/// first. It is flushed, gets its permission bits and is renamed over the path. Then the directory
/// is flushed.
///
/// - The process must be allowed to write to and search the directory, and to read it for the
///   flush; in a sticky directory it must own the old file or the directory. If the flush fails,
///   the file has been replaced: the result is 0, a `<4>` message names the directory, and a crash
///   may bring back the old contents.
/// - A failure leaves the path as it was. The temporary file may stay, as it does when the process
///   ends in between; the next call removes it, or fails if it cannot.
/// - A crash soon after the call may leave fewer permission bits than `mode` has.
/// - A symbolic link, FIFO, socket or device node at the path is replaced, not followed or written
///   to. A directory (-EISDIR), and a file that is itself a mount point (-EBUSY), as containers
///   have them, are not replaced.
/// - The new file belongs to the user and group of the process, or to the group of a set-group-ID
///   directory. Other hard links keep the old contents. Extended attributes and access control
///   lists of the old file are not kept.
/// - The temporary name is the same for all: two calls at the same time can damage the file, and
///   others can predict it. Let only those who are trusted write to the directory.
///
/// @param path  the file: at most 4,090 bytes, and 251 in its last name on most file systems, or
///   the result is -ENAMETOOLONG (with 4,091 bytes only after the temporary file was written, which
///   stays). With `/` at its end, or `.` or `..` as its last name, the call fails.
/// @param mode  permission bits as chmod(2) takes them, whatever the umask. (FAT does not keep
///   them, and refuses a set-user-ID bit. The kernel drops a set-group-ID bit for a group that the
///   process is not in.)
/// @returns Every error of the system writes one or two `<3>` messages.
[[nodiscard]] VUTIL_EXPORT int set_file_contents(std::string_view path, std::string_view contents,
                                                 unsigned int mode);

/// Writes over the beginning of an existing file. See open(2), write(2).
///
/// It is made for files in /sys and for records of a fixed size. The file is not created, truncated
/// or flushed: what it held beyond `contents` stays, and a failure may leave it partly overwritten.
///
/// @retval -ENOENT  there is no such file. Every error of the system writes a `<3>` message.
/// @retval -EINVAL  for example, a file in /sys does not accept the value.
[[nodiscard]] VUTIL_EXPORT int set_file_contents_inplace(std::string_view path,
                                                         std::string_view contents);
///@}

/// @name Making durable
///@{

/// Flushes a file or directory to its device. See fsync(2).
///
/// What was written through any descriptor of the file is flushed; of a directory, the names in it.
/// The process must be allowed to read what it flushes.
///
/// @returns 0, or for example -ENOENT, -EACCES, or -EINVAL if the file system cannot flush it.
[[nodiscard]] VUTIL_EXPORT int fsync_path(std::string_view path);

/// Renames a file and flushes the directory of its new name, so that the rename survives a crash.
/// See rename(2), fsync(2).
///
/// The contents of the file are not flushed: if they are new, call fsync_path() on it first. Nor is
/// the directory of the old name, if it is another: after a crash the file may have both names. On
/// FAT the rename may be lost all the same.
///
/// @param oldpath  the file, directory or symbolic link to rename. A link is not followed.
/// @param newpath  its new name. A file or link there is replaced; for directories and hard links
///   see rename(2).
/// @returns 0 if it was renamed; if then the directory cannot be flushed, a `<4>` message names it.
///   Every error of the system writes a `<3>` message.
[[nodiscard]] VUTIL_EXPORT int rename_fsync(std::string_view oldpath, std::string_view newpath);
///@}
///@}

}  // namespace vutil

#endif  // VUTIL_IO_H_
