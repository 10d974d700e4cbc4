#pragma once

/// What SIGTERM, SIGINT and SIGHUP do in the middle of work: one line on the standard error stream, nothing
/// unfinished left in any folder, and then the end that the sender expects, by that signal.
namespace vexo::app {

/// Starts the thread that waits for these signals. To be called before any other thread is made: those inherit
/// that the signals are blocked. A signal that is ignored (nohup) stays ignored.
void watch_signals();

/// Does not return once a signal has come: the program ends from the thread that waits for it.
void wait_if_stopped();

} // namespace vexo::app
