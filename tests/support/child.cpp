#include "support/child.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>

namespace {

void send(int descriptor) {
  if (write(descriptor, "x", 1) != 1) throw std::runtime_error("the other process does not listen");
}

void receive(int descriptor) {
  char byte;
  if (read(descriptor, &byte, 1) != 1) throw std::runtime_error("the other process has gone");
}

}  // namespace

void endWithParent(pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const pid_t now = getppid();              // 0 where it is in another process id namespace
  if (now != parent && now != 0) _exit(1);  // it ended before it could be asked
}

void Child::Parent::tell() const { send(out); }
void Child::Parent::await() const { receive(in); }

Child::Child(const std::function<void(const Parent&)>& body) {
  int down[2];
  int up[2];
  if (pipe(down) != 0 || pipe(up) != 0) throw std::runtime_error("no pipes");
  fflush(nullptr);
  const pid_t self = getpid();
  process = fork();
  if (process < 0) throw std::runtime_error("no second process");
  if (process == 0) {
    endWithParent(self);
    close(down[1]);
    close(up[0]);
    Parent parent;
    parent.in = down[0];
    parent.out = up[1];
    try {
      body(parent);
    } catch (const std::exception& failure) {
      ADD_FAILURE() << "in the child: " << failure.what();
    } catch (...) {
      ADD_FAILURE() << "in the child: an exception";
    }
    fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  close(down[0]);
  close(up[1]);
  in = up[0];
  out = down[1];
}

Child::~Child() {
  if (process > 0) {
    kill();
    join();
  }
  close(in);
  close(out);
}

void Child::tell() const { send(out); }
void Child::await() const { receive(in); }
void Child::kill() { ::kill(process, SIGKILL); }

int Child::join() {
  int status = -1;
  waitpid(process, &status, 0);
  process = -1;
  return status;
}
