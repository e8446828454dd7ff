#include "update/clean_exec.h"

#include "update/close_on_exec.h"
#include "update/start_signals.h"

namespace th::update {

void resetInheritedState() noexcept {
  restoreStartSignals();
  keepOnlyStandardStreamsAcrossExec();
}

}  // namespace th::update
