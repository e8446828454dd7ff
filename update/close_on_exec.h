#pragma once

namespace th::update {

// For a child between fork and exec: marks every descriptor above 2 close-on-exec, so that the
// program started gets the standard streams only, while a close-on-exec pipe can still report a
// failed exec. Async-signal-safe: system calls only, no allocation, no locks.
void keepOnlyStandardStreamsAcrossExec() noexcept;

}  // namespace th::update
