// Three files with anything in them are opened as a store, and a script of operations goes on with it.
//
//   - opening comes to an end, and afterwards the sizes of all slots are the length of the data file: opening again
//     says not a word and finds the same entries
//   - if each slot has an id of its own and holds its record, the store holds from then on what a plain map holds,
//     through all operations and openings
//   - what StoreView sees of the files are the same entries and messages, and nothing is wrong with them except
//     a message that was none before, and bytes of the index that are no slot

#include "kl/store.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "fuzz/input.h"

namespace {

using fuzz::Bytes;
using fuzz::require;
using kl::message;
using kl::Store;
using kl::StoreView;

constexpr unsigned int kLifetime = 3;

// The lines that the process prints on its standard output.
class Lines {
 public:
  Lines() {
    const int file = ::memfd_create("lines", MFD_CLOEXEC);
    require(file >= 0 && ::dup2(file, STDOUT_FILENO) >= 0, "a file for lines");
    ::close(file);
  }
  // Whether there was none since the last question.
  bool wereNone() {
    std::fflush(stdout);
    const off_t end = ::lseek(STDOUT_FILENO, 0, SEEK_END);
    (void)::ftruncate(STDOUT_FILENO, 0);
    (void)::lseek(STDOUT_FILENO, 0, SEEK_SET);
    return end == 0;
  }
};

// A folder in memory with one store's files.
class Files {
 public:
  Files() {
    char name[] = "/dev/shm/kl-fuzz-XXXXXX";
    char fallback[] = "/tmp/kl-fuzz-XXXXXX";
    const char* made = ::mkdtemp(name);
    if (made == nullptr) made = ::mkdtemp(fallback);
    require(made != nullptr, "a folder");
    folder_ = made;
  }
  ~Files() { std::filesystem::remove_all(folder_); }
  Files(const Files&) = delete;
  Files& operator=(const Files&) = delete;

  std::string base() const { return folder_ + "/s"; }
  void write(const char* suffix, const Bytes& content) const {
    const std::string name = base() + suffix;
    const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    require(fd >= 0 && ::write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()),
            "files can be written");
    ::close(fd);
  }
  void clear() const {
    for (const auto& entry : std::filesystem::directory_iterator(folder_))
      std::filesystem::remove(entry.path());
  }

 private:
  std::string folder_;
};

struct Expected {
  message content;
  unsigned int lifetime;
};
using Model = std::map<unsigned int, Expected>;

message messageFrom(fuzz::Input& input) {
  message m;
  m.insert_u32(0x08000001, input.u8());
  m.insert_raw(0x30000001, Bytes(input.upTo(300), 7));
  return m;
}

class Script {
 public:
  explicit Script(const std::string& base) : base_(base) { reopen(); }

  // False for files in which slots share an id, of which one is hidden, or records do not fit their slots: what
  // becomes of those is not said.
  bool takeModel() {
    const StoreView view(base_);
    for (const StoreView::Finding& finding : view.findings())
      if (finding.fault >= StoreView::Fault::kRepeatedId && finding.fault != StoreView::Fault::kBadMessage)
        return false;
    for (const auto& [id, entry] : store_->entries()) model_[id] = {store_->get(id), entry.lifetime};
    return true;
  }

  void step(fuzz::Input& input) {
    const unsigned int operation = input.upTo(9);
    const unsigned int id = input.upTo(9) == 0 && !model_.empty() ? model_.begin()->first : input.upTo(15);
    switch (operation) {
      case 0:
      case 1:
      case 2:
      case 3: return set(id, messageFrom(input));
      case 4:
      case 5: return require(store_->remove(id) == (model_.erase(id) == 1), "removed if it was there");
      case 6: return touch(id, input.u8());
      case 7: return age();
      case 8: return store_->compact(false);
      default: return reopen();
    }
  }

  void check() const {
    require(store_->entries().size() == model_.size(), "as many entries");
    for (const auto& [id, expected] : model_) {
      const auto entry = store_->entries().find(id);
      require(entry != store_->entries().end(), "every entry");
      require(entry->second.lifetime == expected.lifetime, "its lifetime");
      require(store_->get(id) == expected.content, "its message");
    }
  }

  void checkView() const {
    const StoreView view(base_);
    require(view.entries().size() == model_.size(), "a view sees as many entries");
    for (const StoreView::Entry& entry : view.entries()) {
      const auto expected = model_.find(entry.id);
      require(expected != model_.end() && expected->second.lifetime == entry.lifetime,
              "a view sees each entry");
      require(view.get(entry) == expected->second.content, "a view sees each message");
    }
    for (const StoreView::Finding& finding : view.findings())
      require(
          finding.fault > StoreView::Fault::kPendingChange || finding.fault == StoreView::Fault::kPartialSlot,
          "the files agree");
  }

  // Damaged entries can be read and removed like any other.
  void useAll() {
    while (!store_->entries().empty()) {
      const unsigned int id = store_->entries().begin()->first;
      (void)store_->get(id);
      store_->touch(id, kLifetime);
      require(store_->remove(id), "what is there can be removed");
    }
    store_->compact(false);
    reopen();
  }

  void reopen() { store_ = std::make_unique<Store>(base_, kLifetime); }

 private:
  void set(unsigned int id, const message& m) {
    store_->set(id, m);
    model_.try_emplace(id, Expected{m, kLifetime}).first->second.content = m;
  }
  void touch(unsigned int id, unsigned int lifetime) {
    store_->touch(id, lifetime);
    if (const auto found = model_.find(id); found != model_.end()) found->second.lifetime = lifetime;
  }
  void age() {
    store_->age();
    for (auto& [id, expected] : model_) expected.lifetime -= expected.lifetime > 0 ? 1 : 0;
    std::erase_if(model_, [](const auto& entry) { return entry.second.lifetime == 0; });
  }

  std::string base_;
  std::unique_ptr<Store> store_;
  Model model_;
};

}  // namespace

// A view that finds something wrong lets writers go on before it looks again.  There are none.
extern "C" int sched_yield() noexcept { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Lines lines;
  static const Files files;
  fuzz::Input input(data, std::min<std::size_t>(size, 4096));
  files.clear();
  const unsigned int which = input.upTo(7);
  const Bytes index = input.bytes(input.upTo(120));
  const Bytes content = input.bytes(input.upTo(255));
  const Bytes lock = input.bytes(input.upTo(120));
  if ((which & 1) == 0) files.write(".idx", index);
  if ((which & 2) == 0) files.write(".dat", content);
  if ((which & 4) != 0) files.write(".lock", lock);

  { const Store first(files.base(), kLifetime); }
  (void)lines.wereNone();
  Script script(files.base());
  require(lines.wereNone(), "opening again says nothing");
  if (!script.takeModel()) return script.useAll(), 0;
  script.check();
  script.checkView();
  for (int steps = 0; !input.isEmpty() && steps < 60; ++steps) {
    script.step(input);
    script.check();
  }
  (void)lines.wereNone();
  script.reopen();
  require(lines.wereNone(), "opening at the end says nothing");
  script.check();
  script.checkView();
  return 0;
}
