#pragma once

class QWidget;

/**
 * @brief Crash logs: written by a fatal-signal handler into
 * $XDG_STATE_HOME/Hoplift/crashes (default ~/.local/state/Hoplift/crashes), and offered
 * to the user once, on the next start, to mail to kelvara's support.
 */
namespace CrashReporter {
/** @brief Makes fatal signals write a crash log before dying; call early, on the main thread. */
void installHandler();
/** @brief True when there is a crash log newer than the last one offered to the user. */
bool newCrashLogExists();
/** @brief Shows the newest unseen crash log over parent and offers to mail it to support. */
void doCrashSubmitting(QWidget *parent);
} // namespace CrashReporter
