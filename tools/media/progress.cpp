// The terminal progress bar of the tools.
#include "progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace oxmedia {

namespace {

int terminalWidth() {
  winsize size = {};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 20) return size.ws_col;
  return 80;
}

}  // namespace

ProgressBar::ProgressBar(std::string pLabel)
    : fLabel(std::move(pLabel)), fEnabled(isatty(STDERR_FILENO) == 1), fStart(Clock::now()) {}

ProgressBar::~ProgressBar() {
  if (fDrawn) std::fprintf(stderr, "\r\033[K");
}

void ProgressBar::update(int64_t pDone, int64_t pTotal) {
  if (!fEnabled) return;
  const Clock::time_point now = Clock::now();
  if (now - fStart < std::chrono::seconds(1)) return;
  if (fDrawn && now - fLastDraw < std::chrono::milliseconds(100)) return;
  const double seconds = std::chrono::duration<double>(now - fStart).count();
  std::fprintf(stderr, "\r%s\033[K",
               render(fLabel, pDone, pTotal, seconds, terminalWidth() - 1).c_str());
  std::fflush(stderr);
  fDrawn = true;
  fLastDraw = now;
}

std::string ProgressBar::render(const std::string& pLabel, int64_t pDone, int64_t pTotal,
                                double pSeconds, int pWidth) {
  char tail[96];
  if (pTotal > 0) {
    const int64_t done = std::min(pDone, pTotal);
    std::snprintf(tail, sizeof(tail), " %3d%% %lld/%lld frames %.1f s",
                  static_cast<int>(100 * done / pTotal), static_cast<long long>(done),
                  static_cast<long long>(pTotal), pSeconds);
  } else {
    std::snprintf(tail, sizeof(tail), " %lld frames %.1f s", static_cast<long long>(pDone),
                  pSeconds);
  }
  std::string line = pLabel + " ";
  const int room = pWidth - static_cast<int>(line.size() + std::string(tail).size()) - 2;
  if (pTotal > 0 && room >= 10) {
    const int bar = std::min(room, 40);
    const int filled =
        static_cast<int>(static_cast<int64_t>(bar) * std::min(pDone, pTotal) / pTotal);
    line += "[" + std::string(static_cast<size_t>(filled), '#') +
            std::string(static_cast<size_t>(bar - filled), '.') + "]";
  }
  line += tail;
  if (static_cast<int>(line.size()) > pWidth && pWidth > 0)
    line.resize(static_cast<size_t>(pWidth));
  return line;
}

}  // namespace oxmedia
