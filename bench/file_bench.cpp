// Whole files read and replaced.
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "documents.h"
#include "groups.h"
#include "replacing.h"
#include "vutil/io.h"

namespace vutil::bench {
namespace {

constexpr Size ONE_MB = {"1 MB", 1'000'000};

// The library's system calls, into memory that is not zeroed first.
void read_file_with_bare_calls(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const off_t end = lseek(fd, 0, SEEK_END);
  require(end >= 0 && lseek(fd, 0, SEEK_SET) == 0, "the floor's seeking");
  const auto size = static_cast<size_t>(end);
  const auto contents = std::make_unique_for_overwrite<char[]>(size);
  require(read(fd, contents.get(), size) == end, "the floor's reading");
  benchmark::DoNotOptimize(contents.get());
  close(fd);
}

void add_reading(Suite& suite, const std::string& directory, const Size& size) {
  if (!suite.begin_job("get_file_contents, " + std::string(size.name))) return;
  const std::string path = directory + "/read " + size.name;
  put(path, std::string(size.bytes, 'x'));
  suite.add("ours", [path] {
    std::string contents;
    require(get_file_contents(path, contents) == 0, "get_file_contents");
    benchmark::DoNotOptimize(contents.data());
  });
  suite.add("floor", [path] { read_file_with_bare_calls(path); });
  suite.add("GLib", [path] {
    gchar* contents = nullptr;
    gsize length = 0;
    require(g_file_get_contents(path.c_str(), &contents, &length, nullptr) != 0,
            "reading with GLib");
    g_free(contents);
  });
}

void add_replacing(Suite& suite, const std::string& directory, const Size& size) {
  if (!suite.begin_job("set_file_contents, " + std::string(size.name) + " on tmpfs")) return;
  const std::string path = directory + "/replaced " + size.name;
  const std::string contents(size.bytes, 'x');
  suite.add("ours", [path, contents] { put(path, contents); });
  suite.add("floor", [path, directory, contents] {
    replace_file_with_bare_calls(path, directory, contents);
  });
  suite.add("GLib", [path, contents] { replace_file_with_glib(path, contents); });
}

}  // namespace

void replace_file_with_bare_calls(const std::string& path, const std::string& directory,
                                  std::string_view contents) {
  const std::string tmp_path = path + ".floor";
  unlink(tmp_path.c_str());
  const int fd = open(tmp_path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, MODE);
  require(write(fd, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size()) &&
              fsync(fd) == 0 && chmod(tmp_path.c_str(), MODE) == 0,
          "the floor's writing");
  close(fd);
  require(chmod(tmp_path.c_str(), MODE) == 0 && rename(tmp_path.c_str(), path.c_str()) == 0,
          "the floor's renaming");
  const int directory_fd = open(directory.c_str(), O_RDONLY | O_CLOEXEC);
  require(fsync(directory_fd) == 0, "the floor's flushing");
  close(directory_fd);
}

void replace_file_with_glib(const std::string& path, std::string_view contents) {
  constexpr auto FLAGS = static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT |
                                                            G_FILE_SET_CONTENTS_DURABLE);
  require(g_file_set_contents_full(path.c_str(), contents.data(),
                                   static_cast<gssize>(contents.size()), FLAGS, MODE, nullptr) != 0,
          "writing with GLib");
}

void add_files(Suite& suite, const std::string& directory) {
  suite.begin_group("Files");
  for (const Size& size : {SMALL, ONE_MB, HUGE_SIZE}) add_reading(suite, directory, size);
  for (const Size& size : {SMALL, ONE_MB}) add_replacing(suite, directory, size);
}

}  // namespace vutil::bench
