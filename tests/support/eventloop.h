#ifndef VELA_TESTS_EVENTLOOP_H
#define VELA_TESTS_EVENTLOOP_H

#include <functional>

/*
 * Drives the Qt event loop until `condition` holds. The watchdog only bounds
 * a broken test: it is not a timing requirement, and nothing here sleeps a
 * fixed time. Returns whether the condition held.
 */
bool waitUntil(const std::function<bool()>& condition, int watchdogMs = 10000);

// Processes every event that is already due (posted continuations, zero
// timers) without waiting for new ones.
void drainEvents();

#endif
