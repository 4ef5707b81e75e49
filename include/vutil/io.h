/// @file
/// Careful wrappers over descriptor and file calls.
///
/// Conventions that hold for every function here, unless it says otherwise:
///
/// - **Results.** `int`: 0 on success, a negated errno value on failure (for example `-ENOENT`),
/// see
///   errno(3). Byte counts travel through `size_t*` parameters.
/// - **No retries.** EINTR and EAGAIN are failures like any other: the caller knows whether a
/// signal or
///   a full pipe is a reason to stop, the library does not.
/// - **Descriptors.** A descriptor passed in stays the caller's. A descriptor that a function opens
///   itself is opened with O_CLOEXEC and closed before the function returns or throws.
/// - **Paths.** A `std::string_view` that needs no NUL at its end. An empty path gives `-EINVAL`,
/// one of
///   4095 bytes or more `-ENAMETOOLONG`. A NUL byte inside ends the path there for the system.
/// - **Diagnostics.** One line on standard error, led by a syslog priority (syslog(3),
/// sd-daemon(3)):
///   `<2>` the caller broke the function's contract, `<3>` the operation failed, `<4>` it succeeded
///   with a reservation. A broken contract (a negative descriptor, a null out-parameter, an unfit
///   path) always gives its `<2>` line and a result, touches nothing and never stops the process;
///   which other failures write a line is said with each function.
/// - **Exceptions.** None, except from get_file_contents().
/// - **Threads.** The functions keep no state and take no lock. Two threads must not use one
/// descriptor,
///   one buffer or one path to be written at the same time through them.
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

/// Closes the descriptor in a variable and marks the variable as empty, see close(2).
///
/// Made for clean-up on every exit path: it may be called any number of times on one variable, and
/// it never changes errno.
///
/// @param fd  the variable. A negative value means that it holds no descriptor: nothing happens.
///   Afterwards it is -1, also when close(2) reported EINTR, EIO or the like: Linux has released
///   the descriptor by then, and closing it again could hit a descriptor of another thread. Only if
///   the number was not an open descriptor (EBADF) does it keep its value, and a `<2>` line reports
///   the programming error.
VUTIL_EXPORT void xclose(int& fd);

/// Reads and discards exactly `len` bytes before a deadline, through a buffer on the stack.
///
/// @param fd  descriptor open for reading.
/// @param len  number of bytes to discard; with 0 nothing is called.
/// @param deadline  point in time in nanoseconds on CLOCK_MONOTONIC, as in read_deadline().
/// @retval 0  `len` bytes were read and discarded.
/// @retval -EBADF  `fd` is negative (with a `<2>` line).
/// @retval -EINVAL  `deadline` is negative (with a `<2>` line).
/// @returns otherwise the failure of read_deadline(); how much was discarded by then is not told.
[[nodiscard]] VUTIL_EXPORT int read_drain(int fd, std::size_t len,
                                          std::chrono::nanoseconds deadline);

/// Reads exactly `len` bytes before a deadline, see read(2) and ppoll(2).
///
/// Each wait lasts at most until the deadline, however many partial reads it takes. Data that is
/// already readable is read even after the deadline has passed. For a descriptor in blocking mode
/// the bytes that ppoll(2) reports must be there for this call, so no one else may read them.
///
/// @param fd  descriptor open for reading: a pipe, a socket, a terminal or another character
/// device.
/// @param vbuffer  receives the bytes; may be null only if `len` is 0.
/// @param len  number of bytes wanted; with 0 the call succeeds without any system call.
/// @param bytes_read_out  receives the number of bytes read, on success and on failure, so that a
/// caller
///   can tell a short read from none. Untouched only when the contract was broken. Never null.
/// @param deadline  point in time in nanoseconds on CLOCK_MONOTONIC (clock_gettime(2)), not
/// negative.
///   `nanoseconds::max()` waits for ever.
/// @retval 0  all `len` bytes were read.
/// @retval -ETIMEDOUT  the deadline passed first.
/// @retval -ECANCELED  the end of the file came first.
/// @retval -EBADF  `fd` is negative (with a `<2>` line), or is not open for reading.
/// @retval -EFAULT  `vbuffer` or `bytes_read_out` is null (with a `<2>` line).
/// @retval -EINVAL  `deadline` is negative (with a `<2>` line).
/// @returns otherwise the negated errno of ppoll(2), with a `<3>` line, or of read(2), without a
/// line.
[[nodiscard]] VUTIL_EXPORT int read_deadline(int fd, void* vbuffer, std::size_t len,
                                             std::size_t* bytes_read_out,
                                             std::chrono::nanoseconds deadline);

