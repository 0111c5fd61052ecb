// kr-e2e-daemon ADDRESS: a kr::Looper joins the bus at ADDRESS (descriptor 3
// when kr-loader started it, the loader's socket under KR_RUNTIME_DIR when a
// test did) with two test handlers, driven by the commands of e2e_daemon.h.
// The handlers act only through the library's own API, so what the tests
// observe is the library's behaviour between processes.
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

// {kError, kReply}: how a request of this handler ended.
message outcome(const message& r) {
  unsigned int code = ERROR_OK;
  isError(r, &code, nullptr);
  message out;
  out.insert(kError, code);
  out.insert(kReply, r);
  return out;
}

class TestHandler : public Handler {
 public:
  void handleCmd(const message& m, unsigned int cmd) override {
    message r;
    switch (cmd) {
      case kEcho:
        r.insert(kPid, static_cast<unsigned int>(getpid()));
        r.insert(kValue, value_);
        r.insert(kPayload, m.has(kSize) ? pattern(m.get(kSize)) : m.get(kPayload));
        break;
      case kSilent: return;
      case kForward: {  // answered from the reply callback; the request is kept until then
        message q = inner(m);
        const auto answer = [this, held = m](const message& reply) {
          message out = outcome(reply);
          replyMessage(held, out);
        };
        postMessage(q, answer, m.get(kTicks, kNoTimeout));
        return;
      }
      case kExchange: {
        message q = inner(m);
        r = outcome(exchangeMessage(q, static_cast<int>(m.get(kTicks))));
        break;
      }
      case kTally: ++tallied_, lastSeq_ = m.get(kSeq); return;
      case kStatus: r = status(); break;
      case kChange: change(m); break;
      case kSubscribeTo: {
        message filter;
        filter.insert(kTag, m.get(kTag));
        if (m.has(kCredits)) filter.insert(SYS_CREDITS, m.get(kCredits));
        subscribe(m.get(kTarget), CMD_NOTIFY, filter);
        break;
      }
      case kSendFds: sendFds(m); break;
      case kTakeFd: takeFd(m); return;
      case kLeave: getLooper()->tellLeave(); break;
      case CMD_NOTIFY:
        for (const message& o : m.get(STD_OBJS))
          objIds_.push_back(o.get(STD_ID)), objVersions_.push_back(o.get(kVersion));
        return;
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
  static message inner(const message& req) {
    message m = req.get(kInner);
    m.insert(SYS_TO, req.get(kTarget));
    return m;
  }

  message status() const {
    message r;
    r.insert(kTallied, tallied_);
    r.insert(kLastSeq, lastSeq_);
    r.insert(kSeqs, seqs_);
    r.insert(kTexts, texts_);
    r.insert(kSubscribers, subscribers() ? static_cast<unsigned int>(subscribers()->size()) : 0u);
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
      int p[2];
      if (std::find(fdAt.begin(), fdAt.end(), seq) != fdAt.end() && pipe2(p, O_CLOEXEC) == 0) {
        readEnd.reset(p[0]);
        const UniqueFd writeEnd(p[1]);
        const std::string text = fdText(seq);
        if (write(writeEnd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) continue;
        out.insert(SYS_FD, static_cast<unsigned int>(readEnd.get()));
      }
      if (sendMessage(out)) readEnd.release();  // the Looper's to pass and close now
    }
  }

  void takeFd(const message& m) {
    seqs_.push_back(m.get(kSeq));
    std::string text;
    if (unsigned int fd; m.extract(SYS_FD, fd)) {
      const UniqueFd own(static_cast<int>(fd));
      char buf[64];
      const ssize_t n = read(own.get(), buf, sizeof buf);
      text = n > 0 ? std::string(buf, static_cast<size_t>(n)) : "(unreadable)";
    }
    texts_.push_back(text);
  }

  unsigned int value_ = 0, tallied_ = 0, lastSeq_ = 0, objectBytes_ = 0;
  std::vector<unsigned int> seqs_, objIds_, objVersions_;
  std::vector<std::string> texts_;
  std::map<unsigned int, unsigned int> versions_;
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
