// Class templates inside the structure of an object, so that a header which nobody uses for handlers or clients needs none
// of them: Operations<Base> is a handler, Calls<Client> a base of kl::Client, Awaits<Client> one of kl::TaskClient.

#include "operations.h"

#include <algorithm>
#include <cctype>

#include "identifiers.h"

namespace klgen {
namespace {

using describe::Command;
using describe::Object;

// The names that handlers, tables and clients have for themselves.
constexpr char kTakenOperations[] =
    " AddObj Disconnected Get GetAll GetCount GetObj GetPolicies MoveObj RemoveObj Reset Set SetObj Shutdown "
    "Subscribe"
    " Unknown Unsubscribe ";
constexpr char kTakenCalls[] = " add call cancel count get getAll isIdle move remove set setTimeout ";

std::string freed(const std::string& word, const char* taken) {
  const bool isTaken = std::string(taken).find(" " + word + " ") != std::string::npos;
  return isTaken ? word + "_" : word;
}

std::string operationName(const Command& command) {
  return "cmd" + freed(camelName(command.name), kTakenOperations);
}

std::string callName(const Command& command) {
  std::string word = camelName(command.name);
  word.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(word.front())));
  return freed(memberName(word), kTakenCalls);
}

std::string structureName(const Object& object, const Command& command) {
  return typeName(object.name + "_" + command.name);
}

std::string remarkOf(const Command& command) {
  return command.doc.empty() ? "" : "    // " + commentText(command.doc) + "\n";
}

//     virtual ::kl::Result<PoolGoReply> cmdGo(const PoolGoRequest&, const ::kl::message&) {
std::string operation(const Object& object, const Command& command) {
  const std::string name = structureName(object, command);
  const std::string result = command.gives.empty() ? "::kl::Error" : "::kl::Result<" + name + "Reply>";
  const std::string takes = command.takes.empty() ? "" : "const " + name + "Request&, ";
  return remarkOf(command) + "    virtual " + result + " " + operationName(command) + "(" + takes +
         "const ::kl::message&) { return ::kl::Error{::kl::ERROR_NOTIMP}; }\n";
}

std::string branch(const Object& object, const Command& command) {
  const std::string name = structureName(object, command);
  std::string text = "      if (theCommand == " + name + "::kCommand) {\n";
  if (!command.takes.empty())
    text += "        ::kl::message theRefusal = ::kl::refusalOf(" + name +
            "::kRules, theRequest);\n        if (::kl::isError(theRefusal)) return theRefusal;\n";
  text += "        return ::kl::detail::replyOf(this->" + operationName(command) + "(";
  if (!command.takes.empty()) text += name + "Request::fromMessage(theRequest), ";
  return text + "theRequest));\n      }\n";
}

std::string call(const Object& object, const Command& command) {
  const std::string name = structureName(object, command);
  const std::string reply = command.gives.empty() ? "::kl::NoFields" : name + "Reply";
  const std::string takes = command.takes.empty() ? "" : "const " + name + "Request& theRequest, ";
  return remarkOf(command) + "    void " + callName(command) + "(" + takes +
         "::kl::Callable<void(::kl::Result<" + reply +
         ">)> theDone = nullptr) {\n      static_cast<Client&>(*this).template call<" + name + ">(" +
         (command.takes.empty() ? "{}" : "theRequest") + ", ::std::move(theDone));\n    }\n";
}

// The call that a task awaits.  As in kl::TaskClient, its argument is a variable.
std::string awaitedCall(const Object& object, const Command& command) {
  const std::string name = structureName(object, command);
  const std::string request = command.takes.empty() ? "" : "const " + name + "Request& theRequest";
  const std::string text = "    auto " + callName(command) + "(" + request +
                           ") { return static_cast<Client&>(*this).template call<" + name + ">(" +
                           (command.takes.empty() ? "" : "theRequest") + "); }\n";
  return remarkOf(command) + text +
         (command.takes.empty()
              ? ""
              : "    void " + callName(command) + "(const " + name + "Request&&) = delete;\n");
}

template <class ToText>
std::string eachOf(const Object& object, ToText toText) {
  std::string text;
  for (const Command& command : object.commands)
    if (!command.isStandard) text += toText(object, command);
  return text;
}

}  // namespace

bool hasOwnCommands(const Object& object) {
  return std::any_of(object.commands.begin(), object.commands.end(),
                     [](const Command& command) { return !command.isStandard; });
}

std::string operationsOf(const Object& object) {
  if (!hasOwnCommands(object)) return "";
  return "\n  // Its own commands as operations of a handler (kl/commands.h, kl/table.h).\n"
         "  template <class Base>\n  class Operations : public Base {\n   public:\n    using "
         "Base::Base;\n\n" +
         eachOf(object, operation) +
         "\n    ::kl::message cmdUnknown(const ::kl::message& theRequest, unsigned int theCommand) override "
         "{\n" +
         eachOf(object, branch) +
         "      return Base::cmdUnknown(theRequest, theCommand);\n    }\n  };\n"
         "\n  // The same as calls of an asker (kl/client.h).\n"
         "  template <class Client>\n  class Calls {\n   public:\n" +
         eachOf(object, call) +
         "  };\n\n  // The same for tasks (kl/coroutine.h).\n  template <class Client>\n  class Awaits {\n   "
         "public:\n" +
         eachOf(object, awaitedCall) + "  };\n";
}

}  // namespace klgen
