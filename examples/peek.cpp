// Looks into a file with a flattened message, where the bytes lie: peek FILE
//
// Nothing is built and nothing copied but the file itself.

#include <fstream>
#include <iostream>
#include <iterator>

#include "kl/conventions.h"
#include "kl/message_view.h"

namespace {

using Bytes = std::vector<unsigned char>;

// The fields that are asked for by their ids; an absent one is its default.
void printFields(const kl::message_view& view) {
  std::cout << "command " << view.get(kl::SYS_CMD, kl::CMD_NOOP) << '\n';
  for (const unsigned int hop : view.get(kl::SYS_TO, {})) std::cout << "to " << hop << '\n';
  for (const kl::message_view object : view.get(kl::STD_OBJS, {}))
    std::cout << "object " << object.get(kl::STD_ID, kl::BADID) << ", " << object.size() << " fields\n";
}

// All texts, whatever their ids, in the order of the bytes.
void printTexts(const kl::message_view& view) {
  for (const kl::Record& record : view)
    if (record.kind() == kl::RecordKind::kString && !record.isArray())
      std::cout << "text " << record.text() << '\n';
}

}  // namespace

int main(int argc, char** argv) {
  std::ifstream file(argc == 2 ? argv[1] : "", std::ios::binary);
  const Bytes bytes{std::istreambuf_iterator<char>(file), {}};
  const kl::message_view view(bytes);  // `bytes` has to stay as long as the view
  printFields(view);
  printTexts(view);
  if (view.ok()) return 0;
  std::cerr << "peek: not a whole message: " << view.size() << " records were read\n";
  return 1;
}
