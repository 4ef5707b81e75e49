// Disturbs the library from outside: the test program defines libc's entry points and operator new,
// so that the real shared library calls these.
#ifndef VUTIL_TESTS_FAULTS_H_
#define VUTIL_TESTS_FAULTS_H_

#include <string>
#include <vector>

namespace vutil::faults {

// What may happen to a system call instead of an errno value.
constexpr int SHORTEN = -1;  // it reads or writes half of what was asked for
constexpr int KILL = -2;     // the process ends before it

// Notes the system calls of this thread, and lets `fault` happen to the n-th, until noted_calls().
void watch_calls(int nth, int fault);
std::vector<std::string> noted_calls();

// Fails the n-th allocation of this thread, and if `all` every later one, until
// allocation_failed().
void fail_allocation(int nth, bool all);
bool allocation_failed();

}  // namespace vutil::faults

#endif  // VUTIL_TESTS_FAULTS_H_
