// The table of the verbs.

#include "verbs/verb.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

#include "values/failure.h"
#include "verbs/action.h"
#include "verbs/capture.h"
#include "verbs/complete.h"
#include "verbs/crashes.h"
#include "verbs/dump.h"
#include "verbs/graph.h"
#include "verbs/help.h"
#include "verbs/introspect.h"
#include "verbs/log.h"
#include "verbs/log_follow.h"
#include "verbs/metrics.h"
#include "verbs/new_service.h"
#include "verbs/reload.h"
#include "verbs/request.h"
#include "verbs/requests.h"
#include "verbs/rights.h"
#include "verbs/store.h"
#include "verbs/top.h"
#include "verbs/trace.h"
#include "verbs/undo.h"
#include "verbs/watch.h"

namespace klctl {
namespace {

struct Row {
  Verb verb;
  Perform perform;
};

constexpr Row kRows[] = {
    {Verb::kServices, listServices},
    {Verb::kGet, getObject},
    {Verb::kGetAll, getTable},
    {Verb::kSet, setObject},
    {Verb::kSend, sendCommand},
    {Verb::kWatch, watchTable},
    {Verb::kStart, startService},
    {Verb::kStop, stopService},
    {Verb::kRestart, restartService},
    {Verb::kLeave, leaveService},
    {Verb::kReload, reloadConfiguration},
    {Verb::kRequests, listRequests},
    {Verb::kStuck, showStuck},
    {Verb::kGraph, showGraph},
    {Verb::kTop, showTop},
    {Verb::kTrace, traceMessages},
    {Verb::kMetrics, showMetrics},
    {Verb::kCapture, captureMessages},
    {Verb::kCrashList, listCrashes},
    {Verb::kCrashShow, showCrash},
    {Verb::kDump, dumpFile},
    {Verb::kUndoList, listChanges},
    {Verb::kUndoShow, showChange},
    {Verb::kUndoRun, undoChange},
    {Verb::kStoreList, listStore},
    {Verb::kStoreGet, showEntry},
    {Verb::kStoreCheck, checkStore},
    {Verb::kStoreCompact, compactStore},
    {Verb::kLog, showLog},
    {Verb::kLogFollow, followLog},
    {Verb::kLogMute, muteTopic},
    {Verb::kLogUnmute, unmuteTopic},
    {Verb::kRightsExplain, explainRights},
    {Verb::kRightsList, listRights},
    {Verb::kHelp, helpService},
    {Verb::kIntrospect, introspectService},
    {Verb::kNew, makeService},
    {Verb::kComplete, completeWords},
};

static_assert(std::size(kRows) == kVerbs, "each verb has one row");

}  // namespace

Perform performerOf(Verb verb) {
  const Row* const row =
      std::find_if(std::begin(kRows), std::end(kRows), [verb](const Row& r) { return r.verb == verb; });
  if (row == std::end(kRows)) throw std::logic_error("a verb without a row");
  return row->perform;
}

void printTable(const Channels& channels, const std::string& table, const std::string& remark) {
  channels.print(table);
  if (table.empty() && channels.isTerminal) channels.remark(remark);
}

void printWithFault(const Channels& channels, const std::string& text, const std::string& fault) {
  channels.print(text);
  if (!fault.empty()) throw Failure(Status::kRefused, fault);
}

}  // namespace klctl
