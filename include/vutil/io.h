/// @defgroup io vutil/io.h Careful wrappers over descriptor and file calls.
///
/// Unless a function says otherwise, all this holds for it:
///
/// - **Results.** The result is 0 on success and a negated errno value on failure, for example
///   `-ENOENT` (errno(3)). Byte counts are delivered through `size_t*` parameters.
/// - **Checks.** A function first checks its arguments. A failed check touches nothing, writes a
///   `<2>` message and gives the result that is marked "(check)" below. It never stops the process.
/// - **Messages.** A message is one line on standard error, in one write(2), that begins with a
///   priority (sd-daemon(3)): `<2>` a check failed, `<3>` the operation failed, `<4>` it succeeded
///   with a reservation. Where no `<3>` or `<4>` message is mentioned, none is written. Paths are
///   printed as they are, line feeds included. A program that takes paths from others must check
///   them, or others can forge its messages.
/// - **No retries.** EINTR and EAGAIN are failures like any other: the caller knows whether a
///   signal or a full pipe is a reason to stop, the library does not.
/// - **Descriptors.** A descriptor that is passed in stays the caller's. A descriptor that a
///   function opens has O_CLOEXEC and is closed before the function returns or throws. A process
///   should keep its descriptors 0, 1 and 2 open: otherwise a file that the library opens may get
///   the number 2, and a message is written into that file.
/// - **Paths.** A path has 1 to 4,094 bytes and needs no NUL at its end. The system sees it up to
///   its first NUL byte. A name in it may have as many bytes as the file system allows (most often
///   255). Symbolic links are followed.
/// - **Waiting.** A function waits as long as the system calls that it makes. On a descriptor in
///   blocking mode, and to open a FIFO that nobody has open at its other end, that may be for ever.
/// - **Exceptions.** Only get_file_contents() throws.
/// - **Cancellation.** Do not cancel a thread (pthread_cancel(3)) that may be in a function of this
///   library: the process may end, or a descriptor leak.
/// - **Threads.** The functions keep no state and take no lock. They may run in any number of
///   threads, but no two calls at a time may use the same descriptor or buffer, or write to the
///   same path.
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
/// It is made for clean-up on every way out of a function: it may be called any number of times on
/// one variable, and it never changes errno.
///
/// @param fd  the variable. A negative value means that it holds no descriptor: no system call is
///   made, and the value stays. Otherwise the value is -1 afterwards, also if close(2) failed with
///   EINTR, EIO or the like: Linux has released the descriptor by then, and closing it again could
///   close one of another thread. The value stays only if it was not an open descriptor (EBADF); a
///   `<2>` message reports this fault of the program.
VUTIL_EXPORT void xclose(int& fd);

/// Puts a descriptor in blocking or non-blocking mode. See O_NONBLOCK in fcntl(2).
///
/// The mode belongs to the open file description: it changes for every duplicate of the descriptor,
/// in other processes too. The other status flags stay.
///
/// @param fd  an open descriptor.
/// @param blocking  true clears O_NONBLOCK, false sets it.
/// @retval 0  the mode is set.
/// @retval -EBADF  `fd` is negative (check), or is not open.
/// @returns otherwise the negated errno of fcntl(2).
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
/// By default two signals end the process: SIGPIPE if nobody reads from the pipe or socket (if it
/// is ignored, the result is -EPIPE), and SIGXFSZ if a file would grow beyond RLIMIT_FSIZE (if it
/// is ignored, -EFBIG). A signal with a handler can give -EINTR only while a write(2) has taken no
/// byte yet; otherwise the call goes on with the rest.
///
/// @param fd  a descriptor open for writing.
/// @param data  the bytes. If there are none, no system call is made.
/// @param bytes_written_out  receives the number of bytes written, on success and on failure;
///   untouched after a failed check. May be null.
/// @retval 0  everything was written.
/// @retval -EBADF  `fd` is negative (check), or is not open for writing.
/// @retval -EAGAIN  `fd` is non-blocking and takes no more now.
/// @retval -EIO  the device took no bytes, or reported this error.
/// @returns otherwise the negated errno of write(2).
[[nodiscard]] VUTIL_EXPORT int write_all(int fd, std::string_view data,
                                         std::size_t* bytes_written_out);

