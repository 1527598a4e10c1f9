#ifndef VELA_TESTS_REQUESTIDENTITIES_H
#define VELA_TESTS_REQUESTIDENTITIES_H

#include <cstdint>

/*
 * The tests' hook on the request identity counter. It is not part of the
 * library's interface: the class is the request's friend, defined only here,
 * in the static test-support library.
 */
class PowerNodeRequestTestAccess
{
public:
    // The next PowerNodeRequest::nextId() returns the successor of `value`
    // (1 after the largest value).
    static void setIdCounter(int64_t value);
};

#endif
