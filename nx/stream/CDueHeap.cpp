#include <nx/stream/CDueHeap.h>

#include <cassert>

void CDueHeap::Set(CDueMember& member, std::int64_t due) {
    assert(due != CDueMember::c_never);
    if (member.m_due == CDueMember::c_never) {
        m_heap.push_back(&member);
        member.m_place = static_cast<std::uint32_t>(m_heap.size() - 1);
    }
    member.m_due = due;
    Settle(member);
}

void CDueHeap::Remove(CDueMember& member) {
    if (member.m_due == CDueMember::c_never) {
        return;
    }
    assert(m_heap[member.m_place] == &member);
    member.m_due = CDueMember::c_never;
    CDueMember& last = *m_heap.back();
    m_heap.pop_back();
    if (&last != &member) {
        Put(member.m_place, last);
        Settle(last);
    }
}

// Moves it from its place to where it belongs.
void CDueHeap::Settle(CDueMember& member) {
    size_t place = member.m_place;
    for (size_t parent = 0; place != 0; place = parent) {
        parent = (place - 1) / 2;
        if (m_heap[parent]->m_due <= member.m_due) {
            break;
        }
        Put(place, *m_heap[parent]);
    }
    for (size_t child = 2 * place + 1; child < m_heap.size(); child = 2 * place + 1) {
        if (child + 1 < m_heap.size() && m_heap[child + 1]->m_due < m_heap[child]->m_due) {
            ++child;
        }
        if (member.m_due <= m_heap[child]->m_due) {
            break;
        }
        Put(place, *m_heap[child]);
        place = child;
    }
    Put(place, member);
}

void CDueHeap::Put(size_t place, CDueMember& member) {
    m_heap[place] = &member;
    member.m_place = static_cast<std::uint32_t>(place);
}
