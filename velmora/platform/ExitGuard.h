#pragma once

#include <chrono>

namespace velmora::platform {

// Makes returning from main or calling exit() with work in flight safe for the host. At exit, before the
// static objects of the process (and OpenSSL, which libcurl uses) are torn down, the library's threads stop
// taking work: the pool and the library's main thread run no further block, and every URL session drops its
// transfers without calling back and ends its thread. Blocks already running get a short grace to finish.
// Registering twice is harmless; the guard runs once.
void registerExitGuard();

// What the guard does; a host's exit handler may call it too. No block of the library runs afterwards.
void stopLibraryThreads(std::chrono::milliseconds grace);

// The parts the guard stops, each bounded by the deadline.
void stopDispatchThreads(std::chrono::steady_clock::time_point deadline);
void stopURLSessions(std::chrono::steady_clock::time_point deadline);

}  // namespace velmora::platform
