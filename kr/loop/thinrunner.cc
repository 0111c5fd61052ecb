#include "kr/loop/thinrunner.h"

#include <cstdlib>
#include <iostream>

#include "kr/loop/runner.h"

namespace kr {
namespace {

// A vector that grows by doubling from one element, as the loop's arrays
// do (push_back alone leaves the growth policy to the library).
template <class T>
void pushDoubling(std::vector<T>& v, T x) {
  if (v.size() == v.capacity()) v.reserve(v.empty() ? 1 : v.size() * 2);
  v.push_back(std::move(x));
}

unsigned int clampTimeout(unsigned int ticks) {
  if (ticks <= kMaxTimeout) return ticks;
  std::cerr << "WARNING: limiting timer timeout to " << kMaxTimeout << "cs" << std::endl;
  return kMaxTimeout;
}

}  // namespace

ThinRunner::ThinRunner() { mapJiffiesPage(); }

ThinRunner::~ThinRunner() { ThinRunner::shutdown(); }

// ---- Descriptors ---------------------------------------------------------------

void ThinRunner::addSocket(int fd, unsigned int events, SocketCallback cb) {
  auto [it, inserted] = socks_.try_emplace(fd);
  if (!inserted) {
    std::cerr << "WARNING: could not add socket fd=" << fd << " becouse of dup" << std::endl;
    return;
  }
  SockInfo& info = it->second;
  info.fd = fd;
  info.cb = std::move(cb);
  info.index = static_cast<unsigned int>(pollFds_.size());
  pushDoubling(pollFds_, pollfd{fd, static_cast<short>(events), 0});
  pushDoubling(sockInfos_, &info);
}

bool ThinRunner::changeSocket(int fd, unsigned int events) {
  auto it = socks_.find(fd);
  if (it == socks_.end()) return false;
  pollFds_[it->second.index].events = static_cast<short>(events);
  return true;
}

bool ThinRunner::removeSocket(int fd, SocketCallback* out) {
  auto it = socks_.find(fd);
  if (it == socks_.end()) return false;
  const unsigned int i = it->second.index;
  if (out) *out = std::move(it->second.cb);
  // The last slot fills the hole, so the arrays stay dense.
  const unsigned int last = static_cast<unsigned int>(pollFds_.size()) - 1;
  if (i != last) {
    pollFds_[i] = pollFds_[last];
    sockInfos_[i] = sockInfos_[last];
    sockInfos_[i]->index = i;
  }
  pollFds_.pop_back();
  sockInfos_.pop_back();
  socks_.erase(it);
  return true;
}

// ---- Timers ---------------------------------------------------------------------

void ThinRunner::placeTimerInHeap(TimerInfo* t, unsigned int index, unsigned int now) {
  unsigned int i = index;
  auto moveTo = [this](TimerInfo* x, unsigned int at) {
    heap_[at] = x;
    x->heapIndex = at;
  };
  if (i > 0 && compareTicks(now, heap_[(i - 1) / 2]->expires, t->expires) > 0) {
    // Up: parents later than t move down into the hole.
    do {
      const unsigned int parent = (i - 1) / 2;
      if (compareTicks(now, heap_[parent]->expires, t->expires) <= 0) break;
      moveTo(heap_[parent], i);
      i = parent;
    } while (i > 0);
  } else {
    // Down: the earlier child moves up while it is not later than t.
    const unsigned int n = static_cast<unsigned int>(heap_.size());
    while (2 * i + 2 < n) {
      unsigned int child = 2 * i + 2;
      if (compareTicks(now, heap_[child]->expires, heap_[child - 1]->expires) > 0) --child;
      if (compareTicks(now, t->expires, heap_[child]->expires) < 0) break;
      moveTo(heap_[child], i);
      i = child;
    }
    if (2 * i + 1 == n - 1 && compareTicks(now, heap_[2 * i + 1]->expires, t->expires) < 0) {
      moveTo(heap_[2 * i + 1], i);
      i = 2 * i + 1;
    }
  }
  moveTo(t, i);
}

void ThinRunner::insertTimer(TimerInfo* t, unsigned int now) {
  heapNow_ = now;
  pushDoubling(heap_, t);
  placeTimerInHeap(t, static_cast<unsigned int>(heap_.size()) - 1, now);
}

TimerPtr ThinRunner::addTimer(unsigned int ticks, Callback cb) {
  if (!cb) {
    // A timer that can never do anything is a caller's bug; stop here
    // rather than fire an empty callback later.
    std::cerr << "thinrunner:169: addTimer: Assertion `cb' failed." << std::endl;
    std::abort();
  }
  const unsigned int now = getJiffies();
  auto* t = new TimerInfo{std::move(cb), clampTimeout(ticks) + now, TimerInfo::kNotInHeap, nullptr};
  if (inTimers_) pushDoubling(addedDuringRun_, t);
  else insertTimer(t, now);
  return TimerPtr{t};
}

TimerPtr ThinRunner::addDelayedTimer(unsigned int ticks, Callback cb) {
  auto* t = new TimerInfo{std::move(cb), clampTimeout(ticks), TimerInfo::kNotInHeap, nullptr};
  pushDoubling(delayed_, t);
  return TimerPtr{t};
}

void ThinRunner::addDelayedTimers() {
  if (delayed_.empty()) return;
  const unsigned int now = getJiffies();
  // Arming may run callbacks of nothing, but take the list first anyway, so
  // that the loop stays correct whatever insertTimer does.
  std::vector<TimerInfo*> armed;
  armed.swap(delayed_);
  for (TimerInfo* t : armed) {
    if (!t->cb) {
      delete t;
      continue;
    }
    t->expires += now;
    insertTimer(t, now);
  }
}

void ThinRunner::removeTimer(TimerInfo* t) {
  if (t->owner) *t->owner = nullptr;
  t->owner = nullptr;
  TimerInfo* last = heap_.back();
  heap_.pop_back();
  const unsigned int hole = t->heapIndex;
  t->heapIndex = TimerInfo::kNotInHeap;
  if (heap_.empty() || last == t) return;
  placeTimerInHeap(last, hole, heapNow_);
}

bool ThinRunner::removeTimer(TimerPtr p) {
  TimerInfo* t = p.timer;
  if (!t) return false;
  if (t->heapIndex != TimerInfo::kNotInHeap) {
    removeTimer(t);
    delete t;
  } else {
    // Deferred or delayed: the entry is freed when its list is drained.
    if (t->owner) *t->owner = nullptr;
    t->owner = nullptr;
    t->cb = nullptr;
  }
  return true;
}

bool ThinRunner::removeTimer(const Callback& f) {
  for (auto* list : {&heap_, &addedDuringRun_, &delayed_})
    for (TimerInfo* t : *list)
      if (t->cb && t->cb == f) return removeTimer(TimerPtr{t});
  return false;
}

void ThinRunner::runTimers() {
  const unsigned int now = getJiffies();
  timersNow_ = now;
  inTimers_ = true;
  while (!heap_.empty()) {
    TimerInfo* t = heap_.front();
    if (compareTicks(now, now, t->expires) < 0) break;
    removeTimer(t);
    {
      // Called from a local copy: the callback may cancel its own timer.
      Callback cb = std::move(t->cb);
      cb();
    }
    delete t;
  }
  inTimers_ = false;
  std::vector<TimerInfo*> added;
  added.swap(addedDuringRun_);
  for (TimerInfo* t : added) {
    if (t->cb) insertTimer(t, now);
    else delete t;
  }
  addDelayedTimers();
}

size_t ThinRunner::timerCount() const {
  size_t n = heap_.size();
  for (const auto* list : {&addedDuringRun_, &delayed_})
    for (const TimerInfo* t : *list) n += t->cb ? 1 : 0;
  return n;
}

// ---- Before-sleep hooks --------------------------------------------------------------

void ThinRunner::addBeforeSleep(Callback f) { beforeSleep_ = new Hook{std::move(f), beforeSleep_}; }

void ThinRunner::removeBeforeSleep(const Callback& f) {
  for (Hook** list : {&beforeSleep_, &beforeSleepRunning_}) {
    for (Hook** link = list; *link;) {
      Hook* h = *link;
      if (h->fn == f) {
        *link = h->next;
        delete h;
      } else {
        link = &h->next;
      }
    }
  }
}

size_t ThinRunner::hookCount() const {
  size_t n = 0;
  for (const Hook* list : {beforeSleep_, beforeSleepRunning_})
    for (const Hook* h = list; h; h = h->next) ++n;
  return n;
}

void ThinRunner::freeHooks(Hook*& list) {
  while (list) {
    Hook* next = list->next;
    delete list;
    list = next;
  }
}

// ---- Running -----------------------------------------------------------------------

unsigned int ThinRunner::sleepTime(unsigned int now) {
  if (heap_.empty()) return 0xFFFFFFFF;
  const unsigned int e = heap_.front()->expires;
  if (compareTicks(now, now, e) >= 0) return 0;
  const unsigned int ticks = e - now;
  return (ticks < 1000 ? ticks : 1000) * 10;
}

bool ThinRunner::step(bool block) {
  if (stopped) return false;
  if (beforeSleep_) {
    // Each hook moves back to the live list just before it runs: hooks added
    // meanwhile wait for the next turn, removed ones are not called, and the
    // live list ends reversed, so the order alternates between turns.
    beforeSleepRunning_ = beforeSleep_;
    beforeSleep_ = nullptr;
    while (Hook* h = beforeSleepRunning_) {
      beforeSleepRunning_ = h->next;
      h->next = beforeSleep_;
      beforeSleep_ = h;
      Callback fn = h->fn;  // the hook may remove itself
      fn();
    }
    if (stopped) return false;
  }
  addDelayedTimers();
  const unsigned int timeout = block ? sleepTime(getJiffies()) : 0;
  // A busy loop mostly finds something ready. Asking without a timeout
  // first spares the kernel from queueing a wait on every descriptor, which
  // costs more than the scan itself; only an idle turn pays a second call.
  int ready = poll(pollFds_.data(), pollFds_.size(), 0);
  if (ready == 0 && timeout != 0) ready = poll(pollFds_.data(), pollFds_.size(), static_cast<int>(timeout));
  runTimers();
  if (ready > 0) dispatchSockets(ready);
  return !stopped;
}

// Walks the poll array downwards, clearing revents before each call, so that
// a callback removing descriptors (which moves the last slot into the hole)
// never makes one run twice or lose one not yet visited.
void ThinRunner::dispatchSockets(int ready) {
  for (size_t i = pollFds_.size(); i-- > 0;) {
    if (pollFds_[i].revents == 0) continue;
    const unsigned int revents = static_cast<unsigned short>(pollFds_[i].revents);
    pollFds_[i].revents = 0;
    const int fd = pollFds_[i].fd;
    SocketCallback cb = sockInfos_[i]->cb;  // alive even if the callback removes fd
    cb(fd, revents);
    if (--ready == 0) return;
    if (i > pollFds_.size()) i = pollFds_.size();
  }
}

void ThinRunner::run() {
  while (!stopped) step(true);
}

void ThinRunner::presleep() {
  if (stopped) return;
  addDelayedTimers();
  poll(pollFds_.data(), pollFds_.size(), static_cast<int>(sleepTime(getJiffies())));
}

void ThinRunner::shutdown() {
  for (TimerInfo* t : heap_) {
    if (t->owner) *t->owner = nullptr;
    delete t;
  }
  heap_.clear();
  // Deferred and delayed timers are dropped; a kr::Timer still pointing at
  // one is told, so that its destructor does not touch freed memory.
  for (auto* list : {&addedDuringRun_, &delayed_}) {
    for (TimerInfo* t : *list) {
      if (t->owner) *t->owner = nullptr;
      delete t;
    }
    list->clear();
  }
  socks_.clear();
  pollFds_.clear();
  sockInfos_.clear();
  freeHooks(beforeSleep_);
  freeHooks(beforeSleepRunning_);
}

// ---- kr::Timer -------------------------------------------------------------------------

Timer::Timer(unsigned int ticks, ThinRunner::Callback cb) {
  timer_ = getRunner()->addTimer(ticks, std::move(cb)).timer;
  timer_->owner = &timer_;
}

Timer::Timer(Timer&& o) noexcept : timer_(o.timer_) {
  o.timer_ = nullptr;
  if (timer_) timer_->owner = &timer_;
}

Timer& Timer::operator=(Timer&& o) noexcept {
  if (this != &o) {
    cancel();
    timer_ = o.timer_;
    o.timer_ = nullptr;
    if (timer_) timer_->owner = &timer_;
  }
  return *this;
}

Timer::~Timer() { cancel(); }

void Timer::cancel() {
  if (!timer_) return;
  ThinRunner::TimerInfo* t = timer_;
  timer_ = nullptr;
  t->owner = nullptr;
  if (Runner* r = getRunner()) r->removeTimer(TimerPtr{t});
}

}  // namespace kr
