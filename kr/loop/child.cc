#include "kr/loop/child.h"

#include <errno.h>
#include <signal.h>
#include <sys/wait.h>

#include <iostream>

#include "kr/loop/runner.h"

namespace {

void releaseSigChld() {
  if (kr::Runner* r = kr::getRunner()) r->removeSighandler(SIGCHLD, true);
}

}  // namespace

Parent::~Parent() {
  if (destroyed_) *destroyed_ = true;
  if (!children_.empty()) releaseSigChld();
}

void Parent::childDied(int, Child*) {}

void Parent::addChild(Child* c) {
  if (verbose) std::cout << "addChild: " << c->pid << std::endl;
  if (children_.empty()) {
    if (kr::Runner* r = kr::getRunner()) r->addSighandler(SIGCHLD, true, kr::bind<&Parent::sigChld>(this));
  }
  children_[c->pid] = c;
}

void Parent::sigChld(int) {
  bool destroyed = false;
  bool* const outer = destroyed_;  // childDied() may call sigChld() again
  destroyed_ = &destroyed;
  for (;;) {
    int status = 0;
    const int pid = waitpid(-1, &status, WNOHANG);
    if (pid <= 0) break;
    reaped(pid, status);
    if (destroyed) {
      if (outer) *outer = true;
      return;
    }
  }
  destroyed_ = outer;
}

void Parent::reaped(int pid, int status) {
  const auto it = children_.find(pid);
  if (it == children_.end()) {
    std::cout << "sigChld: unknown child died " << pid << std::endl;
    return;
  }
  if (verbose) std::cout << "sigChild: child died " << pid << " status 0x" << std::hex << status << std::dec << std::endl;
  Child* child = it->second;
  forget(it);
  childDied(status, child);
}

bool Parent::killChild(int pid) {
  if (pid == -1) return false;
  const auto it = children_.find(pid);
  if (it == children_.end()) {
    std::cout << "killChild: pid not found: " << pid << std::endl;
    return false;
  }
  if (verbose) std::cout << "killChild: killing " << pid << std::endl;
  kill(pid, SIGKILL);
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  forget(it);
  return true;
}

bool Parent::sendSignal(int pid, int sig) {
  if (pid == -1) return false;
  if (children_.count(pid) == 0) {
    std::cout << "sendSignal: pid not found: " << pid << std::endl;
    return false;
  }
  return kill(pid, sig) == 0;
}

void Parent::forget(std::map<int, Child*>::iterator it) {
  children_.erase(it);
  if (children_.empty()) releaseSigChld();
}
