// Services that are connected and say nothing: connections that register, all of one process.
//
// usage: router_idle COUNT      prints a line when they are there, and stays until it is ended

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kl/conventions.h"
#include "kl/records.h"
#include "kl/services.h"
#include "kl/utilities.h"

namespace {

// With its length in front.
std::vector<unsigned char> registration() {
  kl::message m;
  m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  m.insert(kl::SYS_CTRL, kl::CTRL_HELLO);
  m.insert(kl::REGISTRATION_VALUES, std::vector<unsigned int>(12));
  std::vector<unsigned char> body;
  m.flatten(body);
  std::vector<unsigned char> frame(4);
  for (unsigned int i = 0; i < 4; ++i) frame[i] = static_cast<unsigned char>(body.size() >> 8 * i);
  frame.insert(frame.end(), body.begin(), body.end());
  return frame;
}

bool receive(int fd, unsigned char* to, std::size_t bytes) {
  for (std::size_t done = 0; done < bytes;) {
    const ssize_t n = ::read(fd, to + done, bytes - done);
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// False when the loader does not take it.
bool comeAndRegister(const sockaddr_un& address, const std::vector<unsigned char>& frame) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
    return false;
  if (::write(fd, frame.data(), frame.size()) != static_cast<ssize_t>(frame.size())) return false;
  unsigned char length[4];
  if (!receive(fd, length, sizeof(length))) return false;
  std::vector<unsigned char> answer(kl::readLe32(length));
  return receive(fd, answer.data(), answer.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, kl::loaderSocketPath().c_str(), sizeof(address.sun_path) - 1);
  const std::vector<unsigned char> frame = registration();
  for (int i = 0; i < std::atoi(argv[1]); ++i) {
    if (comeAndRegister(address, frame)) continue;
    std::perror("router_idle");
    return 1;
  }
  std::puts("there");
  std::fflush(stdout);
  for (;;) ::pause();
}
