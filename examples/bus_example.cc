// kr-example [--address N]: a small daemon on the bus, for reading and for
// trying the platform out with kr-cli.
//
// It joins the bus at address 40 (or N) and serves two handlers. Handler
// 20 is an ordered table of address entries kept by the store service (see
// address_list.h). Handler 10 keeps a greeting and a counter:
//
//   kr-cli get 40/10                            {string 1 greeting, u32 2 count}
//   kr-cli set 40/10 '{"string:1": "Hi"}'       changes the greeting
//   kr-cli call 40/10 0x100 '{"string:1": "Ada"}'   -> "Hi, Ada!", count + 1
//   kr-cli listen 40/10                         prints every change
//
// The state is one object, id 1: subscribers are told of every change to it
// (coalesced over 200 ms, as the handler base does), and it survives an
// orderly restart through the persistent data the loader keeps.
//
// It logs through kr::lstream to the log service (topics in log_topics.h):
// one line per greeting under example.requests, table changes under
// example.table, and its start and stop under example.
//
// Started by kr-loader (descriptor 3) or by hand (the socket under
// KR_RUNTIME_DIR). The loader stops it with its leave protocol.
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include <unistd.h>

#include "examples/address_list.h"
#include "examples/log_topics.h"
#include "kr/bus/handler.h"
#include "kr/bus/looper.h"
#include "kr/log/lstream.h"
#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"

namespace {

constexpr unsigned int kDefaultAddress = 40;
constexpr unsigned int kGreeterId = 10;
constexpr unsigned int kAddressesId = 20;
// The store service's bus address; it listens on its socket before it
// joins the bus.
constexpr unsigned int kStoreAddress = 6;
constexpr unsigned int kObjectId = 1;
// Our own command: numbers below the standard range are the handler's.
constexpr unsigned int kCmdGreet = 0x100;

constexpr kr::string_id kGreeting{0x20000001};
constexpr kr::u32_id kCount{2};
// Where the state goes in the persistent data; the handler base keeps its
// subscriptions under id 1 of the same message.
constexpr kr::string_id kSavedGreeting{0x2000000A};
constexpr kr::u32_id kSavedCount{11};

class Greeter : public kr::Handler {
 public:
  Greeter() {
    // Anyone who may read may be greeted; changing the greeting needs the
    // write right (the default table's rule for CMD_SET).
    policies.set_policy(kCmdGreet, 0x40);
  }

  kr::message cmdGet(const kr::message&) override { return state(); }

  kr::message cmdSet(const kr::message& m) override {
    std::string greeting;
    if (!m.extract(kGreeting, greeting) || greeting.empty()) {
      return kr::errorMsg(kr::ERROR_MISSING, "a non-empty greeting (string 1) is needed");
    }
    greeting_ = greeting;
    log_ << "greeting is now \"" << greeting_ << '"' << std::endl;
    notifyChange(kObjectId);
    return kr::message();
  }

  kr::message cmdGetObj(const kr::message&, unsigned int objId) override {
    if (objId != kObjectId) return kr::errorMsg(kr::ERROR_UNKNOWNID, "");
    return object();
  }

  kr::message cmdGetAll(const kr::message&, unsigned int from, unsigned int) override {
    kr::message r;
    std::vector<kr::message> objs;
    if (from == kNoId) objs.push_back(object());
    r.insert(kr::STD_OBJS, objs);
    return r;
  }

  kr::message cmdUnknown(const kr::message& m, unsigned int cmd) override {
    if (cmd != kCmdGreet) return kr::Handler::cmdUnknown(m, cmd);
    const std::string name = m.get(kGreeting);
    ++count_;
    notifyChange(kObjectId);
    const std::string text = greeting_ + ", " + (name.empty() ? std::string("world") : name) + "!";
    // Composing the line costs something: skip it while nobody listens.
    if (!requestLog_.isMuted()) requestLog_ << "greeting " << count_ << ": " << text << std::endl;
    kr::message r;
    r.insert(kGreeting, text);
    r.insert(kCount, count_);
    return r;
  }

  kr::message notifyObject(unsigned int objId, unsigned int) override {
    return objId == kObjectId ? object() : kr::message();
  }
  unsigned int objectCount() override { return 1; }

  void savePermData(kr::message& m) override {
    kr::Handler::savePermData(m);
    m.insert(kSavedGreeting, greeting_);
    m.insert(kSavedCount, count_);
  }
  void loadPermData(const kr::message& m) override {
    kr::Handler::loadPermData(m);
    m.extract(kSavedGreeting, greeting_);
    m.extract(kSavedCount, count_);
  }

 private:
  kr::message state() const {
    kr::message r;
    r.insert(kGreeting, greeting_);
    r.insert(kCount, count_);
    return r;
  }
  kr::message object() const {
    kr::message r = state();
    r.insert(kr::STD_ID, kObjectId);
    return r;
  }

  std::string greeting_ = "Hello";
  unsigned int count_ = 0;
  kr::lstream log_{example::kTopicExample, 0u};
  kr::lstream requestLog_{example::kTopicExample, example::kTopicRequests, 0u};
};

// The loader starts its daemons together: wait (up to 5 s) until the store
// service is on the bus, so that the table is read from it and not found
// empty. Without a store service the table is simply not persisted.
void awaitStoreService(kr::Looper& looper) {
  for (int attempt = 0; attempt < 50; ++attempt) {
    kr::message ping;
    ping.insert_vector(kr::SYS_TO, kStoreAddress);
    ping.insert(kr::SYS_CMD, kr::CMD_NOOP);
    if (!kr::isError(looper.exchangeMessage(ping, 100), nullptr, nullptr)) return;
    usleep(100 * 1000);
  }
}

}  // namespace

int main(int argc, char** argv) {
  unsigned int address = kDefaultAddress;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--address") == 0 && i + 1 < argc) {
      address = static_cast<unsigned int>(std::strtoul(argv[++i], nullptr, 0));
    } else {
      std::cerr << "usage: kr-example [--address N]" << std::endl;
      return 2;
    }
  }
  kr::Looper looper(kr::Looper::kConnectAny, address, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  Greeter greeter;
  looper.addHandler(kGreeterId, &greeter);
  awaitStoreService(looper);
  example::AddressList addresses;
  looper.addHandler(kAddressesId, &addresses);
  addresses.start();
  kr::lstream log(example::kTopicExample, 0u);
  log << "kr-example serving at address " << address << std::endl;
  looper.setupLeave(1);  // the loader may stop us whenever it likes
  looper.run();
  // Sent at once: the connection is up and idle by now.
  log << "kr-example leaving" << std::endl;
  return 0;
}
