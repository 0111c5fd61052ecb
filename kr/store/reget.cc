#include "kr/store/reget.h"

#include <iostream>
#include <vector>

#include "kr/bus/looper.h"
#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"

namespace kr {

AsyncReget::~AsyncReget() {
  stop();
  if (alive) *alive = false;
}

void AsyncReget::start(const message& req, void* context, ObjectFn objectFn, DoneFn doneFn,
                       unsigned int ticks) {
  // A reply to an earlier walk must not feed this one.
  stop();
  request = req;
  ctx = context;
  onObject = objectFn;
  onDone = doneFn;
  timeout = ticks == kDefaultTimeout ? kDefaultTicks : ticks;
  fetch();
}

void AsyncReget::fetch() {
  running = true;
  message m = request;  // postMessage stamps routing fields into what it sends
  Looper* looper = getLooper();
  reqId = looper ? looper->postMessage(m, bind<&AsyncReget::onReply>(this), timeout) : kNoRequest;
  // Nothing would ever answer a request that did not leave: end the walk
  // the way a failed page does, so onDone still hears of it.
  if (reqId == kNoRequest) onReply(errorMsg(ERROR_FAILED, "AsyncReget request not sent"));
}

void AsyncReget::onReply(const message& reply) {
  reqId = kNoRequest;
  if (isError(reply, nullptr, nullptr)) {
    if (!onDone) std::cerr << "ERROR: AsyncReget failed: " << getError(reply) << '\n';
    finish(reply);
    return;
  }
  if (!reply.has(STD_OBJS)) {
    std::cerr << "ERROR: AsyncReget got reply without STD_OBJS\n";
    finish(reply);
    return;
  }

  // The callbacks may stop the walk or destroy this object; the flag on our
  // stack tells which, and is handed on to an onReply() further out (a
  // failed fetch() below nests one).
  bool here = true;
  bool* const outer = alive;
  alive = &here;
  static const std::vector<flat_message> kNone;
  const message page = reply;  // keeps the objects alive whatever the callback does
  for (const flat_message& flat : page.get_const<std::vector<flat_message>>(STD_OBJS.id, kNone)) {
    onObject(ctx, message(flat));
    if (!here) {
      if (outer) *outer = false;
      return;
    }
    if (!running) {
      alive = outer;
      if (onDone) onDone(ctx, reply);
      return;
    }
  }
  alive = outer;

  if (reply.has(STD_GETALLID)) {
    request.insert(STD_GETALLID, reply.get(STD_GETALLID));
    fetch();
    return;
  }
  if (!onDone) std::cerr << "AsyncReget done\n";
  finish(reply);
}

void AsyncReget::finish(const message& reply) {
  running = false;
  if (onDone) onDone(ctx, reply);
}

void AsyncReget::retry() {
  if (running) {
    std::cerr << "ERROR: AsyncReget retry() impossible while running\n";
    return;
  }
  fetch();
}

void AsyncReget::restart() {
  if (running) {
    std::cerr << "ERROR: AsyncReget restart() impossible while running\n";
    return;
  }
  request.remove(STD_GETALLID);
  fetch();
}

void AsyncReget::stop() {
  if (reqId != kNoRequest) {
    if (Looper* looper = getLooper()) looper->cancelPost(reqId);
    reqId = kNoRequest;
  }
  running = false;
}

}  // namespace kr
