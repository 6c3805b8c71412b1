// The process's main loop (EFL Ecore) and its D-Bus library (Eldbus).
//
// MainLoopScope initialises Ecore and Eldbus for its lifetime, with Ecore's system modules
// switched off (they would log about and reach for buses this process does not use), and the
// libraries' own log lines routed into this process's log (tag "PelioPlatform", one line each, no
// backtrace dumps; errors and worse unless EINA_LOG_LEVEL says otherwise). Scopes nest:
// the libraries are shut down when the outermost one ends. Create it on the thread that will run
// the loop; everything else here except runOnMainLoop() belongs to that thread.
#pragma once

#include <functional>

namespace pelio::platform {

class MainLoopScope {
  public:
    MainLoopScope();
    ~MainLoopScope();
    MainLoopScope(const MainLoopScope&) = delete;
    MainLoopScope& operator=(const MainLoopScope&) = delete;
};

// Runs the loop until quitMainLoop() is called.
void runMainLoop();
void quitMainLoop();
// Makes SIGINT, SIGTERM and SIGQUIT end the loop (runMainLoop returns).
void quitMainLoopOnSignals();
// True on the thread that initialised the loop.
bool onMainLoopThread();
// True when a loop is initialised and the caller is on another thread: what main-loop-only code
// checks on entry (without a loop, as in unit tests, any thread is the loop's).
bool offMainLoopThread();
// Runs fn on the main loop thread: at once when called there, otherwise queued to the loop
// (thread-safe). Returns false when no loop is initialised (fn is dropped).
bool runOnMainLoop(std::function<void()> fn);

}  // namespace pelio::platform
