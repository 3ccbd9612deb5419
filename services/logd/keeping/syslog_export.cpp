// Each line is one datagram to the machine's own log, sent without waiting.  The socket is opened once; if nobody
// listens the datagram is lost and counted, and the next one finds the process that listens then.

#include "keeping/syslog_export.h"

#include <sys/socket.h>
#include <sys/un.h>

#include "keeping/line_text.h"
#include "kl/services.h"
#include "services/common/local_socket.h"
#include "services/common/text.h"

namespace logd {
namespace {

constexpr unsigned int kDaemon = 3;  // the facility
constexpr unsigned int kInformation = 6;
constexpr std::size_t kLongest = 8000;  // more is more than such services take

// Our topics from emergency to debug are the others' severities from 0 to 7.
unsigned int severityOf(const Topics& topics) {
  for (const Topic topic : topics)
    if (topic >= kl::TOPIC_EMERGENCY && topic <= kl::TOPIC_DEBUG) return topic - kl::TOPIC_EMERGENCY;
  return kInformation;
}

}  // namespace

bool SyslogExport::send(const Line& line) {
  const Origin& origin = *line.origin;
  const unsigned int priority = kDaemon * 8 + severityOf(origin.topics);
  const std::string text =
      "<" + std::to_string(priority) + ">" + processText(origin) + ": " + common::printable(line.text);
  const bool taken = sendText(text.substr(0, kLongest));
  if (!taken) ++lost_;
  return taken;
}

bool SyslogExport::sendText(const std::string& text) {
  if (!socket_.isOpen())
    socket_ = common::Descriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address;
  return common::fillAddress(path_, address) &&
         ::sendto(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&address),
                  sizeof address) == static_cast<ssize_t>(text.size());
}

}  // namespace logd
