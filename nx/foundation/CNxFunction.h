// A function as a value: what a callback is kept in.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

template <class Signature>
class CNxFunctionT;

// Holds one function, lambda or other object that can be called with Args, and that need only be
// movable (std::function takes copyable ones alone). One object belongs to one thread at a time.
//
// NULL MAY BE CALLED: nothing happens, and it returns R(). So whoever takes a callback that need
// not be there asks nothing before he calls it. Null is what is made from nothing or from nullptr,
// from a null pointer and from an empty std::function or CNxFunctionT, and what was moved from.
//
// Up to c_inside bytes that move without throwing lie in the object: a lambda with three pointers.
// For more it allocates, and throws std::bad_alloc without memory. Moving neither allocates nor
// throws.
//
// A function must not move, assign or destroy the object that it is called from: take it out
// first.
template <class R, class... Args>
class CNxFunctionT<R(Args...)> {
public:
    static constexpr std::size_t c_inside = 3 * sizeof(void*);

    CNxFunctionT() = default;

    // These two are not explicit, so that a function can be passed where one is wanted.
    CNxFunctionT(std::nullptr_t) {}

    template <class Function, class Held = std::decay_t<Function>,
              std::enable_if_t<!std::is_same_v<Held, CNxFunctionT> &&
                                   std::is_invocable_r_v<R, Held&, Args...>,
                               int> = 0>
    CNxFunctionT(Function&& function) {
        if (IsNull(function)) {
            return;
        }
        if constexpr (IsHeldInside<Held>()) {
            ::new (m_place) Held(std::forward<Function>(function));
            m_way = &s_inside<Held>;
        } else {
            ::new (m_place) Held*(new Held(std::forward<Function>(function)));
            m_way = &s_outside<Held>;
        }
    }

    CNxFunctionT(CNxFunctionT&& other) noexcept { TakeFrom(other); }

    // What it held ends last: it finds the new function in place.
    CNxFunctionT& operator=(CNxFunctionT&& other) noexcept {
        CNxFunctionT taken(std::move(other));
        CNxFunctionT ending(std::move(*this));
        TakeFrom(taken);
        return *this;
    }

    ~CNxFunctionT() {
        if (m_way != nullptr) {
            m_way->m_end(m_place);
        }
    }

    explicit operator bool() const { return m_way != nullptr; }

    R operator()(Args... args) {
        return m_way != nullptr ? m_way->m_call(m_place, std::forward<Args>(args)...) : R();
    }

private:
    // How to deal with what is held. m_move ends what it has moved.
    struct CWay {
        R (*m_call)(void* place, Args&&... args);
        void (*m_move)(void* from, void* to);
        void (*m_end)(void* place);
    };

    template <class Held>
    static constexpr bool IsHeldInside() {
        return sizeof(Held) <= c_inside && alignof(Held) <= alignof(void*) &&
               std::is_nothrow_move_constructible_v<Held>;
    }

    template <class Held>
    static R Call(Held& held, Args&&... args) {
        if constexpr (std::is_void_v<R>) {
            std::invoke(held, std::forward<Args>(args)...);
        } else {
            return std::invoke(held, std::forward<Args>(args)...);
        }
    }

    template <class Held>
    static Held& At(void* place) {
        return *std::launder(static_cast<Held*>(place));
    }

    template <class Held>
    static constexpr CWay s_inside{[](void* place, Args&&... args) -> R {
                                       return Call(At<Held>(place), std::forward<Args>(args)...);
                                   },
                                   [](void* from, void* to) {
                                       ::new (to) Held(std::move(At<Held>(from)));
                                       std::destroy_at(&At<Held>(from));
                                   },
                                   [](void* place) { std::destroy_at(&At<Held>(place)); }};

    template <class Held>
    static constexpr CWay s_outside{[](void* place, Args&&... args) -> R {
                                        return Call(*At<Held*>(place), std::forward<Args>(args)...);
                                    },
                                    [](void* from, void* to) { ::new (to) Held*(At<Held*>(from)); },
                                    [](void* place) { delete At<Held*>(place); }};

    template <class Other>
    static bool IsNull(const Other& /*function*/) {
        return false;
    }
    template <class Pointee>
    static bool IsNull(Pointee* const& pointer) {
        return pointer == nullptr;
    }
    template <class Member, class Class>
    static bool IsNull(Member Class::*const& pointer) {
        return pointer == nullptr;
    }
    template <class Signature>
    static bool IsNull(const std::function<Signature>& function) {
        return function == nullptr;
    }
    template <class Signature>
    static bool IsNull(const CNxFunctionT<Signature>& function) {
        return !function;
    }

    // Into the empty place.
    void TakeFrom(CNxFunctionT& other) noexcept {
        m_way = std::exchange(other.m_way, nullptr);
        if (m_way != nullptr) {
            m_way->m_move(other.m_place, m_place);
        }
    }

    alignas(void*) unsigned char m_place[c_inside];
    const CWay* m_way = nullptr;
};
