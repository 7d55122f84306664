#include <nx/reactor/CNxEventHandlerRepository.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>

namespace {

constexpr int c_wantedDescriptors = 8192;

}  // namespace

void CNxEventHandlerRepository::CUnmap::operator()(CElement* table) const {
    munmap(table, m_bytes);
}

NxResult CNxEventHandlerRepository::Open() {
    if (IsOpen()) {
        return NX_ERROR_ALREADY_INITIALIZED;
    }
    int count = 0;
    const NxResult limited = SetRlimit(RLIMIT_NOFILE, c_wantedDescriptors, count);
    if (limited != NX_OK) {
        return limited;
    }
    const size_t bytes = static_cast<size_t>(count) * sizeof(CElement);
    void* const table = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (table == MAP_FAILED) {
        return NX_ERROR_FAILURE;
    }
    // All zero bytes: every element is free.
    m_pHandlers = {static_cast<CElement*>(table), CUnmap{bytes}};
    m_nMaxHandler = count;
    return NX_OK;
}

NxResult CNxEventHandlerRepository::Close() {
    m_pHandlers.reset();
    m_nMaxHandler = 0;
    return NX_OK;
}

NxResult CNxEventHandlerRepository::SetRlimit(int resource, int wanted, int& actual) {
    // The C library types the resource as an enumeration for C++.
    const auto which = static_cast<__rlimit_resource_t>(resource);
    rlimit limit{};
    if (getrlimit(which, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return NX_ERROR_UNEXPECTED;
    }
    const int soft = static_cast<int>(limit.rlim_cur);
    actual = wanted;
    if (soft >= wanted) {
        actual = soft;
        return NX_OK;
    }
    const auto target = static_cast<rlim_t>(wanted);
    const rlimit raised{target, std::max(target, limit.rlim_max)};
    if (setrlimit(which, &raised) == 0) {
        return NX_OK;
    }
    if (errno != EPERM) {
        return NX_ERROR_UNEXPECTED;
    }
    // Above the hard limit only a privileged process gets.
    const rlim_t allowed = std::min(target, limit.rlim_max);
    const rlimit most{allowed, limit.rlim_max};
    actual = setrlimit(which, &most) == 0 ? static_cast<int>(allowed) : soft;
    return NX_OK;
}

int CNxEventHandlerRepository::FillFdSets(fd_set& readSet, fd_set& writeSet,
                                          fd_set& /*exceptionSet*/) const {
    int largest = -1;
    const int end = std::min(m_nMaxHandler, static_cast<int>(FD_SETSIZE));
    for (int i = 0; i < end; ++i) {
        const CElement& element = At(i);
        assert(element.m_handler != nullptr || element.m_mask == 0);
        const int fd = element.m_handler != nullptr ? element.m_handler->GetHandle() : -1;
        if (fd < 0 || fd >= FD_SETSIZE) {
            continue;
        }
        if ((element.m_mask & (NX_MASK_INPUT | NX_MASK_CONNECT)) != 0) {
            FD_SET(fd, &readSet);
        }
        if ((element.m_mask & NX_MASK_OUTPUT) != 0) {
            FD_SET(fd, &writeSet);
        }
        largest = std::max(largest, fd);
    }
    return largest;
}
