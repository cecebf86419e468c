#ifndef HOSTDEVICE_UTILS_REFBASE_H
#define HOSTDEVICE_UTILS_REFBASE_H

/// @file
/// The platform's counted objects.

#include <utils/StrongPointer.h>

#include <atomic>
#include <cstdint>

namespace android {

/// Base of objects that android::sp shares: made with new, deleted with the last strong reference. Weak pointers are
/// not emulated. The count is safe from any thread.
class RefBase {
public:
    RefBase(const RefBase&) = delete;
    RefBase& operator=(const RefBase&) = delete;

    /// Counts one more holder. `id` names it in the platform's debugging aids, which are not here.
    void incStrong(const void* /*id*/) const {
        if (mStrong.fetch_add(1, std::memory_order_relaxed) == 0) const_cast<RefBase*>(this)->onFirstRef();
    }
    /// Counts one less, and deletes the object with the last.
    void decStrong(const void* /*id*/) const {
        // The last holder must see what every other one did to the object before letting go of it.
        if (mStrong.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

protected:
    RefBase() = default;
    virtual ~RefBase() = default;
    /// Called once, when the first strong pointer takes the object.
    virtual void onFirstRef() {}

private:
    mutable std::atomic<int32_t> mStrong{0};
};

}  // namespace android

#endif  // HOSTDEVICE_UTILS_REFBASE_H
