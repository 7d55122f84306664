// The pointer that holds one reference to a reference-counted object.
#pragma once

#include <cassert>
#include <utility>

// Takes a reference when it gets a non-null pointer and releases it when it lets go. T needs
// AddReference() and ReleaseReference(). One CNxAutoPtr belongs to one thread at a time; several
// of them may share an object across threads.
template <class T>
class CNxAutoPtr {
public:
    CNxAutoPtr() = default;

    // Implicit, so that a raw pointer can be assigned or passed where a holder is wanted.
    CNxAutoPtr(T* object) : m_object(object) {
        if (m_object != nullptr) {
            m_object->AddReference();
        }
    }
    CNxAutoPtr(const CNxAutoPtr& other) : CNxAutoPtr(other.m_object) {}
    CNxAutoPtr(CNxAutoPtr&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    ~CNxAutoPtr() { Release(); }

    // By value: serves copies, moves and raw pointers, and survives assignment to itself.
    CNxAutoPtr& operator=(CNxAutoPtr other) noexcept {
        std::swap(m_object, other.m_object);
        return *this;
    }

    // Takes over a reference that the caller already owns, e.g. that of a factory.
    static CNxAutoPtr Adopt(T* object) {
        CNxAutoPtr holder;
        holder.m_object = object;
        return holder;
    }

    void Reset(T* object = nullptr) { *this = CNxAutoPtr(object); }

    T* Get() const { return m_object; }
    T* operator->() const {
        assert(m_object != nullptr);
        return m_object;
    }
    T& operator*() const {
        assert(m_object != nullptr);
        return *m_object;
    }
    explicit operator bool() const { return m_object != nullptr; }

private:
    void Release() {
        if (m_object != nullptr) {
            m_object->ReleaseReference();
        }
    }

    T* m_object = nullptr;
};
