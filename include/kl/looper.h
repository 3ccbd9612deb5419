#pragma once
// kl/looper.h: the message loop of a process and the addressable objects in it.
//
// A service makes its one Looper, which connects to the loader, adds its Handlers under numbers of
// its choice and runs.  A whole service:
//
//     class Hello : public kl::Handler {
//       kl::message cmdGet(const kl::message&) override {
//         kl::message reply;
//         reply.insert(kl::STD_DESCR, "hello");
//         return reply;
//       }
//     };
//
//     int main() {
//       kl::Looper loop(kl::Looper::kAny, 34);     // this process is service 34
//       Hello hello;
//       loop.addHandler(0, &hello);                // its path is [34, 0]
//       loop.run();
//     }

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kl/conventions.h"
#include "kl/export.h"
#include "kl/message.h"
#include "kl/runner.h"

namespace kl {

class FrameSocket;
class Looper;
class SubscriptionIndex;
class Timeout;

// The rights that each command needs.  A request carries its rights as bits in SYS_POLICY; one
// without that field carries all of them.  A command is allowed when every bit that it needs is there.
//
//     kl::policies p;                                  // reading needs RIGHT_READ, and so on
//     p.set_policy(kl::CMD_SET, kl::RIGHT_READ);       // now every user who may read may set
//
// A command without an entry needs RIGHT_OF_NOBODY.
//
// Errors:    none.
// Ownership: a value.
// Threads:   as any value: one object, one thread at a time.
// Cost:      logarithmic in the number of commands; get_policies builds one small message for each.
class KL_API policies {
 public:
  policies();

  // The command needs exactly these bits; 0 allows it to everyone.
  void set_policy(unsigned int command, unsigned int bits);
  // The command needs these bits too.  Without an entry it then needs just these.
  void add_policy(unsigned int command, unsigned int bits);

  // Does the request carry every bit that its command needs?
  bool is_allowed(const message& request) const;

  // The table as the body of a reply: STD_OBJS with one object for each entry, in ascending order of the commands:
  // STD_ID the command, POLICY_RIGHTS what it needs, POLICY_ALLOWED whether the request has that.
  message get_policies(const message& request) const;

  // The bits that a command needs.  Makes an entry of 0 where there is none.
  unsigned int& operator[](unsigned int command) { return required_[command]; }

  friend bool operator==(const policies&, const policies&) = default;

 private:
  std::map<unsigned int, unsigned int> required_;
};

// An addressable object inside a process.  The Looper delivers to it what is sent to its number;
// it answers commands by its cmd operations, sends requests and receives their replies, keeps
// subscribers informed of its objects, and reports changes to the undo service.
//
//     class Netif : public kl::Handler {
//       kl::message cmdGetObj(const kl::message& request, unsigned int id) override;
//       void askOther() {
//         kl::message m;
//         m.insert(kl::SYS_TO, {24, 0});
//         m.insert(kl::SYS_CMD, kl::CMD_GET);
//         postMessage(m, this, kl::bind<Netif, &Netif::onAnswer>(), kl::message(), 500);   // 5 seconds
//       }
//       void onAnswer(const kl::message& reply, const kl::message& data);
//     };
//
// Derive from it and override what the service supports; everything else is answered with
// ERROR_NOTIMP.  Time-outs are in ticks (100 a second); -1 is no limit.
//
// Errors:    what goes wrong elsewhere arrives as an error reply (isError in kl/conventions.h); a request
//            without SYS_REQID is carried out and not answered.  An operation answers with errorMsg() and
//            throws nothing: an exception that reaches the library ends the process.
// Ownership: belongs to the service, which removes it from the Looper before it is destroyed.  Its open
//            requests and timers are its own and end with it.  A resource, so it is not copied.
//            It may be destroyed from inside its own operations, those that the library calls: the reply
//            that a cmd operation returns still goes out from its number; of the changes that were being
//            sent, and of its subscriptions, nothing more is heard.
// Threads:   everything runs on the thread of the Looper.  Callbacks may add and remove handlers,
//            subscriptions and requests, their own too.
// Cost:      a posted request costs one entry in a map, and a timer if it has a time-out.  To find a
//            subscription takes the same time however many there are; a notification walks over all.
class KL_API Handler {
 public:
  // Receives the reply to a posted request, or the error that ended it, and the data given with it.
  using ReplyCallback = void (*)(void* context, const message& reply, const message& data);

