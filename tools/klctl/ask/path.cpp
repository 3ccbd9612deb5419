// Paths, and the names in them.

#include "ask/path.h"

#include <limits>

#include "kl/conventions.h"
#include "kl/services.h"
#include "services/describe/check.h"
#include "values/failure.h"
#include "values/field_id.h"
#include "values/similar.h"

namespace klctl {
namespace {
constexpr std::size_t kMaxHandlers = 31;  // the loader takes paths of up to 32 elements

std::optional<unsigned int> parseElement(const std::string& word) {
  const auto number = parseNumber(word, std::numeric_limits<unsigned int>::max());
  if (!number) return {};
  return static_cast<unsigned int>(*number);
}

// Cuts off what follows the last `separator`; nothing where there is none.
std::optional<std::string> cutLast(std::string& text, char separator) {
  const std::size_t at = text.rfind(separator);
  if (at == std::string::npos) return {};
  std::string last = text.substr(at + 1);
  text.resize(at);
  return last;
}

unsigned int numberBehind(char separator, const std::string& element, const std::string& word) {
  const auto number = parseElement(element);
  if (!number) throw usage("'" + word + "' is no path: a number must follow '" + separator + "'");
  return *number;
}

// The name of a service that is known by its number; the loader's table first.
std::string askName(unsigned int id, const Exchange& exchange) {
  if (id == kl::SERVICE_LOADER) return "loader";
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  request.insert(kl::SYS_CMD, kl::CMD_GETOBJ);
  request.insert(kl::STD_ID, id);
  const kl::message reply = exchange(request);
  if (!kl::isError(reply) && reply.has(kl::SVC_NAME)) return reply.get(kl::SVC_NAME, "");
  const char* fixed = kl::findServiceName(id);
  return fixed == nullptr ? "" : fixed;
}

unsigned int askId(const std::string& name, const Exchange& exchange) {
  kl::message request;
  request.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  request.insert(kl::SYS_CMD, kl::CMD_GETALL);
  std::vector<unsigned int> ids;
  std::vector<std::string> names;
  for (const kl::message service : fetchAll(request, "loader", exchange)) {
    names.push_back(service.get(kl::SVC_NAME, ""));
    if (names.back() == name) ids.push_back(service.get(kl::STD_ID, kl::BADID));
  }
  if (ids.empty()) {
    throw Failure(Status::kRefused, "no service is called '" + name + "'" + didYouMean(name, names) +
                                        " (klctl services lists them)");
  }
  if (ids.size() > 1) {
    throw Failure(Status::kRefused, "several services are called '" + name + "', " + std::to_string(ids[0]) +
                                        " and " + std::to_string(ids[1]) + " among them: give the number");
  }
  return ids.front();
}

}  // namespace

NamedPath parsePath(const std::string& word) {
  NamedPath path;
  std::string text = word;
  if (const auto object = cutLast(text, ':')) path.object = numberBehind(':', *object, word);
  while (const auto element = cutLast(text, '/')) {
    const bool isFirst = text.find('/') == std::string::npos;
    if (isFirst && describe::isName(*element)) path.objectName = *element;
    else path.handlers.insert(path.handlers.begin(), numberBehind('/', *element, word));
  }
  path.service = text;
  if (text.empty() || text.find(':') != std::string::npos)
    throw usage("'" + word + "' is no path: it begins with the name or the number of a service");
  if (path.handlers.size() > kMaxHandlers)
    throw usage("'" + word + "' is no path: it is longer than 32 elements");
  return path;
}

std::string pathText(const NamedPath& path) {
  std::string text = path.service;
  if (!path.objectName.empty()) text += "/" + path.objectName;
  for (const unsigned int handler : path.handlers) text += "/" + std::to_string(handler);
  if (path.object) text += ":" + std::to_string(*path.object);
  return text;
}

std::vector<unsigned int> handlersOf(const NamedPath& path) {
  std::vector<unsigned int> all = path.named;
  all.insert(all.end(), path.handlers.begin(), path.handlers.end());
  return all;
}

std::string resolveName(const std::string& word, const Exchange& exchange) {
  const auto number = parseElement(word);
  return number ? askName(*number, exchange) : word;
}

unsigned int resolveId(const std::string& word, const Exchange& exchange) {
  if (const auto number = parseElement(word)) return *number;
  return word == "loader" ? kl::SERVICE_LOADER : askId(word, exchange);
}

std::vector<unsigned int> resolvePath(const NamedPath& path, const Exchange& exchange) {
  std::vector<unsigned int> numbers = {resolveId(path.service, exchange)};
  const std::vector<unsigned int> handlers = handlersOf(path);
  numbers.insert(numbers.end(), handlers.begin(), handlers.end());
  return numbers;
}

}  // namespace klctl
