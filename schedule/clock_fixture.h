// A wall clock that tests set: a program that links clock_fixture.cpp gets its time() from there.
#pragma once

#include <ctime>

/// What time() gives from now on, on every thread; before the first call it gives the real time.
void set_clock(std::time_t seconds);
