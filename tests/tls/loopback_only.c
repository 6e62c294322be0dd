/* Preloaded into a server that would listen on every address of the machine: it listens on the loopback
 * interface, and tells its IPv4 port, which may have been chosen by the system, on standard error. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

int bind(int fd, const struct sockaddr* address, socklen_t size) {
  int (*next)(int, const struct sockaddr*, socklen_t) =
      (int (*)(int, const struct sockaddr*, socklen_t))dlsym(RTLD_NEXT, "bind");
  struct sockaddr_storage changed;
  memcpy(&changed, address, size);
  if (address->sa_family == AF_INET)
    ((struct sockaddr_in*)&changed)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (address->sa_family == AF_INET6) ((struct sockaddr_in6*)&changed)->sin6_addr = in6addr_loopback;
  return next(fd, (const struct sockaddr*)&changed, size);
}

int listen(int fd, int backlog) {
  int (*next)(int, int) = (int (*)(int, int))dlsym(RTLD_NEXT, "listen");
  struct sockaddr_in own = {0};
  socklen_t size = sizeof own;
  const int result = next(fd, backlog);
  if (result == 0 && getsockname(fd, (struct sockaddr*)&own, &size) == 0 && own.sin_family == AF_INET) {
    fprintf(stderr, "\nlistening on 127.0.0.1:%d\n", ntohs(own.sin_port));
  }
  return result;
}
