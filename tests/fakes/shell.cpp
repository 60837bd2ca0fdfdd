#include <cstdlib>

#include "fakes/fakes.h"

namespace {

FakeShell* current = nullptr;

}  // namespace

FakeShell::FakeShell() { current = this; }
FakeShell::~FakeShell() { current = nullptr; }
FakeShell* FakeShell::announced() { return current; }

int FakeShell::runReal(const std::string& command) {
  static const auto real = realFunction<int (*)(const char*)>("system");
  return real(command.c_str());
}

extern "C" int system(const char* command) {
  if (!current) return FakeShell::runReal(command);
  current->commands.emplace_back(command);
  return current->answer ? current->answer(command) : FakeShell::runReal(command);
}
