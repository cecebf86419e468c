#ifndef HOSTDEVICE_UTILS_REFBASE_H
#define HOSTDEVICE_UTILS_REFBASE_H

/// @file
/// The platform's reference-counted objects.

#include <utils/StrongPointer.h>

#include <atomic>
#include <cstdint>

namespace android {

/// Base of objects that android::sp shares. They are created with new and deleted with the last strong reference. Weak
/// pointers are not emulated. The count is thread-safe.
class RefBase {
public:
    RefBase(const RefBase&) = delete;
    RefBase& operator=(const RefBase&) = delete;

    /// Adds a reference. `id` is for the platform's debugging and ignored here.
    void incStrong(const void* /*id*/) const {
        if (mStrong.fetch_add(1, std::memory_order_relaxed) == 0) const_cast<RefBase*>(this)->onFirstRef();
    }
    /// Drops a reference, and deletes the object with the last one.
    void decStrong(const void* /*id*/) const {
        // acq_rel: the destructor must see all writes made through the other references.
        if (mStrong.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

protected:
    RefBase() = default;
    virtual ~RefBase() = default;
    /// Called once, for the first strong reference.
    virtual void onFirstRef() {}

private:
    mutable std::atomic<int32_t> mStrong{0};
};

}  // namespace android

#endif  // HOSTDEVICE_UTILS_REFBASE_H
