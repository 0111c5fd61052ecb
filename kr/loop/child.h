// Parent and Child: supervision of a process's children through SIGCHLD.
//
// A Parent keeps the children it was told about (pid -> Child*) and, while
// it has any, holds the SIGCHLD handler of the process's runner
// (kr::getRunner()). When the loop delivers SIGCHLD it reaps every child
// that has exited and calls childDied() for each one it knows.
//
//   class Supervisor : public Parent {
//     void childDied(int status, Child* c) override { restart(c); }
//   };
//   supervisor.addChild(&daemonChild);          // after fork()
//
// The runner has one SIGCHLD callback, so a process has one Parent with
// children at a time. Parent reaps with waitpid(-1): children it was not
// told about are reaped too, and reported as unknown. Event-loop thread
// only. Trace lines go to standard output, one per line, flushed at once so
// that a later fork() does not copy them into the child's buffer.
#pragma once

#include <map>

// One child process. The Parent only points at it; the caller owns it.
class Child {
 public:
  explicit Child(int pid) : pid(pid) {}
  virtual ~Child() = default;

  int pid;
};

class Parent {
 public:
  Parent() = default;
  Parent(const Parent&) = delete;
  Parent& operator=(const Parent&) = delete;
  // Gives the SIGCHLD handler back if children are still registered (they
  // are neither killed nor reaped).
  virtual ~Parent();

  // A reaped child, already removed from the map; `status` is waitpid's.
  // It may add children, or destroy this Parent. Does nothing by default.
  virtual void childDied(int status, Child* child);

  // Registers c (not owned; it must outlive its registration) under its
  // pid, replacing an entry of the same pid. The first child installs the
  // SIGCHLD handler; without a runner nothing is reaped automatically.
  void addChild(Child* c);
  // The SIGCHLD callback: reaps every exited child without blocking.
  void sigChld(int sig);
  // Kills a registered child with SIGKILL, waits for it and forgets it,
  // without calling childDied(). False for -1 or an unknown pid.
  bool killChild(int pid);
  // kill(pid, sig) for a registered child; false for -1, an unknown pid or
  // a failing kill().
  bool sendSignal(int pid, int sig);

  const std::map<int, Child*>& children() const { return children_; }

  // Writes the trace lines of addChild, sigChld and killChild.
  bool verbose = false;

 private:
  void forget(std::map<int, Child*>::iterator it);
  void reaped(int pid, int status);

  std::map<int, Child*> children_;
  // Set while sigChld() runs: the destructor marks it, so the loop stops
  // touching a Parent that childDied() destroyed.
  bool* destroyed_ = nullptr;
};