  // A posted request that waits for its reply.
  struct KL_API ReplyHandler {
    unsigned int id;   // the request id
    Handler* handler;  // who posted it
    void* context;     // borrowed until the callback has run or the request was cancelled
    ReplyCallback callback;
    message data;                  // handed back to the callback
    TimerPtr timer;                // none without a time-out
    std::vector<unsigned int> to;  // where the request went

    // The timer's callback: ends the request with ERROR_TIMEOUT.
    void timeout();
  };

  Handler();
  Handler(const Handler&) = delete;
  Handler& operator=(const Handler&) = delete;
  virtual ~Handler();

  // Take and give the data that outlives the process: the subscriptions.  A service that overrides
  // them calls these too and adds its own fields; field 0xa8000001 is taken.
  virtual void loadPermData(const message& data);
  virtual void savePermData(message& data);

  // Sorts what comes in: replies to handleReply, broken-path notices to handleBrkpath, commands to
  // handleCmd if checkPolicy allows them (CMD_GETPOLICIES is always answered).
  virtual void handle(const message& m);

  // A message of this handler could not be delivered; its SYS_FROM is the path that could not be
  // followed.  Does nothing.
  virtual void handleBrkpath(const message& notice);

  // Hands a reply to the callback of the request that it answers; others are ignored.
  virtual void handleReply(const message& reply);

  // Carries out a command and sends the reply.
  virtual void handleCmd(const message& request, unsigned int command);

  // The commands.  Each returns the body of its reply; handleCmd addresses and sends it.
  virtual message cmdGetPolicies(const message& request);
  virtual message cmdGet(const message& request);
  virtual message cmdSet(const message& request);
  virtual message cmdReset(const message& request);
  virtual message cmdGetObj(const message& request, unsigned int id);
  virtual message cmdSetObj(const message& request, unsigned int id);
  // `count` objects from `start` on; 0xffffffff and 0 when the request does not say.
  virtual message cmdGetAll(const message& request, unsigned int start, unsigned int count);
  virtual message cmdAddObj(const message& request);
  virtual message cmdRemoveObj(const message& request, unsigned int id);
  virtual message cmdMoveObj(const message& request, unsigned int id);
  virtual message cmdGetCount(const message& request);
  // Every command that has no operation of its own.
  virtual message cmdUnknown(const message& request, unsigned int command);
  // Does nothing; the reply is empty.
  virtual void cmdShutdown(const message& request);

  // Does this subscriber get the notification?  Not the one that caused the change (SYS_FROM of the record equals
  // SYS_NOTIFYPATH of the notification); any other if its record asks for the notification's command.
  virtual bool shouldNotify(const message& record, const message& notification);

  // A subscription was added (or came back with the persistent data).  A subscription is about to be removed.
  virtual void subscribed(const message& record);
  virtual void unsubscribed(const message& record);

  // A process ended: drops every subscription whose path begins with SYS_FROM of the message.
  virtual void cmdDisconnected(const message& m);

  // A batch of changes was sent.
  virtual void notifiesSent();

  // The object for a notification, with STD_ID = id; with STD_DEAD when it is gone.  An object without this STD_ID ends
  // the process with two lines, the second of which names handler, class and object.  The library reads an object only
  // if there are subscribers, so any subscriber can trigger such an end: every id that was passed to notifyChange must
  // come back, also when the object is gone by then.
  virtual message getObject(unsigned int id);

  // May the request be carried out?  Asks the policies.
  virtual bool checkPolicy(const message& request);

  // Puts this handler's number in front of SYS_FROM and sends the message on its way.  A message is lost for which
  // fits() says no.  Needs: a Looper.
  virtual void sendMessage(message& m);

  // The same, and waits for the reply.  Nothing else runs meanwhile; what arrives is kept for later, at most
  // 100 messages.  A time-out of 0 takes what has come and does not wait; a request that gets no reply in time
  // returns an ERROR_TIMEOUT error.  An exchange with a handler of the same process can only time out.
  // Needs: a Looper, and SYS_TO in the message.
  virtual message exchangeMessage(message& m, int timeout);

  // Makes m a request with the next request id, sends it and returns the id (through idOut too, unless null).
  unsigned int requestMessage(message& m, unsigned int* idOut = nullptr);

  // Sets SYS_CMD, then sends or exchanges.
  void sendCmd(message& m, unsigned int command);
  message exchangeCmd(message& m, unsigned int command, int timeout);

