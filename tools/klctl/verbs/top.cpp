// The loader is asked when an interval is over and never otherwise: a key only sorts anew what is known.  It is
// told of no interest in anything, so that nothing is sent because somebody looks.

#include "verbs/top.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <optional>

#include "ask/session.h"
#include "kl/services.h"
#include "output/load_table.h"
#include "output/screen.h"
#include "output/show.h"
#include "verbs/requests.h"
#include "verbs/resolve.h"

namespace klctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::size_t kTitleLine = 1;
constexpr char kKeys[] =
    "q quits; sorts by: # id, n name, c cpu, m memory, i in, o out, u queue, a age, d drops";

enum class Woken { kByTime, kByKey, kByInterrupt };

Count millisecondsNow() {
  return static_cast<Count>(
      std::chrono::duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

// The word that the loader's description has for it.
std::string stateText(const kl::message& row, const FieldNames& names) {
  kl::message only;
  only.insert(kl::SVC_STATE, row.get(kl::SVC_STATE, 0));
  const Json shown = toJson(only, names);
  const Json& value = shown.begin().value();
  return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string nameIn(const kl::message& row, unsigned int id) {
  std::string name = row.get(kl::SVC_NAME, "");
  return name.empty() ? std::to_string(id) : name;
}

ServiceState stateOf(const kl::message& row, const FieldNames& names) {
  ServiceState state;
  state.id = row.get(kl::STD_ID, kl::BADID);
  state.name = nameIn(row, state.id);
  state.state = stateText(row, names);
  state.pid = static_cast<pid_t>(row.get(kl::SVC_PID, 0));
  state.messagesIn = row.get(kl::SVC_MESSAGES_IN, 0);
  state.messagesOut = row.get(kl::SVC_MESSAGES_OUT, 0);
  state.drops = row.get(kl::SVC_DROPS, 0);
  state.queue = row.get(kl::SVC_QUEUE, 0);
  if (row.has(kl::SVC_OLDEST)) state.oldestMs = row.get(kl::SVC_OLDEST, 0);
  state.process = usageOf(state.pid);
  return state;
}

// Only the loader's own row has them.
void addSums(SystemState& state, const kl::message& row) {
  if (row.get(kl::STD_ID, kl::BADID) != kl::SERVICE_LOADER) return;
  state.messages = row.get(kl::SVC_ALL_MESSAGES_OUT, 0);
  state.drops = row.get(kl::SVC_ALL_DROPS, 0);
  state.denials = row.get(kl::SVC_ALL_DENIALS, 0);
}

void nameOldest(SystemState& state, const ServiceRows& rows, const CommandLine& line,
                const Channels& channels) {
  const OpenRequests open = fetchOpenRequests(rows, channels.exchange);
  CommandNames commands(line);
  for (ServiceState& service : state.services)
    if (const OpenRequest* request = service.oldestMs ? open.oldestTo(service.id) : nullptr)
      service.oldest = commands.of(open, *request) + " of " + open.nameOf(request->asker);
}

// Shows the loads.
class View {
 public:
  View(const CommandLine& line, const Channels& channels) : line_(line), channels_(channels) {
    if (channels.isTerminal && !line.json && line.top.count == 0) screen_.emplace();
    if (screen_ && !screen_->isOpen()) screen_.reset();
  }

  bool hasScreen() const { return screen_.has_value(); }

  void show(SystemLoad load) {
    load_ = std::move(load);
    show();
  }

  // False for the key that ends it.
  bool takeKeys() {
    while (const char key = screen_->key()) {
      if (key == 'q' || key == 'Q') return false;
      if (const auto order = loadOrderOf(key)) order_ = *order;
    }
    show();
    return true;
  }

 private:
  void show() {
    sortLoad(load_.services, order_);
    if (line_.json) return channels_.print(jsonLine(loadJson(load_, static_cast<Count>(std::time(nullptr)))));
    std::vector<std::string> lines = loadLines(load_, hasBlockCharacters());
    if (screen_) {
      lines.push_back(kKeys);
      return screen_->show(lines, kTitleLine);
    }
    std::string text = hasPrinted_ ? "\n" : "";
    for (const std::string& line : lines) text += line + "\n";
    channels_.print(text);
    hasPrinted_ = true;
  }

  const CommandLine& line_;
  const Channels& channels_;
  std::optional<Screen> screen_;
  LoadOrder order_ = line_.top.order;
  SystemLoad load_;
  bool hasPrinted_ = false;
};

Woken waitUntil(steady_clock::time_point then, int interrupt, bool hasKeys) {
  pollfd watched[] = {{interrupt, POLLIN, 0}, {hasKeys ? STDIN_FILENO : -1, POLLIN, 0}};
  for (;;) {
    const auto left = std::chrono::ceil<milliseconds>(then - steady_clock::now()).count();
    if (left <= 0) return Woken::kByTime;
    const int ready = ::poll(watched, std::size(watched), static_cast<int>(left));
    if (watched[0].revents != 0) return Woken::kByInterrupt;
    if (ready > 0) return Woken::kByKey;
    if (ready < 0 && hasKeys) return Woken::kByKey;  // the size of the terminal has changed
  }
}

// False when the user has seen enough.
bool passInterval(View& view, milliseconds interval, int interrupt) {
  const auto then = steady_clock::now() + interval;
  for (;;) {
    const Woken woken = waitUntil(then, interrupt, view.hasScreen());
    if (woken == Woken::kByTime) return true;
    if (woken == Woken::kByInterrupt || !view.takeKeys()) return false;
  }
}

}  // namespace

SystemState look(const CommandLine& line, const Channels& channels) {
  const ServiceRows rows = fetchServices(channels.exchange);
  const FieldNames names = dictionaryFor(line, "loader").names;
  SystemState state;
  state.timeMs = millisecondsNow();
  for (const kl::message row : rows) {
    state.services.push_back(stateOf(row, names));
    addSums(state, row);
  }
  const bool hasOpen = std::any_of(state.services.begin(), state.services.end(),
                                   [](const ServiceState& service) { return service.oldestMs.has_value(); });
  if (hasOpen) nameOldest(state, rows, line, channels);
  return state;
}

void showTop(const CommandLine& line, const Channels& channels) {
  const Interrupt interrupt;
  LoadMeter meter;
  SystemLoad first = meter.take(look(line, channels));
  View view(line, channels);
  if (view.hasScreen()) view.show(std::move(first));
  for (unsigned int shown = 0; line.top.count == 0 || shown < line.top.count; ++shown) {
    if (!passInterval(view, line.top.interval, interrupt.fd())) return;
    view.show(meter.take(look(line, channels)));
  }
}

}  // namespace klctl
