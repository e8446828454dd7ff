#include "tools/publish/release/transfer_limit.h"

#include <cmath>
#include <cstdio>

namespace th::publish {
namespace {

constexpr double kBitsPerMegabit = 1e6;
constexpr double kBytesPerMebibyte = 1 << 20;

std::string formatted(const char* format, double value) {
  char text[32];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

// A link in Mbit/s as a studio would type it: "10", "2.5".
std::string link(double mbit) { return formatted("%g", mbit); }

std::string tooSlowLine(const update::ManifestFile& file, double slowestLinkMbit,
                        double bytesPerSecond) {
  const double seconds = static_cast<double>(file.size) / bytesPerSecond;
  // Rounded up and down to a tenth, so that the link and the part size named do fit.
  const double needed = std::ceil(slowestLinkMbit * seconds / kTransferBudgetSeconds * 10) / 10;
  const double largest =
      std::floor(bytesPerSecond * kTransferBudgetSeconds / kBytesPerMebibyte * 10) / 10;
  return file.path + ": " + formatted("%.1f", static_cast<double>(file.size) / kBytesPerMebibyte) +
         " MiB needs " + formatted("%.0f", std::ceil(seconds)) + " s at " + link(slowestLinkMbit) +
         " Mbit/s, more than the " + std::to_string(kTransferBudgetSeconds) +
         " s a file may take (a launcher gives up on a request after " +
         std::to_string(update::kRequestTimeoutSeconds) +
         " s, then starts the file over); it arrives in time from " + link(needed) +
         " Mbit/s up. Split it into parts of at most " + formatted("%.1f", largest) +
         " MiB, or give --slowest-link " + link(needed) +
         " knowingly: players on slower links could never install it";
}

}  // namespace

std::vector<std::string> overTransferLimit(const std::vector<update::ManifestFile>& files,
                                           double slowestLinkMbit) {
  const double bytesPerSecond = slowestLinkMbit * kBitsPerMegabit / 8;
  std::vector<std::string> lines;
  for (const update::ManifestFile& file : files) {
    if (static_cast<double>(file.size) <= bytesPerSecond * kTransferBudgetSeconds) continue;
    lines.push_back(tooSlowLine(file, slowestLinkMbit, bytesPerSecond));
  }
  return lines;
}

}  // namespace th::publish
