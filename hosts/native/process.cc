#include "hosts/native/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace tolbarrow::hosts::native {
namespace {

[[noreturn]] void os_fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void close_fd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

}  // namespace

ProcessResult run_process(const std::vector<std::string>& argv, const std::filesystem::path& cwd,
                          std::string_view input) {
  if (argv.empty()) throw std::invalid_argument("run_process: no program");
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const std::string dir = cwd.string();

  // Standard input is a socket so that writing to a child that stopped reading fails with EPIPE
  // (MSG_NOSIGNAL) instead of raising SIGPIPE in the caller's process.
  int in[2], out[2], err[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, in) != 0)
    os_fail(argv[0] + ": socketpair");
  if (::pipe2(out, O_CLOEXEC) != 0) {
    ::close(in[0]), ::close(in[1]);
    os_fail(argv[0] + ": pipe");
  }
  if (::pipe2(err, O_CLOEXEC) != 0) {
    ::close(in[0]), ::close(in[1]), ::close(out[0]), ::close(out[1]);
    os_fail(argv[0] + ": pipe");
  }
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid < 0) {
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) ::close(fd);
    os_fail(argv[0] + ": fork");
  }
  if (pid == 0) {  // only async-signal-safe calls until exec
    // The child dies with this process, however that ends (SIGKILL, SIGTERM, a timeout's kill):
    // a ctags left running on a large file would go on for minutes with nobody to read it. The
    // parent may have died before the request was made; then the child is already an orphan.
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent) ::_exit(127);
    if (::dup2(in[1], 0) < 0 || ::dup2(out[1], 1) < 0 || ::dup2(err[1], 2) < 0 ||
        ::chdir(dir.c_str()) != 0) {
      ::_exit(127);
    }
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  ::close(in[1]), ::close(out[1]), ::close(err[1]);
  int to_child = in[0], from_out = out[0], from_err = err[0];
  ::fcntl(to_child, F_SETFL, O_NONBLOCK);
  if (input.empty()) ::shutdown(to_child, SHUT_WR);

  ProcessResult result;
  std::size_t written = 0;
  char buffer[65536];
  while (from_out >= 0 || from_err >= 0) {
    pollfd fds[3];
    nfds_t n = 0;
    const bool writing = to_child >= 0 && written < input.size();
    if (writing) fds[n++] = {to_child, POLLOUT, 0};
    if (from_out >= 0) fds[n++] = {from_out, POLLIN, 0};
    if (from_err >= 0) fds[n++] = {from_err, POLLIN, 0};
    if (::poll(fds, n, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (nfds_t i = 0; i < n; ++i) {
      if (fds[i].revents == 0) continue;
      if (fds[i].fd == to_child) {
        const ssize_t k =
            ::send(to_child, input.data() + written, input.size() - written, MSG_NOSIGNAL);
        if (k > 0) written += static_cast<std::size_t>(k);
        if (k < 0 && errno != EAGAIN && errno != EINTR) written = input.size();  // child gone
        if (written == input.size()) ::shutdown(to_child, SHUT_WR);
        continue;
      }
      int& fd = fds[i].fd == from_out ? from_out : from_err;
      const ssize_t k = ::read(fd, buffer, sizeof buffer);
      if (k > 0) {
        (fd == from_out ? result.out : result.err).append(buffer, static_cast<std::size_t>(k));
      } else if (k == 0 || (errno != EINTR && errno != EAGAIN)) {
        close_fd(fd);
      }
    }
  }
  close_fd(to_child), close_fd(from_out), close_fd(from_err);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) os_fail(argv[0] + ": waitpid");
  }
  result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace tolbarrow::hosts::native
