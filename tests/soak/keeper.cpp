// kl-soak-keeper: a table that is kept in a store, and leaves.

#include "kl/chunk.h"
#include "kl/logger.h"
#include "kl/looper.h"
#include "kl/services.h"
#include "kl/store.h"
#include "tests/soak/soak_services.h"

namespace {

constexpr std::size_t kLongestText = 4096;
constexpr unsigned int kLifetime = 3;

class Keeper : public kl::Handler {
 public:
  // The latest changes are told before the process leaves: the next one does not know of them.
  void savePermData(kl::message& data) override {
    sendChanges();
    Handler::savePermData(data);
  }

 private:
  kl::message getObject(unsigned int id) override {
    if (store_.entries().contains(id)) return store_.get(id);
    kl::message dead;
    dead.insert(kl::STD_ID, id);
    dead.insert(kl::STD_DEAD, 1);
    return dead;
  }

  kl::message cmdGetObj(const kl::message&, unsigned int id) override {
    return store_.entries().contains(id) ? store_.get(id) : kl::errorMsg(kl::ERROR_UNKNOWNID, "");
  }

  // An empty text removes the object, so that whatever was set can be undone by setting.
  kl::message cmdSetObj(const kl::message& request, unsigned int id) override {
    const std::string text = request.get(kl::STD_DESCR, "");
    if (id == 0 || id > soak::kMostObjects) return kl::errorMsg(kl::ERROR_UNKNOWNID, "");
    if (text.size() > kLongestText) return kl::errorMsg(kl::ERROR_TOOBIG, "");
    const std::string before = textOf(id);
    if (text == before) return {};
    change(id, text);
    kl::message undo;
    undo.insert(kl::STD_ID, id);
    undo.insert(kl::STD_DESCR, before);
    sendUndo(request, undo, "text of object " + std::to_string(id), kl::CMD_SETOBJ);
    notifyChange(id, request);
    log_ << "object " << id << " has " << text.size() << " bytes" << std::endl;
    return {};
  }

  kl::message cmdRemoveObj(const kl::message& request, unsigned int id) override {
    if (!store_.remove(id)) return kl::errorMsg(kl::ERROR_UNKNOWNID, "");
    notifyChange(id, request);
    return {};
  }

  kl::message cmdGetAll(const kl::message&, unsigned int start, unsigned int count) override {
    const auto& entries = store_.entries();
    kl::Chunk chunk(count);
    for (auto at = start == kl::BADID ? entries.begin() : entries.lower_bound(start); at != entries.end();
         ++at)
      if (!chunk.add(at->first, store_.get(at->first))) break;
    return chunk.reply();
  }

  kl::message cmdGetCount(const kl::message&) override {
    std::map<unsigned int, std::string> texts;
    for (const auto& [id, entry] : store_.entries()) texts[id] = textOf(id);
    kl::message reply;
    reply.insert(kl::STD_GETALLNO, static_cast<unsigned int>(texts.size()));
    reply.insert(soak::DIGEST, soak::digestOf(texts));
    return reply;
  }

  std::string textOf(unsigned int id) {
    return store_.entries().contains(id) ? store_.get(id).get(kl::STD_DESCR, "") : "";
  }

  void change(unsigned int id, const std::string& text) {
    if (text.empty()) return void(store_.remove(id));
    kl::message object;
    object.insert(kl::STD_ID, id);
    object.insert(kl::STD_DESCR, text);
    store_.set(id, object);
  }

  kl::Store store_{"/kelo/soak/table", kLifetime};
  kl::lstream log_{kl::TOPIC_INFO};
};

}  // namespace

int main() {
  kl::Looper loop(kl::Looper::kAny, soak::kKeeper);
  {
    Keeper keeper;
    loop.addHandler(soak::kTable, &keeper);
    loop.setupLeave(1);
    loop.run();
    loop.removeHandler(soak::kTable);
  }
}
