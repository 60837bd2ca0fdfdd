// What a call gave, in a form that a test can compare: strings taken over, exceptions caught.

#ifndef TESTS_SUPPORT_RESULTS_H
#define TESTS_SUPPORT_RESULTS_H

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "KTException.h"

using Text = std::optional<std::string>;  // nullopt: null

// Take over what the library handed out, and release it. The count comes by reference, so that the call that fills it
// may stand in the same expression.
Text taken(char* handedOut);
std::vector<std::string> taken(char** names, const long& count);

// The exception that `body` throws. That none is thrown is a failure, and `instead` comes back, so that a loop goes on
// and names its row. An exception of another class passes through and ends the test.
template <typename Exception>
Exception thrownBy(const std::function<void()>& body, const Exception& instead = {0, ""}) {
  try {
    body();
  } catch (const Exception& exception) {
    return exception;
  }
  ADD_FAILURE() << "nothing was thrown";
  return instead;
}

// The assertion that does not hold in `body`.
KTAssertionException assertionOf(const std::function<void()>& body);

// The expression of the assertion that does not hold in `body`. Expects the rest to be as in every assertion of the
// repository handler: its source path, code 1, no explanation.
std::string failedExpression(const std::function<void()>& body);

// How an exception renders itself.
std::string rendered(const KTException& exception);

#endif