  // Sends a request and returns at once.  callback(context, reply, data) is called exactly once: with the
  // reply, or after `timeout` ticks with an ERROR_TIMEOUT error; never if the request is cancelled or this
  // handler is destroyed first.  The data is copied.
  unsigned int postMessage(message& m, void* context, ReplyCallback callback, const message& data,
                           int timeout);

  // Forgets a posted request, whose callback is not called.  An unknown id is ignored.
  void cancelPost(unsigned int id);

  // Ends a posted request with an ERROR_TIMEOUT error.
  void replyTimeout(unsigned int id);

  // Sends a reply to where the request came from.  A request without SYS_REQID gets none.
  void replyMessage(const message& request, message reply);
  void replyError(const message& request, unsigned int code, const std::string& text);

  // Will the message, or the reply to a request, be short enough for a frame when this handler sends it?  The paths and
  // what else sending adds are counted.  A message that stays in this process (PATH_SELF) may have any length.
  bool fits(const message& m) const;
  bool fits(const message& request, message reply) const;

  // Tells the sender of a message that expects no reply that it could not be delivered.
  void sendBrkpath(const message& m);

  // Ask another service for notifications under a command, or end them.  `extra` holds what the service
  // takes as a filter; both calls must name the same.  Nothing comes back.
  void subscribe(const std::vector<unsigned int>& path, unsigned int notifyCommand, const message& extra);
  void unsubscribe(const std::vector<unsigned int>& path, unsigned int notifyCommand, const message& extra);

  // CMD_SUBSCRIBE and CMD_UNSUBSCRIBE: add or remove a subscription of this handler.
  void cmdSubscribe(const message& request);
  void cmdUnsubscribe(const message& request);

  // Calls subscribed() for every subscription, in order.
  void notifySubscriptions();

  // An object changed.  Subscribers get a notification of all changes after 200 ms, or at once when 100 objects have
  // changed.  A subscriber that caused all changes of a batch gets none: name it by its request or by its path.
  void notifyChange(unsigned int id);
  void notifyChange(unsigned int id, const message& cause);
  void notifyChange(unsigned int id, const std::vector<unsigned int>& originator);

  // Sends the changes that have gathered.
  void sendChanges();

  // Sends as many objects as one notification holds and returns the first that it did not.
  const message* sendNotifies(const message* first, const message* last);

  // Sends a notification of the caller's own, SYS_CMD included, to the subscribers that shouldNotify() chooses: once to
  // all of them, or, where so many paths make it too large for a frame, in parts, each subscriber in one, in order.
  void sendNotify(message& m);

  // Report to the undo service that a request changed something, and what message takes that back.  The
  // description is for people.  `source` becomes the sender's path, 0xffffffff leaves it out.
  void sendUndoFrom(const message& request, const message& undo, const std::string& description,
                    unsigned int source);
  void sendUndo(const message& request, const message& undo, const std::string& description);
  // Puts SYS_CMD = command into undo first.
  void sendUndo(const message& request, message& undo, const std::string& description, unsigned int command);

  // The number that addHandler gave; BADID before.
  unsigned int getHandlerID() const { return id_; }

  // The rights that this handler's commands need.
  policies& accessPolicies() { return policies_; }
  const policies& accessPolicies() const { return policies_; }

  // A terminal handler (the default) is the end of every path.  One that passes messages on clears the flag and then
  // gets them with the rest of the path in SYS_TO.
  bool isTerminal() const { return terminal_; }
  void setTerminal(bool terminal) { terminal_ = terminal; }

  // The subscriptions in order of arrival: the requests without their system fields, SYS_FROM and
  // SYS_NOTIFYCMD excepted.
  const std::vector<message>& getSubscriptions() const { return subscriptions_; }

  // How many subscriptions cmdSubscribe accepts; BADID, as at first, is no limit.  One beyond it is dropped without
  // notice: as no subscription is answered, its sender gets neither an error nor notifications, and subscribed() is not
  // called.  Subscriptions that exist stay, and so do those that come back with the persistent data.
  void setSubscriptionLimit(unsigned int most);
  unsigned int getSubscriptionLimit() const;

 private:
  friend class Looper;
  friend class HandlerProbe;  // the tests' hand on the counter

