#ifndef HOSTDEVICE_UTILS_STRONGPOINTER_H
#define HOSTDEVICE_UTILS_STRONGPOINTER_H

/// @file
/// The platform's pointers to counted objects.

#include <cstddef>
#include <type_traits>
#include <utility>

namespace android {

/// Keeps an object alive through the count that the object carries itself (see RefBase).
///
/// The part of the platform's class that code can rely on everywhere. Different pointers to one object may be used from
/// different threads at once; one pointer may not.
template <typename T>
class sp {
public:
    /// Holds nothing.
    sp() = default;
    /// Holds an object or, for null, nothing.
    sp(T* other) : m_ptr(other) {  // NOLINT(google-explicit-constructor): as on the platform
        if (m_ptr != nullptr) m_ptr->incStrong(this);
    }
    /// Holds what the other one holds.
    sp(const sp& other) : sp(other.m_ptr) {}
    /// Takes over what the other one holds, which is empty then.
    sp(sp&& other) noexcept : m_ptr(std::exchange(other.m_ptr, nullptr)) {}
    /// Holds an object of a derived class.
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    sp(U* other) : sp(static_cast<T*>(other)) {}  // NOLINT(google-explicit-constructor)
    /// Holds what a pointer to a derived class holds.
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    sp(const sp<U>& other) : sp(static_cast<T*>(other.get())) {}  // NOLINT(google-explicit-constructor)
    /// Makes an object and holds it; platform 12 and later.
    template <typename... Args>
    static sp make(Args&&... args) {
        return new T(std::forward<Args>(args)...);
    }
    /// Does clear().
    ~sp() { clear(); }

    /// Holds what the other one holds, and drops what it held.
    sp& operator=(sp other) noexcept {
        std::swap(m_ptr, other.m_ptr);
        return *this;
    }

    /// Holds nothing any more. Null before the reference is dropped, so that a destructor which comes back to this
    /// pointer finds it empty.
    void clear() {
        if (T* const old = std::exchange(m_ptr, nullptr)) old->decStrong(this);
    }

    T& operator*() const { return *m_ptr; }                      ///< The object; undefined when there is none.
    T* operator->() const { return m_ptr; }                      ///< The object, or null.
    T* get() const { return m_ptr; }                             ///< The object, or null.
    explicit operator bool() const { return m_ptr != nullptr; }  ///< Whether there is an object.

private:
    T* m_ptr = nullptr;
};

/// @{

/// Compares what the pointers hold, by address.
template <typename T, typename U>
bool operator==(const sp<T>& a, const sp<U>& b) {
    return a.get() == b.get();
}
template <typename T, typename U>
bool operator==(const sp<T>& a, const U* b) {
    return a.get() == b;
}
template <typename T>
bool operator==(const sp<T>& a, std::nullptr_t) {
    return a.get() == nullptr;
}
template <typename T, typename U>
bool operator!=(const sp<T>& a, const U& b) {
    return !(a == b);
}

/// @}

}  // namespace android

#endif  // HOSTDEVICE_UTILS_STRONGPOINTER_H
