// The companions' descriptions and the public headers name the same numbers: each stands in both, because
// headers are read by services that have no description at hand, and the compiler compares them.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <type_traits>

#include "kl/conventions.h"
#include "kl/rights.h"
#include "kl/services.h"
#include "loader.kl.h"
#include "log.kl.h"
#include "netif.kl.h"
#include "services/describe/reader.h"
#include "system.kl.h"
#include "undo.kl.h"

namespace {

struct Number {
  std::string name;       // in kl
  std::string described;  // in the header of the description
};

// A field has its type, too; a word for a value is of an enumeration there and a plain number here.
template <class Public, class Described>
constexpr bool haveOneType = std::is_same_v<Public, Described> || std::is_same_v<Public, const unsigned int>;

// Does not compile where both differ.
template <unsigned int theId, unsigned int theDescribedId, bool hasItsType>
Number compared(const char* name, const char* described) {
  static_assert(theId == theDescribedId);
  static_assert(hasItsType);
  return {name, described};
}

#define NUMBER(name, described)                                                                    \
  compared<static_cast<unsigned int>(kl::name), static_cast<unsigned int>(described),              \
           haveOneType<decltype(kl::name), std::remove_reference_t<decltype((described))>>>(#name, \
                                                                                            #described)

const std::vector<Number>& numbers() {
  static const std::vector<Number> all = {
      NUMBER(SVC_NAME, loader_service::NAME),
      NUMBER(SVC_PID, loader_service::PID),
      NUMBER(SVC_USER, loader_service::USER),
      NUMBER(SVC_STATE, loader_service::STATE),
      NUMBER(SVC_STARTS, loader_service::STARTS),
      NUMBER(SVC_MESSAGES_IN, loader_service::MESSAGES_IN),
      NUMBER(SVC_MESSAGES_OUT, loader_service::MESSAGES_OUT),
      NUMBER(SVC_BYTES_IN, loader_service::BYTES_IN),
      NUMBER(SVC_BYTES_OUT, loader_service::BYTES_OUT),
      NUMBER(SVC_QUEUE, loader_service::QUEUE),
      NUMBER(SVC_REQUESTS, loader_service::REQUESTS),
      NUMBER(SVC_DROPS, loader_service::DROPS),
      NUMBER(SVC_DENIALS, loader_service::DENIALS),
      NUMBER(SVC_ALL_MESSAGES_IN, loader_service::ALL_MESSAGES_IN),
      NUMBER(SVC_ALL_MESSAGES_OUT, loader_service::ALL_MESSAGES_OUT),
      NUMBER(SVC_ALL_BYTES_IN, loader_service::ALL_BYTES_IN),
      NUMBER(SVC_ALL_BYTES_OUT, loader_service::ALL_BYTES_OUT),
      NUMBER(SVC_ALL_DROPS, loader_service::ALL_DROPS),
      NUMBER(SVC_ALL_DENIALS, loader_service::ALL_DENIALS),
      NUMBER(SVC_CONNECTIONS, loader_service::CONNECTIONS),
      NUMBER(SVC_CONFIGURED, loader_service::CONFIGURED),
      NUMBER(SVC_WAKE_AT, loader_service::WAKE_AT),
      NUMBER(SVC_OLDEST, loader_service::OLDEST),
      NUMBER(SVC_SILENT, loader_service::SILENT),
      NUMBER(LOADER_REQUESTS, loader_service::HANDLER_REQUEST),
      NUMBER(REQUEST_ASKER, loader_service::ASKER),
      NUMBER(REQUEST_ASKED, loader_service::ASKED),
      NUMBER(REQUEST_PATH, loader_service::PATH),
      NUMBER(REQUEST_COMMAND, loader_service::COMMAND),
      NUMBER(REQUEST_AGE, loader_service::AGE),
      NUMBER(REQUEST_HELD, loader_service::HELD),
      NUMBER(LOADER_TRAFFIC, loader_service::HANDLER_TRAFFIC),
      NUMBER(TRAFFIC_SENDERS, loader_service::SENDERS),
      NUMBER(TRAFFIC_SUBSCRIBERS, loader_service::SUBSCRIBERS),
      NUMBER(TRAFFIC_SERVICE, loader_service::SERVICE_ID),
      NUMBER(TRAFFIC_TIMES, loader_service::TIMES),
      NUMBER(SVC_LAST_END, loader_service::LAST_END),
      NUMBER(LOADER_CRASHES, loader_service::HANDLER_CRASH),
      NUMBER(CRASH_TIME, loader_service::TIME),
      NUMBER(CRASH_SERVICE_ID, loader_service::SERVICE_ID),
      NUMBER(CRASH_SIGNAL, loader_service::SIGNAL),
      NUMBER(CRASH_WHERE, loader_service::WHERE),
      NUMBER(CRASH_TIMES, loader_service::TIMES),
      NUMBER(CRASH_PROGRAM, loader_service::PROGRAM),
      NUMBER(CRASH_BUILD_ID, loader_service::BUILD_ID),
      NUMBER(CRASH_REPORT, loader_service::REPORT),
      NUMBER(SVC_ACTION, loader_service::ACTION),
      NUMBER(SVC_STATE_STOPPED, loader_service::State::stopped),
      NUMBER(SVC_STATE_STARTING, loader_service::State::starting),
      NUMBER(SVC_STATE_REGISTERED, loader_service::State::registered),
      NUMBER(SVC_STATE_RUNNING, loader_service::State::running),
      NUMBER(SVC_STATE_DELAYED, loader_service::State::delayed),
      NUMBER(SVC_STATE_STOPPING, loader_service::State::stopping),
      NUMBER(SVC_STATE_LEAVING, loader_service::State::leaving),
      NUMBER(SVC_STATE_LEFT, loader_service::State::left),
      NUMBER(SVC_START, loader_service::Action::start),
      NUMBER(SVC_STOP, loader_service::Action::stop),
      NUMBER(SVC_RESTART, loader_service::Action::restart),
      NUMBER(SVC_LEAVE, loader_service::Action::leave),
      NUMBER(TOPIC_EMERGENCY, log_service::TOPIC_EMERGENCY),
      NUMBER(TOPIC_ALERT, log_service::TOPIC_ALERT),
      NUMBER(TOPIC_CRITICAL, log_service::TOPIC_CRITICAL),
      NUMBER(TOPIC_ERROR, log_service::TOPIC_ERROR),
      NUMBER(TOPIC_WARNING, log_service::TOPIC_WARNING),
      NUMBER(TOPIC_NOTICE, log_service::TOPIC_NOTICE),
      NUMBER(TOPIC_INFO, log_service::TOPIC_INFO),
      NUMBER(TOPIC_DEBUG, log_service::TOPIC_DEBUG),
      NUMBER(TOPIC_LOADER, loader_service::TOPIC_LOADER),
      NUMBER(TOPIC_OUTPUT, loader_service::TOPIC_OUTPUT),
      NUMBER(TOPIC_ERRORS, loader_service::TOPIC_ERRORS),
      NUMBER(TOPIC_UNDO, undo_service::TOPIC_UNDO),
      NUMBER(TOPIC_SYSTEM, system_service::TOPIC_SYSTEM),
      NUMBER(TOPIC_LOGD, log_service::TOPIC_LOGD),
      NUMBER(TOPIC_NETIF, netif::TOPIC_NETIF),
      NUMBER(SERVICE_LOG, log_service::SERVICE),
      NUMBER(LOG_RULES, log_service::HANDLER_RULE),
      NUMBER(LOG_TIME, log_service::TIME),
      NUMBER(LOG_PROCESS, log_service::PROCESS),
      NUMBER(LOG_PROCESS_ID, log_service::PID),
      NUMBER(LOG_UID, log_service::UID),
      NUMBER(LOG_SOURCE, log_service::SOURCE),
      NUMBER(LOG_TOPICS, log_service::TOPICS),
      NUMBER(LOG_TEXT, log_service::TEXT),
      NUMBER(LOG_SINCE, log_service::SINCE),
      NUMBER(LOG_CONTAINS, log_service::CONTAINS),
      NUMBER(LOG_SKIPPED, log_service::SKIPPED),
      NUMBER(LOG_TOPIC_NAME, log_service::TOPIC),
      NUMBER(LOG_MUTED, log_service::MUTED),
      NUMBER(LOG_FILE, log_service::FILE),
      NUMBER(LOG_FILE_BYTES, log_service::SIZE),
      NUMBER(LOG_FILE_COUNT, log_service::FILES),
      NUMBER(LOG_FILE_SYNC, log_service::SYNC),
      NUMBER(LOG_FILE_FAILURE, log_service::FAILURE),
      NUMBER(LOG_FILE_LOST, log_service::LOST),
      NUMBER(LOG_CLIENTS, log_service::CLIENTS),
      NUMBER(LOG_LINES, log_service::LINES),
      NUMBER(LOG_DROPPED, log_service::DROPPED),
      NUMBER(LOG_TORN, log_service::TORN),
      NUMBER(LOG_MEMORY, log_service::MEMORY),
      NUMBER(LOG_SYNC_NEVER, log_service::Sync::never),
      NUMBER(LOG_SYNC_SECOND, log_service::Sync::second),
      NUMBER(LOG_SYNC_LINE, log_service::Sync::line),
      NUMBER(UNDO_REQUEST, undo_service::REQUEST),
      NUMBER(UNDO_MESSAGE, undo_service::UNDO),
      NUMBER(UNDO_DESCRIPTION, undo_service::DESCRIPTION),
      NUMBER(UNDO_RIGHTS, undo_service::RIGHTS),
      NUMBER(UNDO_USER, undo_service::USER),
      NUMBER(UNDO_TIME, undo_service::TIME),
      NUMBER(UNDO_SOURCE, undo_service::SOURCE),
      NUMBER(UNDO_UNDONE, undo_service::UNDONE),
      NUMBER(UNDO_REPORTER, undo_service::REPORTER),
      NUMBER(UNDO_LIMIT, undo_service::SETTING_LIMIT),
      NUMBER(UNDO_FOLDER, undo_service::SETTING_FOLDER),
      NUMBER(SYSTEM_HOSTNAME, system_service::HOSTNAME),
      NUMBER(SYSTEM_VERSION, system_service::VERSION),
      NUMBER(SYSTEM_UPTIME, system_service::UPTIME),
      NUMBER(SYSTEM_MEMORY_TOTAL, system_service::MEMORY_TOTAL),
      NUMBER(SYSTEM_MEMORY_AVAILABLE, system_service::MEMORY_AVAILABLE),
      NUMBER(SYSTEM_LOAD, system_service::LOAD),
      NUMBER(SYSTEM_TIMEZONE, system_service::TIMEZONE),
      NUMBER(SYSTEM_LOOK_TICKS, system_service::SETTING_LOOK_TICKS),
      NUMBER(CMD_EXPLAIN_RIGHTS, loader_service::CMD_EXPLAIN_RIGHTS),
      NUMBER(CMD_LIST_RIGHTS, loader_service::CMD_LIST_RIGHTS),
      NUMBER(CMD_RELOAD, loader_service::CMD_RELOAD),
      NUMBER(RELOAD_STARTED, loader_service::STARTED),
      NUMBER(RELOAD_ENDED, loader_service::ENDED),
      NUMBER(RELOAD_RESTARTED, loader_service::RESTARTED),
      NUMBER(RELOAD_ADJUSTED, loader_service::ADJUSTED),
      NUMBER(RELOAD_LATER, loader_service::LATER),
      NUMBER(RELOAD_UNCHANGED, loader_service::UNCHANGED),
      NUMBER(RELOAD_RESTARTED_KEYS, loader_service::RESTARTED_KEYS),
      NUMBER(RELOAD_ADJUSTED_KEYS, loader_service::ADJUSTED_KEYS),
      NUMBER(RELOAD_CANDIDATE, loader_service::CANDIDATE),
      NUMBER(RIGHTS_USER, loader_service::RIGHTS_USER),
      NUMBER(RIGHTS_SENDER, loader_service::RIGHTS_SENDER),
      NUMBER(RIGHTS_TO, loader_service::RIGHTS_TO),
      NUMBER(RIGHTS_COMMAND, loader_service::RIGHTS_COMMAND),
      NUMBER(RIGHTS_VERDICT, loader_service::VERDICT),
      NUMBER(RIGHTS_BITS, loader_service::BITS),
      NUMBER(RIGHTS_RULE, loader_service::RULE),
      NUMBER(RIGHTS_PASSED, loader_service::PASSED),
      NUMBER(RIGHTS_FILE, loader_service::FILE),
      NUMBER(RIGHTS_NEEDED, loader_service::NEEDED),
      NUMBER(RULE_TABLE, loader_service::TABLE),
      NUMBER(RULE_KEY, loader_service::KEY),
      NUMBER(RULE_LINE, loader_service::LINE),
      NUMBER(RULE_RIGHTS, loader_service::RIGHTS),
      NUMBER(RIGHTS_ALLOWED, loader_service::Verdict::allowed),
      NUMBER(RIGHTS_DENIED, loader_service::Verdict::denied),
      NUMBER(RIGHTS_OPEN, loader_service::Verdict::open),
      NUMBER(SERVICE_LOADER, loader_service::SERVICE),
      NUMBER(SERVICE_UNDO, undo_service::SERVICE),
      NUMBER(SERVICE_SYSTEM, system_service::SERVICE),
      NUMBER(STD_ID, loader_service::ID),
      NUMBER(STD_ID, log_service::ID),
      NUMBER(STD_ID, undo_service::ID),
      NUMBER(STD_ID, system_service::ID),
      NUMBER(STD_DESCR, system_service::DESCR),
  };
  return all;
}

// Constants that stand for nothing of a description: they are of the loader's controls, of what it confirms, or numbers of
// objects.
bool isOfNoDescription(const std::string& name) {
  for (const char* begin : {"CTRL_", "READY_", "REGISTRATION_", "SYSTEM_OBJECT_"})
    if (name.starts_with(begin)) return true;
  return name == "LOG_FIRST_FILE" || name == "LOG_PID" || name == "SYSTEM_TIMEZONE_CHANGED";
}

std::string textOf(const std::string& file) {
  std::ifstream in(KL_SOURCE_DIR "/" + file);
  return {std::istreambuf_iterator<char>(in), {}};
}

std::string capitals(std::string word) {
  std::transform(word.begin(), word.end(), word.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return word;
}

std::string typeOf(std::string word) {
  word.front() = capitals(word).front();
  return word;
}

// The names of everything with a number, as the header of the description has them.
std::set<std::string> namesIn(const describe::Description& description) {
  std::set<std::string> names;
  const auto add = [&](const std::string& name) { names.insert(description.nameSpace + "::" + name); };
  const auto addFields = [&](const std::vector<describe::Field>& fields, const std::string& prefix) {
    for (const describe::Field& field : fields) {
      add(capitals(prefix + field.name));
      for (const describe::Value& value : field.values) add(typeOf(field.name) + "::" + value.word);
    }
  };
  addFields(description.fields, "");
  addFields(description.settings, "setting_");
  if (description.id) add("SERVICE");
  for (const describe::Topic& topic : description.topics) add(capitals("topic_" + topic.name));
  return names;
}

}  // namespace

TEST(Numbers, EachOfThePublicHeadersIsCompared) {
  const std::regex declaration("inline constexpr (?:field<.*>|unsigned int) ([A-Z_0-9]+)");
  for (const char* file : {"include/kl/services.h", "include/kl/rights.h"}) {
    const std::string text = textOf(file);
    for (auto at = std::sregex_iterator(text.begin(), text.end(), declaration); at != std::sregex_iterator();
         ++at) {
      const std::string name = (*at)[1];
      const bool isCompared = std::any_of(numbers().begin(), numbers().end(),
                                          [&](const Number& number) { return number.name == name; });
      EXPECT_NE(isCompared, isOfNoDescription(name)) << name;
    }
  }
}

TEST(Numbers, EachOfTheDescriptionsIsCompared) {
  std::set<std::string> compared;
  for (const Number& number : numbers()) compared.insert(number.described);
  for (const char* service : {"loader", "log", "undo", "system"}) {
    common::Mistakes mistakes;
    const std::string file = KL_SOURCE_DIR "/tools/fields/" + std::string(service) + ".toml";
    const auto description = describe::readFile(file, describe::OtherKeys::kRefused, mistakes);
    EXPECT_GT(description.fields.size(), 8u);
    for (const std::string& name : namesIn(description)) EXPECT_TRUE(compared.contains(name)) << name;
  }
}
