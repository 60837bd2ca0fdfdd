// What the resources of the tests with many processes hold: told from a resource's name and how often it was made, so
// that everybody knows what has to be there.

#ifndef TESTS_SUPPORT_CONTENT_H
#define TESTS_SUPPORT_CONTENT_H

#include <string>
#include <vector>

// Writes it into the resource's directory. False when that fails.
bool writeContent(const std::string& path, const std::string& name, unsigned int generation);

// What treeOf gives for it.
std::vector<std::string> treeOfContent(const std::string& name, unsigned int generation);

#endif
