#include "CVEKLoadScreen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "VEKLoadText.h"

namespace {

constexpr size_t DEFAULT_WIDTH = 80;
constexpr double MAX_LEFT = 1e6;  // seconds; beyond, nobody knows

template <class... VALUES>
std::string Format(const char* format, VALUES... values) {
    char text[256];
    snprintf(text, sizeof text, format, values...);
    return text;
}

std::string FormatLeft(double seconds) {
    const auto whole = static_cast<long>(std::clamp(seconds, 0.0, MAX_LEFT));
    return seconds > MAX_LEFT ? "?" : Format("%ld:%02ld", whole / 60, whole % 60);
}

std::string Percentile(const VEK_ST_LOAD_SUMMARY& summary, double percent) {
    return VEK_LOAD_FORMAT_NS(static_cast<double>(summary.total_.latency_.GetPercentile(percent)));
}

// Answers in the last full second.
uint64_t GetLastRate(const VEK_ST_LOAD_SUMMARY& summary) {
    return summary.seconds_.empty() ? 0 : summary.seconds_.back().answered_;
}

std::string MakeBar(double share, size_t size) {
    const auto full = static_cast<size_t>(std::clamp(share, 0.0, 1.0) * static_cast<double>(size));
    return "[" + std::string(full, '#') + std::string(size - full, '.') + "]";
}

}  // namespace

CVEKLoadScreen::CVEKLoadScreen(int fd) : fd_(fd), isTerminal_(isatty(fd) != 0) {}

std::vector<std::string> CVEKLoadScreen::MakeLines(const VEK_ST_LOAD_SUMMARY& summary, double share,
                                                   double secondsLeft, size_t width) {
    const VEK_ST_LOAD_COUNTS& total = summary.total_;
    const auto answered = static_cast<unsigned long long>(total.answered_);
    const auto errors = static_cast<unsigned long long>(total.CountErrors());
    const auto rate = static_cast<unsigned long long>(GetLastRate(summary));
    const std::string left = FormatLeft(secondsLeft) + " left";
    std::vector<std::string> lines;
    if (width < NARROW) {
        lines.push_back(Format("%3.0f%% %llu/s p99 %s err %llu ", share * 100, rate,
                               Percentile(summary, 99).c_str(), errors) +
                        left);
    } else {
        lines.push_back(MakeBar(share, width - 30) + Format(" %3.0f %%  ", share * 100) + left);
        lines.push_back(Format("%llu answered, %llu/s now, %.0f/s in all, %llu errors", answered,
                               rate, summary.GetRate(), errors));
        std::string times = "latency";
        for (const auto& [percent, name] : VEK_LOAD_PERCENTILES()) {
            const std::string next = std::string("  ") + name + " " + Percentile(summary, percent);
            if (times.size() + next.size() >= width) {  // no half numbers
                break;
            }
            times += next;
        }
        lines.push_back(times);
    }
    for (std::string& line : lines) {
        line.resize(std::min(line.size(), width - 1));
    }
    return lines;
}

void CVEKLoadScreen::Draw(const VEK_ST_LOAD_SUMMARY& summary, double share, double secondsLeft) {
    if (!isTerminal_) {
        return;
    }
    winsize size{};
    const bool isKnown = ioctl(fd_, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    Erase();
    std::string text;
    for (const std::string& line :
         MakeLines(summary, share, secondsLeft, isKnown ? size.ws_col : DEFAULT_WIDTH)) {
        text += line + "\n";
        ++lines_;
    }
    Write(text);
}

void CVEKLoadScreen::Erase() {
    if (lines_ > 0) {
        Write("\033[" + std::to_string(lines_) + "A\r\033[J");
        lines_ = 0;
    }
}

void CVEKLoadScreen::Write(const std::string& text) const {
    // What a terminal does not take is not worth more.
    if (write(fd_, text.data(), text.size()) < 0) {
        return;
    }
}
