#pragma once

namespace th::update {

// A program started from the launcher or the helper gets the signals this process was given,
// not what its own code and libraries changed since (libcurl ignores SIGPIPE, a thread may block
// anything): a shell keeps ignored signals ignored in what it starts, and `nohup` relies on it.

// Call first thing in `main`, before any library or thread can change a disposition or the mask.
void recordStartSignals() noexcept;

// For a child between fork and exec: every signal ignored at start is ignored again, every other
// one at its default, and the mask is the one `main` began with. Without a record: nothing
// ignored, nothing blocked. Async-signal-safe: system calls only, no allocation, no locks.
void restoreStartSignals() noexcept;

}  // namespace th::update
