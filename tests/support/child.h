// A second process for a test, talking to the first over pipes: no sleeps, no guesses.

#ifndef TESTS_SUPPORT_CHILD_H
#define TESTS_SUPPORT_CHILD_H

#include <sys/types.h>

#include <functional>

// For a process that was just forked by `parent`: it is killed when that one ends, however that happens (its thread, if
// there are several, is what counts). What it becomes by exec keeps this; what it forks does not.
void endWithParent(pid_t parent);

class Child {
 public:
  // What the child sees of its parent.
  class Parent {
   public:
    void tell() const;   // lets the parent's await return
    void await() const;  // until the parent tells

   private:
    friend class Child;
    int in = -1;
    int out = -1;
  };

  // Forks. The child ends with its parent; it runs `body` and leaves by _exit, without destructors and exit handlers:
  // with 0 when `body` came to its end and no expectation in it failed, with 1 otherwise.
  explicit Child(const std::function<void(const Parent&)>& body);
  ~Child();  // kills it when it was not joined
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  void tell() const;
  void await() const;
  void kill();
  int join();  // the wait status: 0 when all went well

 private:
  pid_t process;
  int in;
  int out;
};

#endif
