// Preloaded into the citation-refresh command (LD_PRELOAD) by the reliability harness. Every
// write, fsync and rename the command makes on a file under RELIABILITY_ROOT is counted; the
// harness can then make the Nth of one kind fail with an errno or kill the process just before
// it, and read a log of who held the wiki's write lock when. Other programs (git, ctags) that
// inherit the preload are left alone.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

static int active = -1;   // this process is the command and a root is set
static const char* root;  // only files under this path count
static size_t root_length;
static char fault_op[16];  // "write", "fsync" or "rename"
static long fault_at;      // the count of fault_op that fails (or kills), 1-based
static int fault_errno;    // 0: SIGKILL instead of failing
static long counts[3];     // write, fsync, rename so far
static int lock_fd = -1;   // the descriptor holding the wiki's flock

static int is_active(void) {
  if (active >= 0) return active;
  root = getenv("RELIABILITY_ROOT");
  active = root != NULL && strcmp(program_invocation_short_name, "citation-refresh") == 0;
  if (!active) return 0;
  root_length = strlen(root);
  const char* fault = getenv("RELIABILITY_FAULT");  // "op:N:errno" or "op:N:kill"
  if (fault != NULL) {
    char how[16] = "";
    if (sscanf(fault, "%15[a-z]:%ld:%15s", fault_op, &fault_at, how) == 3) {
      fault_errno = strcmp(how, "ENOSPC") == 0 ? ENOSPC : strcmp(how, "EIO") == 0 ? EIO : 0;
    }
  }
  return 1;
}

// Appends one line to RELIABILITY_LOG with a single write(2) on an O_APPEND descriptor, so that
// the lines of concurrent processes never mix.
static void log_line(const char* kind, const char* path) {
  const char* file = getenv("RELIABILITY_LOG");
  if (file == NULL) return;
  char line[4200];
  int n = snprintf(line, sizeof line, "%s %d %s\n", kind, (int)getpid(), path ? path : "-");
  if (n <= 0) return;
  if (n >= (int)sizeof line) n = sizeof line - 1;
  static ssize_t (*real_write)(int, const void*, size_t);
  if (!real_write) real_write = dlsym(RTLD_NEXT, "write");
  int fd = open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  real_write(fd, line, (size_t)n);
  close(fd);
}

static int fd_path(int fd, char* out, size_t size) {
  char link[64];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  ssize_t n = readlink(link, out, size - 1);
  if (n < 0) return 0;
  out[n] = '\0';
  return 1;
}

// Counts one operation on `path`; returns -1 with errno set when it is the one to fail.
static int step(int kind, const char* op, const char* path) {
  if (!is_active() || path == NULL || strncmp(path, root, root_length) != 0) return 0;
  long n = ++counts[kind];
  log_line(op, path);
  if (fault_at == n && strcmp(fault_op, op) == 0) {
    if (fault_errno == 0) kill(getpid(), SIGKILL);
    errno = fault_errno;
    return -1;
  }
  return 0;
}

static int step_fd(int kind, const char* op, int fd) {
  if (!is_active()) return 0;
  char path[4096];
  return fd_path(fd, path, sizeof path) ? step(kind, op, path) : 0;
}

