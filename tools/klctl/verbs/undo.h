#pragma once
// undo.h: the records of the undo service, for people.

#include "verbs/verb.h"

namespace klctl {

void listChanges(const CommandLine& line, const Channels& channels);
void showChange(const CommandLine& line, const Channels& channels);
void undoChange(const CommandLine& line, const Channels& channels);  // or redo it, if it is undone

}  // namespace klctl
