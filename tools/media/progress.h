// A progress bar on stderr for work that lasts: drawn only on a terminal, only once the work has
// taken a second, redrawn at most ten times a second, and erased when the work ends.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace oxmedia {

class ProgressBar {
 public:
  // pLabel: what is being done ("export"). Draws nothing unless stderr is a terminal.
  explicit ProgressBar(std::string pLabel);
  ~ProgressBar();  // erases the bar
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  // pTotal 0: unknown, only the count is shown.
  void update(int64_t pDone, int64_t pTotal);

  // One line of the bar, pWidth characters at most.
  static std::string render(const std::string& pLabel, int64_t pDone, int64_t pTotal,
                            double pSeconds, int pWidth);

 private:
  using Clock = std::chrono::steady_clock;
  std::string fLabel;
  bool fEnabled;
  bool fDrawn = false;
  Clock::time_point fStart;
  Clock::time_point fLastDraw;
};

}  // namespace oxmedia