/// Reads exactly `len` bytes within a time from now: read_deadline() with now plus `timeout`.
///
/// @param fd  as in read_deadline().
/// @param vbuffer  as in read_deadline().
/// @param len  as in read_deadline().
/// @param bytes_read_out  as in read_deadline().
/// @param timeout  nanoseconds from now; 0 reads only what is there already. A negative time is a
/// deadline
///   in the past, or -EINVAL if that point lies before the clock's zero. A time too large for the
///   clock's range waits for ever.
/// @returns what read_deadline() returns; its contract lines name that function.
[[nodiscard]] VUTIL_EXPORT int read_timeout(int fd, void* vbuffer, std::size_t len,
                                            std::size_t* bytes_read_out,
                                            std::chrono::nanoseconds timeout);

/// Receives one message and at most one descriptor passed with it, see recvmsg(2), unix(7),
/// cmsg(3).
///
/// Further descriptors that arrive with the message are closed, and on failure all of them, so a
/// peer cannot make the caller leak any. (A message with more than fits the 52 bytes kept for
/// control data, about ten descriptors, is cut by the kernel, which drops the rest.) Whether the
/// call waits depends on the mode of `fd`; see also set_blocking(). Writes no line but those of its
/// contract.
///
/// @param fd  a local (AF_UNIX) socket.
/// @param iov  buffers for the data of the message; null exactly if `iovcnt` is 0.
/// @param iovcnt  number of buffers, not negative.
/// @param bytes_received_out  receives the number of data bytes, on success and with -EMSGSIZE;
///   untouched on every other failure. Never null.
/// @param result_fd  receives the descriptor, which then belongs to the caller and is *not*
///   close-on-exec, or -1 if none came. It is -1 on failure too, and untouched only when the
///   contract was broken. Never null.
/// @retval 0  a message was received.
/// @retval -ECANCELED  the peer has closed the connection, or the message held no data.
/// @retval -EMSGSIZE  the data did not fit the buffers; what did is in them.
/// @retval -EBADF  `fd` is negative (with a `<2>` line), or is not open.
/// @retval -EINVAL  `iovcnt` is negative or does not match a null `iov`, or `result_fd` is null
/// (with a
///   `<2>` line).
/// @returns otherwise the negated errno of recvmsg(2).
[[nodiscard]] VUTIL_EXPORT int recvmsg_fd(int fd, struct iovec* iov, int iovcnt,
                                          std::size_t* bytes_received_out, int* result_fd);

/// Writes a whole buffer, in as many calls as it takes, see write(2).
///
/// Writes no line but that of its contract.
///
/// @param fd  descriptor open for writing. Writing to a pipe or socket that nobody reads raises
/// SIGPIPE
///   unless the caller ignores it.
/// @param data  the bytes; if there are none, nothing is called.
/// @param bytes_written_out  receives the number of bytes written, on success and on failure. May
/// be
///   null. Untouched if `fd` is negative.
/// @retval 0  everything was written.
/// @retval -EBADF  `fd` is negative (with a `<2>` line), or is not open for writing.
/// @retval -EAGAIN  `fd` is non-blocking and full; go on from `*bytes_written_out` once it is
/// writable.
/// @retval -EIO  the device accepted nothing, or reported this error.
/// @returns otherwise the negated errno of write(2).
[[nodiscard]] VUTIL_EXPORT int write_all(int fd, std::string_view data,
                                         std::size_t* bytes_written_out);

/// Writes a whole array of buffers in order, in as many calls as it takes, see writev(2).
///
/// The array is the record of progress: afterwards it describes exactly what was not written. An
/// entry that was written whole has length 0, one that was written in part begins at its first
/// unwritten byte. So after -EAGAIN or -EINTR the same array can be passed again.
///
/// @param fd  descriptor open for writing; as to SIGPIPE see write_all().
/// @param iov  the buffers, changed as told above; null exactly if `iovcnt` is 0.
/// @param iovcnt  number of buffers, not negative and at most IOV_MAX (1024).
/// @param bytes_written_out  receives the number of bytes written by this call, on success and on
///   failure. May be null. Untouched only when the contract was broken.
/// @retval 0  everything was written (or the device accepted 0 bytes without an error).
/// @retval -EBADF  `fd` is negative (with a `<2>` line), or is not open for writing.
/// @retval -EINVAL  `iovcnt` is negative or does not match a null `iov` (with a `<2>` line), or is
///   too large.
/// @returns otherwise the negated errno of writev(2), with a `<3>` line.
[[nodiscard]] VUTIL_EXPORT int writev_all(int fd, struct iovec* iov, int iovcnt,
                                          std::size_t* bytes_written_out);

/// Reads a whole file into a string, see open(2), lseek(2), read(2).
///
/// The size is asked for first, so a regular file costs one allocation at most and one read
/// request. A file that is changed meanwhile is read as it then is. Files whose size the kernel
/// does not tell (pipes, most of /proc and /sys) are not for this function: they give an error or
/// an empty string.
///
/// @param path  the file; symbolic links are followed.
/// @param contents  receives the bytes in place of what it held. Unchanged when opening or seeking
///   fails; unspecified when reading fails.
/// @retval 0  the file was read.
/// @retval -ENOENT  there is no such file: the one failure without a line.
/// @retval -EINVAL  `path` is empty (with a `<2>` line).
/// @retval -ENAMETOOLONG  `path` is too long (with a `<2>` line if 4095 bytes or more).
/// @returns otherwise the negated errno of the call that failed, with a `<3>` line.
/// @throws std::length_error  the size is more than a string can hold (some file systems report
/// such a
///   size for a directory).
/// @throws std::bad_alloc  there is not enough memory.
[[nodiscard]] VUTIL_EXPORT int get_file_contents(std::string_view path, std::string& contents);

