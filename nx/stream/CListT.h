// Inside the library only: lists that need no memory, since what is in them carries the links.
#pragma once

#include <cassert>
#include <utility>

// Membership in one list; what may be in several derives from one for each, told apart by the tag.
template <class Tag>
class CLinkT {
public:
    CLinkT() = default;
    ~CLinkT() { Unlink(); }
    CLinkT(const CLinkT&) = delete;
    CLinkT& operator=(const CLinkT&) = delete;

    bool IsLinked() const { return m_next != this; }

    void Unlink() {
        assert(m_next->m_previous == this && m_previous->m_next == this);
        m_next->m_previous = m_previous;
        m_previous->m_next = m_next;
        m_next = m_previous = this;
    }

private:
    template <class T, class OfTag>
    friend class CListT;

    CLinkT* m_next = this;
    CLinkT* m_previous = this;
};

// A list of objects of T, which derives from CLinkT<Tag>. Belongs to one thread at a time.
template <class T, class Tag>
class CListT {
public:
    bool IsEmpty() const { return !m_head.IsLinked(); }

    // At the end; what is in another list of the tag leaves that.
    void Add(T& member) {
        CLinkT<Tag>& link = member;
        link.Unlink();
        link.m_previous = m_head.m_previous;
        link.m_next = &m_head;
        link.m_previous->m_next = &link;
        m_head.m_previous = &link;
    }

    // All of the other; this one is empty.
    void TakeAll(CListT& other) {
        assert(IsEmpty());
        if (!other.IsEmpty()) {
            m_head.m_next = std::exchange(other.m_head.m_next, &other.m_head);
            m_head.m_previous = std::exchange(other.m_head.m_previous, &other.m_head);
            m_head.m_next->m_previous = &m_head;
            m_head.m_previous->m_next = &m_head;
        }
    }

    // Null when there is none.
    T* TakeFirst() {
        if (IsEmpty()) {
            return nullptr;
        }
        CLinkT<Tag>* const first = m_head.m_next;
        first->Unlink();
        return static_cast<T*>(first);
    }

private:
    CLinkT<Tag> m_head;
};
