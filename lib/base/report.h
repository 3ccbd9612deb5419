#pragma once
// report.h: the lines by which the library reports what went wrong.
//
// The stream that a line goes to, of the two, is fixed with its text.  A line leaves in one piece and at once, so that
// lines of several processes do not mix on one console and a process that dies loses none.

#include <string>

namespace kl {

// A number in such a line.
std::string decimal(long long number);

// A line on the standard output stream: the text and, behind it, a detail or a number with its unit.
void printLine(const char* text);
void printLine(const char* text, const char* detail);
void printLine(const char* text, long long number, const char* unit = "");

// The same with the text of errno as the detail.
void printErrno(const char* text);

// A line on the standard error stream.
void printErrorLine(const std::string& line);

// The last line of a process, on the standard error stream; the process ends with status 1.
[[noreturn]] void endProcess(const std::string& line);
[[noreturn]] void endProcess(const char* text);
[[noreturn]] void endProcess(const char* text, long long number);
// The same with the result of a system call and its errno behind the text.
[[noreturn]] void endProcessAfterCall(const char* text, long long result);

}  // namespace kl
