// Counts every operator new of the unit-test process, so that a test can
// show a code path allocates nothing.
#ifndef ZEVA_TESTS_UNIT_NEW_COUNTER_H
#define ZEVA_TESTS_UNIT_NEW_COUNTER_H

namespace zeva::test {

// Calls of the plain operator new forms so far, all threads.
long NewCount();

}  // namespace zeva::test

#endif  // ZEVA_TESTS_UNIT_NEW_COUNTER_H
