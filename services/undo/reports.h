#pragma once
// reports.h: from the reports of services to records, and from records to undo messages.

#include <string>

#include "kl/message.h"

namespace undo {

// Why a report cannot become a record, as the error that answers it; an empty message when it can.
kl::message faultOf(const kl::message& report);

// The record that a report of a change makes.  Needs: no fault, SYS_FROM.
kl::message recordFrom(const kl::message& report, unsigned long long time);

// The record after the report of its undoing: what was undone can be done again, and the other way round.
// Needs: no fault.
kl::message turnedRound(const kl::message& record, const kl::message& report);

// The question to the loader what the sender of a request to undo may do at the maker of the record.
kl::message rightsQuestion(const kl::message& record, const kl::message& request);

// The asker of a request to undo as the loader's answer has it: SYS_USER, and SYS_POLICY unless it is root.
kl::message askerFrom(const kl::message& request, const kl::message& answer);

// Does the loader's answer let the undo message through?
bool isLetThrough(const kl::message& answer);

// The message that undoes a record in the name of the asker, with the asker's rights.
kl::message undoMessage(const kl::message& record, const kl::message& asker);

// Are the recorded rights among the asker's?  A record that needed none needs the right to change: the library reports so
// for each command that a service's table does not name.
bool mayUndo(const kl::message& record, const kl::message& asker);

}  // namespace undo
