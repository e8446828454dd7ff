// The screen wraps the patch notes and the status detail on every frame; this is the cost of
// that per frame, for ordinary notes and for a huge notes file (where the early stop matters).
#include <benchmark/benchmark.h>

#include <string>

#include "launcher/text_wrap.h"

namespace {

std::string notesOfBytes(size_t bytes) {
  const std::string paragraph =
      "FIXED\n- A crash when the ferryman was spoken to while the fog was rolling in.\n"
      "- Lanterns now keep their light across saves; old saves are converted on load.\n\n";
  std::string text;
  while (text.size() < bytes) text += paragraph;
  return text;
}

void BM_WrapPatchNotes(benchmark::State& state) {
  const std::string notes = notesOfBytes(static_cast<size_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(wrappedLines(notes, 74, 18));
}
BENCHMARK(BM_WrapPatchNotes)->Arg(4 << 10)->Arg(4 << 20)->Unit(benchmark::kMicrosecond);

}  // namespace
