#include "support/results.h"

#include "paths.h"

Text taken(char* handedOut) {
  if (!handedOut) return std::nullopt;
  Text copy(handedOut);
  release(handedOut);
  return copy;
}

std::vector<std::string> taken(char** names, const long& count) {
  std::vector<std::string> copies;
  for (long i = 0; i < count; ++i) copies.push_back(taken(names[i]).value());
  delete[] names;
  return copies;
}

KTAssertionException assertionOf(const std::function<void()>& body) {
  return thrownBy<KTAssertionException>(body, {"", 0, ""});
}

std::string failedExpression(const std::function<void()>& body) {
  const KTAssertionException assertion = assertionOf(body);
  EXPECT_EQ(assertion.m_file, "repositoryhandler/src/libs/KTRepositoryHandler");
  EXPECT_EQ(assertion.m_code, 1);
  EXPECT_FALSE(assertion.m_detailed);
  return assertion.m_expression;
}

std::string rendered(const KTException& exception) {
  std::string text;
  exception.toString(text);
  return text;
}