/// Writes an array of buffers in order, in as many calls as it takes. See writev(2).
///
/// The array is the record of progress: afterwards it describes exactly what was not written. An
/// entry that was written whole has length 0; one that was written in part begins at its first
/// unwritten byte. So after -EAGAIN or -EINTR the same array can be passed again. For signals see
/// write_all().
///
/// @param fd  a descriptor open for writing.
/// @param iov  the buffers, changed as described. Must be null if `iovcnt` is 0.
/// @param iovcnt  the number of buffers, from 0 to IOV_MAX (1,024).
/// @param bytes_written_out  receives the number of bytes that this call wrote, on success and on
///   failure; untouched after a failed check. May be null.
/// @retval 0  everything was written (or the device took 0 bytes without an error).
/// @retval -EBADF  `fd` is negative (check), or is not open for writing (with a `<3>` message).
/// @retval -EINVAL  `iovcnt` is negative, or is 0 while `iov` is not null (check); or the array is
///   too large for writev(2) (with a `<3>` message).
/// @returns otherwise the negated errno of writev(2), with a `<3>` message; -EFAULT if `iov` is
///   null while `iovcnt` is not 0.
[[nodiscard]] VUTIL_EXPORT int writev_all(int fd, struct iovec* iov, int iovcnt,
                                          std::size_t* bytes_written_out);

/// Receives data once, and at most one descriptor that was passed with it. See recvmsg(2), unix(7),
/// cmsg(3).
///
/// ~~~{.cpp}
/// // Gives the descriptor that a peer passes along with one byte, or a negated errno value.
/// int receive_descriptor(int socket) {
///   char byte = 0;
///   struct iovec buffer = {&byte, 1};
///   std::size_t count = 0;
///   int fd = -1;
///   const int result = vutil::recvmsg_fd(socket, &buffer, 1, &count, &fd);
///   if (result != 0) return result;
///   return fd < 0 ? -EBADMSG : fd;  // -1: the peer passed none
/// }
/// ~~~
///
/// Further descriptors that come with the data are closed, and all of them on failure: a peer
/// cannot make the caller leak one. The descriptor of the sender itself, which a socket with
/// SO_PASSPIDFD adds, is closed too. (There is room for ten on 32-bit ARM, for nine on x86-64, and
/// for fewer on a socket with SO_PASSCRED; the kernel drops the rest.)
///
/// @param fd  a local (AF_UNIX) socket.
/// @param iov  buffers for the data, with room for at least one byte in all. Must be null if
///   `iovcnt` is 0.
/// @param iovcnt  the number of buffers, from 0 to IOV_MAX (1,024).
/// @param bytes_received_out  receives the number of bytes, on success and if a datagram was
///   truncated; untouched on every other failure. Must not be null: this is not checked.
/// @param result_fd  receives the descriptor, which is *not* close-on-exec and belongs to the
///   caller. Receives -1 on failure, if none was passed, and if the process had no number free for
///   it (RLIMIT_NOFILE). Untouched after a failed check.
/// @retval 0  data was received. On a stream it is what fitted, and the next call gives more.
/// @retval -ECANCELED  no data came: the peer has closed the connection, the datagram was empty, or
///   the buffers have no room. Without room, a waiting datagram is lost; a stream keeps its data
///   but loses a descriptor that waits with it.
/// @retval -EMSGSIZE  a datagram was truncated: the buffers hold its beginning, the rest is lost.
///   Or `iovcnt` is too large.
/// @retval -EBADF  `fd` is negative (check), or is not open.
/// @retval -EINVAL  `iovcnt` is negative, or is 0 while `iov` is not null, or `result_fd` is null
///   (check).
/// @returns otherwise the negated errno of recvmsg(2), for example -EAGAIN in non-blocking mode, or
///   -EFAULT if `iov` is null while `iovcnt` is not 0.
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
/// No wait lasts beyond the deadline, however many reads it takes. The deadline bounds the waiting
/// only: as long as bytes are there, they are read, until there are `len` of them.
///
/// A descriptor in blocking mode must give a byte whenever ppoll(2) reports that it is readable, or
/// the call waits beyond the deadline. So nobody else may read from it. A terminal with VMIN above
/// 1, or a socket with SO_RCVLOWAT above 1, must be in non-blocking mode.
///
/// @param fd  a descriptor open for reading: a pipe, a socket, a terminal or another character
///   device. (A regular file is always readable.)
/// @param vbuffer  receives the bytes. May be null only if `len` is 0.
/// @param len  the number of bytes wanted. If it is 0, no system call is made.
/// @param bytes_read_out  receives the number of bytes read, on success and on failure; untouched
///   after a failed check. Must not be null.
/// @param deadline  a point in time, in nanoseconds on CLOCK_MONOTONIC (clock_gettime(2)), the
///   clock of libstdc++'s `std::chrono::steady_clock`. Must not be negative.
///   `std::chrono::nanoseconds::max()` waits for ever. (For a 32-bit program, a kernel before
///   Linux 5.1 refuses to wait for 68 years or more: -EOVERFLOW.)
/// @retval 0  all `len` bytes were read.
/// @retval -ETIMEDOUT  the deadline passed first. The writing end of a pipe, which is never
///   readable, gives this too.
/// @retval -ECANCELED  a read gave 0 bytes: the end of a file, a closed connection, an empty
///   datagram, the end-of-file character or a hang-up of a terminal.
/// @retval -EAGAIN  in non-blocking mode, a read gave no byte although ppoll(2) had reported `fd`
///   as readable.
/// @retval -EBADF  `fd` is negative (check), or is not open for reading.
/// @retval -EFAULT  `vbuffer` is null while `len` is not 0, or `bytes_read_out` is null (check).
/// @retval -EINVAL  `deadline` is negative (check).
/// @returns otherwise the negated errno of ppoll(2), with a `<3>` message, or of read(2).
[[nodiscard]] VUTIL_EXPORT int read_deadline(int fd, void* vbuffer, std::size_t len,
                                             std::size_t* bytes_read_out,
                                             std::chrono::nanoseconds deadline);

