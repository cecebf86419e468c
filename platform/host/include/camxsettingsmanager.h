#ifndef HOSTDEVICE_CAMXSETTINGSMANAGER_H
#define HOSTDEVICE_CAMXSETTINGSMANAGER_H

/// @file
/// The camera framework's settings.

#include <cstddef>
#include <cstdint>

#include "hostdevice/export.h"

/// The camera framework's namespace.
namespace CamX {

/// The camera framework's settings, of which this device has one switch.
struct StaticSettings {
    uint8_t otherSettings[15];  ///< Keeps the switch in its place; all zeros.
    bool enableOfflineLog;      ///< Enables offline logs when no property decides.
};

// Clients of the framework read the switch at this offset.
static_assert(offsetof(StaticSettings, enableOfflineLog) == 15 && sizeof(bool) == 1);

/// Provides the settings. One per process, never destroyed. Thread-safe, except during hostdevice::SetOfflineLogSwitch.
class HOSTDEVICE_EXPORT SettingsManager {
public:
    /// Returns the manager, never null. The argument, initial settings on the framework, is ignored.
    static SettingsManager* GetInstance(const void* pStaticSettings);

    /// Returns the settings, never null and always the same record.
    const StaticSettings* GetStaticSettings() const;

    SettingsManager(const SettingsManager&) = delete;
    SettingsManager& operator=(const SettingsManager&) = delete;

private:
    SettingsManager() = default;
};

}  // namespace CamX

#endif  // HOSTDEVICE_CAMXSETTINGSMANAGER_H
