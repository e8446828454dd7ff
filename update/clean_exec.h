#pragma once

namespace th::update {

// For a child between fork and exec. A thread's signal mask, ignored signals and open
// descriptors all survive exec, so a program started from the launcher or the helper would
// otherwise carry whatever the forking thread had: it gets what a shell would give it instead,
// the signals this process was started with (`update/start_signals.h`) and nothing open beyond
// 0-2 (the rest are closed by the exec itself). Its nice value is the process's already.
// Async-signal-safe: system calls only, no allocation, no locks.
void resetInheritedState() noexcept;

}  // namespace th::update
