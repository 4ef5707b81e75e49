// A client asks a service, over a local socket, how many lines a file has. It passes the open file,
// so the service needs no permission of its own, and it waits for the reply until a deadline.
//
//   descriptors FILE [DELAY]    the service takes DELAY milliseconds; the client waits for 200
//
// Exit status: 0; 1 on failure, with a message on standard error; 2 on wrong usage.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include "vutil/io.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

constexpr milliseconds PATIENCE = 200ms;

// Both ends are on one machine, so the bytes need no conversion.
struct Reply {
  std::int32_t result = 0;  // 0 or a negated errno value
  std::uint32_t lines = 0;
};

struct Descriptor {
  ~Descriptor() { vutil::xclose(fd); }
  int fd = -1;
};

// The library receives descriptors; to send one takes a control message, see cmsg(3).
int send_descriptor(int socket, int fd) {
  char request = '?';  // a descriptor travels with at least one byte
  struct iovec data = {&request, 1};
  alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(fd))] = {};
  struct msghdr message = {};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  struct cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(fd));
  memcpy(CMSG_DATA(header), &fd, sizeof(fd));
  return sendmsg(socket, &message, MSG_NOSIGNAL) < 0 ? -errno : 0;
}

Reply count_lines(int fd) {
  Reply reply;
  char block[4096];
  for (;;) {
    const ssize_t count = read(fd, block, sizeof(block));
    if (count < 0) reply.result = -errno;
    if (count <= 0) return reply;
    reply.lines += static_cast<std::uint32_t>(std::count(block, block + count, '\n'));
  }
}

// Answers one request.
int serve(int socket, milliseconds delay) {
  char request = 0;
  struct iovec buffer = {&request, 1};
  std::size_t received = 0;
  Descriptor file;
  const int result = vutil::recvmsg_fd(socket, &buffer, 1, &received, &file.fd);
  if (result != 0) return result;
  if (file.fd < 0) return -EBADMSG;

  std::this_thread::sleep_for(delay);  // stands for the work of a real service
  const Reply reply = count_lines(file.fd);
  return vutil::write_all(socket, {reinterpret_cast<const char*>(&reply), sizeof(reply)}, nullptr);
}

int ask(int socket, int fd, Reply& reply) {
  const int result = send_descriptor(socket, fd);
  if (result != 0) return result;
  std::size_t received = 0;
  return vutil::read_timeout(socket, &reply, sizeof(reply), &received, PATIENCE);
}

int fail(const char* what, int result) {
  fprintf(stderr, "descriptors: %s: %s\n", what, strerror(-result));
  return 1;
}

int run(const char* path, milliseconds delay) {
  Descriptor file{open(path, O_RDONLY | O_CLOEXEC)};
  if (file.fd < 0) return fail(path, -errno);
  int ends[2] = {};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return fail("socket", -errno);
  Descriptor client{ends[0]};
  Descriptor service{ends[1]};

  const pid_t child = fork();
  if (child < 0) return fail("fork", -errno);
  if (child == 0) {
    vutil::xclose(client.fd);
    signal(SIGPIPE, SIG_IGN);  // a client that has gone is no reason to die
    const int result = serve(service.fd, delay);
    _exit(result == 0 || result == -EPIPE ? 0 : fail("service", result));
  }
  vutil::xclose(service.fd);  // or the end of the service would not be seen
  Reply reply;
  const int result = ask(client.fd, file.fd, reply);
  vutil::xclose(client.fd);
  kill(child, SIGKILL);  // it has replied, or it is too late
  waitpid(child, nullptr, 0);

  if (result == -ETIMEDOUT) return fail("no reply in time", result);
  if (result != 0) return fail("no reply", result);
  if (reply.result != 0) return fail(path, reply.result);
  const std::string text = std::string(path) + " has " + std::to_string(reply.lines) + " lines\n";
  const int printed = vutil::write_all(STDOUT_FILENO, text, nullptr);
  return printed == 0 ? 0 : fail("standard output", printed);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view delay = argc == 3 ? argv[2] : "0";
  unsigned int count = 0;
  const auto [end, error] = std::from_chars(delay.data(), delay.data() + delay.size(), count);
  if (argc < 2 || argc > 3 || error != std::errc() || end != delay.data() + delay.size()) {
    fprintf(stderr, "Usage: descriptors FILE [DELAY]\n");
    return 2;
  }
  return run(argv[1], milliseconds(count));
}
