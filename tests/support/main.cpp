#include <gmock/gmock.h>

#include <clocale>
#include <cstdlib>

// Every test starts from the same environment, whatever the caller's is.
int main(int argc, char** argv) {
  unsetenv("LOG_FACILITY");
  unsetenv("LOG_OPER_FACILITY");
  unsetenv("LOCK_VAR");
  setenv("LC_ALL", "C", 1);
  setenv("TZ", "UTC", 1);
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
