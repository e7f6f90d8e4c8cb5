// The library's test points (diagnostics/test_hooks.hpp) put to use by crash
// tests: a process kills itself with SIGKILL at the n-th reach of a named
// point, or counts how often it reaches each point. Install in a forked child
// before the code under test runs. Builds without test points (Release)
// compile these to nothing; testPointsCompiledIn() then says false.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace er::test {

bool testPointsCompiledIn();

// Every point of the library.
const std::vector<std::string>& libraryTestPoints();

// From now on the process kills itself (SIGKILL) when it reaches `point` for
// the (skip + 1)-th time. Reaches of all points are counted as well.
void killAtPoint(const std::string& point, unsigned skip);

// From now on the process stops itself (SIGSTOP) when it first reaches
// `point`; it goes on where it stopped once it is sent SIGCONT.
void stopAtPoint(const std::string& point);

// From now on reaches of all points are counted, and nothing is killed.
void countPoints();

// How often each point was reached since the last killAtPoint/countPoints.
std::map<std::string, unsigned> pointCounts();

}  // namespace er::test
