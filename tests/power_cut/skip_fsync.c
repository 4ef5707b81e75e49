// Preloaded, makes a faulty saver of any: fsync does nothing for the files that SKIPPED names
// (S_ISREG or S_ISDIR).
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

int fsync(int fd) {
  struct stat status;
  if (fstat(fd, &status) == 0 && SKIPPED(status.st_mode)) return 0;
  return (int)syscall(SYS_fsync, fd);
}