  message carryOut(const message& request, unsigned int command);
  void endPost(std::map<unsigned int, ReplyHandler>::iterator post, const message& reply);
  const ReplyHandler* findPost(unsigned int id) const;
  unsigned int sentLength(const message& m) const;
  void addSubscription(const message& record);
  std::size_t placeOfSubscription(const message& record) const;
  void removeSubscription(const message& record);
  void sendToMany(message& m, const std::vector<unsigned int>& to);
  std::vector<message> collectChanges(const std::set<unsigned int>& ids);
  const message* sendObjects(const message* first, const message* last,
                             const std::vector<unsigned int>& originator);

  std::map<unsigned int, ReplyHandler> replyHandlers_;
  unsigned int id_ = BADID;
  unsigned int nextRequestID_ = 0;
  policies policies_;
  bool terminal_ = true;
  std::vector<message> subscriptions_;
  std::unique_ptr<SubscriptionIndex> subscriptionIndex_;
  std::set<unsigned int> changes_;
  std::vector<unsigned int> originator_;
  TimerPtr batchTimer_;
};

// The message loop of a process: its connection to the loader, the table of its handlers, and its event
// loop.  It is itself the handler of whatever names no registered one.  There is one in a process; it is
// made before the first handler and lives until the process ends.
//
// Errors:    the connection is vital.  A process that cannot connect, or that loses its loader, ends with one line
//            on the standard error stream and status 1; one that the loader does not confirm within 10 seconds
//            aborts.  A message of 65536 bytes or more is not sent, without notice unless
//            reportTooBig says otherwise.
// Ownership: owns the connection.  Handlers are borrowed until they are removed.
// Threads:   belongs to the thread that made it.
// Cost:      a message out is one system call, one in is one poll and one read, less when several arrive
//            together: then those out leave together as well (flushMessages).
class KL_API Looper : public Handler, public Runner {
 public:
  // How to come by the connection: use descriptor 3 if the loader passed it on, else connect; descriptor 3
  // or end; connect in any case.
  static constexpr unsigned int kAny = 0;
  static constexpr unsigned int kInherited = 1;
  static constexpr unsigned int kConnect = 2;

  // Connects, registers with the twelve values and returns when the loader has confirmed.  a1 is the service number
  // asked for (0: the loader picks one), a2 the version word of the service.
  explicit Looper(unsigned int mode, unsigned int a1 = 0, unsigned int a2 = 0, unsigned int a3 = 0,
                  unsigned int a4 = 0, unsigned int a5 = 0, unsigned int a6 = 0, unsigned int a7 = 0,
                  unsigned int a8 = 0, unsigned int a9 = 0, unsigned int a10 = 0, unsigned int a11 = 0,
                  unsigned int a12 = 0);
  ~Looper() override;

  // Ends run() and forgets the connection: messages sent from now on are dropped, arriving ones are not read.
  // The descriptor stays open until the process ends.
  void shutdown() override;

  // The first start of this program on this machine.  Does nothing.
  virtual void onInit();

  // Sees every message that is about to be dispatched or queued; true drops it.  Returns false.
  virtual bool filterMessage(const message& m);

  // Hands a message to the handler that the first element of SYS_TO names, without that element.  A path that names
  // no handler, or goes on behind a terminal one, is answered with ERROR_BRKPATH.
  virtual void dispatchMessage(message& m);

  // May the process leave when the loader asks it to?
  virtual bool canLeave();

  // Tells the loader that the process runs, and processes messages until shutdown or until it leaves.
  // Calls onInit before the first start of this program, which a file in /kelo/run remembers.
  void run() override;

  void handleCmd(const message& request, unsigned int command) override;
  // Passes it to every handler.
  void cmdDisconnected(const message& m) override;
  // Sends by the first element of SYS_TO: PATH_SELF, PATH_ALL and PATH_MULTI as kl/conventions.h says, no
  // path into the queue of this process, every other to the loader.
  void sendMessage(message& m) override;
  message exchangeMessage(message& m, int timeout) override;
  void loadPermData(const message& data) override;
  void savePermData(message& data) override;

  // Registers a handler and gives it its number; false if the number is taken.
  bool addHandler(unsigned int id, Handler* handler);
  // False if there is none.
  bool removeHandler(unsigned int id);
  bool hasHandler(unsigned int id) const;

  // Returns when the service answers, however long that takes.
  void ensure(unsigned int id);

  // Keeps a message for this process: it is dispatched before the loop sleeps.  While 100 wait, each further one is
  // lost with a report: two lines on the standard error stream, and a dump of the 100 on standard output.
  void queueMessage(const message& m);
  void dispatchQueue();

