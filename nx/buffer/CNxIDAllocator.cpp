#include <nx/buffer/CNxIDAllocator.h>

#include <cassert>
#include <limits>

NxResult CNxIDAllocator::Init(unsigned int min, unsigned int max) {
    if (min == 0 || min >= max || max == std::numeric_limits<unsigned int>::max()) {
        return NX_ERROR_FAILURE;
    }
    const CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    m_fresh.push_back({min, max});
    m_available += max - min + 1ul;
    m_min = min;
    m_max = max;
    return NX_OK;
}

unsigned int CNxIDAllocator::AllocID() {
    const CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    if (m_available == 0) {
        return 0;
    }
    --m_available;
    assert(m_available + 1 >= m_freed.size());
    if (!m_freed.empty()) {
        const unsigned int id = m_freed.back();
        m_freed.pop_back();
        return id;
    }
    assert(!m_fresh.empty());
    Range& range = m_fresh.front();
    assert(range.m_first <= range.m_last);
    const unsigned int id = range.m_first++;
    if (id == range.m_last) {
        m_fresh.pop_front();
    }
    return id;
}

int CNxIDAllocator::FreeID(unsigned int id) {
    const CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    if (id == 0 || id < m_min || id > m_max) {
        return 0;
    }
    m_freed.push_back(id);
    ++m_available;
    assert(m_available >= m_freed.size());
    return 1;
}

unsigned long CNxIDAllocator::GetAvaiableIDCount() const {
    const CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    return m_available;
}
