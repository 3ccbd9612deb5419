// hello: the smallest whole service.  It keeps one text, which others read and set.

#include "kl/looper.h"

class Hello : public kl::Handler {
  kl::message cmdGet(const kl::message&) override {
    kl::message reply;
    reply.insert(kl::STD_DESCR, text_);
    return reply;
  }

  kl::message cmdSet(const kl::message& request) override {
    if (!request.has(kl::STD_DESCR)) return kl::errorMsg(kl::ERROR_MISSING, "");
    text_ = request.get(kl::STD_DESCR, "");
    return {};
  }

  std::string text_ = "hello";
};

int main() {
  kl::Looper loop(kl::Looper::kAny, 34);  // this process is service 34
  loop.reportTooBig(true);                // a message of 64 KiB or more is lost with a word
  Hello hello;
  loop.addHandler(0, &hello);  // its path is [34, 0]
  loop.run();
}
