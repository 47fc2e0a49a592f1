#include <atomic>
#include <cstdio>
#include <unistd.h>

#include "Commands.h"
#include "QuelinLib/Types.h"

namespace FerrimTool {

namespace {
std::atomic<bool> sQuiet{false};

bool showProgress() { return !sQuiet && isatty(STDERR_FILENO); }
} // namespace

void setQuiet(bool quiet) { sQuiet = quiet; }

ProgressBar::ProgressBar(Quelin::String label) : mLabel(std::move(label)) {}

ProgressBar::~ProgressBar() { finish(); }

void ProgressBar::update(double fraction) {
    std::lock_guard lock(mMutex);
    if (mFinished) return;
    int const percent = int(Quelin::clamp(fraction, 0.0, 1.0) * 100.0);
    if (percent <= mShown) return;  // rows finish out of order
    mShown = percent;
    if (!showProgress()) return;
    int const width = 30, filled = percent * width / 100;
    std::fprintf(stderr, "\r%s [%.*s%*s] %3d%%", mLabel.c_str(), filled, "##############################", width - filled, "",
                 percent);
    std::fflush(stderr);
}

void ProgressBar::finish() {
    std::lock_guard lock(mMutex);
    if (mFinished) return;
    mFinished = true;
    if (!showProgress() || mShown < 0) return;
    if (mShown >= 100)
        std::fprintf(stderr, "\n");
    else
        std::fprintf(stderr, "\r%s [##############################] 100%%\n", mLabel.c_str());
}

} // namespace FerrimTool
