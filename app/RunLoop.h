#pragma once

/**
 * @brief Runs the event loop for exactly this many seconds and returns: every wait
 * of Hoplift uses it, so stream events, timers and signals go on meanwhile.
 */
void runRunLoop(double seconds);
