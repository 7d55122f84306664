#include <nx/timer/CNxTimerQueueOrderedList.h>

#include <algorithm>
#include <cassert>

// One walk both inserts the node and drops the handler's old one.
NxResult CNxTimerQueueOrderedList::PushNode_l(const CNode& node) {
    bool inserted = false;
    bool replaced = false;
    for (auto at = m_nodes.begin(); at != m_nodes.end() && !(inserted && replaced);) {
        if (at->m_handler == node.m_handler) {
            at = m_nodes.erase(at);
            replaced = true;
            continue;
        }
        if (!inserted && at->m_expiry >= node.m_expiry) {
            m_nodes.insert(at, node);
            inserted = true;
        }
        ++at;
    }
    if (!inserted) {
        m_nodes.push_back(node);
    }
    return replaced ? NX_ERROR_FOUND : NX_OK;
}

NxResult CNxTimerQueueOrderedList::EraseNode_l(INxTimerHandler* handler) {
    const auto found = std::find_if(m_nodes.begin(), m_nodes.end(), [handler](const CNode& node) {
        return node.m_handler == handler;
    });
    if (found == m_nodes.end()) {
        return NX_ERROR_NOT_FOUND;
    }
    m_nodes.erase(found);
    return NX_OK;
}

NxResult CNxTimerQueueOrderedList::RePushNode_l(const CNode& node) {
    const auto place = std::find_if(m_nodes.begin(), m_nodes.end(), [&node](const CNode& other) {
        return other.m_expiry >= node.m_expiry;
    });
    const auto inserted = m_nodes.insert(place, node);
    assert(inserted == m_nodes.begin() || std::prev(inserted)->m_expiry <= node.m_expiry);
    static_cast<void>(inserted);  // without assertions nobody looks at it
    return NX_OK;
}

NxResult CNxTimerQueueOrderedList::PopFirstNode_l(CNode& node) {
    if (m_nodes.empty()) {
        return NX_ERROR_NOT_FOUND;
    }
    node = m_nodes.front();
    m_nodes.pop_front();
    assert(m_nodes.empty() || node.m_expiry <= m_nodes.front().m_expiry);
    return NX_OK;
}

NxResult CNxTimerQueueOrderedList::GetEarliestTime_l(CNxTimeValue& time) const {
    if (m_nodes.empty()) {
        return NX_ERROR_NOT_FOUND;
    }
    time = m_nodes.front().m_expiry;
    return NX_OK;
}
