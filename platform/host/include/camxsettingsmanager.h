#ifndef HOSTDEVICE_CAMXSETTINGSMANAGER_H
#define HOSTDEVICE_CAMXSETTINGSMANAGER_H

#include <cstddef>
#include <cstdint>

#include "hostdevice/export.h"

namespace CamX {

/// The camera framework's settings, as far as this device has any: one switch.
struct StaticSettings {
    uint8_t otherSettings[15];
    bool enableOfflineLog;
};

// Clients of the framework read the switch by its position.
static_assert(offsetof(StaticSettings, enableOfflineLog) == 15 && sizeof(bool) == 1);

/// Gives out the settings; one per process, never destroyed. Safe from any thread, but see
/// hostdevice::SetOfflineLogSwitch, which changes them.
class HOSTDEVICE_EXPORT SettingsManager {
public:
    /// Never null. The framework's argument, settings to start from, means nothing here.
    static SettingsManager* GetInstance(const void* pStaticSettings);

    /// Never null, and the same record at every call.
    const StaticSettings* GetStaticSettings() const;

    SettingsManager(const SettingsManager&) = delete;
    SettingsManager& operator=(const SettingsManager&) = delete;

private:
    SettingsManager() = default;
};

}  // namespace CamX

#endif  // HOSTDEVICE_CAMXSETTINGSMANAGER_H
