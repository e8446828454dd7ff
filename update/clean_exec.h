#pragma once

namespace th::update {

// For a child between fork and exec. A thread's signal mask, ignored signals and open
// descriptors all survive exec, so a program started from the launcher or the helper would
// otherwise carry whatever the forking thread had: it gets what a shell gives instead, no
// signal blocked, every disposition at its default, and nothing open beyond 0-2 (the rest are
// closed by the exec itself, so a close-on-exec pipe still reports a failed exec).
// Async-signal-safe: system calls only, no allocation, no locks.
void resetInheritedState() noexcept;

}  // namespace th::update