  // The next message, for services that pull them: ERROR_TIMEOUT "timeout" when none comes in time, an error
  // "control message (n)" for a control message.
  message getMessage(int timeout);

  // Bytes and frames on the connection.  readRaw reads exactly count bytes and returns count, or 0 when none
  // came in time; once begun it is completed.  writeRaw waits as long as it takes.
  unsigned int readRaw(unsigned char* bytes, unsigned int count, int timeout);
  void writeRaw(const unsigned char* bytes, unsigned int count);
  bool readMessage(message& m, int timeout);
  void writeMessage(const message& m);

  // Writes now what run() holds back.  A message that is sent while others wait that came together in one read may
  // leave together with the next ones, in one write: at most 32 messages or 16 KiB, and none later than the pass in
  // which the loop sees another tick.  As soon as none waits any more, everything is out, and a message is written at
  // once.  Order and bytes are the same.  Whatever waits in this library writes them first: exchanges and the other
  // readers of the connection, a loop that sleeps, stores, a full log, the loading of modules.  So do shutdown, the end
  // of run(), the destructor and exit; the report of a crash makes one attempt that does not wait.  A forked child does
  // not have them.
  //
  // The rest is the caller's.  They are lost with a process that a signal ends without a report (SIGKILL, SIGTERM), or
  // that calls _exit or exec.  An operation or callback that waits or computes for long holds up what was sent before:
  // it calls this first, above all where what it waits for depends on a message of its own.
  void flushMessages();

  // The connection is readable: takes messages up to the first request.
  void onMsgSock(int fd, unsigned int events);

  // Whether a message that is too large for a frame is lost with a word: a line on the standard error stream that
  // names the handler, the command and the size, and, in the place of a reply, ERROR_TOOBIG to whoever asked.  At
  // first it is lost without one.
  void reportTooBig(bool on) { reportsTooBig_ = on; }

  // Control messages to the loader.
  void sendCtrl(unsigned int code, unsigned int argument);
  void sendCtrl(unsigned int code);

  // Leaving: a process that can be started again on demand declares it with a value other than 0.  It leaves when the
  // loader asks and no blockLeave is open; each needs its unblockLeave, and run() ends the one of the construction.
  // Messages that wait in the queue are dispatched before it leaves.
  void setupLeave(unsigned int value);
  void blockLeave();
  void unblockLeave();
  // Asks the loader to ask this process to leave.
  void tellLeave();
  bool isLeaving() const { return leaving_; }

  // Offset of local time in seconds, from the system service.  The first call waits for it up to a minute,
  // 0 if it does not come; from then on changes arrive by themselves.
  int getTimezone();
  // Local time in seconds since 1970.
  unsigned int getLocaltime();

  // The values of the confirmation: READY_ID, READY_VERSION and READY_STARTS as values 1 to 3 (0 where the loader gave
  // none, and for any other n), and READY_CONFIGURATION.
  unsigned int getLoaderValue(unsigned int n) const;
  const message& getLoaderData() const { return loaderData_; }

 private:
  friend class Handler;

  void registerProcess(const std::vector<unsigned int>& values);
  void awaitReady();
  void deliverLocally(message& m);
  void sendMulti(message& m);
  void reportFullQueue() const;
  void refuseTooBig(const message& m, unsigned int length);
  bool takeMessage();
  void handleCtrl(unsigned int code);
  void leave();
  void deliverTo(Handler& handler, message& m);
  void breakPath(Handler& handler, const message& m);
  bool readMessage(message& m, Timeout& timeout);
  void declareReadAhead();
  void keepForLater(const message& m);
  bool isAnswer(const message& reply, unsigned int id, const std::vector<unsigned int>& from,
                const message& request) const;

  bool leaving_ = false;
  unsigned int loaderValues_[3] = {};
  int socket_ = -1;
  int timezone_ = -1;
  unsigned int leaveValue_ = 0;
  unsigned int leaveBlocks_ = 1;
  std::map<unsigned int, Handler*> handlers_;
  std::map<unsigned int, message> pendingPermData_;
  std::deque<message> queue_;
  message loaderData_;
  std::unique_ptr<FrameSocket> frames_;
  bool readsAhead_ = false;
  bool leaveAsked_ = false;  // the loader waits for an answer
  bool reportsTooBig_ = false;
};

// The Looper of this process, null when there is none.
KL_API Looper* getLooper();

}  // namespace kl
