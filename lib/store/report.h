#pragma once
// report.h: the lines by which a store tells what failed.

namespace kl {

// One line on the standard output stream, flushed.
void reportStore(const char* text);
void reportStore(const char* text, unsigned int number);

}  // namespace kl
