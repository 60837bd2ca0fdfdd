// What is in the files of a run.

#ifndef TESTS_FAULTS_CONTENTS_H
#define TESTS_FAULTS_CONTENTS_H

#include <map>
#include <string>
#include <vector>

// Contents by the paths below a resource; that of a file that is a resource itself stands under "".
using Contents = std::map<std::string, std::string>;

// Empty when nothing is there.
Contents contentsOf(const std::string& path);

// Whether all files of `wanted` are there, as they shall be.
bool holds(const Contents& all, const Contents& wanted);
bool isCompleteAt(const std::string& path, const Contents& wanted);

// Without their ends; the last one may have none.
std::vector<std::string> linesOf(const std::string& text);

#endif
