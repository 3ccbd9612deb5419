// Peers, as tests have them.

#include <utility>

#include "kl/test.h"
#include "services/common/configuration_file.h"
#include "testkit/bus.h"
#include "testkit/failures.h"
#include "testkit/member.h"

namespace kl::test {
namespace {

message subscription(const Peer::Path& to, unsigned int request, unsigned int command,
                     const message& filter) {
  message m(filter);
  m.insert(SYS_TO, to);
  m.insert(SYS_CMD, request);
  m.insert(SYS_NOTIFYCMD, command);
  return m;
}

}  // namespace

Peer::Peer(TestBus& bus, unsigned int id) : member_(std::make_unique<Member>(*bus.bus_, id)) {}
Peer::~Peer() = default;

unsigned int Peer::id() const { return member_->id(); }

void Peer::setUser(const std::string& user, unsigned int rights) { member_->setUser(user, rights); }

message Peer::ask(const Path& to, unsigned int command, const message& body, unsigned int timeout) {
  const unsigned int request = post(to, command, body);
  Bus& bus = member_->bus();
  bus.run(bus.elapsed() + timeout, [&] { return member_->hasReply(request); });
  return takeReply(request).value_or(errorMsg(ERROR_TIMEOUT, ""));
}

unsigned int Peer::post(const Path& to, unsigned int command, const message& body) {
  const unsigned int request = member_->request(to, command, body);
  member_->bus().raise();
  return request;
}

std::optional<message> Peer::takeReply(unsigned int request) { return member_->takeReply(request); }

void Peer::send(const message& m) {
  member_->send(m);
  member_->bus().raise();
}

void Peer::subscribe(const Path& to, unsigned int command, const message& filter) {
  send(subscription(to, CMD_SUBSCRIBE, command, filter));
}

void Peer::unsubscribe(const Path& to, unsigned int command, const message& filter) {
  send(subscription(to, CMD_UNSUBSCRIBE, command, filter));
}

std::vector<message> Peer::takeNotified() { return std::exchange(member_->notified, {}); }

std::vector<unsigned int> Peer::takeDeaths() { return std::exchange(member_->deaths, {}); }

std::vector<message> Peer::takeNotices() { return std::exchange(member_->notices, {}); }

void Peer::on(unsigned int command, Script script) { member_->setScript(command, std::move(script)); }

void Peer::on(unsigned int command, const message& reply) {
  on(command, [reply](const message&) { return reply; });
}

void Peer::ignore(unsigned int command) { on(command, Script()); }

void Peer::delay(unsigned int ticks) { member_->delay(ticks); }

std::vector<message> Peer::takeAsked() { return std::exchange(member_->asked, {}); }

void Peer::reply(const message& request, const message& body) {
  member_->reply(request, body);
  member_->bus().raise();
}

unsigned int Peer::subscribers() const { return member_->subscribers(); }

void Peer::notify(const message& body) {
  member_->notify(body);
  member_->bus().raise();
}

void Peer::describedBy(const std::string& text) {
  member_->describedBy(std::make_unique<KnownFields>(text, "description of peer " + std::to_string(id())));
}

void Peer::describedByFile(const std::string& file) {
  common::Mistakes mistakes;
  const auto text = common::readFile(file, mistakes);
  if (!mistakes.empty()) report(mistakes.front().describe());
  member_->describedBy(std::make_unique<KnownFields>(text.value_or(""), file));
}

void Peer::end() { member_->end(); }

}  // namespace kl::test
