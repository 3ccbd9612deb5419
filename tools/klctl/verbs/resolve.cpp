// Numbers and standard names have been read before; what is left are names of the service's own.

#include "verbs/resolve.h"

namespace klctl {

Dictionary dictionaryFor(const CommandLine& line, const std::string& service) {
  using Secrets = FieldNames::Secrets;
  Dictionary dictionary = dictionaryOf(service, line.fields);
  dictionary.names.showSecrets(line.secrets ? Secrets::kShown
                               : line.json  ? Secrets::kLeftOut
                                            : Secrets::kMarked);
  return dictionary;
}

CommandLine resolved(CommandLine line, const Dictionary& dictionary) {
  NamedPath& path = line.path;
  if (!path.objectName.empty()) path.named = handlersOf(dictionary, path.service, path.objectName);
  if (!line.commandName.empty())
    line.command = commandOf(dictionary, path.service, handlersOf(path), line.commandName);
  return line;
}

}  // namespace klctl
