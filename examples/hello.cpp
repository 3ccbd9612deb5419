// hello: the smallest whole service.  It keeps one text, which others read and set.

#include "hello.kl.h"
#include "kl/description.h"
#include "kl/looper.h"

class Hello : public kl::Handler {
  kl::message cmdGet(const kl::message&) override { return greeting_.toMessage(); }

  kl::message cmdSet(const kl::message& request) override {
    if (!request.has(hello::DESCR)) return kl::errorMsg(kl::ERROR_MISSING, "");
    greeting_.descr = request.get(hello::DESCR, "");
    return {};
  }

  hello::Greeting greeting_{.descr = "hello"};
};

int main() {
  kl::Looper loop(kl::Looper::kAny, hello::SERVICE);  // this process is service 34
  loop.reportTooBig(true);                            // a message of 64 KiB or more is lost with a word
  kl::setDescription(hello::kDescription);            // klctl introspect shows it
  Hello greeter;
  loop.addHandler(hello::HANDLER_GREETING, &greeter);  // its path is [34, 0]
  loop.run();
}
