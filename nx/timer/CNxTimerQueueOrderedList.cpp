#include <nx/timer/CNxTimerQueueOrderedList.h>

#include <algorithm>

// One walk both inserts the node and drops the handler's old one.
int CNxTimerQueueOrderedList::PushNode_l(const CNode& node) {
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
    return replaced ? 1 : 0;
}

int CNxTimerQueueOrderedList::EraseNode_l(INxTimerHandler* handler) {
    const auto found = std::find_if(m_nodes.begin(), m_nodes.end(), [handler](const CNode& node) {
        return node.m_handler == handler;
    });
    if (found == m_nodes.end()) {
        return 1;
    }
    m_nodes.erase(found);
    return 0;
}

int CNxTimerQueueOrderedList::RePushNode_l(const CNode& node) {
    const auto place = std::find_if(m_nodes.begin(), m_nodes.end(), [&node](const CNode& other) {
        return other.m_expiry >= node.m_expiry;
    });
    m_nodes.insert(place, node);
    return 0;
}

int CNxTimerQueueOrderedList::PopFirstNode_l(CNode& node) {
    if (m_nodes.empty()) {
        return -1;
    }
    node = m_nodes.front();
    m_nodes.pop_front();
    return 0;
}

int CNxTimerQueueOrderedList::GetEarliestTime_l(CNxTimeValue& time) const {
    if (m_nodes.empty()) {
        return -1;
    }
    time = m_nodes.front().m_expiry;
    return 0;
}
