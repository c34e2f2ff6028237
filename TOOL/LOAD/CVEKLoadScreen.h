// CVEKLoadScreen: shows a run on a terminal while it goes on: some lines that are rewritten, one
// line where the terminal is narrow.
#ifndef CVEK_LOAD_SCREEN_H
#define CVEK_LOAD_SCREEN_H

#include <cstddef>
#include <string>
#include <vector>

#include "VEKLoadSummary.h"

class CVEKLoadScreen {
  public:
    // Below so many columns there is one line.
    static constexpr size_t NARROW = 80;

    // fd: of the terminal.
    explicit CVEKLoadScreen(int fd);

    // Shows how things stand. share: of the run that is done, 0 to 1. Does nothing where there is
    // no terminal.
    void Draw(const VEK_ST_LOAD_SUMMARY& summary, double share, double secondsLeft);
    void Erase();

    // The lines, each shorter than the width.
    static std::vector<std::string> MakeLines(const VEK_ST_LOAD_SUMMARY& summary, double share,
                                              double secondsLeft, size_t width);

  private:
    void Write(const std::string& text) const;

    int fd_;
    bool isTerminal_;
    size_t lines_ = 0;  // that stand on the terminal
};

#endif
