// Two decide about a request.  The loader gives it the rights of its user for the destination, and may know what the
// command needs; then the handler asks its own table.  The first is explained by the loader, the second is read by
// CMD_GETPOLICIES in that user's name.  A handler's decisions beyond its table cannot be read.

#include "verbs/rights.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "ask/path.h"
#include "kl/conventions.h"
#include "kl/rights.h"
#include "kl/services.h"
#include "output/show.h"
#include "services/common/text.h"
#include "values/rights_words.h"
#include "verbs/resolve.h"

namespace klctl {
namespace {

constexpr char kLoader[] = "loader";
const std::vector<std::string> kListColumns = {"table", "key", "line", "rights"};

enum class Verdict { kYes, kNo, kUnknown };

// The facts known about one question.
struct Inquiry {
  std::string user;
  std::string place;                    // as the user called it
  std::optional<unsigned int> command;  // without one the question is whether anything is delivered
  std::string commandName;
  kl::message explained;               // the loader's reply
  std::optional<unsigned int> needed;  // by the handler's table
  std::string fault;                   // why that cannot be read
};

bool isDenied(const kl::message& explained) {
  return explained.get(kl::RIGHTS_VERDICT, kl::RIGHTS_DENIED) == kl::RIGHTS_DENIED;
}

unsigned int bitsOf(const kl::message& explained) { return explained.get(kl::RIGHTS_BITS, kl::RIGHTS_ALL); }

Verdict verdictOf(const Inquiry& inquiry) {
  if (isDenied(inquiry.explained)) return Verdict::kNo;
  if (!inquiry.command) return Verdict::kYes;
  if (!inquiry.fault.empty()) return Verdict::kUnknown;
  const unsigned int needed = inquiry.needed.value_or(0);
  return (needed & bitsOf(inquiry.explained)) == needed ? Verdict::kYes : Verdict::kNo;
}

// --- Asking ----------------------------------------------------------------------------------------

kl::message askLoader(const CommandLine& line, const std::vector<unsigned int>& to,
                      const Exchange& exchange) {
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  request.insert(kl::SYS_CMD, kl::CMD_EXPLAIN_RIGHTS);
  request.insert(kl::RIGHTS_USER, line.user);
  request.insert(kl::RIGHTS_TO, to);
  if (!line.sender.empty()) request.insert(kl::RIGHTS_SENDER, resolveId(line.sender, exchange));
  if (line.command) request.insert(kl::RIGHTS_COMMAND, *line.command);
  const kl::message reply = exchange(request);
  if (kl::isError(reply))
    throw Failure(Status::kUndecided, errorSentence(kLoader, reply, kl::CMD_EXPLAIN_RIGHTS));
  return reply;
}

// Asks what the handler's table says about the command; one that it does not name is for root alone.
void askHandler(Inquiry& inquiry, const std::vector<unsigned int>& to, const Exchange& exchange) {
  kl::message request;
  request.insert(kl::SYS_TO, to);
  request.insert(kl::SYS_CMD, kl::CMD_GETPOLICIES);
  request.insert(kl::SYS_USER, inquiry.user);
  request.insert(kl::SYS_POLICY, bitsOf(inquiry.explained));
  const kl::message reply = exchange(request);
  if (kl::isError(reply)) {
    inquiry.fault = kl::getError(reply);
    return;
  }
  inquiry.needed = kl::RIGHT_OF_NOBODY;
  for (const kl::message entry : reply.get(kl::STD_OBJS, {}))
    if (entry.get(kl::STD_ID, kl::BADID) == *inquiry.command)
      inquiry.needed = entry.get(kl::POLICY_RIGHTS, kl::RIGHT_OF_NOBODY);
}

// A request with all rights passes every table.
Inquiry inquire(const CommandLine& words, const Exchange& exchange) {
  const Dictionary dictionary = dictionaryFor(words, resolveName(words.path.service, exchange));
  const CommandLine line = resolved(words, dictionary);
  const std::vector<unsigned int> to = resolvePath(line.path, exchange);
  Inquiry inquiry{line.user, pathText(line.path), line.command, "", askLoader(line, to, exchange), {}, ""};
  if (inquiry.command) inquiry.commandName = commandText(dictionary, *inquiry.command);
  const bool decidesHandler = inquiry.command && !isDenied(inquiry.explained);
  if (decidesHandler && inquiry.explained.has(kl::RIGHTS_BITS)) askHandler(inquiry, to, exchange);
  return inquiry;
}

// --- Showing ---------------------------------------------------------------------------------------

std::string wordOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::kYes: return "yes";
    case Verdict::kNo: return "no";
    case Verdict::kUnknown: break;
  }
  return "unknown";
}

// The one that asks for more decides.
std::optional<unsigned int> neededBits(const Inquiry& inquiry) {
  const bool isListed = inquiry.explained.has(kl::RIGHTS_NEEDED);
  if (!isListed && !inquiry.needed) return {};
  return inquiry.explained.get(kl::RIGHTS_NEEDED, 0) | inquiry.needed.value_or(0);
}

std::string sentenceOf(const Inquiry& inquiry) {
  std::string text = wordOf(verdictOf(inquiry)) + ": " + inquiry.user + " has ";
  text += rightsPhrase(bitsOf(inquiry.explained)) + " for " + inquiry.place;
  if (!inquiry.command) return text;
  const std::string& command = inquiry.commandName;
  if (!inquiry.fault.empty())
    return text + ", and what " + command + " needs cannot be asked: " + inquiry.fault;
  if (const auto needed = neededBits(inquiry)) text += ", " + command + " needs " + rightsPhrase(*needed);
  return text;
}