/// Reads exactly `len` bytes within a time from now: read_deadline() with now plus `timeout`.
///
/// @param fd  as in read_deadline().
/// @param vbuffer  as in read_deadline().
/// @param len  as in read_deadline().
/// @param bytes_read_out  as in read_deadline().
/// @param timeout  nanoseconds from now. With 0 the call does not wait: it reads what is there, and
///   what arrives meanwhile. A negative time is a deadline in the past, or gives -EINVAL if that
///   point lies before the clock's zero. A time beyond the clock's range waits for ever.
/// @returns what read_deadline() returns. The messages are those of read_deadline() and name it.
[[nodiscard]] VUTIL_EXPORT int read_timeout(int fd, void* vbuffer, std::size_t len,
                                            std::size_t* bytes_read_out,
                                            std::chrono::nanoseconds timeout);

/// Reads and discards exactly `len` bytes before a deadline, through a buffer of 16 KiB on the
/// stack.
///
/// @param fd  as in read_deadline().
/// @param len  the number of bytes to discard. If it is 0, no system call is made.
/// @param deadline  as in read_deadline().
/// @retval 0  `len` bytes were read and discarded.
/// @retval -EBADF  `fd` is negative (check), or is not open for reading.
/// @retval -EINVAL  `deadline` is negative (check).
/// @returns otherwise the failure of read_deadline(), with its messages. How many bytes were
///   discarded by then is not reported.
[[nodiscard]] VUTIL_EXPORT int read_drain(int fd, std::size_t len,
                                          std::chrono::nanoseconds deadline);
///@}

/// @name Whole files
///@{

/// Reads a whole regular file into a string. See open(2), lseek(2), read(2).
///
/// The size is asked for first, so the call costs at most one allocation, and for up to
/// 2,147,479,552 bytes one read request. What is read while somebody else writes to the file may
/// come mixed from before and after the change.
///
/// Other files do not report their true size. Attributes in /sys are read correctly all the same.
/// Most files in /proc, pipes and character devices give a failure or an empty string. A directory
/// gives a failure or, on ext4 for example, an exception.
///
/// @param path  the file.
/// @param contents  receives the bytes in place of what it held. Unchanged if opening or seeking
///   fails; unspecified if reading fails or the function throws.
/// @retval 0  the file was read.
/// @retval -ENOENT  there is no such file. Only this failure writes no message.
/// @retval -EINVAL  `path` is empty (check), or the file has no size (with a `<3>` message).
/// @retval -ENAMETOOLONG  `path` is too long (check), or a name in it is (with a `<3>` message).
/// @returns otherwise the negated errno of the call that failed, with a `<3>` message.
/// @throws std::length_error  the size is more than a string can have (without a message).
/// @throws std::bad_alloc  there is not enough memory (without a message).
[[nodiscard]] VUTIL_EXPORT int get_file_contents(std::string_view path, std::string& contents);

