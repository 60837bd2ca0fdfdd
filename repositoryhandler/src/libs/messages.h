// The pieces that log lines and printed lines are built from.

#ifndef REPOSITORYHANDLER_MESSAGES_H
#define REPOSITORYHANDLER_MESSAGES_H

#include <string>

inline std::string quoted(const std::string& text) { return "\"" + text + "\""; }

// `text` with an errno value behind it as one raw character, the character of that code, not as digits:
// the established form of these lines, and what log filters look for. One of the codes is a "%" (ENOLCK): passed
// as a format, such a line ends in an unfinished conversion.
inline std::string withErrorMark(std::string text, int failure) {
  text += static_cast<char>(failure);
  return text;
}

#endif