std::string placeOf(const kl::message& explained, const kl::message& rule) {
  if (!rule.has(kl::RULE_LINE)) return rule.get(kl::RULE_TABLE, "");
  return explained.get(kl::RIGHTS_FILE, "") + ":" + std::to_string(rule.get(kl::RULE_LINE, 0));
}

std::string quoted(const std::string& text) { return '"' + text + '"'; }

// "read and change" becomes a list, one word a text, and bits without a word a number.
std::string valueText(const std::string& words) {
  constexpr std::string_view kAnd = " and ";
  std::string list;
  std::size_t count = 0;
  for (std::size_t at = 0; at <= words.size(); ++count) {
    const std::size_t end = std::min(words.find(kAnd, at), words.size());
    const std::string word = words.substr(at, end - at);
    list += (count == 0 ? "" : ", ") + (word.starts_with("0x") ? word : quoted(word));
    at = end + kAnd.size();
  }
  return count == 1 ? list : "[" + list + "]";
}

// An entry as the configuration has it, behind the name of its table.
std::string ruleText(const kl::message& rule) {
  const std::string table = rule.has(kl::RULE_LINE) ? rule.get(kl::RULE_TABLE, "") + ": " : "";
  const std::string key = rule.get(kl::RULE_KEY, "");
  return table + (key.starts_with('@') ? quoted(key) : key) + " = " +
         valueText(rule.get(kl::RULE_RIGHTS, ""));
}

std::string reasonOf(const std::string& user, const kl::message& rule) {
  const std::string key = rule.get(kl::RULE_KEY, "");
  return key.starts_with('@') ? user + " is not in " + key.substr(1) : "does not name " + user;
}

void addLine(std::string& text, const std::string& label, const std::string& content) {
  text += "  " + label + std::string(label.size() < 12 ? 12 - label.size() : 1, ' ') + content + "\n";
}

// Where the loader knows from what a command needs.
std::string listOf(const Inquiry& inquiry) {
  if (inquiry.place == kLoader) return "the loader's list of its commands";
  return "the key commands of this service in " + inquiry.explained.get(kl::RIGHTS_FILE, "");
}

std::string inquiryText(const Inquiry& inquiry) {
  std::string text = sentenceOf(inquiry) + "\n";
  const kl::message& explained = inquiry.explained;
  const kl::message rule(explained.get(kl::RIGHTS_RULE, {}));
  addLine(text, "decided by", placeOf(explained, rule) + "  " + ruleText(rule));
  if (explained.has(kl::RIGHTS_NEEDED)) addLine(text, "needed by", listOf(inquiry));
  if (inquiry.needed) addLine(text, "needed by", "the table of the handler");
  for (const kl::message passed : explained.get(kl::RIGHTS_PASSED, {}))
    addLine(text, "near",
            placeOf(explained, passed) + "  " + ruleText(passed) + "  " + reasonOf(inquiry.user, passed));
  if (inquiry.command && verdictOf(inquiry) == Verdict::kYes)
    addLine(text, "but", "the handler may have rules of its own, which nobody can ask for");
  return common::printable(text, common::Newline::kKept);
}

Json inquiryJson(const Inquiry& inquiry, const FieldNames& names) {
  Json all = Json::object();
  all["verdict"] = wordOf(verdictOf(inquiry));
  all["user"] = inquiry.user;
  all["path"] = inquiry.place;
  if (inquiry.command) all["command"] = inquiry.commandName;
  all["bits"] = bitsOf(inquiry.explained);
  if (const auto needed = neededBits(inquiry)) all["needed"] = *needed;
  if (!inquiry.fault.empty()) all["fault"] = inquiry.fault;
  if (inquiry.explained.has(kl::RIGHTS_FILE)) all["file"] = inquiry.explained.get(kl::RIGHTS_FILE, "");
  all["rule"] = toJson(kl::message(inquiry.explained.get(kl::RIGHTS_RULE, {})), names);
  all["passed"] = toJson(inquiry.explained.get(kl::RIGHTS_PASSED, {}), names);
  return all;
}

}  // namespace

void explainRights(const CommandLine& line, const Channels& channels) {
  const FieldNames names = namesFor(kLoader, line.fields);
  std::string dumped;
  const Inquiry inquiry =
      inquire(line, line.dump ? dumping(channels.exchange, dumped, names) : channels.exchange);
  if (line.dump) channels.print(dumped);
  else channels.print(line.json ? jsonText(inquiryJson(inquiry, names)) : inquiryText(inquiry));
  const Verdict verdict = verdictOf(inquiry);
  if (verdict == Verdict::kNo) throw Failure(Status::kRefused, "not allowed");
  if (verdict == Verdict::kUnknown) throw Failure(Status::kUndecided, "it cannot be told");
}

void listRights(const CommandLine& line, const Channels& channels) {
  const FieldNames names = namesFor(kLoader, line.fields);
  std::string dumped;
  const Exchange exchange = line.dump ? dumping(channels.exchange, dumped, names) : channels.exchange;
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  request.insert(kl::SYS_CMD, kl::CMD_LIST_RIGHTS);
  if (!line.path.service.empty()) request.insert(kl::STD_ID, resolveId(line.path.service, exchange));
  const std::vector<Json> rows = toJson(fetchAll(request, kLoader, exchange), names);
  if (line.dump) return channels.print(dumped);
  printTable(channels, line.json ? jsonText(Json(rows)) : objectsTable(rows, kListColumns, lineWidth()),
             "rights: the configuration has no entries");
}

}  // namespace klctl