/// Replaces a file durably, or creates it. See open(2), fsync(2), chmod(2), rename(2).
///
/// After a crash or power cut at any moment, the path holds the old contents or the new ones,
/// whole; if there was no file, none or the new one. Once the call has returned 0 without a
/// message, the new contents stay. That holds as far as the file system and the device do what
/// fsync(2) and rename(2) promise. **FAT does not,** unless it is mounted with `sync`: what was
/// saved last may be lost, and the file may be empty. Nor does FAT keep permission bits.
///
/// The new contents go to a temporary file: the path with `.tmp` appended. It is flushed, given its
/// permission bits and renamed over the path; then the directory is flushed.
///
/// - If an older temporary file is in the way, it is removed first.
/// - A failure before the rename leaves the path as it was, and removes the new temporary file.
/// - If the rename fails, or the process or the system stops before it, the temporary file stays
///   until the next call.
/// - If only the flush of the directory fails, the file has been replaced: the result is 0, and a
///   `<4>` message says that a crash may still bring back the old contents.
/// - The permission bits are set after the flush: a crash soon after the call may leave only those
///   bits of `mode` that the umask permits.
///
/// What becomes of the file at the path:
///
/// - A symbolic link, FIFO, socket or device node is replaced, not followed or written to. A
///   directory is not replaced: -EISDIR.
/// - Other hard links keep the old contents.
/// - A file that is a mount point itself, as containers have them, cannot be replaced: -EBUSY.
/// - The new file belongs to the user and group of the process, or to the group of a set-group-ID
///   directory. If the process is not in that group, the kernel drops a set-group-ID bit.
/// - Extended attributes and access control lists of the old file are not kept.
/// - On a file system that refuses chmod(2), every call fails.
///
/// At most one call at a time may run for one path, in all processes: they share the temporary
/// name. Others can predict that name, so only those who are trusted should be able to write to the
/// directory.
///
/// @param path  the target, at most 4,090 bytes. Its last name must leave room for `.tmp`: at most
///   251 bytes on most file systems.
/// @param contents  the new contents.
/// @param mode  permission bits as chmod(2) takes them, applied exactly, whatever the umask.
/// @retval 0  the file was replaced.
/// @retval -EINVAL  `path` is empty (check).
/// @retval -ENAMETOOLONG  `path` is too long (check; with 4,091 bytes the temporary file has been
///   written by then, and stays), or a name in it is (with a `<3>` message).
/// @returns otherwise the negated errno of the step that failed, with one or two `<3>` messages.
[[nodiscard]] VUTIL_EXPORT int set_file_contents(std::string_view path, std::string_view contents,
                                                 unsigned int mode);

/// Writes over the beginning of an existing file. See open(2), write(2).
///
/// It is made for files that are an interface, such as those in /sys, or that hold records of a
/// fixed size. The file is not created, not truncated and not flushed. What it held beyond
/// `contents` stays. So do its permission bits, but the kernel clears set-user-ID and set-group-ID
/// when an unprivileged process writes. A failure in the middle leaves the file partly overwritten:
/// to replace a file safely, use set_file_contents(). For signals see write_all().
///
/// @param path  the file.
/// @param contents  the bytes to write.
/// @retval 0  all of it was written.
/// @retval -ENOENT  there is no such file (with a `<3>` message).
/// @retval -EINVAL  `path` is empty (check).
/// @retval -ENAMETOOLONG  `path` is too long (check), or a name in it is (with a `<3>` message).
/// @returns otherwise the negated errno of open(2) or write(2), with a `<3>` message.
[[nodiscard]] VUTIL_EXPORT int set_file_contents_inplace(std::string_view path,
                                                         std::string_view contents);
///@}

/// @name Making durable
///@{

/// Flushes a file or directory to its device. See fsync(2).
///
/// What was written through any descriptor is flushed, also by another process. To flush a
/// directory makes the names in it durable.
///
/// @param path  the file or directory. It is opened for reading, so the process must be allowed to
///   read it.
/// @retval 0  it was flushed.
/// @retval -EINVAL  `path` is empty (check), or its file system cannot flush it.
/// @retval -ENAMETOOLONG  `path` is too long (check), or a name in it is.
/// @returns otherwise the negated errno of open(2) or fsync(2).
[[nodiscard]] VUTIL_EXPORT int fsync_path(std::string_view path);

/// Renames a file and flushes the directory of its new name, so that the rename survives a crash.
/// See rename(2), fsync(2).
///
/// The contents of the file are not flushed: if they are new, call fsync_path() on it first. Nor is
/// the directory of the old name, if it is another: after a crash the file may be there too. On FAT
/// the rename may be lost all the same, as with set_file_contents().
///
/// @param oldpath  the file, directory or symbolic link to rename. A link is not followed.
/// @param newpath  its new name. An existing file or link there is replaced; for directories see
///   rename(2).
/// @retval 0  it was renamed. If the directory could not be flushed, a `<4>` message says so.
/// @retval -EINVAL  a path is empty (check), or rename(2) reported this error (with a `<3>`
///   message).
/// @retval -ENAMETOOLONG  a path is too long (check), or a name in it is (with a `<3>` message).
/// @returns otherwise the negated errno of rename(2), with a `<3>` message.
[[nodiscard]] VUTIL_EXPORT int rename_fsync(std::string_view oldpath, std::string_view newpath);
///@}
///@}

}  // namespace vutil

#endif  // VUTIL_IO_H_
