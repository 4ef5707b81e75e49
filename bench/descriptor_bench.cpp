// Calls on descriptors beside the bare system calls. What goes through a pipe or socket is sent in
// each iteration, by the same call on both sides.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <ctime>

#include "groups.h"
#include "vutil/io.h"

namespace vutil::bench {
namespace {

using namespace std::chrono_literals;

using Bytes = std::array<char, 64>;
constexpr Bytes BYTES = {};

void add_write_all(Suite& suite) {
  if (!suite.begin_job("write_all, 64 bytes")) return;
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  suite.add("ours", [null] {
    require(write_all(null, {BYTES.data(), BYTES.size()}, nullptr) == 0, "write_all");
  });
  suite.add("floor", [null] { require(write(null, BYTES.data(), BYTES.size()) == 64, "writing"); });
}

void add_read_timeout(Suite& suite) {
  if (!suite.begin_job("read_timeout, 64 bytes that are there")) return;
  std::array<int, 2> ends{};
  require(pipe2(ends.data(), O_CLOEXEC) == 0, "opening a pipe");
  const int out = ends[0];
  const int in = ends[1];
  suite.add("ours", [out, in] {
    require(write(in, BYTES.data(), BYTES.size()) == 64, "filling the pipe");
    Bytes buffer;
    size_t count = 0;
    require(read_timeout(out, buffer.data(), buffer.size(), &count, 1s) == 0, "read_timeout");
  });
  suite.add("floor", [out, in] {
    require(write(in, BYTES.data(), BYTES.size()) == 64, "filling the pipe");
    Bytes buffer;
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const timespec timeout = {1, 0};
    pollfd entry = {out, POLLIN, 0};
    require(ppoll(&entry, 1, &timeout, nullptr) == 1 && read(out, buffer.data(), 64) == 64,
            "the floor's reading");
  });
}

using Control = std::array<char, CMSG_SPACE(sizeof(int))>;

// One byte of data, and room for a descriptor beside it.
struct Message {
  Message() {
    header.msg_iov = &entry;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
  }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  char byte = 'x';
  iovec entry = {&byte, 1};
  alignas(cmsghdr) Control control = {};
  msghdr header = {};
};

// Sends a copy of standard input.
void send_descriptor(int socket) {
  Message message;
  cmsghdr* const header = CMSG_FIRSTHDR(&message.header);
  *header = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
  memset(CMSG_DATA(header), 0, sizeof(int));
  require(sendmsg(socket, &message.header, 0) == 1, "sending a descriptor");
}

void add_recvmsg_fd(Suite& suite) {
  if (!suite.begin_job("recvmsg_fd, a byte and a descriptor that are there")) return;
  std::array<int, 2> ends{};
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0, "opening sockets");
  const int receiver = ends[0];
  const int sender = ends[1];
  suite.add("ours", [receiver, sender] {
    send_descriptor(sender);
    char byte = 0;
    iovec entry = {&byte, 1};
    size_t count = 0;
    int fd = -1;
    require(recvmsg_fd(receiver, &entry, 1, &count, &fd) == 0 && fd >= 0, "recvmsg_fd");
    close(fd);
  });
  suite.add("floor", [receiver, sender] {
    send_descriptor(sender);
    Message message;
    const ssize_t count = recvmsg(receiver, &message.header, 0);
    const cmsghdr* const header = CMSG_FIRSTHDR(&message.header);
    require(count == 1 && header != nullptr, "the floor's receiving");
    int fd = -1;
    memcpy(&fd, CMSG_DATA(header), sizeof(fd));
    close(fd);
  });
}

}  // namespace

void add_descriptors(Suite& suite) {
  suite.begin_group("Descriptors");
  add_write_all(suite);
  add_read_timeout(suite);
  add_recvmsg_fd(suite);
}

}  // namespace vutil::bench
