// Each message that the file holds is printed, the damaged ones as far as they can be read; the fault comes last.

#include "verbs/dump.h"

#include "output/show.h"
#include "values/json.h"

namespace klctl {

void dumpFile(const CommandLine& line, const Channels& channels) {
  const MessageFile file = readMessageFile(line.file, line.format);
  std::string fault = file.fault;
  std::string text;
  Json all = Json::array();
  for (const FoundMessage& found : file.messages) {
    kl::message m;
    const bool isWhole =
        m.unflatten(found.bytes.data(), static_cast<unsigned int>(found.bytes.size()), kl::message::normal);
    if (!isWhole && fault.empty())
      fault = (found.title.empty() ? "the message" : found.title) + " is damaged";
    if (line.json) all.push_back({{"at", found.title}, {"message", klctl::toJson(m, FieldNames())}});
    else text += (found.title.empty() ? "" : found.title + "\n") + dumpText(m);
  }
  if (line.json) text = jsonText(all);
  printWithFault(channels, text, fault.empty() ? "" : line.file + ": " + fault);
}

}  // namespace klctl
