#pragma once
// lib/loop/signal_table.h: what a signal handler can reach is process-wide; the Runner resets it when it is made.

namespace kl {

// Forgets every handler and every saved action, and the pipe without closing it.
void resetSignalTable();

}  // namespace kl
