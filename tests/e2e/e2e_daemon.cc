// kr-e2e-daemon ADDRESS
//
// A daemon built the way every daemon of the platform is: a kr::Looper
// joins the bus at ADDRESS (descriptor 3 when kr-loader started it, the
// loader's socket under KR_RUNTIME_DIR when a test did), two test handlers
// are registered, and the loop runs until the loader asks it to leave. The
// tests drive the handlers over the bus with the commands of e2e_daemon.h;
// whatever a handler does, it does through the library's own API, so that
// what the tests observe is the library's behaviour between processes.
#include "tests/e2e/e2e_daemon.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "kr/bus/handler.h"
#include "kr/bus/looper.h"
#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"
#include "kr/util/unique_fd.h"

namespace kr::e2e {
namespace {

class TestHandler : public Handler {
 public:
  void handleCmd(const message& m, unsigned int cmd) override {
    message r;
    switch (cmd) {
      case kEcho: r = echo(m); break;
      case kSilent: return;
      case kForward: forward(m); return;  // answered from the reply callback
      case kExchange: r = exchange(m); break;
      case kTally: tally(m); return;
      case kStatus: r = status(); break;
      case kChange: change(m); break;
      case kSubscribeTo: subscribeTo(m); break;
      case kSendFds: sendFds(m); break;
      case kTakeFd: takeFd(m); return;
      case kLeave: getLooper()->tellLeave(); break;
      case CMD_NOTIFY: notified(m); return;
      default: Handler::handleCmd(m, cmd); return;
    }
    replyMessage(m, r);
  }

  // The value is all this handler keeps across a restart, next to the
  // subscriptions that the base class keeps.
  message cmdSet(const message& m) override {
    value_ = m.get(kValue);
    return message();
  }
  void savePermData(message& m) override {
    Handler::savePermData(m);
    m.insert(kValue, value_);
  }
  void loadPermData(const message& m) override {
    Handler::loadPermData(m);
    value_ = m.get(kValue);
  }

  message notifyObject(unsigned int objId, unsigned int) override {
    message o;
    o.insert(STD_ID, objId);
    o.insert(kVersion, versions_[objId]);
    if (objectBytes_ > 0) o.insert(kPayload, pattern(objectBytes_));
    return o;
  }

 private:
  message echo(const message& m) {
    message r;
    r.insert(kPid, static_cast<unsigned int>(getpid()));
    r.insert(kValue, value_);
    r.insert(kPayload, m.has(kSize) ? pattern(m.get(kSize)) : m.get(kPayload));
    return r;
  }

  // The request itself is kept until its answer can be given.
  void forward(const message& req) {
    message inner = req.get(kInner);
    inner.insert(SYS_TO, req.get(kTarget));
    const message held = req;
    postMessage(inner, [this, held](const message& r) { answerWith(held, r); }, req.get(kTicks, kNoTimeout));
  }
  void answerWith(const message& req, const message& r) {
    message out = outcome(r);
    replyMessage(req, out);
  }
  static message outcome(const message& r) {
    unsigned int code = ERROR_OK;
    isError(r, &code, nullptr);
    message out;
    out.insert(kError, code);
    out.insert(kReply, r);
    return out;
  }

  message exchange(const message& req) {
    message inner = req.get(kInner);
    inner.insert(SYS_TO, req.get(kTarget));
    return outcome(exchangeMessage(inner, static_cast<int>(req.get(kTicks))));
  }

  void tally(const message& m) {
    ++tallied_;
    lastSeq_ = m.get(kSeq);
  }

  message status() const {
    message r;
    r.insert(kTallied, tallied_);
    r.insert(kLastSeq, lastSeq_);
    r.insert(kSeqs, seqs_);
    r.insert(kTexts, texts_);
    const auto* subs = subscribers();
    r.insert(kSubscribers, subs ? static_cast<unsigned int>(subs->size()) : 0u);
    r.insert(kPending, static_cast<unsigned int>(pendingRequests()));
    r.insert(kObjIds, objIds_);
    r.insert(kObjVersions, objVersions_);
    return r;
  }

  void change(const message& m) {
    objectBytes_ = m.get(kSize);
    const unsigned int first = m.get(kFirst), count = m.get(kCount);
    for (unsigned int round = 0; round < m.get(kRepeat, 1u); ++round) {
      for (unsigned int objId = first; objId < first + count; ++objId) {
        ++versions_[objId];
        notifyChange(objId);
      }
    }
  }

  void subscribeTo(const message& m) {
    message filter;
    filter.insert(kTag, m.get(kTag));
    if (m.has(kCredits)) filter.insert(SYS_CREDITS, m.get(kCredits));
    subscribe(m.get(kTarget), CMD_NOTIFY, filter);
  }

  void notified(const message& m) {
    for (const message& o : m.get(STD_OBJS)) {
      objIds_.push_back(o.get(STD_ID));
      objVersions_.push_back(o.get(kVersion));
    }
  }

  // Each pipe is filled and its write end closed before the read end goes
  // out, so the receiver reads the text and then the end of file.
  void sendFds(const message& m) {
    const std::vector<unsigned int> fdAt = m.get(kFdAt);
    for (unsigned int seq = 0; seq < m.get(kCount); ++seq) {
      message out;
      out.insert(SYS_TO, m.get(kTarget));
      out.insert(SYS_CMD, kTakeFd);
      out.insert(kSeq, seq);
      if (m.has(kSize)) out.insert(kPayload, pattern(m.get(kSize)));
      UniqueFd readEnd;
      if (std::find(fdAt.begin(), fdAt.end(), seq) != fdAt.end()) {
        int p[2];
        if (pipe2(p, O_CLOEXEC) != 0) continue;
        readEnd.reset(p[0]);
        UniqueFd writeEnd(p[1]);
        const std::string text = fdText(seq);
        if (write(writeEnd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) continue;
        out.insert(SYS_FD, static_cast<unsigned int>(readEnd.get()));
      }
      // Once written, the descriptor is the Looper's to pass and close.
      if (sendMessage(out)) readEnd.release();
    }
  }

  void takeFd(const message& m) {
    seqs_.push_back(m.get(kSeq));
    std::string text;
    unsigned int fd;
    if (m.extract(SYS_FD, fd)) {
      const UniqueFd own(static_cast<int>(fd));
      char buf[64];
      const ssize_t n = read(own.get(), buf, sizeof buf);
      text = n > 0 ? std::string(buf, static_cast<size_t>(n)) : "(unreadable)";
    }
    texts_.push_back(text);
  }

  unsigned int value_ = 0;
  unsigned int tallied_ = 0;
  unsigned int lastSeq_ = 0;
  std::vector<unsigned int> seqs_;
  std::vector<std::string> texts_;
  std::map<unsigned int, unsigned int> versions_;
  unsigned int objectBytes_ = 0;
  std::vector<unsigned int> objIds_, objVersions_;
};

}  // namespace
}  // namespace kr::e2e

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: kr-e2e-daemon ADDRESS\n");
    return 2;
  }
  const auto address = static_cast<unsigned int>(std::strtoul(argv[1], nullptr, 0));
  kr::Looper looper(kr::Looper::kConnectAny, address, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  {
    kr::e2e::TestHandler a, b;
    looper.addHandler(kr::e2e::kHandlerA, &a);
    looper.addHandler(kr::e2e::kHandlerB, &b);
    looper.setupLeave(1);
    looper.run();
  }  // the handlers go before the Looper
  return 0;
}
