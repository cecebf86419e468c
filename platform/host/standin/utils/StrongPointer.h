#ifndef HOSTDEVICE_UTILS_STRONGPOINTER_H
#define HOSTDEVICE_UTILS_STRONGPOINTER_H

/// @file
/// The platform's pointer to reference-counted objects.

#include <cstddef>
#include <type_traits>
#include <utility>

namespace android {

/// A strong pointer to an object with an intrusive reference count (see RefBase).
///
/// Has the members that all platform versions have, unless noted. Threads may use different pointers to one object at
/// the same time, but not the same pointer.
template <typename T>
class sp {
public:
    /// Creates a null pointer.
    sp() = default;
    /// Refers to an object, which may be null.
    sp(T* other) : m_ptr(other) {  // NOLINT(google-explicit-constructor): as on the platform
        if (m_ptr != nullptr) m_ptr->incStrong(this);
    }
    /// Refers to the object of other.
    sp(const sp& other) : sp(other.m_ptr) {}
    /// Takes over the object of other, which becomes null.
    sp(sp&& other) noexcept : m_ptr(std::exchange(other.m_ptr, nullptr)) {}
    /// Refers to an object of a derived class.
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    sp(U* other) : sp(static_cast<T*>(other)) {}  // NOLINT(google-explicit-constructor)
    /// Refers to the object of a pointer to a derived class.
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    sp(const sp<U>& other) : sp(static_cast<T*>(other.get())) {}  // NOLINT(google-explicit-constructor)
    /// Creates an object. Platform 12 and later.
    template <typename... Args>
    static sp make(Args&&... args) {
        return new T(std::forward<Args>(args)...);
    }
    /// Calls clear().
    ~sp() { clear(); }

    /// Drops its object and refers to that of other.
    sp& operator=(sp other) noexcept {
        std::swap(m_ptr, other.m_ptr);
        return *this;
    }

    /// Drops the object. The pointer is null before the reference is dropped, so that a destructor that uses this
    /// pointer finds it null.
    void clear() {
        if (T* const old = std::exchange(m_ptr, nullptr)) old->decStrong(this);
    }

    T& operator*() const { return *m_ptr; }                      ///< The object. REQUIRES: not null.
    T* operator->() const { return m_ptr; }                      ///< The object, or null.
    T* get() const { return m_ptr; }                             ///< The object, or null.
    explicit operator bool() const { return m_ptr != nullptr; }  ///< Returns true unless null.

private:
    T* m_ptr = nullptr;
};

/// @{

/// Compares the addresses of the objects.
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
