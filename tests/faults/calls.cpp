#include "faults/calls.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/fs.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>

namespace {

constexpr uint32_t kWritingFlags = O_WRONLY | O_RDWR | O_CREAT | O_TRUNC;

using Program = std::vector<sock_filter>;

sock_filter statement(int code, uint32_t k) { return {static_cast<uint16_t>(code), 0, 0, k}; }
sock_filter jump(int code, uint32_t k, size_t ifTrue, size_t ifFalse) {
  return {static_cast<uint16_t>(BPF_JMP | BPF_K | code), static_cast<uint8_t>(ifTrue), static_cast<uint8_t>(ifFalse),
          k};
}
sock_filter load(size_t offset) { return statement(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(offset)); }
// The low half: both machines have it first.
sock_filter loadArgument(int index) {
  return load(offsetof(seccomp_data, args) + static_cast<size_t>(index) * sizeof(uint64_t));
}
sock_filter answer(uint32_t action) { return statement(BPF_RET | BPF_K, action); }

std::optional<int> flagsArgument(const Call& call) {
  switch (call.filter) {
    case CallFilter::writingFlags1:
      return 1;
    case CallFilter::writingFlags2:
      return 2;
    default:
      return std::nullopt;
  }
}

void append(Program& to, const Program& more) { to.insert(to.end(), more.begin(), more.end()); }

// When the number is the loaded one: `test`, whose last jump goes on when the call is meant and over one otherwise.
void whenNumber(Program& program, int number, const Program& test) {
  Program block = test;
  block.push_back(answer(SECCOMP_RET_USER_NOTIF));
  if (!test.empty()) block.push_back(answer(SECCOMP_RET_ALLOW));
  program.push_back(jump(BPF_JEQ, static_cast<uint32_t>(number), 0, block.size()));
  append(program, block);
}

Program testOf(const Call& call, bool withReading) {
  if (const auto flags = flagsArgument(call)) {
    if (withReading) return {};
    return {loadArgument(*flags), jump(BPF_JSET, kWritingFlags, 0, 1)};
  }
  if (call.filter == CallFilter::descriptor) return {loadArgument(0), jump(BPF_JGE, 1, 0, 1)};
  if (call.filter == CallFilter::cloning) return {loadArgument(1), jump(BPF_JEQ, FICLONE, 0, 1)};
  return {};
}

Program table(const std::vector<Call>& calls, int switchNumber, bool withReading) {
  Program program = {load(offsetof(seccomp_data, nr))};
  for (const Call& call : calls)
    if (withReading || call.kind != CallKind::reads) whenNumber(program, call.number, testOf(call, withReading));
  whenNumber(program, switchNumber, {loadArgument(0), jump(BPF_JEQ, static_cast<uint32_t>(kSwitchArgument), 0, 1)});
  program.push_back(answer(SECCOMP_RET_ALLOW));
  return program;
}

}  // namespace

std::vector<sock_filter> filterOf(bool withReading) {
  const Program wide = table(calls64(), switchNumber64(), withReading);
  Program program = {load(offsetof(seccomp_data, arch)), jump(BPF_JEQ, AUDIT_ARCH_X86_64, 1, 0),
                     statement(BPF_JMP | BPF_JA, static_cast<uint32_t>(wide.size()))};
  append(program, wide);
  append(program, table(calls32(), switchNumber32(), withReading));
  return program;
}

const Call& callOf(const seccomp_data& data) {
  const auto& calls = data.arch == AUDIT_ARCH_X86_64 ? calls64() : calls32();
  const auto found = std::find_if(calls.begin(), calls.end(), [&](const Call& call) { return call.number == data.nr; });
  if (found == calls.end()) throw std::logic_error("no call was to be watched with number " + std::to_string(data.nr));
  return *found;
}

CallKind kindOf(const Call& call, const seccomp_data& data) {
  const auto flags = flagsArgument(call);
  return flags && !(data.args[*flags] & kWritingFlags) ? CallKind::reads : call.kind;
}

bool canFail(CallKind kind, int error, bool onwards) {
  if (kind == CallKind::closes) return error == EIO || error == ENOSPC || error == EDQUOT;
  return kind != CallKind::reads || error != EINTR || !onwards;
}

bool isSwitch(const seccomp_data& data) {
  return data.nr == (data.arch == AUDIT_ARCH_X86_64 ? switchNumber64() : switchNumber32());
}
