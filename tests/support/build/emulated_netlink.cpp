// recv() and recvfrom() of programs that read the kernel's messages about interfaces and run in the emulator of a
// processor with the other byte order (cmake/KlEmulation.cmake links them with --wrap).
//
// The emulator turns the numbers of these messages round, but stops before an attribute without a value that ends its
// message: length and type of that one come in the byte order of the host.  Here they are turned round as well.

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

extern "C" {
ssize_t __real_recv(int fd, void* buffer, std::size_t size, int flags);
ssize_t __wrap_recv(int fd, void* buffer, std::size_t size, int flags);
ssize_t __real_recvfrom(int fd, void* buffer, std::size_t size, int flags, sockaddr* sender,
                        socklen_t* length);
ssize_t __wrap_recvfrom(int fd, void* buffer, std::size_t size, int flags, sockaddr* sender,
                        socklen_t* length);
}

namespace {

constexpr std::size_t kAttributeBytes = sizeof(rtattr);

bool isNetlink(int fd) {
  int family = 0;
  socklen_t size = sizeof family;
  return ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &family, &size) == 0 && family == AF_NETLINK;
}

std::size_t aligned(std::size_t length) { return (length + 3) / 4 * 4; }

// The bytes between the head of a message and its attributes.
std::size_t bodyBytes(unsigned int type) {
  if (type == RTM_NEWLINK || type == RTM_DELLINK) return sizeof(ifinfomsg);
  if (type == RTM_NEWADDR || type == RTM_DELADDR) return sizeof(ifaddrmsg);
  return 0;
}

unsigned short turnedRound(unsigned short number) {
  return static_cast<unsigned short>(number << 8 | number >> 8);
}

void mendLast(unsigned char* bytes) {
  rtattr head;
  std::memcpy(&head, bytes, sizeof head);
  if (turnedRound(head.rta_len) != kAttributeBytes) return;
  head.rta_len = turnedRound(head.rta_len);
  head.rta_type = turnedRound(head.rta_type);
  std::memcpy(bytes, &head, sizeof head);
}

void mendAttributes(unsigned char* bytes, std::size_t size) {
  while (size > kAttributeBytes) {
    rtattr head;
    std::memcpy(&head, bytes, sizeof head);
    const std::size_t step = aligned(head.rta_len);
    if (head.rta_len < kAttributeBytes || step > size) return;
    bytes += step;
    size -= step;
  }
  if (size == kAttributeBytes) mendLast(bytes);
}

void mendMessages(unsigned char* bytes, std::size_t size) {
  while (size >= sizeof(nlmsghdr)) {
    nlmsghdr head;
    std::memcpy(&head, bytes, sizeof head);
    const std::size_t body = bodyBytes(head.nlmsg_type);
    if (head.nlmsg_len < sizeof head + body || head.nlmsg_len > size) return;
    if (body > 0) mendAttributes(bytes + sizeof head + body, head.nlmsg_len - sizeof head - body);
    const std::size_t step = std::min(aligned(head.nlmsg_len), size);
    bytes += step;
    size -= step;
  }
}

ssize_t mended(int fd, void* buffer, std::size_t size, ssize_t got) {
  if (got > 0 && isNetlink(fd))
    mendMessages(static_cast<unsigned char*>(buffer), std::min(size, static_cast<std::size_t>(got)));
  return got;
}

}  // namespace

ssize_t __wrap_recv(int fd, void* buffer, std::size_t size, int flags) {
  return mended(fd, buffer, size, __real_recv(fd, buffer, size, flags));
}

ssize_t __wrap_recvfrom(int fd, void* buffer, std::size_t size, int flags, sockaddr* sender,
                        socklen_t* length) {
  return mended(fd, buffer, size, __real_recvfrom(fd, buffer, size, flags, sender, length));
}
