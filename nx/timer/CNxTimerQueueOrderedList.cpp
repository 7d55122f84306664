#include <nx/timer/CNxTimerQueueOrderedList.h>

#include <algorithm>
#include <cassert>

// The one step that needs memory.
void CNxTimerQueueOrderedList::MakeSpare(const CNode& node) {
    if (m_spare.empty()) {
        m_spare.push_back(node);
    } else {
        m_spare.front() = node;
    }
}

void CNxTimerQueueOrderedList::TakeOut(std::list<CNode>::iterator at) {
    if (m_spare.empty()) {
        m_spare.splice(m_spare.end(), m_nodes, at);
    } else {
        m_nodes.erase(at);
    }
}

// One walk both inserts the node and drops the handler's old one.
NxResult CNxTimerQueueOrderedList::PushNode_l(const CNode& node) {
    MakeSpare(node);
    bool inserted = false;
    bool replaced = false;
    for (auto at = m_nodes.begin(); at != m_nodes.end() && !(inserted && replaced);) {
        if (at->m_handler == node.m_handler) {
            TakeOut(at++);
            replaced = true;
            continue;
        }
        if (!inserted && at->m_expiry >= node.m_expiry) {
            m_nodes.splice(at, m_spare, m_spare.begin());
            inserted = true;
        }
        ++at;
    }
    if (!inserted) {
        m_nodes.splice(m_nodes.end(), m_spare, m_spare.begin());
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
    TakeOut(found);
    return NX_OK;
}

NxResult CNxTimerQueueOrderedList::RePushNode_l(const CNode& node) {
    const auto place = std::find_if(m_nodes.begin(), m_nodes.end(), [&node](const CNode& other) {
        return other.m_expiry >= node.m_expiry;
    });
    MakeSpare(node);
    m_nodes.splice(place, m_spare, m_spare.begin());
    assert(std::prev(place) == m_nodes.begin() || std::prev(place, 2)->m_expiry <= node.m_expiry);
    return NX_OK;
}

NxResult CNxTimerQueueOrderedList::PopFirstNode_l(CNode& node) {
    if (m_nodes.empty()) {
        return NX_ERROR_NOT_FOUND;
    }
    node = m_nodes.front();
    TakeOut(m_nodes.begin());
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
