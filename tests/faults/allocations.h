// Every allocation of the test program, by malloc or operator new, passes here: it can be refused, and what an
// operation has not given back is known.

#ifndef TESTS_FAULTS_ALLOCATIONS_H
#define TESTS_FAULTS_ALLOCATIONS_H

#include <cstddef>

namespace allocations {

// From now on allocations are counted. The one of that number, from 1, fails; with `onwards` all behind it, too; 0:
// none.
void begin(size_t failing, bool onwards);
// Until here.
void end();

size_t made();  // between the two
size_t kept();  // of these, how many are not freed yet, at the time of the call

}  // namespace allocations

#endif
