#pragma once
// kl/services.h: the field ids, commands and codes of the library's companions.
//
// The loader answers as service 1 (kl::SERVICE_LOADER) with a table of services, itself included: one object
// per service that is configured or connected, its STD_ID the service's id.  CMD_GETALL, CMD_GETOBJ and
// CMD_GETCOUNT read it, CMD_SUBSCRIBE follows it, CMD_SETOBJ acts on one service:
//
//     kl::message m;
//     m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
//     m.insert(kl::STD_ID, 32);
//     m.insert(kl::SVC_ACTION, kl::SVC_RESTART);
//     const kl::message answer = handler.exchangeCmd(m, kl::CMD_SETOBJ, 500);

#include <string>
#include <vector>

#include "kl/field.h"

namespace kl {

// Fields of one service in the loader's table.  "In" and "out" are the service's own view: in is what was
// delivered to it, out is what it sent.
inline constexpr field<std::string> SVC_NAME{0x20000001};     // configured, or the name of its program
inline constexpr field<unsigned int> SVC_PID{0x08000002};     // absent while no process runs
inline constexpr field<std::string> SVC_USER{0x20000003};     // the user whom its requests are made for
inline constexpr field<unsigned int> SVC_STATE{0x08000004};   // SVC_STATE_...
inline constexpr field<unsigned int> SVC_STARTS{0x08000005};  // how often it was started
inline constexpr field<unsigned long long> SVC_MESSAGES_IN{0x10000006};
inline constexpr field<unsigned long long> SVC_MESSAGES_OUT{0x10000007};
inline constexpr field<unsigned long long> SVC_BYTES_IN{0x10000008};  // frames, length prefix included
inline constexpr field<unsigned long long> SVC_BYTES_OUT{0x10000009};
inline constexpr field<unsigned int> SVC_QUEUE{0x0800000a};        // bytes that wait until it reads
inline constexpr field<unsigned int> SVC_REQUESTS{0x0800000b};     // requests that it has not answered yet
inline constexpr field<unsigned long long> SVC_DROPS{0x1000000c};  // messages for it that its full queue lost
inline constexpr field<unsigned long long> SVC_DENIALS{0x10000049};  // of those it sent, by its rights
// Of all services together, those that have gone included, in the loader's own row alone; and the connections that it
// has taken.  They begin with the loader and never become less.
inline constexpr field<unsigned long long> SVC_ALL_MESSAGES_IN{0x1000004a};
inline constexpr field<unsigned long long> SVC_ALL_MESSAGES_OUT{0x1000004b};
inline constexpr field<unsigned long long> SVC_ALL_BYTES_IN{0x1000004c};
inline constexpr field<unsigned long long> SVC_ALL_BYTES_OUT{0x1000004d};
inline constexpr field<unsigned long long> SVC_ALL_DROPS{0x1000004e};
inline constexpr field<unsigned long long> SVC_ALL_DENIALS{0x1000004f};
inline constexpr field<unsigned long long> SVC_CONNECTIONS{0x10000050};
inline constexpr field<bool> SVC_CONFIGURED{0x00000051};  // else it has only connected
// The second since 1970 at which it is started if it has left by then; absent where it named none (CTRL_WAKE_AT).
inline constexpr field<unsigned int> SVC_WAKE_AT{0x08000022};
// "killed by SIGSEGV in leases.cpp:175 leases::Leases::cmdGetObj", "ended with status 1"; absent before
inline constexpr field<std::string> SVC_LAST_END{0x20000048};

// The ms that the oldest of the requests waits which it has not answered; absent without one.
inline constexpr field<unsigned long long> SVC_OLDEST{0x10000028};
// The seconds since it sent something; absent while it has not.
inline constexpr field<unsigned int> SVC_SILENT{0x08000029};

// The action on the service, in CMD_SETOBJ.
inline constexpr field<unsigned int> SVC_ACTION{0x0800000d};

// Values of SVC_STATE.
inline constexpr unsigned int SVC_STATE_STOPPED = 1;     // only an action starts it
inline constexpr unsigned int SVC_STATE_STARTING = 2;    // its process runs and has not registered
inline constexpr unsigned int SVC_STATE_REGISTERED = 3;  // messages reach it
inline constexpr unsigned int SVC_STATE_RUNNING = 4;     // it has entered its loop
inline constexpr unsigned int SVC_STATE_DELAYED = 5;     // it ended and is started again after a while
inline constexpr unsigned int SVC_STATE_STOPPING = 6;    // it was told to end
inline constexpr unsigned int SVC_STATE_LEAVING = 7;     // it was asked to leave
inline constexpr unsigned int SVC_STATE_LEFT = 8;        // it left; a message for it starts it again

// Values of SVC_ACTION.
inline constexpr unsigned int SVC_START = 1;    // starts it now, whatever delay it waits for
inline constexpr unsigned int SVC_STOP = 2;     // SIGTERM, and SIGKILL after 2 s
inline constexpr unsigned int SVC_RESTART = 3;  // the two together
inline constexpr unsigned int SVC_LEAVE = 4;    // asks it to save its state and end

// CMD_GETALL and CMD_GETCOUNT on the path [1, LOADER_REQUESTS] show the requests that are not answered yet.  An asker
// that may not read at the asked service sees its own alone.  STD_ID is a request's number for as long as it is open.
inline constexpr unsigned int LOADER_REQUESTS = 10;
inline constexpr field<unsigned int> REQUEST_ASKER{0x0800002a};
inline constexpr field<unsigned int> REQUEST_ASKED{0x08000023};
inline constexpr field<std::vector<unsigned int>> REQUEST_PATH{0x88000024};  // inside it: the first handlers
inline constexpr field<unsigned int> REQUEST_COMMAND{0x08000025};
inline constexpr field<unsigned long long> REQUEST_AGE{0x10000026};  // ms
inline constexpr field<bool> REQUEST_HELD{0x00000027};  // the asked service gets it when it comes

// CMD_RELOAD on the path [1] makes the loader read its configuration anew, as SIGHUP does, and needs RIGHT_CONTROL.  The
// reply says what becomes of the services, by their names; with a mistake in the configuration it is ERROR_FAILED with
// the mistakes, one a line, and nothing changes.  A field is absent where nothing is to be said.  With RELOAD_CANDIDATE, the
// text of a configuration, the reply says what this one would change, and nothing changes either way; only root and the
// loader's own user may ask that.
inline constexpr unsigned int CMD_RELOAD = 0x60003;
inline constexpr field<std::vector<std::string>> RELOAD_STARTED{0xa000001c};
inline constexpr field<std::vector<std::string>> RELOAD_ENDED{0xa000001d};
inline constexpr field<std::vector<std::string>> RELOAD_RESTARTED{0xa000001e};
inline constexpr field<std::vector<std::string>> RELOAD_ADJUSTED{
    0xa000001f};                                                            // "[rights]" and "[loader]", too
inline constexpr field<std::vector<std::string>> RELOAD_LATER{0xa0000020};  // keys: when the loader starts
inline constexpr field<unsigned int> RELOAD_UNCHANGED{0x08000021};          // how many services
inline constexpr field<std::vector<std::string>> RELOAD_RESTARTED_KEYS{
    0xa0000052};  // of each: "command, memory"
inline constexpr field<std::vector<std::string>> RELOAD_ADJUSTED_KEYS{0xa0000053};
inline constexpr field<std::string> RELOAD_CANDIDATE{0x20000054};

// The crashes of services, on the path [SERVICE_LOADER, LOADER_CRASHES]: CMD_GETALL lists them, the latest first, and
// CMD_GETOBJ shows one with its report.  Both need RIGHT_CONTROL.  SVC_NAME and SVC_PID are those of the service.
inline constexpr unsigned int LOADER_CRASHES = 20;
inline constexpr field<unsigned long long> CRASH_TIME{0x10000040};  // of the last one, in ns since 1970
inline constexpr field<unsigned int> CRASH_SERVICE_ID{0x08000041};
inline constexpr field<std::string> CRASH_SIGNAL{0x20000042};  // "SIGSEGV"
inline constexpr field<std::string> CRASH_WHERE{0x20000043};   // in the source, or in the program
inline constexpr field<unsigned int> CRASH_TIMES{0x08000044};  // how often
inline constexpr field<std::string> CRASH_PROGRAM{0x20000045};
inline constexpr field<std::string> CRASH_BUILD_ID{0x20000046};  // of the program; absent where it has none
inline constexpr field<std::string> CRASH_REPORT{0x20000047};    // of CMD_GETOBJ alone; without secrets

// Who sends to whom and how much, on the path [SERVICE_LOADER, LOADER_TRAFFIC]: CMD_GETALL and CMD_GETOBJ show for each
// service (STD_ID, SVC_NAME) who sent to it and who has subscribed at it, to who may read there.  The service 0 is all that
// are not told apart: those that have gone, and those that came when there were many others.
inline constexpr unsigned int LOADER_TRAFFIC = 30;
inline constexpr field<std::vector<message::flat_message>> TRAFFIC_SENDERS{
    0xa8000055};  // of each: TRAFFIC_SERVICE, SVC_MESSAGES_IN, SVC_BYTES_IN
inline constexpr field<std::vector<message::flat_message>> TRAFFIC_SUBSCRIBERS{
    0xa8000056};  // of each: TRAFFIC_SERVICE, REQUEST_PATH, REQUEST_COMMAND, TRAFFIC_TIMES
inline constexpr field<unsigned int> TRAFFIC_SERVICE{0x08000041};
inline constexpr field<unsigned int> TRAFFIC_TIMES{
    0x08000044};  // subscriptions that differ in nothing of this

// Values of SYS_CTRL in messages between the loader and a process, all of them on the path [1].  The
// library's Looper sends and answers them for every service; a program without a Looper needs them here.
inline constexpr unsigned int CTRL_LEAVE = 1;        // loader: please leave
inline constexpr unsigned int CTRL_LEFT = 2;         // process: leaves; READY_DATA, if it saves any
inline constexpr unsigned int CTRL_REFUSED = 3;      // process: does not leave now
inline constexpr unsigned int CTRL_WANT_LEAVE = 4;   // process: wishes to be asked to leave
inline constexpr unsigned int CTRL_HELLO = 5;        // process: registers; its first message
inline constexpr unsigned int CTRL_RUNNING = 6;      // process: has entered its loop
inline constexpr unsigned int CTRL_LEAVE_VALUE = 7;  // process: could leave now (SYS_CTRL_ARG not 0) or not
inline constexpr unsigned int CTRL_READY = 8;        // loader: confirms the registration
// process: is to be started again at the second SYS_CTRL_ARG since 1970 if it has left by then; 0: no longer
inline constexpr unsigned int CTRL_WAKE_AT = 9;

// Field of CTRL_HELLO: twelve values, the service id asked for (0: the loader picks one) and the version word
// of the service in front; the others are 0.
inline constexpr field<std::vector<unsigned int>> REGISTRATION_VALUES{0x88000001};

// Fields of CTRL_READY.
inline constexpr field<unsigned int> READY_ID{0x08000001};       // the service id given
inline constexpr field<unsigned int> READY_VERSION{0x08000002};  // the loader's version word
inline constexpr field<unsigned int> READY_STARTS{0x08000003};   // the number of this start, from 1
// The data that the service saved with its last CTRL_LEFT, absent if it saved none.
inline constexpr field<message::flat_message> READY_DATA{0x28000004};
// The settings of the service, absent if it has none.
inline constexpr field<message::flat_message> READY_CONFIGURATION{0x28000005};

// Topics of log lines (kl/logger.h).  1 to 8 are how much a line matters, the others which program writes it; topics
// of other services begin at 256.
inline constexpr unsigned int TOPIC_EMERGENCY = 1;  // the system cannot be used
inline constexpr unsigned int TOPIC_ALERT = 2;      // an administrator must act at once
inline constexpr unsigned int TOPIC_CRITICAL = 3;   // a part has failed
inline constexpr unsigned int TOPIC_ERROR = 4;      // something could not be done
inline constexpr unsigned int TOPIC_WARNING = 5;    // something may fail later
inline constexpr unsigned int TOPIC_NOTICE = 6;     // normal, and worth keeping
inline constexpr unsigned int TOPIC_INFO = 7;       // progress
inline constexpr unsigned int TOPIC_DEBUG = 8;      // details for the search for a fault
inline constexpr unsigned int TOPIC_LOADER = 16;
inline constexpr unsigned int TOPIC_UNDO = 17;
inline constexpr unsigned int TOPIC_SYSTEM = 18;
inline constexpr unsigned int TOPIC_LOGD = 19;    // the log service
inline constexpr unsigned int TOPIC_OUTPUT = 20;  // what services write to their standard output
inline constexpr unsigned int TOPIC_ERRORS = 21;  // and to their standard error stream
inline constexpr unsigned int TOPIC_NETIF = 32;

// The log service, kl-logd.  It answers with two tables.
//
// Under [SERVICE_LOG] stand the lines that it has in memory: one object per line, its STD_ID the line's running
// number (from 1 to 0xfffffffe, then again from 1).  CMD_GETALL reads them in chunks from the oldest on,
// CMD_GETOBJ one of them, CMD_GETCOUNT counts those that the request's filter lets through, CMD_SUBSCRIBE follows
// new lines; CMD_GET gives figures of the service itself.  A filter is made of the fields of the line: the request
// asks for lines that have one of its LOG_TOPICS and exactly its LOG_PROCESS, LOG_PROCESS_ID and LOG_SOURCE, and that
// LOG_SINCE and LOG_CONTAINS let through; a field that is absent lets every line through.
//
// Under [SERVICE_LOG, LOG_RULES] stand the topics that have a name or are muted, their STD_ID the topic, and from
// LOG_FIRST_FILE on the files that the configuration names.  CMD_SETOBJ with LOG_MUTED mutes a topic or takes that
// back; CMD_SUBSCRIBE follows the changes:
//
//     kl::message m;
//     m.insert(kl::SYS_TO, {kl::SERVICE_LOG, kl::LOG_RULES});
//     m.insert(kl::STD_ID, kl::TOPIC_DEBUG);
//     m.insert(kl::LOG_MUTED, true);
//     const kl::message answer = handler.exchangeCmd(m, kl::CMD_SETOBJ, 500);
inline constexpr unsigned int SERVICE_LOG = 18;
inline constexpr unsigned int LOG_RULES = 1;             // the handler of the rules
inline constexpr unsigned int LOG_FIRST_FILE = 0x10000;  // the object of the first file; topics lie below

// Fields of a line.
inline constexpr field<unsigned long long> LOG_TIME{0x10000001};  // when it came, in ns since 1970
inline constexpr field<std::string> LOG_PROCESS{0x20000002};      // the name of its process
inline constexpr field<unsigned int> LOG_PROCESS_ID{0x08000003};
// Its other name, unless <syslog.h> came first, which calls an option of its own so.
#ifndef LOG_PID
inline constexpr field<unsigned int> LOG_PID = LOG_PROCESS_ID;
#endif
inline constexpr field<unsigned int> LOG_UID{0x08000017};  // its user when it connected, as the kernel says
inline constexpr field<unsigned int> LOG_SOURCE{0x08000004};  // its number in its process; 0: the log service
inline constexpr field<std::vector<unsigned int>> LOG_TOPICS{0x88000005};
inline constexpr field<std::string> LOG_TEXT{0x20000006};

// The filter of a request, beside fields of the line.
inline constexpr field<unsigned long long> LOG_SINCE{0x10000007};  // LOG_TIME is not before this
inline constexpr field<std::string> LOG_CONTAINS{0x20000008};      // LOG_TEXT has this in it

// The number of lines, in a notification, that passed the filter and were not sent since the last one, because
// more came than a notification takes.  CMD_GETALL has them while they are in memory.
inline constexpr field<unsigned int> LOG_SKIPPED{0x08000009};

// Fields of a rule: of a topic,
inline constexpr field<std::string> LOG_TOPIC_NAME{0x2000000a};
inline constexpr field<bool> LOG_MUTED{0x0000000b};
// and of a file; LOG_TOPICS are those whose lines go there, absent when all do.
inline constexpr field<std::string> LOG_FILE{0x2000000c};
inline constexpr field<unsigned long long> LOG_FILE_BYTES{0x1000000d};  // it never gets bigger
inline constexpr field<unsigned int> LOG_FILE_COUNT{0x0800000e};        // together with the older ones
inline constexpr field<unsigned int> LOG_FILE_SYNC{0x0800000f};         // LOG_SYNC_...
inline constexpr field<std::string> LOG_FILE_FAILURE{0x20000010};  // why it takes no lines; absent: it does
inline constexpr field<unsigned long long> LOG_FILE_LOST{0x10000011};  // lines that were not written

// Fields of the reply to CMD_GET.
inline constexpr field<unsigned int> LOG_CLIENTS{0x08000012};        // connected now
inline constexpr field<unsigned long long> LOG_LINES{0x10000013};    // taken since the start
inline constexpr field<unsigned long long> LOG_DROPPED{0x10000014};  // not taken: their client wrote too fast
inline constexpr field<unsigned long long> LOG_TORN{0x10000015};     // ended with their client, half written
inline constexpr field<unsigned int> LOG_MEMORY{0x08000016};         // bytes that lines have in memory now

// Values of LOG_FILE_SYNC: when a written line is on the disk for certain.
inline constexpr unsigned int LOG_SYNC_NEVER = 0;   // when the kernel decides
inline constexpr unsigned int LOG_SYNC_SECOND = 1;  // within a second
inline constexpr unsigned int LOG_SYNC_LINE = 2;    // before the next line is read

// The undo service answers as service 17 (kl::SERVICE_UNDO), on the path [17].  A service that changed
// something on request reports it with Handler::sendUndo; each report is a record, the newest comes first:
//
//     CMD_ADDOBJ     a report, with UNDO_REQUEST, UNDO_MESSAGE, UNDO_DESCRIPTION, UNDO_USER and UNDO_RIGHTS; the
//                    reply, if one is asked for, names the record in STD_ID
//     CMD_SETOBJ     the report of an undo: UNDO_MESSAGE and UNDO_RIGHTS of the record STD_ID become these, so
//                    that what was undone can be done again; only from the service that made the record
//     CMD_GETALL     the records from STD_GETALLID on, in descending order of their ids, at most STD_GETALLNO
//     CMD_GETOBJ     the record STD_ID
//     CMD_GETCOUNT   how many there are, in STD_GETALLNO
//     CMD_REMOVEOBJ  forgets the record STD_ID
//     CMD_START      undoes the record STD_ID, or does it again: sends UNDO_MESSAGE to UNDO_SOURCE with the user
//                    and the rights of the asker and with STD_UNDOID.  ERROR_NOTALLOWED unless the asker has all
//                    of UNDO_RIGHTS, ERROR_BUSY while the record is being undone, else what the service answers:
//                    nothing, or its error
//     CMD_SUBSCRIBE  follows the records; one that is gone has STD_DEAD
//
// Records are shown to requests without SYS_POLICY, to the user whom UNDO_USER names, and to who has RIGHT_CONTENTS:
//
//     kl::message m;
//     m.insert(kl::SYS_TO, {kl::SERVICE_UNDO});
//     m.insert(kl::STD_ID, 5);
//     const kl::message answer = handler.exchangeCmd(m, kl::CMD_START, 3000);
inline constexpr field<message::flat_message> UNDO_REQUEST{0x28000001};  // what was asked
inline constexpr field<message::flat_message> UNDO_MESSAGE{0x28000002};  // what takes it back
inline constexpr field<std::string> UNDO_DESCRIPTION{0x20000003};        // for people
inline constexpr field<unsigned int> UNDO_RIGHTS{0x08000005};            // what the request needed
inline constexpr field<std::string> UNDO_USER{0x20000006};               // who asked; may be empty
// The undo service adds these.
inline constexpr field<unsigned long long> UNDO_TIME{0x10000007};           // seconds since 1970, UTC
inline constexpr field<std::vector<unsigned int>> UNDO_SOURCE{0x88000008};  // the path of who made the record
inline constexpr field<bool> UNDO_UNDONE{0x00000009};  // it is undone now; UNDO_MESSAGE does it again
inline constexpr field<std::string> UNDO_REPORTER{
    0x2000000a};  // whose process reported it, as the loader says

// Settings of the undo service (READY_CONFIGURATION).
inline constexpr field<unsigned int> UNDO_LIMIT{0x08000001};  // most records that are kept; absent: 100
inline constexpr field<std::string> UNDO_FOLDER{
    0x20000002};  // where they are kept; absent: "/kelo/undo" under the root

// The system service answers as service 24 (kl::SERVICE_SYSTEM).  On the path [24, 0] it is the local time
// zone: CMD_GET gives SYSTEM_TIMEZONE, and whoever subscribed with SYS_NOTIFYCMD SYSTEM_TIMEZONE_CHANGED is sent
// that command with SYSTEM_TIMEZONE when it changes.  Looper::getTimezone does both.
//
// On the path [24] it is a table of the figures below, one object for each kind: STD_ID is SYSTEM_OBJECT_...,
// STD_DESCR its name.  CMD_GETALL, CMD_GETOBJ and CMD_GETCOUNT read it, CMD_SUBSCRIBE follows it; CMD_GET gives
// all figures in one message.
inline constexpr field<std::string> SYSTEM_HOSTNAME{0x20000001};
inline constexpr field<std::string> SYSTEM_VERSION{0x20000002};  // of the installed system; may be empty
inline constexpr field<unsigned int> SYSTEM_UPTIME{0x08000003};  // seconds since boot
inline constexpr field<unsigned long long> SYSTEM_MEMORY_TOTAL{0x10000004};      // bytes
inline constexpr field<unsigned long long> SYSTEM_MEMORY_AVAILABLE{0x10000005};  // bytes, for programs
// Hundredths: averages over 1, 5 and 15 minutes.
inline constexpr field<std::vector<unsigned int>> SYSTEM_LOAD{0x88000006};
inline constexpr field<unsigned int> SYSTEM_TIMEZONE{0x0800001b};  // seconds east of UTC, an int

// The objects of the table.
inline constexpr unsigned int SYSTEM_OBJECT_TIMEZONE = 0;
inline constexpr unsigned int SYSTEM_OBJECT_HOST = 1;
inline constexpr unsigned int SYSTEM_OBJECT_VERSION = 2;
inline constexpr unsigned int SYSTEM_OBJECT_UPTIME = 3;
inline constexpr unsigned int SYSTEM_OBJECT_MEMORY = 4;
inline constexpr unsigned int SYSTEM_OBJECT_LOAD = 5;

// The command of notifications about the time zone.
inline constexpr unsigned int SYSTEM_TIMEZONE_CHANGED = 0x60001;

// Setting of the system service (READY_CONFIGURATION): ticks between two looks at the figures while a subscriber
// follows them; absent: 500.
inline constexpr field<unsigned int> SYSTEM_LOOK_TICKS{0x08000001};

}  // namespace kl