/// Replaces a file durably, or creates it: afterwards, and after a crash or power cut at any
/// moment, the path holds the old contents or the new ones, whole. See open(2), fsync(2),
/// rename(2), chmod(2).
///
/// The new contents go to a temporary file, named like the target with `.tmp` appended, which is
/// flushed, given its permission bits and moved over the target; then the directory is flushed. A
/// failure before the move leaves the target as it was and removes the temporary file; if the move
/// itself fails, the temporary file stays and the next call removes it. If only the flush of the
/// directory fails, the file has been replaced: the result is 0, and a `<4>` line says that a crash
/// may yet bring back the old one.
///
/// A symbolic link at `path` is replaced, not followed. Owner and group are those of the process.
/// Calls for one path must not overlap, in one process or several: they share the temporary name.
///
/// @param path  the target, at most 4090 bytes.
/// @param contents  the new contents.
/// @param mode  permission bits as chmod(2) takes them, applied exactly, whatever the umask.
/// @retval 0  the file was replaced.
/// @retval -EINVAL  `path` is empty (with a `<2>` line).
/// @retval -ENAMETOOLONG  the path or its temporary name is too long (with a `<2>` line from 4091
/// bytes).
/// @returns otherwise the negated errno of the step that failed, with one or two `<3>` lines.
[[nodiscard]] VUTIL_EXPORT int set_file_contents(std::string_view path, std::string_view contents,
                                                 unsigned int mode);

/// Writes over the beginning of an existing file, see open(2) and write(2).
///
/// For files that are an interface rather than data, such as those of sysfs. The file is not
/// created, not cut, not flushed, and keeps its permissions; what it held beyond `contents` stays.
/// A failure in the middle leaves it partly overwritten; for a replacement that is safe use
/// set_file_contents().
///
/// @param path  the file; symbolic links are followed.
/// @param contents  the bytes to write.
/// @retval 0  all of it was written.
/// @retval -EINVAL  `path` is empty (with a `<2>` line).
/// @retval -ENAMETOOLONG  `path` is too long (with a `<2>` line if 4095 bytes or more).
/// @returns otherwise the negated errno of open(2) (-ENOENT included) or write(2), with a `<3>`
/// line.
[[nodiscard]] VUTIL_EXPORT int set_file_contents_inplace(std::string_view path,
                                                         std::string_view contents);

/// Puts a descriptor in blocking or non-blocking mode, see O_NONBLOCK in fcntl(2).
///
/// The mode belongs to the open file description, so it changes for every duplicate of the
/// descriptor, in other processes too. Other status flags stay. Writes no line but that of its
/// contract.
///
/// @param fd  an open descriptor.
/// @param blocking  true clears O_NONBLOCK, false sets it.
/// @retval 0  the mode is set.
/// @retval -EBADF  `fd` is negative (with a `<2>` line), or is not open.
/// @returns otherwise the negated errno of fcntl(2).
[[nodiscard]] VUTIL_EXPORT int set_blocking(int fd, bool blocking);

/// Flushes a file or directory to its device, see fsync(2).
///
/// Writes no line but those of its contract: the caller knows what the failure means.
///
/// @param path  a file or directory, opened for reading.
/// @retval 0  it was flushed.
/// @retval -EINVAL  `path` is empty (with a `<2>` line), or its file system cannot flush it.
/// @retval -ENAMETOOLONG  `path` is too long (with a `<2>` line if 4095 bytes or more).
/// @returns otherwise the negated errno of open(2) or fsync(2).
[[nodiscard]] VUTIL_EXPORT int fsync_path(std::string_view path);

/// Renames a file and flushes the directory of its new name, so that the rename survives a crash,
/// see rename(2) and fsync(2).
///
/// The old name's directory, if it is another, is not flushed.
///
/// @param oldpath  the file or directory to rename.
/// @param newpath  its new name; what stood there is replaced as rename(2) says.
/// @retval 0  it was renamed. If the directory could not be flushed, a `<4>` line says so.
/// @retval -EINVAL  a path is empty (with a `<2>` line), or rename(2) reported this error.
/// @retval -ENAMETOOLONG  a path is too long (with a `<2>` line if 4095 bytes or more).
/// @returns otherwise the negated errno of rename(2), with a `<3>` line.
[[nodiscard]] VUTIL_EXPORT int rename_fsync(std::string_view oldpath, std::string_view newpath);

}  // namespace vutil

#endif  // VUTIL_IO_H_