#define REAL(name)               \
  static __typeof__(name)* real; \
  if (!real) real = (__typeof__(name)*)dlsym(RTLD_NEXT, #name)

ssize_t write(int fd, const void* buffer, size_t size) {
  REAL(write);
  if (step_fd(0, "write", fd) < 0) return -1;
  return real(fd, buffer, size);
}

ssize_t pwrite64(int fd, const void* buffer, size_t size, off_t offset) {
  REAL(pwrite64);
  if (step_fd(0, "write", fd) < 0) return -1;
  return real(fd, buffer, size, offset);
}

ssize_t pwrite(int fd, const void* buffer, size_t size, off_t offset) {
  REAL(pwrite);
  if (step_fd(0, "write", fd) < 0) return -1;
  return real(fd, buffer, size, offset);
}

int fsync(int fd) {
  REAL(fsync);
  if (step_fd(1, "fsync", fd) < 0) return -1;
  return real(fd);
}

int fdatasync(int fd) {
  REAL(fdatasync);
  if (step_fd(1, "fsync", fd) < 0) return -1;
  return real(fd);
}

int rename(const char* from, const char* to) {
  REAL(rename);
  if (step(2, "rename", to) < 0) return -1;
  return real(from, to);
}

// As rename; the file is named by its folder's descriptor and its name in it.
int renameat(int from_dir, const char* from, int to_dir, const char* to) {
  REAL(renameat);
  if (is_active() && to != NULL) {
    char path[4096];
    int known = 1;
    if (to[0] == '/') {
      snprintf(path, sizeof path, "%s", to);
    } else if (to_dir == AT_FDCWD) {
      known = getcwd(path, sizeof path) != NULL;
      if (known) snprintf(path + strlen(path), sizeof path - strlen(path), "/%s", to);
    } else {
      known = fd_path(to_dir, path, sizeof path);
      if (known) snprintf(path + strlen(path), sizeof path - strlen(path), "/%s", to);
    }
    if (known && step(2, "rename", path) < 0) return -1;
  }
  return real(from_dir, from, to_dir, to);
}

// The lock log: "acquire PID" is written once the flock is held, "release PID" before it is
// dropped, so that in the log two holders can only overlap if the locks did.
int flock(int fd, int operation) {
  REAL(flock);
  if (!is_active()) return real(fd, operation);
  if (operation & LOCK_UN) {
    if (fd == lock_fd) log_line("release", "-"), lock_fd = -1;
    return real(fd, operation);
  }
  int result = real(fd, operation);
  if (result == 0 && (operation & LOCK_EX)) {
    lock_fd = fd;
    log_line("acquire", "-");
  }
  return result;
}

int close(int fd) {
  REAL(close);
  if (active == 1 && fd == lock_fd && fd >= 0) log_line("release", "-"), lock_fd = -1;
  return real(fd);
}

// With RELIABILITY_OPENS set, every file any process opens (the command and the git and ctags
// it starts) is appended there, so that the harness can tell whether a path outside the
// repository was read: the path as given and, once opened, the file it reached (symbolic links
// followed) when that differs.
static void log_open(const char* path, int opened) {
  const char* file = getenv("RELIABILITY_OPENS");
  if (file == NULL || path == NULL) return;
  const int saved = errno;
  static int (*real_open)(const char*, int, ...);
  static ssize_t (*real_write)(int, const void*, size_t);
  if (!real_open) real_open = dlsym(RTLD_NEXT, "open");
  if (!real_write) real_write = dlsym(RTLD_NEXT, "write");
  char reached[4096] = "";
  if (opened >= 0 && (!fd_path(opened, reached, sizeof reached) || strcmp(reached, path) == 0)) {
    reached[0] = '\0';
  }
  char line[8300];
  int n = snprintf(line, sizeof line, "%s\n%s%s", path, reached, reached[0] ? "\n" : "");
  int fd = n > 0 && n < (int)sizeof line
               ? real_open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666)
               : -1;
  if (fd >= 0) {
    real_write(fd, line, (size_t)n);
    close(fd);
  }
  errno = saved;
}

#define OPEN_WRAPPER(name, ...)           \
  int name(__VA_ARGS__, int flags, ...) { \
    REAL(name);                           \
    mode_t mode = 0;                      \
    if (flags & (O_CREAT | O_TMPFILE)) {  \
      va_list args;                       \
      va_start(args, flags);              \
      mode = va_arg(args, mode_t);        \
      va_end(args);                       \
    }                                     \
    int fd = OPEN_CALL;                   \
    log_open(path, fd);                   \
    return fd;                            \
  }

#define OPEN_CALL real(path, flags, mode)
OPEN_WRAPPER(open, const char* path)
OPEN_WRAPPER(open64, const char* path)
#undef OPEN_CALL
#define OPEN_CALL real(dir, path, flags, mode)
OPEN_WRAPPER(openat, int dir, const char* path)
OPEN_WRAPPER(openat64, int dir, const char* path)
#undef OPEN_CALL

FILE* fopen(const char* path, const char* how) {
  REAL(fopen);
  FILE* opened = real(path, how);
  log_open(path, opened ? fileno(opened) : -1);
  return opened;
}

FILE* fopen64(const char* path, const char* how) {
  REAL(fopen64);
  FILE* opened = real(path, how);
  log_open(path, opened ? fileno(opened) : -1);
  return opened;
}
