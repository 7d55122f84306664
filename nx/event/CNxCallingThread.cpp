#include <nx/event/CNxCallingThread.h>

#include <atomic>

namespace {

std::atomic<CNxCallingThread::Finder> s_finder{nullptr};

}  // namespace

INxEventQueue* CNxCallingThread::GetEventQueue() {
    const Finder finder = s_finder.load(std::memory_order_acquire);
    return finder != nullptr ? finder() : nullptr;
}

void CNxCallingThread::SetFinder(Finder finder) {
    s_finder.store(finder, std::memory_order_release);
}
